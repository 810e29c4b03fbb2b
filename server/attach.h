/* SPDX-License-Identifier: GPL-2.0-only */
// Making a served disk a block device of this host, and taking it away again.
#pragma once

#include "host_mounts.h"
#include "run_dir.h"

#include <optional>
#include <string>

namespace quendreld
{

// Attaches the disk's file to a free loop device (direct I/O, 512-byte sectors) and adds its partitions. A disk that
// is attached already is left as it is. Throws std::runtime_error for the user.
HostLoop attach_disk(const DiskRecord& disk, bool read_only);

// Takes all loop devices over the disk's file away. Throws when a partition is mounted or otherwise in use, naming
// what uses it; nothing has been changed then. False: it was not attached.
bool detach_disk(const DiskRecord& disk);

// What keeps the disk from being detached: "/dev/loop0p1 is mounted on /mnt; ...".
std::optional<std::string> users_of_disk(const DiskRecord& disk);

} // namespace quendreld
