// SPDX-License-Identifier: GPL-2.0-only
// Block devices: one object per device number, kept from the first look until nothing uses it, with or without a
// disk behind it; and the driver's view of disks.
#include "block.h"

#include <map>
#include <mutex>

using namespace hosted;

namespace
{

struct Table {
    std::mutex mutex; // guards the map and the objects' `referenced`
    std::map<kdev_t, std::unique_ptr<block_device>> devices;
};
Table& table()
{
    static Immortal<Table> the;
    return the.get();
}

// Never null, as its callers have no answer for that.
block_device* find_or_make(Table& t, kdev_t dev)
{
    return with_memory([&] {
        auto& slot = t.devices[dev];
        if (!slot) {
            slot = std::make_unique<block_device>();
            slot->dev = dev;
        }
        return slot.get();
    });
}

} // namespace

namespace hosted
{

block_device* bdev_for(kdev_t dev)
{
    Table& t = table();
    std::lock_guard lock(t.mutex);
    return find_or_make(t, dev);
}

long referenced_block_devices()
{
    Table& t = table();
    std::lock_guard lock(t.mutex);
    long n = 0;
    for (auto& [dev, bdev] : t.devices)
        n += bdev->referenced;
    return n;
}

void forget_block_devices()
{
    Table& t = table();
    std::lock_guard lock(t.mutex);
    std::erase_if(t.devices, [](auto& entry) {
        entry.second->referenced = false;
        return entry.second->disk.load() == nullptr;
    });
}

} // namespace hosted

block_device* bdget(kdev_t dev)
{
    may_sleep(this_task(), "bdget");
    Table& t = table();
    std::lock_guard lock(t.mutex);
    block_device* bdev = find_or_make(t, dev);
    bdev->referenced = true;
    return bdev;
}
kdev_t bdev_dev(block_device* bdev) { return bdev->dev; }
gendisk* bdev_disk(block_device* bdev) { return bdev->disk.load(std::memory_order_acquire); }
block_device* bdev_contains(block_device* bdev) { return bdev->contains.load(std::memory_order_acquire); }

namespace
{
// A partition that is gone has zeros.
int partition_of(block_device* bdev, sector_type* start, sector_type* sectors)
{
    gendisk* disk = bdev_disk(bdev);
    const u32 index = bdev->partition.load(std::memory_order_acquire);
    *start = *sectors = 0;
    if (!disk || !index)
        return 0;
    if (!disk->slots[index].get(start, sectors))
        *start = 0;
    return 1;
}
} // namespace

int bdev_has_partition(block_device* bdev)
{
    sector_type start, sectors;
    return partition_of(bdev, &start, &sectors);
}
sector_type bdev_partition_start(block_device* bdev)
{
    sector_type start, sectors;
    partition_of(bdev, &start, &sectors);
    return start;
}
sector_type bdev_partition_sectors(block_device* bdev)
{
    sector_type start, sectors;
    partition_of(bdev, &start, &sectors);
    return sectors;
}

// The slots can be read at any time; that the driver asks for the lock is checked for platforms where they cannot.
void bdev_lock_partitions(block_device*) { ++hosted::this_task().partition_looks; }
void bdev_unlock_partitions(block_device*)
{
    if (--hosted::this_task().partition_looks < 0)
        hosted::die("the lock of a partition table was released and is not held");
}

request_queue* disk_queue(gendisk* disk) { return disk->queue; }
sector_type disk_capacity(gendisk* disk) { return disk->capacity; }
u32 disk_first_minor(gendisk* disk) { return disk->first_minor; }
u32 disk_minors(gendisk* disk) { return disk->minors; }
u32 disk_partition_slots(gendisk* disk) { return disk->slots_used.load(std::memory_order_acquire); }
int disk_partition(gendisk* disk, u32 index, sector_type* start, sector_type* sectors)
{
    if (hosted::this_task().partition_looks == 0)
        hosted::die("a partition table was read without its lock");
    return index != 0 && index < disk->minors && disk->slots[index].get(start, sectors);
}
