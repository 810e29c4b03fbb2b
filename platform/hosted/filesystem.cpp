// SPDX-License-Identifier: GPL-2.0-only
// Mounted file systems as the driver sees them: super blocks, freezing and thawing, flushing a device.
#include "block.h"
#include "faults.h"
#include "futex.h"

#include <exception>
#include <map>
#include <utility>

using namespace hosted;

struct super_block {
    kdev_t dev;
    u32 block_size;
    std::shared_ptr<Freezer> freezer;
    long references;                // guarded by the table's mutex; the mount's own included
    int frozen = 0;                 // freezes not yet thawed; the same guard
    bool by_freezer = false;        // the last freeze was the freezer's, not the door's; the same guard
    std::shared_ptr<DiskImpl> held; // the disk whose door this one's freeze closed
    sector_type held_start = 0;
    sector_type held_sectors = 0;
};

namespace
{

struct Supers {
    std::mutex mutex;
    std::map<kdev_t, super_block*> mounted;
    std::vector<super_block*> all; // unmounted ones with references too
};
Supers& supers()
{
    static Immortal<Supers> the;
    return the.get();
}

// With the mutex held.
void drop_locked(Supers& s, super_block* sb)
{
    if (sb->references <= 0)
        die("a super block's reference count fell below zero");
    if (--sb->references == 0) {
        std::erase(s.all, sb);
        delete sb;
    }
}

// With a reference, or null. A driver of this kernel's age handles a block within a page, and takes the word of a super
// block for that: one with larger blocks could not be mounted there.
super_block* take(kdev_t dev)
{
    Supers& s = supers();
    std::lock_guard lock(s.mutex);
    auto at = s.mounted.find(dev);
    if (at == s.mounted.end() || at->second->block_size > PAGE_BYTES)
        return nullptr;
    ++at->second->references;
    count(Counter::supers, 1);
    return at->second;
}

std::shared_ptr<DiskImpl> disk_of(block_device* bdev, sector_type& start, sector_type& sectors)
{
    gendisk* disk = bdev_disk(bdev);
    if (!disk)
        return nullptr;
    bool partition = bdev_has_partition(bdev);
    start = partition ? bdev_partition_start(bdev) : 0;
    sectors = partition ? bdev_partition_sectors(bdev) : disk->capacity;
    return disk->disk->shared_from_this();
}

// The driver knows no exceptions: what the freezer throws is a freeze that failed.
bool freeze(super_block* sb, block_device* bdev)
try {
    if (freeze_fails())
        return false;
    if (sb->freezer && sb->freezer->present()) {
        if (!sb->freezer->freeze())
            return false;
        std::lock_guard lock(supers().mutex);
        sb->by_freezer = true;
        return true;
    }
    sector_type start = 0;
    sector_type sectors = 0;
    auto disk = disk_of(bdev, start, sectors);
    if (!disk)
        return true; // nobody can write to it
    if (!disk->close_door(start, sectors))
        return false;
    std::lock_guard lock(supers().mutex);
    sb->held = disk;
    sb->held_start = start;
    sb->held_sectors = sectors;
    return true;
} catch (const std::exception&) {
    return false;
}

} // namespace

super_block* get_super(block_device* bdev)
{
    may_sleep(this_task(), "get_super");
    return take(bdev->dev);
}

void drop_super(super_block* sb)
{
    std::lock_guard lock(supers().mutex);
    count(Counter::supers, -1);
    drop_locked(supers(), sb);
}

u32 super_block_size(super_block* sb) { return sb->block_size; }

super_block* freeze_bdev(block_device* bdev)
{
    Task& task = this_task();
    may_sleep(task, "freeze_bdev");
    before_waiting(task);
    ++task.freezes; // on some kernels it holds a lock from here on, and so it has to be ended even where nothing froze
    super_block* sb = take(bdev->dev);
    if (!sb)
        return nullptr;
    if (!freeze(sb, bdev)) {
        drop_super(sb);
        return nullptr;
    }
    std::lock_guard lock(supers().mutex);
    ++sb->frozen;
    return sb;
}

void thaw_bdev(block_device*, super_block* sb)
{
    may_sleep(this_task(), "thaw_bdev");
    --this_task().freezes;
    if (!sb)
        return;
    std::shared_ptr<DiskImpl> held;
    bool by_freezer = false;
    {
        std::lock_guard lock(supers().mutex);
        by_freezer = std::exchange(sb->by_freezer, false);
        if (sb->frozen == 0)
            die("thaw_bdev of a file system that is not frozen");
        --sb->frozen;
        held = sb->held;
        if (sb->frozen == 0)
            sb->held = nullptr;
    }
    if (by_freezer) {
        try {
            sb->freezer->thaw();
        } catch (const std::exception&) { // it could not report; the driver knows no exceptions
        }
    } else if (held)
        held->open_door(sb->held_start, sb->held_sectors);
    drop_super(sb);
}

void fsync_bdev(block_device* bdev)
{
    Task& task = this_task();
    may_sleep(task, "fsync_bdev");
    if (!bdev)
        return;
    before_waiting(task);
    sector_type start = 0;
    sector_type sectors = 0;
    auto disk = disk_of(bdev, start, sectors);
    if (!disk || disk->gone())
        return;
    struct Flush {
        StoreRequest request{};
        std::atomic<u32> done{0};
    } flush;
    flush.request.op = Op::flush;
    flush.request.done = [](StoreRequest* r, int) {
        auto* f = reinterpret_cast<Flush*>(r);
        f->done.store(1, std::memory_order_release);
        futex_wake(&f->done);
    };
    disk->store().submit(&flush.request);
    while (flush.done.load(std::memory_order_acquire) == 0)
        futex_wait(&flush.done, 0);
}

namespace hosted
{

void mount_file_system(kdev_t dev, u32 block_size, std::shared_ptr<Freezer> freezer)
{
    unmount_file_system(dev);
    Supers& s = supers();
    std::lock_guard lock(s.mutex);
    s.all.reserve(s.all.size() + 1);
    std::unique_ptr<super_block> sb(
        new super_block{dev, block_size, std::move(freezer), 1, 0, false, nullptr, 0, 0});
    s.mounted[dev] = sb.get();
    s.all.push_back(sb.release());
}

void unmount_file_system(kdev_t dev)
{
    Supers& s = supers();
    std::lock_guard lock(s.mutex);
    auto at = s.mounted.find(dev);
    if (at == s.mounted.end())
        return;
    super_block* sb = at->second;
    s.mounted.erase(at);
    drop_locked(s, sb);
}

void forget_supers()
{
    Supers& s = supers();
    std::lock_guard lock(s.mutex);
    std::vector<super_block*> all = s.all;
    for (super_block* sb : all) {
        auto at = s.mounted.find(sb->dev);
        long keep = at != s.mounted.end() && at->second == sb ? 1 : 0;
        while (sb->references > keep) {
            count(Counter::supers, -1);
            bool last = sb->references == 1;
            drop_locked(s, sb);
            if (last)
                break;
        }
    }
}

} // namespace hosted
