// SPDX-License-Identifier: GPL-2.0-only
#include "command.h"

#include "common.h"
#include "output.h"
#include "restore.h"

#include <cstdio>
#include <memory>
#include <string>

namespace qbackup
{
namespace
{

struct Options {
    fs::path from;
    std::string at; // time or id; empty: the newest
    fs::path to;
    bool force = false;
};

int restore(const Context& context, const Options& options)
{
    Progress progress{Progress::styleFor(context.quiet)};
    const RestoreReport report = restoreBackup(options.from, options.to, options.force, progress, context.stop, options.at);
    if (context.json) {
        print({{"ok", true},
               {"id", report.backup.manifest.id},
               {"to", options.to.string()},
               {"chain", report.chainLength},
               {"bytes", report.backup.manifest.deviceBytes},
               {"bytesRead", report.bytesRead},
               {"seconds", report.seconds}});
    } else {
        std::printf("restored %s to %s: %s, from %zu backup%s, %.1f s\n", report.backup.manifest.id.c_str(),
                    options.to.c_str(), formatBytes(report.backup.manifest.deviceBytes).c_str(), report.chainLength,
                    report.chainLength == 1 ? "" : "s", report.seconds);
    }
    return static_cast<int>(Exit::ok);
}

} // namespace

void addRestore(CLI::App& app, Context& context)
{
    const auto options = std::make_shared<Options>();
    CLI::App* command = app.add_subcommand("restore", "Put a backup back");
    command->add_option("--from", options->from, "Backup, or TARGET, or what below it has the backups of one device")->required();
    addAt(*command, options->at);
    command->add_option("--to", options->to, "Image file to write, or block device to overwrite")->required();
    command->add_flag("--force", options->force, "Replace an image file that is not empty, overwrite a device that holds data");
    command->callback([&context, options] { context.chosen = [&context, options] { return restore(context, *options); }; });
}

} // namespace qbackup
