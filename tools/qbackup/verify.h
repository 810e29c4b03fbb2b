/* SPDX-License-Identifier: GPL-2.0-only */
// Checks stored backups: every hash, and that every backup's chain is complete. Changes nothing.
#pragma once

#include "failure.h"
#include "progress.h"
#include "repository.h"

#include <string>
#include <vector>

namespace qbackup
{

struct VerifyResult {
    fs::path directory;
    std::string id;      // empty when the manifest is not readable
    std::string problem; // empty when the backup can be restored
};

// `from`: one backup, which is checked with all that it builds on, or a repository or target directory, all of whose
// backups are checked. Throws Failure when there is nothing to check.
std::vector<VerifyResult> verifyBackups(const fs::path& from, Progress& progress, const StopSignal& stop);

} // namespace qbackup
