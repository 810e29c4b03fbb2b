/* SPDX-License-Identifier: GPL-2.0-only */
// What lies in the places of one served disk (the whole disk, or its partitions), and the hosted kernel's mounts of the
// file systems among it.
//
// A file system whose place, type and block size did not change is left alone: a backup of it keeps its super block.
#pragma once

#include "guardian.h"
#include "hosted.h"
#include "run_dir.h"
#include "served_disk.h"

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace quendreld
{

// Used by one thread at a time.
class FileSystems
{
  public:
    // `file`: of the disk, by which this host mounts it; empty: it cannot. Then, or without a guardian, nothing is
    // frozen. `report`: gets a line of each freeze.
    FileSystems(ServedDisk& disk, std::string file, std::shared_ptr<Guardian> guardian,
                std::function<void(std::string_view)> report)
        : disk_(disk), file_(std::move(file)), guardian_(std::move(guardian)), report_(std::move(report))
    {
    }

    // Looks at the place of a device, in sectors, and mounts what was not `known`, which becomes what was found;
    // `holds` becomes what else is there. Reads the disk; false: it cannot be read, `news` gets a sentence and all
    // stays. Throws std::bad_alloc.
    bool look(kdev_t device, std::uint64_t start, std::uint64_t sectors, std::optional<FileSystemRecord>& known,
              std::string& holds, std::vector<std::string>& news);
    static void forget(kdev_t device, std::optional<FileSystemRecord>& known); // unmounts it

  private:
    ServedDisk& disk_;
    const std::string file_;
    const std::shared_ptr<Guardian> guardian_;
    const std::function<void(std::string_view)> report_;
};

} // namespace quendreld
