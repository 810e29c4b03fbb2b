// SPDX-License-Identifier: GPL-2.0-only
#include "command.h"

#include "common.h"
#include "device_backups.h"
#include "rate.h"

#include <memory>
#include <string>
#include <vector>

namespace qbackup
{
namespace
{

struct Options {
    std::vector<std::string> devices;
    BackupOptions how;
};

int backup(const Context& context, const Options& options)
{
    Progress progress{Progress::styleFor(context.quiet)};
    requireControl(context.control);
    return backUp(context, options.how, options.devices, progress).exit;
}

} // namespace

void addBackup(CLI::App& app, Context& context)
{
    const auto options = std::make_shared<Options>();
    CLI::App* command = app.add_subcommand("backup", "Back up a device");
    command->add_option("DEVICE,--device", options->devices, "Device: sda1, 8:1 or /dev/sda1; several one after the other")
        ->required();
    command->add_option("--to", options->how.target, "Repository (see init), or another directory, which gets folders")->required();
    addMode(*command, options->how.wanted);
    command->add_flag("--all-blocks", options->how.allBlocks, "Read the blocks that the file system does not use, too");
    command->add_flag("--compress", options->how.compress, "Compress a full backup; those that build on it are not");
    command->add_option("--cache-blocks", options->how.cacheBlocks,
                        "Most overwritten blocks kept in memory during the backup (default: 256 MiB's worth)")
        ->check(CLI::Range(1u, 0xffffffffu));
    command->add_option("--spool", options->how.spool,
                        "Directory, not on the device, for what is overwritten during the backup faster than it can be stored\n"
                        "(default: 64 MiB of it in this program's memory, then the driver's)");
    command->add_option("--limit-rate", options->how.bytesPerSecond, "Store at most so many bytes a second, as 20M (default: no limit)")
        ->option_text("RATE")
        ->transform([](const std::string& text) {
            const auto rate = rateOf(text);
            if (!rate)
                throw CLI::ValidationError{"'" + text + "' is no number of bytes a second, as 500K or 20M"};
            return std::to_string(*rate);
        });
    addWait(*command, options->how.wait);
    command->add_option("--host", options->how.host, "What this machine is called in a repository of images (default: its name)");
    command->add_flag("--new", options->how.fresh, "A folder of its own for a device that has got the name of another one");
    command->add_flag("-n,--dry-run", options->how.dryRun, "Only tell what would be done");
    command->callback([&context, options] { context.chosen = [&context, options] { return backup(context, *options); }; });
}

} // namespace qbackup
