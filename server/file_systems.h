/* SPDX-License-Identifier: GPL-2.0-only */
// The file systems on a served disk, and keeping the hosted kernel's idea of what is mounted in step with them.
//
// A file system may be made, changed or removed after the daemon started, so the places are looked at again whenever
// the control device is opened. A place whose type and block size did not change is left alone: a backup that runs
// on it keeps its super block.
#pragma once

#include "guardian.h"
#include "hosted.h"
#include "run_dir.h"

#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>
#include <vector>

namespace quendreld
{

class FileSystems
{
  public:
    struct Disk {
        std::string image;
        DiskRecord record; // file systems are filled in here
    };

    FileSystems(std::vector<Disk> disks, std::shared_ptr<Guardian> guardian,
                std::function<void(std::string_view)> report);
    ~FileSystems(); // unmounts all

    bool refresh(); // true: something changed
    std::vector<DiskRecord> records() const;

  private:
    void update(const Disk& disk, unsigned minor, std::uint64_t start, std::uint64_t sectors,
                std::optional<FileSystemRecord>& known, bool& changed);

    const std::shared_ptr<Guardian> guardian_;
    const std::function<void(std::string_view)> report_;
    mutable std::mutex mutex_; // guards disks_; outermost
    std::vector<Disk> disks_;
};

} // namespace quendreld
