// SPDX-License-Identifier: GPL-2.0-only
#include "file_systems.h"

#include "host_freezer.h"

#include <exception>
#include <utility>

namespace quendreld
{

bool FileSystems::look(kdev_t device, std::uint64_t start, std::uint64_t sectors,
                       std::optional<FileSystemRecord>& known, std::string& holds, std::vector<std::string>& news)
{
    std::optional<FileSystemRecord> found;
    std::string other;
    try {
        const auto info = hosted::probe_place(disk_.disk()->store().path(), start * 512, sectors * 512);
        if (info && info->file_system)
            found = FileSystemRecord{info->type, info->block_size};
        else if (info)
            other = info->type;
    } catch (const std::exception& error) {
        news.push_back(disk_.name() + ": cannot look for a file system at sector " + std::to_string(start) + ": " +
                       error.what());
        return false;
    }
    holds = other;
    if (found == known)
        return true;
    forget(device, known);
    if (found) {
        std::shared_ptr<hosted::Freezer> freezer;
        if (guardian_ && !file_.empty())
            freezer = std::make_shared<HostFreezer>(guardian_, file_, start, report_);
        hosted::mount_file_system(device, found->block_size, std::move(freezer));
        known = found; // not before: without memory for the mount the next look tries again
    }
    return true;
}

void FileSystems::forget(kdev_t device, std::optional<FileSystemRecord>& known)
{
    if (known)
        hosted::unmount_file_system(device);
    known.reset();
}

} // namespace quendreld
