/* SPDX-License-Identifier: GPL-2.0-only */
// How devices are backed up, as the command line or a job says.
#pragma once

#include "engine.h"
#include "files.h"

#include <cstdint>
#include <map>
#include <string>

namespace qbackup
{

struct BackupOptions {
    fs::path target;
    Wanted wanted = Wanted::automatic;
    std::uint32_t cacheBlocks = 0;
    bool allBlocks = false;           // also those that the file system does not use
    bool compress = false;            // a full backup
    fs::path spool;                   // a directory; empty: none
    std::uint64_t bytesPerSecond = 0; // 0: as fast as it goes
    std::uint64_t wait = 0; // seconds, for another run to end
    std::string host;       // what this machine is called in a repository of images; empty: its name
    bool dryRun = false;    // only tell
    bool fresh = false;     // a folder of its own for a device that has another's name
};

// The words for them.
inline const std::map<std::string, Wanted> wanted_modes{
    {"auto", Wanted::automatic}, {"full", Wanted::full}, {"inc", Wanted::incremental}};

} // namespace qbackup
