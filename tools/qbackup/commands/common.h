/* SPDX-License-Identifier: GPL-2.0-only */
// What several subcommands need: options that mean the same everywhere, and the way to the control device.
#pragma once

#include "backup_options.h"
#include "client/control_device.h"
#include "file_lock.h"
#include "files.h"
#include "image_repository.h"
#include "prune.h"

#include <CLI/CLI.hpp>

#include <cstdint>
#include <string>

namespace qbackup
{

// Failure when nothing is there.
void requireControl(const fs::path& control);
// For the holder of the run lock: that keeps other qbackups out.
quendrel::ControlDevice openControl(const fs::path& control);

// This machine, called `name` unless that is empty.
Host hostCalled(const std::string& name);

// --wait SECONDS, for another run to end.
CLI::Option* addWait(CLI::App& command, std::uint64_t& seconds);
// --mode of a backup.
CLI::Option* addMode(CLI::App& command, Wanted& wanted);
// --keep-last N and the others.
void addKeepRules(CLI::App& command, KeepRules& rules);
// --at ID|TIME, of several backups in --from.
void addAt(CLI::App& command, std::string& at);

} // namespace qbackup
