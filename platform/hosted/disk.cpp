// SPDX-License-Identifier: GPL-2.0-only
// Disks: their registration with device numbers and partitions, and their removal.
#include "block.h"
#include "futex.h"

#include <algorithm>
#include <ctime>
#include <stdexcept>

namespace hosted
{

namespace
{

struct Disks {
    std::mutex mutex; // guards the lists; before the block device table's
    std::vector<std::shared_ptr<DiskImpl>> present;
    std::vector<std::shared_ptr<DiskImpl>> removed; // whose structures the driver may still point to
};
Disks& disks()
{
    static auto* const the = new Disks;
    return *the;
}

} // namespace

DiskImpl::DiskImpl(DiskConfig config)
    : name_(std::move(config.name)), store_(std::move(config.store)), partitions_(std::move(config.partitions)),
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
    gendisk_.slots.resize(1);
    for (const PartitionSpec& p : partitions_) {
        if (p.index == 0 || p.index >= config.minors)
            throw std::invalid_argument("disk " + name_ + ": partition " + std::to_string(p.index) +
                                        " has no device number");
        if (p.sectors == 0 || p.sectors > gendisk_.capacity || p.start > gendisk_.capacity - p.sectors)
            throw std::invalid_argument("disk " + name_ + ": partition " + std::to_string(p.index) +
                                        " does not lie on the disk");
        if (gendisk_.slots.size() <= p.index)
            gendisk_.slots.resize(p.index + 1);
        gendisk_.slots[p.index] = p;
    }
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

void DiskImpl::attach()
{
    block_device* whole = bdev_for(device(0));
    bdevs_.assign(gendisk_.slots.size(), nullptr);
    for (u32 i = 0; i < gendisk_.slots.size(); ++i) {
        if (i != 0 && gendisk_.slots[i].sectors == 0)
            continue;
        block_device* bdev = bdev_for(device(i));
        bdevs_[i] = bdev;
        bdev->partition = i;
        bdev->contains = whole;
        bdev->disk = &gendisk_;
    }
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
        if (std::erase(all.present, impl) != 0)
            all.removed.push_back(impl);
    }
    if (!is_loaded())
        forget_removed_disks();
}

void forget_removed_disks()
{
    std::vector<std::shared_ptr<DiskImpl>> removed;
    std::lock_guard lock(disks().mutex);
    removed.swap(disks().removed);
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
