// SPDX-License-Identifier: GPL-2.0-only
// Disks: their registration with device numbers and partitions, and their removal.
#include "block.h"
#include "futex.h"

#include <algorithm>
#include <ctime>
#include <list>
#include <stdexcept>

namespace hosted
{

namespace
{

struct Disks {
    std::mutex mutex; // guards the lists; before the block device table's
    std::list<std::shared_ptr<DiskImpl>> present; // lists, so that removing needs no memory
    std::list<std::shared_ptr<DiskImpl>> removed; // whose structures the driver may still point to
};
Disks& disks()
{
    static Immortal<Disks> the;
    return the.get();
}

} // namespace

DiskImpl::DiskImpl(DiskConfig config)
    : name_(std::move(config.name)), store_(std::move(config.store)), bdevs_(config.minors),
      inline_store_(store_ && store_->completes_inline())
{
    if (!store_)
        throw std::invalid_argument("disk " + name_ + " has no store");
    if (config.major > 0xFFF || config.minors == 0 || std::uint64_t(config.first_minor) + config.minors > 0x100000)
        throw std::invalid_argument("disk " + name_ + ": device numbers out of range");
    gendisk_.queue = &queue_;
    gendisk_.disk = this;
    gendisk_.capacity = store_->size() >> 9;
    gendisk_.major = config.major;
    gendisk_.first_minor = config.first_minor;
    gendisk_.minors = config.minors;
    gendisk_.slots = std::make_unique<PartitionSlot[]>(config.minors);
    check(config.partitions);
    partitions_ = std::move(config.partitions);
    spin_lock_init(&queue_.lock);
    queue_.lock_pointer = config.queue_has_lock ? &queue_.lock : nullptr;
    queue_.entry = disk_make_request;
    queue_.own = disk_make_request;
    queue_.disk = this;
}

DiskImpl::~DiskImpl()
{
    if (porter_.joinable()) {
        {
            std::lock_guard lock(door_mutex_);
            porter_ends_ = true;
        }
        door_opened_.notify_all();
        porter_.join();
    }
    store_->drain();
}

kdev_t DiskImpl::device(u32 partition) const { return kdev_make(gendisk_.major, gendisk_.first_minor + partition); }

void DiskImpl::check(const std::vector<PartitionSpec>& partitions) const
{
    for (const PartitionSpec& p : partitions) {
        if (p.index == 0 || p.index >= gendisk_.minors)
            throw std::invalid_argument("disk " + name_ + ": partition " + std::to_string(p.index) +
                                        " has no device number");
        if (p.sectors == 0 || p.sectors > gendisk_.capacity || p.start > gendisk_.capacity - p.sectors)
            throw std::invalid_argument("disk " + name_ + ": partition " + std::to_string(p.index) +
                                        " does not lie on the disk");
    }
}

std::vector<PartitionSpec> DiskImpl::partitions() const
{
    std::lock_guard lock(partitions_mutex_);
    return partitions_;
}

// Gives a partition (0: the whole disk) its block device, before anybody can find it in the table.
void DiskImpl::place(u32 partition, sector_type start, sector_type sectors)
{
    if (!bdevs_[partition]) {
        block_device* bdev = bdev_for(device(partition));
        bdev->partition = partition;
        bdev->contains = bdev_for(device(0));
        bdev->disk = &gendisk_;
        bdevs_[partition] = bdev;
    }
    sector_type start_now, sectors_now;
    gendisk_.slots[partition].get(&start_now, &sectors_now);
    // One that stays is there all the time: a write to it must not pass for one to no partition.
    if (start_now != start || sectors_now != sectors)
        gendisk_.slots[partition].set(start, sectors);
    if (gendisk_.slots_used.load() <= partition)
        gendisk_.slots_used.store(partition + 1);
}

void DiskImpl::set_partitions(std::vector<PartitionSpec> partitions)
{
    check(partitions);
    std::lock_guard lock(partitions_mutex_);
    std::vector<PartitionSpec> now(gendisk_.minors);
    for (const PartitionSpec& p : partitions)
        now[p.index] = p;
    // All that go before any that come: no sector is ever in two.
    for (u32 i = 1; i < gendisk_.slots_used.load(); ++i) {
        sector_type start, sectors;
        if (gendisk_.slots[i].get(&start, &sectors) && (start != now[i].start || sectors != now[i].sectors))
            gendisk_.slots[i].set(0, 0);
    }
    for (const PartitionSpec& p : partitions)
        place(p.index, p.start, p.sectors);
    partitions_ = std::move(partitions);
}

void DiskImpl::attach()
{
    std::lock_guard lock(partitions_mutex_);
    place(0, 0, 0);
    for (const PartitionSpec& p : partitions_)
        place(p.index, p.start, p.sectors);
}

void DiskImpl::detach()
{
    for (block_device* bdev : bdevs_) {
        if (!bdev)
            continue;
        bdev->disk = nullptr;
        bdev->contains = nullptr;
        bdev->partition = 0;
    }
}

void DiskImpl::unplug()
{
    if (gone_.exchange(true))
        return;
    detach();
}

void DiskImpl::wait_until_idle()
{
    before_waiting(this_task());
    while (before_door_count_.load() != 0 || inside_[0].load() != 0 || inside_[1].load() != 0) {
        timespec pause{0, 50000};
        nanosleep(&pause, nullptr);
    }
    store_->drain();
}

std::shared_ptr<Disk> add_disk(DiskConfig config)
{
    auto disk = std::make_shared<DiskImpl>(std::move(config));
    const gendisk& g = disk->disk();
    Disks& all = disks();
    std::lock_guard lock(all.mutex);
    for (auto& other : all.present) {
        const gendisk& o = other->disk();
        if (g.major == o.major && g.first_minor < o.first_minor + o.minors && o.first_minor < g.first_minor + g.minors)
            throw std::invalid_argument("the device numbers of disk " + disk->name() + " overlap those of disk " +
                                        other->name());
    }
    disk->attach();
    all.present.push_back(disk);
    return disk;
}

void remove_disk(const std::shared_ptr<Disk>& disk)
{
    auto impl = std::static_pointer_cast<DiskImpl>(disk);
    impl->wait_until_idle();
    impl->unplug();
    Disks& all = disks();
    {
        std::lock_guard lock(all.mutex);
        const auto at = std::find(all.present.begin(), all.present.end(), impl);
        if (at != all.present.end())
            all.removed.splice(all.removed.end(), all.present, at);
    }
    if (!is_loaded())
        forget_removed_disks();
}

void forget_removed_disks()
{
    std::list<std::shared_ptr<DiskImpl>> removed;
    std::lock_guard lock(disks().mutex);
    removed.swap(disks().removed);
}

ClosedDoors::ClosedDoors()
{
    {
        std::lock_guard lock(disks().mutex);
        with_memory([&] { disks_.assign(disks().present.begin(), disks().present.end()); });
    }
    for (const auto& disk : disks_) {
        auto& one = static_cast<DiskImpl&>(*disk);
        while (!one.close_door(0, one.disk().capacity, true)) {
        }
    }
}

ClosedDoors::~ClosedDoors()
{
    for (const auto& disk : disks_) {
        auto& one = static_cast<DiskImpl&>(*disk);
        one.open_door(0, one.disk().capacity);
    }
}

void restore_all_queues()
{
    Disks& all = disks();
    std::lock_guard lock(all.mutex);
    for (auto* list : {&all.present, &all.removed}) {
        for (auto& disk : *list)
            disk->queue()->entry.store(disk->queue()->own);
    }
}

} // namespace hosted
