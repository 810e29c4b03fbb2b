// SPDX-License-Identifier: GPL-2.0-only
#include "disk_contents.h"

#include <algorithm>
#include <exception>
#include <tuple>
#include <utility>

namespace quendreld
{

namespace
{

constexpr std::size_t most_news = 32;

std::string place_of(const hosted::PartitionSpec& part)
{
    return std::to_string(part.sectors) + " sectors from sector " + std::to_string(part.start) + " on";
}

} // namespace

DiskContents::DiskContents(ServedDisk& served, DiskRecord record, std::string daemon,
                           std::shared_ptr<Guardian> guardian, std::function<void(std::string_view)> report,
                           std::function<void()> changed)
    : served_(served), daemon_(std::move(daemon)),
      file_systems_(served, record.file, std::move(guardian), std::move(report)), changed_(std::move(changed)),
      record_(std::move(record))
{
    name_instances();
    publish();
}

DiskContents::~DiskContents()
{
    FileSystems::forget(device(0), record_.file_system);
    for (PartitionRecord& part : record_.partitions)
        FileSystems::forget(kdev_make(part.major, part.minor), part.file_system);
}

void DiskContents::look()
{
    const std::lock_guard lock(looking_);
    look_held();
}

void DiskContents::catch_up()
{
    if (served_.descriptions() != seen_.load())
        look();
}

void DiskContents::begin_backup()
{
    const std::lock_guard lock(looking_);
    look_held();
    backups_.fetch_add(1);
}

void DiskContents::end_backup()
{
    if (backups_.fetch_sub(1) == 1 && held_back_.load())
        served_.describe_anew(); // for the keeper, or the next client
}

// The driver may have begun to record a device anew whose place has changed since the backup began.
void DiskContents::after_snapshot()
{
    const std::lock_guard lock(looking_);
    if (table_.partitions == used_.partitions)
        return;
    const Slots then = slots_of(used_), now = slots_of(table_);
    hosted::device_changed(device(0));
    for (unsigned i = 1; i < minors_of_disk; ++i)
        if (then[i] != now[i])
            hosted::device_changed(device(i));
}

DiskRecord DiskContents::record() const
{
    const std::lock_guard lock(told_mutex_);
    return told_;
}

std::optional<DiskRecord> DiskContents::take_new_table()
{
    const std::lock_guard lock(looking_);
    if (!std::exchange(new_table_, false))
        return std::nullopt;
    return record_;
}

DiskContents::Slots DiskContents::slots_of(const hosted::PartitionTable& table)
{
    Slots slots{};
    for (const hosted::PartitionSpec& part : table.partitions)
        slots[part.index] = part;
    return slots;
}

std::vector<std::string> DiskContents::take_news()
{
    const std::lock_guard lock(looking_);
    return std::exchange(news_, {});
}

void DiskContents::look_held()
{
    const std::uint64_t descriptions = served_.descriptions();
    bool whole = (table_known_ && descriptions == seen_.load()) || read_table();
    // Set before the backups are looked at: the last of them that ends meanwhile sees it, or is seen here.
    held_back_.store(used_ != table_);
    if (held_back_.load() && backups_.load() == 0) {
        use_table();
        held_back_.store(false);
    }
    name_instances();
    publish(); // what follows may wait for the disk again
    if (record_.partitions.empty())
        whole &= file_systems_.look(device(0), 0, record_.bytes / 512, record_.file_system, record_.holds, news_);
    for (PartitionRecord& part : record_.partitions)
        whole &= file_systems_.look(kdev_make(part.major, part.minor), part.start, part.sectors, part.file_system,
                                    part.holds, news_);
    publish();
    news_.resize(std::min(news_.size(), most_news));
    if (untold_)
        changed_();
    untold_ = false;
    // Only now: whoever finds nothing new to look at may rely on what was found, and on its being told.
    if (whole)
        seen_.store(descriptions);
}

bool DiskContents::read_table()
{
    hosted::PartitionTable now;
    try {
        // As large as it was at the start: nobody is told of what a file has grown by since.
        const hosted::Store& store = served_.disk()->store();
        now = hosted::read_partition_table(store.path(), minors_of_disk, store.size() / 512);
    } catch (const std::exception& error) {
        news_.push_back(record_.name + ": its partition table cannot be read: " + error.what());
        return false;
    }
    if (now == table_ && table_known_)
        return true;
    for (const std::string& line : now.left_out)
        if (std::find(table_.left_out.begin(), table_.left_out.end(), line) == table_.left_out.end())
            news_.push_back(record_.name + ": " + line);
    const bool others = table_known_ && now.partitions != table_.partitions;
    if (others)
        note_changes(now);
    const hosted::PartitionTable before = std::exchange(table_, std::move(now));
    table_known_ = true;
    if (others)
        tell_changes(before);
    return true;
}

// Before anything that may find no memory: a device that has another place is never taken for the one that it was.
void DiskContents::note_changes(const hosted::PartitionTable& next)
{
    const Slots then = slots_of(table_), now = slots_of(next);
    instances_[0] = ++last_instance_;
    hosted::device_changed(device(0));
    for (unsigned i = 1; i < minors_of_disk; ++i) {
        if (then[i] == now[i])
            continue;
        instances_[i] = ++last_instance_;
        hosted::device_changed(device(i));
    }
}

void DiskContents::tell_changes(const hosted::PartitionTable& before)
{
    const Slots then = slots_of(before), now = slots_of(table_);
    for (unsigned i = 1; i < minors_of_disk; ++i) {
        if (then[i] == now[i])
            continue;
        const std::string name = record_.name + std::to_string(i);
        if (now[i].sectors == 0)
            news_.push_back(name + " is gone: its partition was removed");
        else
            news_.push_back(name + " is another device now: " + place_of(now[i]) +
                            (then[i].sectors ? ", it had " + place_of(then[i]) : ""));
    }
    if (backups_.load() != 0)
        news_.push_back(record_.name + ": its new partition table counts when the backup that runs has ended");
}

void DiskContents::use_table()
{
    std::vector<PartitionRecord> parts;
    for (const hosted::PartitionSpec& spec : table_.partitions) {
        const unsigned minor = record_.minor + spec.index;
        parts.push_back(
            {record_.name + std::to_string(spec.index), record_.major, minor, spec.start, spec.sectors, {}, {}});
    }
    for (PartitionRecord& old : record_.partitions) {
        const auto same = std::find_if(parts.begin(), parts.end(), [&](const PartitionRecord& part) {
            return part.minor == old.minor && part.start == old.start && part.sectors == old.sectors;
        });
        if (same != parts.end())
            std::tie(same->file_system, same->holds) = std::tie(old.file_system, old.holds);
        else
            FileSystems::forget(kdev_make(old.major, old.minor), old.file_system);
    }
    if (!parts.empty()) {
        FileSystems::forget(device(0), record_.file_system);
        record_.holds.clear();
    }
    served_.set_table(table_);
    record_.partitions = std::move(parts);
    new_table_ = true;
    used_ = table_; // last: what throws before is done again
}

void DiskContents::name_instances()
{
    record_.instance = daemon_ + "-" + std::to_string(instances_[0]);
    for (PartitionRecord& part : record_.partitions)
        part.instance = daemon_ + "-" + std::to_string(instances_[part.minor - record_.minor]);
}

void DiskContents::publish()
{
    if (told_ == record_)
        return;
    DiskRecord now = record_;
    const std::lock_guard lock(told_mutex_);
    told_ = std::move(now);
    untold_ = true;
}

} // namespace quendreld
