/* SPDX-License-Identifier: GPL-2.0-only */
// The subcommands of qbackup. Each prints its results to standard output, as text or as JSON objects, one a line, and
// gives the exit code; failures are thrown, and for standard output they are reported by reportFailure().
#pragma once

#include "engine.h"
#include "failure.h"
#include "files.h"
#include "progress.h"
#include "prune.h"

#include <cstdint>
#include <string>
#include <vector>

namespace qbackup
{

struct CommonOptions {
    fs::path control; // device node or socket
    bool json = false;
    bool quiet = false;
};

struct BackupOptions {
    std::vector<std::string> devices;
    fs::path target;
    Wanted wanted = Wanted::automatic;
    std::uint32_t cacheBlocks = 0;
    std::uint64_t wait = 0; // seconds, for another run to end
    std::string host;       // what this machine is called in a repository of images; empty: its name
    bool fresh = false;     // a folder of its own for a device that has another's name
};

struct RestoreOptions {
    fs::path from;
    std::string at; // time or id; empty: the newest
    fs::path to;
    bool force = false;
};

struct StatusOptions {
    std::string device; // empty: all that the daemon serves
    fs::path target;    // empty: stored backups are not shown
};

struct ImportOptions {
    fs::path from;
    fs::path to;
    std::string host; // as for a backup
    std::uint64_t wait = 0;
};

struct PruneOptions {
    fs::path from;
    KeepRules rules;
    bool dryRun = false;
    std::uint64_t wait = 0;
};

// Tells of a failure on standard error, and with --json on standard output too. Its exit code.
int reportFailure(bool json, int code, const std::string& text);
// What was printed has arrived; Failure when it has not.
void finishOutput();

int commandInit(const CommonOptions& common, const fs::path& target);
int commandBackup(const CommonOptions& common, const BackupOptions& options, const StopSignal& stop);
int commandRestore(const CommonOptions& common, const RestoreOptions& options, const StopSignal& stop);
int commandStatus(const CommonOptions& common, const StatusOptions& options);
int commandVerify(const CommonOptions& common, const fs::path& from, const StopSignal& stop);
int commandImport(const CommonOptions& common, const ImportOptions& options, const StopSignal& stop);
int commandServe(const CommonOptions& common, const fs::path& from, const std::string& at, const fs::path& socket, const StopSignal& stop);
int commandPrune(const CommonOptions& common, const PruneOptions& options, const StopSignal& stop);
int commandList(const CommonOptions& common, const fs::path& from);

} // namespace qbackup
