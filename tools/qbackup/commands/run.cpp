// SPDX-License-Identifier: GPL-2.0-only
#include "command.h"

#include "common.h"
#include "device_backups.h"
#include "dropped.h"
#include "jobs.h"
#include "output.h"
#include "timed_command.h"

#include <algorithm>
#include <cstdio>
#include <memory>
#include <string>
#include <vector>

namespace qbackup
{
namespace
{

using nlohmann::json;

struct Options {
    fs::path config = "/etc/quendrel/qbackup.toml";
    std::vector<std::string> names;
    bool list = false;
    // What is given here goes before what the job says.
    BackupOptions how;
    CLI::Option* to = nullptr;
    CLI::Option* mode = nullptr;
    CLI::Option* wait = nullptr;
};

std::vector<Job> chosenJobs(const Options& options)
{
    const std::vector<Job> all = readJobs(options.config);
    std::vector<Job> chosen;
    for (const std::string& name : options.names) {
        const auto job = std::find_if(all.begin(), all.end(), [&](const Job& each) { return each.name == name; });
        if (job == all.end()) {
            std::string known;
            for (const Job& each : all)
                known += (known.empty() ? "; there are " : ", ") + each.name;
            throw Failure{Exit::usage, "there is no job " + name + " in " + options.config.string() + known};
        }
        chosen.push_back(*job);
    }
    if (options.list && options.names.empty())
        chosen = all;
    for (Job& job : chosen) {
        if (options.to->count() > 0)
            job.how.target = options.how.target;
        if (options.mode->count() > 0)
            job.how.wanted = options.how.wanted;
        if (options.wait->count() > 0)
            job.how.wait = options.how.wait;
    }
    return chosen;
}

// What there is to keep, in its words.
std::vector<std::pair<std::string, unsigned>> rulesOf(const KeepRules& keep)
{
    std::vector<std::pair<std::string, unsigned>> rules{{"last", keep.last},       {"hourly", keep.hourly},
                                                        {"daily", keep.daily},     {"weekly", keep.weekly},
                                                        {"monthly", keep.monthly}, {"yearly", keep.yearly}};
    std::erase_if(rules, [](const auto& rule) { return rule.second == 0; });
    return rules;
}

void tell(const Context& context, const Job& job)
{
    const auto mode = std::find_if(wanted_modes.begin(), wanted_modes.end(),
                                   [&](const auto& each) { return each.second == job.how.wanted; });
    if (context.json) {
        json document{{"ok", true},
                      {"job", job.name},
                      {"devices", job.devices},
                      {"target", job.how.target.string()},
                      {"mode", mode->first},
                      {"wait", job.how.wait},
                      {"before", job.commands.before},
                      {"after", job.commands.after},
                      {"timeout", job.commands.timeout.count()}};
        document["keep"] = json::object();
        for (const auto& [name, count] : rulesOf(job.keep))
            document["keep"][name] = count;
        if (!job.how.host.empty())
            document["host"] = job.how.host;
        if (job.how.allBlocks)
            document["allBlocks"] = true;
        if (job.how.compress)
            document["compress"] = true;
        if (!job.how.spool.empty())
            document["spool"] = job.how.spool.string();
        if (job.how.bytesPerSecond != 0)
            document["limitRate"] = job.how.bytesPerSecond;
        if (job.how.cacheBlocks != 0)
            document["cacheBlocks"] = job.how.cacheBlocks;
        if (job.control)
            document["control"] = job.control->string();
        print(document);
        return;
    }
    std::string text = job.name + ":";
    for (const std::string& device : job.devices)
        text += " " + device;
    text += " to " + job.how.target.string();
    for (const auto& [name, count] : rulesOf(job.keep))
        text += (name == rulesOf(job.keep)[0].first ? ", keeping " : ", ") + name + " " + std::to_string(count);
    std::printf("%s\n", text.c_str());
}

int runJob(const Context& context, const Job& job, Progress& progress)
{
    Context here = context;
    if (job.control && !context.controlGiven)
        here.control = *job.control;
    requireControl(here.control);
    for (const auto& command : {job.commands.before, job.commands.after})
        if (!command.empty())
            expectCommand(command[0]);
    if (job.keep.any() && !isImageRepository(job.how.target))
        throw Failure{Exit::refused,
                      job.how.target.string() +
                          " is no repository of images, and only from one can backups be dropped: make one "
                          "('qbackup init'), or take 'keep' out of job " +
                          job.name};

    const DeviceBackups done = backUp(here, job.how, job.devices, progress, {job.name, job.commands});
    int exit = done.exit;
    // A device that has got no backup keeps all that it has.
    if (job.keep.any())
        for (const fs::path& folder : done.folders)
            exit = ofBoth(exit, attempt(context.json, [&] {
                              const Patience patience{std::chrono::seconds{job.how.wait}, &context.stop};
                              tell(context, pruneBackups(folder, job.keep, false, patience, progress, context.stop),
                                   false);
                              return 0;
                          }));
    return exit;
}

int run(const Context& context, const Options& options)
{
    if (options.names.empty() && !options.list)
        throw Failure{Exit::usage, "JOB is required; 'qbackup run --list' shows them"};
    const std::vector<Job> jobs = chosenJobs(options);
    if (options.list) {
        for (const Job& job : jobs)
            tell(context, job);
        return 0;
    }
    Progress progress{Progress::styleFor(context.quiet)};
    int exit = 0;
    for (const Job& job : jobs)
        exit = ofBoth(exit, attempt(context.json, [&] { return runJob(context, job, progress); }));
    return exit;
}

} // namespace

void addRun(CLI::App& app, Context& context)
{
    const auto options = std::make_shared<Options>();
    CLI::App* command = app.add_subcommand("run", "Back up the devices of a job, and drop what it does not keep");
    command->add_option("JOB", options->names, "Job of the configuration; several one after the other");
    command->add_option("--config", options->config, "Where the jobs are (default: /etc/quendrel/qbackup.toml)")
        ->envname("QBACKUP_CONFIG");
    command->add_flag("--list", options->list, "Show the jobs, and do nothing");
    options->to =
        command->add_option("--to", options->how.target, "Another target than the jobs'")->envname("QBACKUP_TO");
    options->mode = addMode(*command, options->how.wanted)->envname("QBACKUP_MODE");
    options->wait = addWait(*command, options->how.wait)->envname("QBACKUP_WAIT");
    command->callback([&context, options] { context.chosen = [&context, options] { return run(context, *options); }; });
}

} // namespace qbackup
