/* SPDX-License-Identifier: GPL-2.0-only */
// The partitions of loop devices over a served disk's file, as the kernel of this host knows them. They are put there
// one by one: the host does not read the table itself, and so knows what the daemon's clients know.
#pragma once

#include "host_mounts.h"
#include "run_dir.h"

#include <string>
#include <vector>

namespace quendreld
{

// Adds a disk's partitions to a loop device that was just bound to its file. What the device was before may have left
// partitions, which go when they are in the way. Throws std::runtime_error.
void add_partitions(int loop, const std::string& node, const DiskRecord& disk);

// Brings those of all loop devices over a disk's file in line with its record. A partition in use may grow, but neither
// go nor move: for each that stays behind the result has a sentence, with what to do.
std::vector<std::string> follow_table(const DiskRecord& disk);

// Takes all away from a loop device. Throws std::runtime_error when one is in use; those before it are gone then.
void remove_partitions(int loop, const HostLoop& device, const std::string& disk);

} // namespace quendreld
