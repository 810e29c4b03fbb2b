/* SPDX-License-Identifier: GPL-2.0-only */
// Puts a backup back: an image file, or a block device, as the backed-up device was at the snapshot.
//
// An image file is written under a temporary name and renamed when it is complete, so it is there whole or not at all.
// Every piece of data is checked against its hash before it is written.
#pragma once

#include "failure.h"
#include "progress.h"
#include "repository.h"

#include <cstdint>

namespace qbackup
{

struct RestoreReport {
    StoredBackup backup;
    std::size_t chainLength = 0;
    std::uint64_t bytesRead = 0;
    double seconds = 0;
};

// `from` and `at` as for findBackup(). `force`: replace an image file that is not empty. Throws Failure.
RestoreReport restoreBackup(const fs::path& from, const fs::path& to, bool force, Progress& progress,
                            const StopSignal& stop, const std::string& at = {});

} // namespace qbackup
