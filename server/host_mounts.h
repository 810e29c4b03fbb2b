/* SPDX-License-Identifier: GPL-2.0-only */
// What this host has made of a served disk file: loop devices over it, their partitions, and what is mounted there.
// Everything is read from /sys and the mount table at the moment of the call; nothing is cached.
#pragma once

#include "base/descriptor.h"

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace quendreld
{

// The names in a directory but hidden ones; none when it cannot be read. The standard library's iterator ends the process
// when it finds no memory for a name.
std::vector<std::string> names_in(const std::string& directory);

// A block device of this host that shows a range of a served disk.
struct HostDevice {
    std::string node; // "/dev/loop0p1"
    unsigned major, minor;
    unsigned partition;  // 0: the loop device itself
    std::uint64_t start; // sectors from the start of the served disk
    std::uint64_t sectors;
};

struct HostLoop {
    std::string node; // "/dev/loop0"
    unsigned number;
    std::vector<HostDevice> devices; // the loop device first, then its partitions by index
};

// Loop devices whose backing file is `file` (an absolute path without symbolic links).
std::vector<HostLoop> loops_over(const std::string& file);

// Mount points whose file system lies on the device: by device number or, for file systems with several devices, by
// the source that mountinfo names.
std::vector<std::string> mount_points_of(const HostDevice& device);

// Names of devices stacked on this one (device mapper, RAID): "dm-0".
std::vector<std::string> holders_of(const HostDevice& device);

// Where the file system that begins at sector `start` of the disk file is mounted, if it is.
std::optional<std::string> mount_point_at(const std::string& file, std::uint64_t start);

// That mount point, opened, when it was found to be of that file system, on a loop device over that very file: a path
// may lead to whatever is mounted there next, and a loop device may have outlived the file of a daemon before.
struct Mounted {
    std::string point;
    base::Descriptor directory;
};
std::optional<Mounted> open_mount_at(const std::string& file, std::uint64_t start);

} // namespace quendreld
