// SPDX-License-Identifier: GPL-2.0-only
#include "disk_contents.h"

#include "host_freezer.h"

#include <algorithm>
#include <exception>
#include <random>
#include <tuple>
#include <utility>

namespace quendreld
{

namespace
{

std::string random_name()
{
    std::random_device random;
    std::string name;
    for (int i = 0; i < 16; ++i)
        name += "0123456789abcdef"[random() % 16];
    return name;
}

std::string place_of(const hosted::PartitionSpec& part)
{
    return std::to_string(part.sectors) + " sectors from sector " + std::to_string(part.start) + " on";
}

} // namespace

DiskContents::DiskContents(std::vector<Place> places, std::shared_ptr<Guardian> guardian,
                           std::function<void(std::string_view)> report, std::function<void()> changed)
    : guardian_(std::move(guardian)), report_(std::move(report)), changed_(std::move(changed)), daemon_(random_name())
{
    for (Place& place : places) {
        Disk& disk = disks_.emplace_back();
        disk.served = place.disk;
        disk.record = std::move(place.record);
        name_instances(disk);
    }
}

DiskContents::~DiskContents()
{
    for (Disk& disk : disks_) {
        forget(disk, disk.record.minor, disk.record.file_system);
        for (PartitionRecord& part : disk.record.partitions)
            forget(disk, part.minor, part.file_system);
    }
}

void DiskContents::refresh()
{
    bool changed = false;
    {
        std::lock_guard lock(mutex_);
        for (Disk& disk : disks_)
            look(disk, changed);
    }
    if (changed)
        changed_();
}

void DiskContents::catch_up()
{
    bool changed = false;
    for (Disk& disk : disks_) {
        if (disk.served->descriptions() == disk.seen.load())
            continue;
        std::lock_guard lock(mutex_);
        look(disk, changed);
    }
    if (changed)
        changed_();
}

std::vector<DiskRecord> DiskContents::records() const
{
    std::lock_guard lock(mutex_);
    std::vector<DiskRecord> records;
    for (const Disk& disk : disks_)
        records.push_back(disk.record);
    return records;
}

std::vector<DiskRecord> DiskContents::take_new_tables()
{
    std::lock_guard lock(mutex_);
    std::vector<DiskRecord> records;
    for (Disk& disk : disks_)
        if (std::exchange(disk.new_table, false))
            records.push_back(disk.record);
    return records;
}

DiskContents::Disk* DiskContents::disk_of(kdev_t device)
{
    const unsigned index = kdev_minor(device) / minors_of_disk;
    return kdev_major(device) == disks_.front().record.major && index < disks_.size() ? &disks_[index] : nullptr;
}

void DiskContents::before_backup(kdev_t device)
{
    bool changed = false;
    {
        std::lock_guard lock(mutex_);
        Disk* disk = disk_of(device);
        if (!disk)
            return;
        look(*disk, changed);
        ++disk->backups;
    }
    if (changed)
        changed_();
}

void DiskContents::after_backup(kdev_t device)
{
    std::lock_guard lock(mutex_);
    if (Disk* disk = disk_of(device); disk && --disk->backups == 0 && disk->table != disk->used)
        disk->served->describe_anew(); // for the keeper, or the next client
}

// The driver may have begun to record a device anew whose place has changed since the backup began.
void DiskContents::after_snapshot()
{
    std::lock_guard lock(mutex_);
    for (Disk& disk : disks_) {
        if (disk.table.partitions == disk.used.partitions)
            continue;
        const Slots then = slots_of(disk.used), now = slots_of(disk.table);
        hosted::device_changed(disk.served->disk()->device(0));
        for (unsigned i = 1; i < minors_of_disk; ++i)
            if (then[i] != now[i])
                hosted::device_changed(disk.served->disk()->device(i));
    }
}

DiskContents::Slots DiskContents::slots_of(const hosted::PartitionTable& table)
{
    Slots slots{};
    for (const hosted::PartitionSpec& part : table.partitions)
        slots[part.index] = part;
    return slots;
}

void DiskContents::look(Disk& disk, bool& changed)
{
    const std::uint64_t descriptions = disk.served->descriptions();
    const bool whole = (disk.table_known && descriptions == disk.seen.load()) || read_table(disk, changed);
    if (disk.backups == 0 && disk.used != disk.table) {
        use_table(disk);
        changed = true;
    }
    if (disk.record.partitions.empty())
        update(disk, disk.record.minor, 0, disk.record.bytes / 512, disk.record.file_system, disk.record.holds, changed);
    for (PartitionRecord& part : disk.record.partitions)
        update(disk, part.minor, part.start, part.sectors, part.file_system, part.holds, changed);
    // Only now: whoever finds nothing new to look at may rely on what was found.
    if (whole)
        disk.seen.store(descriptions);
}

bool DiskContents::read_table(Disk& disk, bool& changed)
{
    hosted::PartitionTable now;
    try {
        // As large as it was at the start: nobody is told of what a file has grown by since.
        const hosted::Store& store = disk.served->disk()->store();
        now = hosted::read_partition_table(store.path(), minors_of_disk, store.size() / 512);
    } catch (const std::exception& error) {
        report_(disk.record.name + ": its partition table cannot be read: " + error.what());
        return false;
    }
    if (now == disk.table && disk.table_known)
        return true;
    for (const std::string& line : now.left_out)
        if (std::find(disk.table.left_out.begin(), disk.table.left_out.end(), line) == disk.table.left_out.end())
            report_(disk.record.name + ": " + line);
    const bool others = disk.table_known && now.partitions != disk.table.partitions;
    if (others)
        note_changes(disk, now);
    const hosted::PartitionTable before = std::exchange(disk.table, std::move(now));
    disk.table_known = true;
    if (others) {
        changed = true;
        tell_changes(disk, before);
    }
    return true;
}

// Before anything that may find no memory: a device that has another place is never taken for the one that it was.
void DiskContents::note_changes(Disk& disk, const hosted::PartitionTable& next)
{
    const Slots then = slots_of(disk.table), now = slots_of(next);
    disk.instances[0] = ++disk.last_instance;
    hosted::device_changed(disk.served->disk()->device(0));
    for (unsigned i = 1; i < minors_of_disk; ++i) {
        if (then[i] == now[i])
            continue;
        disk.instances[i] = ++disk.last_instance;
        hosted::device_changed(disk.served->disk()->device(i));
    }
}

void DiskContents::tell_changes(Disk& disk, const hosted::PartitionTable& before)
{
    name_instances(disk);
    const Slots then = slots_of(before), now = slots_of(disk.table);
    for (unsigned i = 1; i < minors_of_disk; ++i) {
        if (then[i] == now[i])
            continue;
        const std::string name = disk.record.name + std::to_string(i);
        if (now[i].sectors == 0)
            report_(name + " is gone: its partition was removed");
        else
            report_(name + " is another device now: " + place_of(now[i]) +
                    (then[i].sectors ? ", it had " + place_of(then[i]) : ""));
    }
    if (disk.backups != 0)
        report_(disk.record.name + ": its new partition table counts when the backup that runs has ended");
}

void DiskContents::use_table(Disk& disk)
{
    std::vector<PartitionRecord> parts;
    for (const hosted::PartitionSpec& spec : disk.table.partitions) {
        const unsigned minor = disk.record.minor + spec.index;
        parts.push_back({disk.record.name + std::to_string(spec.index),
                         disk.record.major,
                         minor,
                         spec.start,
                         spec.sectors,
                         {},
                         {}});
    }
    for (PartitionRecord& old : disk.record.partitions) {
        const auto same = std::find_if(parts.begin(), parts.end(), [&](const PartitionRecord& part) {
            return part.minor == old.minor && part.start == old.start && part.sectors == old.sectors;
        });
        if (same != parts.end())
            std::tie(same->file_system, same->holds) = std::tie(old.file_system, old.holds);
        else
            forget(disk, old.minor, old.file_system);
    }
    if (!parts.empty()) {
        forget(disk, disk.record.minor, disk.record.file_system);
        disk.record.holds.clear();
    }
    disk.served->set_table(disk.table);
    disk.record.partitions = std::move(parts);
    disk.used = disk.table;
    disk.new_table = true;
    name_instances(disk);
}

void DiskContents::name_instances(Disk& disk) const
{
    disk.record.instance = daemon_ + "-" + std::to_string(disk.instances[0]);
    for (PartitionRecord& part : disk.record.partitions)
        part.instance = daemon_ + "-" + std::to_string(disk.instances[part.minor - disk.record.minor]);
}

void DiskContents::forget(const Disk& disk, unsigned minor, std::optional<FileSystemRecord>& known)
{
    if (known)
        hosted::unmount_file_system(kdev_make(disk.record.major, minor));
    known.reset();
}

void DiskContents::update(const Disk& disk, unsigned minor, std::uint64_t start, std::uint64_t sectors,
                          std::optional<FileSystemRecord>& known, std::string& holds, bool& changed)
{
    std::optional<FileSystemRecord> found;
    std::string other;
    try {
        const auto info = hosted::probe_place(disk.served->disk()->store().path(), start * 512, sectors * 512);
        if (info && info->file_system)
            found = FileSystemRecord{info->type, info->block_size};
        else if (info)
            other = info->type;
    } catch (const std::exception& error) {
        report_(disk.record.name + ": cannot look for a file system at sector " + std::to_string(start) + ": " +
                error.what());
        return;
    }
    if (std::exchange(holds, other) != other)
        changed = true;
    if (found == known)
        return;
    changed = true;
    forget(disk, minor, known);
    if (!found)
        return;
    std::shared_ptr<hosted::Freezer> freezer;
    if (guardian_ && !disk.record.file.empty())
        freezer = std::make_shared<HostFreezer>(guardian_, disk.record.file, start, report_);
    hosted::mount_file_system(kdev_make(disk.record.major, minor), found->block_size, std::move(freezer));
    known = found; // not before: without memory for the mount the next look tries again
}

} // namespace quendreld
