// SPDX-License-Identifier: GPL-2.0-only
#include "command.h"

#include "common.h"
#include "output.h"
#include "prune.h"
#include "repository.h"

#include <cstdint>
#include <cstdio>
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
    for (const fs::path& folder : findRepositories(options.from)) {
        std::vector<Choice> choices;
        // What goes wrong with one device is no reason to keep everything of the others.
        try {
            choices = pruneBackups(folder, options.rules, options.dryRun, patience, progress, context.stop);
        } catch (...) {
            const int code = reportCurrentFailure(context.json);
            exit = exit == 0 ? code : exit;
        }
        for (const Choice& choice : choices) {
            const bool kept = !choice.reasons.empty();
            std::string reasons;
            for (const std::string& reason : choice.reasons)
                reasons += (reasons.empty() ? "" : ", ") + reason;
            if (context.json)
                print({{"ok", true}, {"id", choice.backup.manifest.id}, {"path", choice.backup.path.string()}, {"kept", kept}, {"reasons", choice.reasons}, {"dryRun", options.dryRun}});
            else
                std::printf("%-10s %s%s\n", kept ? "keep" : options.dryRun ? "would drop" : "dropped", choice.backup.path.c_str(), kept ? ("  (" + reasons + ")").c_str() : "");
        }
    }
    return exit;
}

} // namespace

void addPrune(CLI::App& app, Context& context)
{
    const auto options = std::make_shared<Options>();
    CLI::App* command = app.add_subcommand("prune", "Drop backups of images; what they hold goes into the next one that is kept");
    command->add_option("--from", options->from, "TARGET/HOST/DEVICE, TARGET/HOST or TARGET")->required();
    command->add_option("--keep-last", options->rules.last, "Keep so many of the newest");
    command->add_option("--keep-hourly", options->rules.hourly, "Keep the newest of each hour that has one, for so many of them");
    command->add_option("--keep-daily", options->rules.daily, "The same of days");
    command->add_option("--keep-weekly", options->rules.weekly, "The same of weeks (from Monday on)");
    command->add_option("--keep-monthly", options->rules.monthly, "The same of months");
    command->add_option("--keep-yearly", options->rules.yearly, "The same of years");
    command->add_flag("-n,--dry-run", options->dryRun, "Only tell what would be dropped");
    addWait(*command, options->wait);
    command->callback([&context, options] { context.chosen = [&context, options] { return prune(context, *options); }; });
}

} // namespace qbackup
