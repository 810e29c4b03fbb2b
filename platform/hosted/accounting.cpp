// SPDX-License-Identifier: GPL-2.0-only
// What is alive, and forgetting it.
#include "block.h"
#include "memory.h"
#include "module.h"

#include <cstdio>

namespace hosted
{

Live live()
{
    release_deferred_memory();
    Live l{};
    l.kmallocs = counted(Counter::kmallocs);
    l.vmallocs = counted(Counter::vmallocs);
    l.pages = counted(Counter::pages);
    l.slab_caches = counted(Counter::slab_caches);
    l.slab_objects = counted(Counter::slab_objects);
    l.bios = counted(Counter::bios);
    l.buffer_heads = counted(Counter::buffer_heads);
    l.supers = counted(Counter::supers);
    l.block_devices = referenced_block_devices();
    l.threads = counted(Counter::threads);
    l.mappings = counted(Counter::mappings);
    l.files = counted(Counter::files);
    return l;
}

std::string describe(const Live& l)
{
    struct Line {
        const char* name;
        long n;
    };
    const Line lines[] = {{"kmallocs", l.kmallocs},
                          {"vmallocs", l.vmallocs},
                          {"pages", l.pages},
                          {"slab caches", l.slab_caches},
                          {"slab objects", l.slab_objects},
                          {"bios", l.bios},
                          {"buffer heads", l.buffer_heads},
                          {"super block references", l.supers},
                          {"block devices", l.block_devices},
                          {"kernel threads", l.threads},
                          {"mappings", l.mappings},
                          {"open files", l.files}};
    std::string out;
    for (const Line& line : lines) {
        if (line.n != 0)
            out += std::string(line.name) + ": " + std::to_string(line.n) + "\n";
    }
    if (l.kmallocs || l.vmallocs)
        describe_allocations(out);
    if (l.pages)
        describe_pages(out);
    if (l.slab_caches)
        describe_slabs(out);
    return out;
}

void forget_leaks()
{
    if (driver_loaded())
        die("forget_leaks while the driver is loaded");
    join_all_threads();
    release_deferred_memory();
    forget_allocations();
    forget_pages();
    forget_slabs();
    forget_supers();
    forget_block_devices();
    // These may still be under way in a store: their memory stays.
    count(Counter::bios, -counted(Counter::bios));
    count(Counter::buffer_heads, -counted(Counter::buffer_heads));
}

} // namespace hosted
