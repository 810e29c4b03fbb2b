/* SPDX-License-Identifier: GPL-2.0-only */
// The subcommands of qbackup. Each prints its result to standard output, as text or as one JSON object, and gives the
// exit code; failures are thrown.
#pragma once

#include "engine.h"
#include "failure.h"
#include "files.h"
#include "progress.h"

#include <cstdint>
#include <string>

namespace qbackup
{

struct CommonOptions {
    fs::path control; // device node or socket
    bool json = false;
    bool quiet = false;
};

struct BackupOptions {
    std::string device;
    fs::path target;
    Wanted wanted = Wanted::automatic;
    std::uint32_t cacheBlocks = 0;
};

struct RestoreOptions {
    fs::path from;
    fs::path to;
    bool force = false;
};

struct StatusOptions {
    std::string device; // empty: all that the daemon serves
    fs::path target;    // empty: stored backups are not shown
};

int commandBackup(const CommonOptions& common, const BackupOptions& options, const StopSignal& stop);
int commandRestore(const CommonOptions& common, const RestoreOptions& options, const StopSignal& stop);
int commandStatus(const CommonOptions& common, const StatusOptions& options);
int commandVerify(const CommonOptions& common, const fs::path& from, const StopSignal& stop);
int commandList(const CommonOptions& common, const fs::path& from);

} // namespace qbackup
