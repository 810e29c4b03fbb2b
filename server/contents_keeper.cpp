// SPDX-License-Identifier: GPL-2.0-only
#include "contents_keeper.h"

#include "loop_partitions.h"

#include <algorithm>
#include <chrono>
#include <exception>
#include <iterator>
#include <new>
#include <random>
#include <string>
#include <utility>

namespace quendreld
{

namespace
{

// Whoever changes a partition table or makes a file system does it in several writes.
constexpr auto settling = std::chrono::milliseconds(200);
// A client that wants to know all disks waits so long for them together.
constexpr auto patience = std::chrono::seconds(2);

constexpr auto between_lines = std::chrono::seconds(1);
constexpr std::size_t most_sentences = 8; // of a line

void note(const std::exception& error, std::vector<std::string>& unsaid) noexcept
try {
    unsaid.emplace_back(error.what());
} catch (const std::bad_alloc&) {
}

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
    : report_(std::move(report))
{
    const std::string daemon = random_name();
    const auto tell = [this, changed = std::move(changed)] {
        if (started_.load())
            changed();
    };
    for (Place& place : places)
        disks_.emplace_back(std::move(place), daemon, guardian, report_, tell);
    for (Disk& disk : disks_) {
        major_ = disk.contents.record().major;
        disk.contents.look();
        (void)disk.contents.take_new_table(); // no loop device is behind it yet
    }
}

ContentsKeeper::~ContentsKeeper() { stop(); }

void ContentsKeeper::start()
{
    started_.store(true);
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

void ContentsKeeper::described_anew(unsigned disk) { wake(disks_[disk]); }

void ContentsKeeper::wake(Disk& disk)
{
    {
        const std::lock_guard lock(mutex_);
        if (std::exchange(disk.described_anew, true))
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
        report_(disk->contents.record().name + ": does not answer; what it holds is told as it was last seen");
}

void ContentsKeeper::before_geometry(kdev_t device)
{
    if (Disk* disk = disk_of(device)) {
        disk->contents.look();
        wake(*disk); // to say what the look has found
    }
}

void ContentsKeeper::before_command(kdev_t device)
{
    if (Disk* disk = disk_of(device))
        disk->contents.catch_up();
}

void ContentsKeeper::before_backup(kdev_t device)
{
    if (Disk* disk = disk_of(device)) {
        disk->contents.begin_backup();
        wake(*disk);
    }
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
    Sentences unsaid;
    auto next_line = std::chrono::steady_clock::now();
    const auto is_asked = [&] { return ends_ || disk.asked != disk.answered; };
    const auto is_wanted = [&] { return disk.described_anew || is_asked(); };
    std::unique_lock lock(mutex_);
    for (bool ends = false; !ends;) {
        if (unsaid.empty())
            news_.wait(lock, is_wanted);
        else
            news_.wait_until(lock, next_line, is_wanted);
        if (disk.described_anew && !is_asked())
            news_.wait_for(lock, settling, is_asked);
        ends = ends_;
        if (is_wanted() && !ends) {
            disk.described_anew = false;
            const std::uint64_t asked = disk.asked;
            const bool at_all_events = asked != disk.answered;
            lock.unlock();
            look(disk, at_all_events, unsaid);
            lock.lock();
            disk.answered = asked;
            disk.late = false;
            answer_.notify_all();
        }
        lock.unlock();
        follow(disk, unsaid);
        if (!unsaid.empty() && (ends || std::chrono::steady_clock::now() >= next_line)) {
            say(unsaid);
            next_line = std::chrono::steady_clock::now() + between_lines;
        }
        lock.lock();
    }
}

void ContentsKeeper::look(Disk& disk, bool at_all_events, Sentences& unsaid)
try {
    if (at_all_events)
        disk.contents.look();
    else
        disk.contents.catch_up();
} catch (const std::exception& error) { // the next question looks again
    note(error, unsaid);
}

// Of what the looks have found, whoever made them.
void ContentsKeeper::follow(Disk& disk, Sentences& unsaid)
try {
    std::ranges::move(disk.contents.take_news(), std::back_inserter(unsaid));
    if (const auto table = disk.contents.take_new_table())
        std::ranges::move(follow_table(*table), std::back_inserter(unsaid));
} catch (const std::exception& error) {
    note(error, unsaid);
}

void ContentsKeeper::say(Sentences& unsaid) const
try {
    std::string line;
    for (std::size_t i = 0; i < std::min(unsaid.size(), most_sentences); ++i)
        line += (i ? "; " : "") + unsaid[i];
    if (unsaid.size() > most_sentences)
        line += "; and more";
    report_(line);
    unsaid.clear();
} catch (const std::bad_alloc&) { // later
}

} // namespace quendreld
