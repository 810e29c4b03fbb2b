// SPDX-License-Identifier: GPL-2.0-only
#include "command.h"

#include "common.h"
#include "dropped.h"
#include "output.h"
#include "repository.h"

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

namespace qbackup
{
namespace
{

struct Options {
    fs::path from;
    KeepRules rules;
    bool dryRun = false;
    std::uint64_t wait = 0;
};

int prune(const Context& context, const Options& options)
{
    if (!options.rules.any())
        throw Failure{Exit::usage, "nothing says what to keep; give --keep-last, --keep-daily or another of them"};
    Progress progress{Progress::styleFor(context.quiet)};
    const Patience patience{std::chrono::seconds{options.wait}, &context.stop};
    int exit = 0;
    // What goes wrong with one device is no reason to keep everything of the others.
    for (const fs::path& folder : findRepositories(options.from))
        exit = ofBoth(exit, attempt(context.json, [&] {
            tell(context, pruneBackups(folder, options.rules, options.dryRun, patience, progress, context.stop), options.dryRun);
            return 0;
        }));
    return exit;
}

} // namespace

void addPrune(CLI::App& app, Context& context)
{
    const auto options = std::make_shared<Options>();
    CLI::App* command = app.add_subcommand("prune", "Drop backups of images; what they hold goes into the next one that is kept");
    command->add_option("--from", options->from, "TARGET/HOST/DEVICE, TARGET/HOST or TARGET")->required();
    addKeepRules(*command, options->rules);
    command->add_flag("-n,--dry-run", options->dryRun, "Only tell what would be dropped");
    addWait(*command, options->wait);
    command->callback([&context, options] { context.chosen = [&context, options] { return prune(context, *options); }; });
}

} // namespace qbackup
