/* SPDX-License-Identifier: GPL-2.0-only */
// What is refused before anything is started, each with its reason.
#pragma once

#include "device_catalog.h"
#include "host_blocks.h"

#include <cstdint>
#include <optional>

namespace qbackup
{

// What of the file system's block size, in bytes, the driver cannot handle, as a sentence about `name`; nothing when it
// can.
std::optional<std::string> unfitBlockSize(const std::string& name, std::uint32_t block_size);

// Throws Failure (refused) when the device cannot be backed up at all: a whole disk that has partitions, a part of
// another device, a file system whose blocks are known to be of an unfit size.
void refuseUnfitDevice(const Device& device);

// Throws Failure (refused) when this host's kernel cannot freeze the file system mounted on the device.
void refuseUnfitFileSystem(const Device& device);

// Throws Failure (refused) when `place` lies on the device itself: what is written there during the backup would
// change what is being backed up, and waits while the file system is frozen. `role` as in "the target directory".
void refuseOnDevice(const Device& device, const HostBlocks& host, const fs::path& place, const std::string& role);

// The same for standard output and standard error when they are files.
void refuseOutputOnDevice(const Device& device, const HostBlocks& host);

// Throws Failure (refused) when a full backup clearly does not fit: when the file system on the device is mounted here
// and has more in use than the target has free. Otherwise gives a warning when the whole device may not fit.
std::optional<std::string> checkSpace(const Device& device, const HostBlocks& host, const fs::path& target);

} // namespace qbackup
