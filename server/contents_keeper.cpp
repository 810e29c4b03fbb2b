// SPDX-License-Identifier: GPL-2.0-only
#include "contents_keeper.h"

#include "loop_partitions.h"

#include <algorithm>
#include <chrono>
#include <exception>
#include <random>
#include <utility>

namespace quendreld
{

namespace
{

// Whoever changes a partition table or makes a file system does it in several writes.
constexpr auto settling = std::chrono::milliseconds(200);
// A client that wants to know all disks waits so long for them together.
constexpr auto patience = std::chrono::seconds(2);

std::string random_name()
{
    std::random_device random;
    std::string name;
    for (int i = 0; i < 16; ++i)
        name += "0123456789abcdef"[random() % 16];
    return name;
}

} // namespace

ContentsKeeper::ContentsKeeper(std::vector<Place> places, std::shared_ptr<Guardian> guardian,
                               std::function<void(std::string_view)> report, std::function<void()> changed)
    : changed_(std::move(changed))
{
    const std::string daemon = random_name();
    for (Place& place : places)
        disks_.emplace_back(std::move(place), daemon, guardian, report);
    for (Disk& disk : disks_) {
        major_ = disk.contents.record().major;
        disk.contents.look();
        (void)disk.contents.take_new_table(); // no loop device is behind it yet
    }
}

ContentsKeeper::~ContentsKeeper() { stop(); }

void ContentsKeeper::start()
{
    for (Disk& disk : disks_)
        disk.thread = std::thread([this, &disk] { keep(disk); });
}

void ContentsKeeper::stop()
{
    {
        const std::lock_guard lock(mutex_);
        ends_ = true;
    }
    news_.notify_all();
    for (Disk& disk : disks_)
        if (disk.thread.joinable())
            disk.thread.join();
}

std::vector<DiskRecord> ContentsKeeper::records() const
{
    std::vector<DiskRecord> records;
    for (const Disk& disk : disks_)
        records.push_back(disk.contents.record());
    return records;
}

void ContentsKeeper::described_anew(unsigned disk)
{
    {
        const std::lock_guard lock(mutex_);
        if (std::exchange(disks_[disk].described_anew, true))
            return;
    }
    news_.notify_all();
}

void ContentsKeeper::before_open()
{
    std::unique_lock lock(mutex_);
    std::vector<std::uint64_t> tickets;
    for (Disk& disk : disks_)
        tickets.push_back(++disk.asked);
    news_.notify_all();
    const auto answered = [](const Disk& disk, std::uint64_t ticket) { return disk.late || disk.answered >= ticket; };
    if (answer_.wait_for(lock, patience,
                         [&] { return std::equal(disks_.begin(), disks_.end(), tickets.begin(), answered); }))
        return;
    std::vector<Disk*> given_up;
    for (std::size_t i = 0; i < disks_.size(); ++i) {
        if (answered(disks_[i], tickets[i]))
            continue;
        disks_[i].late = true;
        given_up.push_back(&disks_[i]);
    }
    lock.unlock();
    for (Disk* disk : given_up)
        disk->report({disk->contents.record().name, ": does not answer; what it holds is told as it was last seen"});
}

void ContentsKeeper::before_geometry(kdev_t device)
{
    if (Disk* disk = disk_of(device); disk && disk->contents.look())
        changed_();
}

void ContentsKeeper::before_command(kdev_t device)
{
    if (Disk* disk = disk_of(device); disk && disk->contents.catch_up())
        changed_();
}

void ContentsKeeper::before_backup(kdev_t device)
{
    if (Disk* disk = disk_of(device); disk && disk->contents.begin_backup())
        changed_();
}

void ContentsKeeper::after_backup(kdev_t device)
{
    if (Disk* disk = disk_of(device))
        disk->contents.end_backup();
}

void ContentsKeeper::after_snapshot(kdev_t device)
{
    if (Disk* disk = disk_of(device))
        disk->contents.after_snapshot();
}

ContentsKeeper::Disk* ContentsKeeper::disk_of(kdev_t device)
{
    const unsigned index = kdev_minor(device) / minors_of_disk;
    return kdev_major(device) == major_ && index < disks_.size() ? &disks_[index] : nullptr;
}

void ContentsKeeper::keep(Disk& disk)
{
    std::unique_lock lock(mutex_);
    const auto is_asked = [&] { return ends_ || disk.asked != disk.answered; };
    for (;;) {
        news_.wait(lock, [&] { return disk.described_anew || is_asked(); });
        if (!is_asked())
            news_.wait_for(lock, settling, is_asked);
        if (ends_)
            return;
        disk.described_anew = false;
        const std::uint64_t asked = disk.asked;
        const bool at_all_events = asked != disk.answered;
        lock.unlock();
        try {
            if (at_all_events ? disk.contents.look() : disk.contents.catch_up())
                changed_();
        } catch (const std::exception& error) { // the next question looks again
            disk.report(error.what());
        }
        lock.lock();
        disk.answered = asked;
        disk.late = false;
        answer_.notify_all();
        lock.unlock();
        try {
            if (const auto table = disk.contents.take_new_table())
                disk.report(follow_table(*table));
        } catch (const std::exception& error) {
            disk.report(error.what());
        }
        lock.lock();
    }
}

} // namespace quendreld
