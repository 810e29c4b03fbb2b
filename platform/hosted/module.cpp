// SPDX-License-Identifier: GPL-2.0-only
// Loading and unloading the driver, and its reference count.
#include "module.h"
#include "block.h"
#include "faults.h"
#include "memory.h"

#include <cerrno>

using namespace hosted;

struct kernel_module {
    std::mutex loading; // one load or unload at a time; before `mutex`
    std::mutex mutex;   // guards the rest
    bool loaded = false;
    bool going = false;
    int files = 0; // open, or being opened
    std::atomic<int> references{0};
};

namespace
{
kernel_module& the_module()
{
    static Immortal<kernel_module> m;
    return m.get();
}
} // namespace

kernel_module* this_module() { return &the_module(); }

int module_is_going(kernel_module* m)
{
    if (module_going_forced())
        return 1;
    std::lock_guard lock(m->mutex);
    return m->going;
}

int try_module_get(kernel_module* m)
{
    if (module_going_forced())
        return 0;
    std::lock_guard lock(m->mutex);
    if (m->going)
        return 0;
    ++m->references;
    return 1;
}

void module_put(kernel_module* m)
{
    if (m->references.fetch_sub(1) <= 0)
        die("the module's reference count fell below zero");
}

namespace hosted
{

bool module_enter()
{
    kernel_module& m = the_module();
    std::lock_guard lock(m.mutex);
    if (m.going || !m.loaded)
        return false;
    ++m.files;
    return true;
}

void module_leave()
{
    kernel_module& m = the_module();
    std::lock_guard lock(m.mutex);
    --m.files;
}

bool is_loaded()
{
    kernel_module& m = the_module();
    std::lock_guard lock(m.mutex);
    return m.loaded;
}

bool driver_loaded() { return is_loaded(); }
int driver_references() { return the_module().references; }

int load_driver()
{
    kernel_module& m = the_module();
    std::lock_guard loading(m.loading);
    if (is_loaded())
        return -EEXIST;
    driver_static_init();
    int result = driver_init();
    if (result != 0) {
        remove_all_chrdevs();
        return result;
    }
    std::lock_guard lock(m.mutex);
    m.loaded = true;
    return 0;
}

void device_changed(kdev_t dev)
{
    kernel_module& m = the_module();
    std::lock_guard loading(m.loading);
    if (is_loaded())
        driver_device_changed(dev);
}

int unload_driver()
{
    kernel_module& m = the_module();
    std::lock_guard loading(m.loading);
    {
        std::lock_guard lock(m.mutex);
        if (!m.loaded)
            return -ENOENT;
        if (m.files > 0 || m.references > 0)
            return -EBUSY;
        m.going = true;
    }
    driver_exit();
    // Whoever is inside a hook may still be using what it read from the driver, and a hook left on a queue, of a
    // device that lost its disk for instance, would call into a driver that is gone.
    wait_for_hooks();
    restore_all_queues();
    wait_for_hooks();
    remove_all_chrdevs();
    release_deferred_memory();
    join_all_threads();
    {
        std::lock_guard lock(m.mutex);
        m.loaded = m.going = false;
    }
    forget_removed_disks();
    return 0;
}

} // namespace hosted
