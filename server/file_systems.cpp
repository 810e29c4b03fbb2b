// SPDX-License-Identifier: GPL-2.0-only
#include "file_systems.h"

#include "host_freezer.h"

#include <exception>

namespace quendreld
{

FileSystems::FileSystems(std::vector<Disk> disks, std::shared_ptr<Guardian> guardian,
                         std::function<void(std::string_view)> report)
    : guardian_(std::move(guardian)), report_(std::move(report)), disks_(std::move(disks))
{
}

FileSystems::~FileSystems()
{
    for (const Disk& disk : disks_) {
        if (disk.record.file_system)
            hosted::unmount_file_system(kdev_make(disk.record.major, disk.record.minor));
        for (const PartitionRecord& part : disk.record.partitions)
            if (part.file_system)
                hosted::unmount_file_system(kdev_make(part.major, part.minor));
    }
}

void FileSystems::update(const Disk& disk, unsigned minor, std::uint64_t start, std::uint64_t sectors,
                         std::optional<FileSystemRecord>& known, bool& changed)
{
    std::optional<FileSystemRecord> found;
    try {
        if (const auto info = hosted::probe_file_system(disk.image, start * 512, sectors * 512))
            found = FileSystemRecord{info->type, info->block_size};
    } catch (const std::exception& error) {
        report_(disk.record.name + ": cannot look for a file system at sector " + std::to_string(start) + ": " +
                error.what());
        return;
    }
    if (found == known)
        return;
    changed = true;
    const kdev_t device = kdev_make(disk.record.major, minor);
    if (known)
        hosted::unmount_file_system(device);
    known = found;
    if (!found)
        return;
    std::shared_ptr<hosted::Freezer> freezer;
    if (guardian_ && !disk.record.file.empty())
        freezer = std::make_shared<HostFreezer>(guardian_, disk.record.file, start, report_);
    hosted::mount_file_system(device, found->block_size, std::move(freezer));
}

bool FileSystems::refresh()
{
    std::lock_guard lock(mutex_);
    bool changed = false;
    for (Disk& disk : disks_) {
        if (disk.record.partitions.empty())
            update(disk, disk.record.minor, 0, disk.record.bytes / 512, disk.record.file_system, changed);
        for (PartitionRecord& part : disk.record.partitions)
            update(disk, part.minor, part.start, part.sectors, part.file_system, changed);
    }
    return changed;
}

std::vector<DiskRecord> FileSystems::records() const
{
    std::lock_guard lock(mutex_);
    std::vector<DiskRecord> records;
    for (const Disk& disk : disks_)
        records.push_back(disk.record);
    return records;
}

} // namespace quendreld
