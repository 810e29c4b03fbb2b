/* SPDX-License-Identifier: GPL-2.0-only */
// Where two backups show something else.
//
// First it is found out where they may differ: in what they do not build on together; or else, of images, where their
// hashes differ; or else everywhere. There the contents of both are read, and what they are decides: a block that was
// written again with what it had is no difference.
#pragma once

#include "failure.h"
#include "progress.h"
#include "stored_backup.h"

#include <cstdint>
#include <functional>

namespace qbackup
{

struct DifferenceReport {
    std::uint64_t bytes = 0;    // of the larger device
    std::uint32_t unit = 0;     // what is looked at as one, in bytes: a block
    std::uint64_t compared = 0; // bytes that were read of each
    std::uint64_t differing = 0;
    std::uint64_t ranges = 0;
};

// `differs` is called in ascending order, for ranges that do not touch. What only one of two devices of unlike size has
// is a difference. The caller holds both folders for reading. Throws Failure.
DifferenceReport findDifferences(const StoredBackup& a, const StoredBackup& b, Progress& progress,
                                 const StopSignal& stop,
                                 const std::function<void(std::uint64_t offset, std::uint64_t bytes)>& differs);

} // namespace qbackup
