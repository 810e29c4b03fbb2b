/* SPDX-License-Identifier: GPL-2.0-only */
// The jobs of a configuration: what is backed up together, where to, and what is kept of it.
//
// The file is TOML, a table a job. It is understood as a whole or not at all: whatever is wrong in it, also in a job
// that is not asked for, is told with its place. One that names commands is taken from nobody but root and the caller:
// who writes it runs them.
#pragma once

#include "backup_options.h"
#include "prune.h"
#include "snapshot_commands.h"

#include <optional>
#include <string>
#include <vector>

namespace qbackup
{

struct Job {
    std::string name;
    std::vector<std::string> devices;
    BackupOptions how;
    std::optional<fs::path> control;
    KeepRules keep; // none: nothing is dropped
    CommandsAround commands;
};

// By name. Throws Failure: `usage` when something is wrong in the file, `refused` when it is not there or may not be
// trusted.
std::vector<Job> readJobs(const fs::path& file);

} // namespace qbackup
