/* SPDX-License-Identifier: GPL-2.0-only */
// Devices, backed up one after the other, and what is told of each.
#pragma once

#include "backup_options.h"
#include "command.h"
#include "snapshot_commands.h"

#include <string>
#include <vector>

namespace qbackup
{

struct DeviceBackups {
    int exit = 0;
    std::vector<fs::path> folders; // of the devices that have got a backup: where their backups are
};

// Of a job.
struct JobPart {
    std::string name; // empty: there is no job
    CommandsAround commands;
};

// One that fails keeps no other from being backed up. Throws Interrupted.
DeviceBackups backUp(const Context& context, const BackupOptions& options, const std::vector<std::string>& devices,
                     Progress& progress, const JobPart& job = {});

} // namespace qbackup
