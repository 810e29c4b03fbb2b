// SPDX-License-Identifier: GPL-2.0-only
#include "command.h"

#include "common.h"
#include "output.h"
#include "report.h"
#include "repository.h"

#include <unistd.h>

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
    fs::path html;
    KeepRules rules;
};

// It is there whole, or what was there before is.
void write(const fs::path& path, const std::string& text)
{
    const fs::path made = path.string() + ".new-" + std::to_string(::getpid());
    std::error_code error;
    try {
        writeDurably(made, asBytes(text));
        fs::rename(made, path, error);
        if (error)
            throw Failure{exitOf(error.value()), "cannot write " + path.string() + ": " + error.message()};
    } catch (...) {
        fs::remove(made, error);
        throw;
    }
}

int report(const Context& context, const Options& options)
{
    std::vector<DeviceReport> devices;
    for (const fs::path& folder : findRepositories(options.from))
        devices.push_back(reportOf(folder, options.rules));
    write(options.html, htmlOf(devices, "Backups in " + fs::canonical(options.from).string()));
    bool good = true;
    for (const DeviceReport& device : devices) {
        good = good && device.damaged.empty();
        std::uint64_t allocated = 0;
        for (const ReportedBackup& one : device.backups)
            allocated += one.allocated;
        if (context.json) {
            nlohmann::json document{{"ok", device.damaged.empty()},     {"device", device.device},
                                    {"path", device.folder.string()},   {"html", options.html.string()},
                                    {"backups", device.backups.size()}, {"damaged", device.damaged.size()},
                                    {"allocatedBytes", allocated}};
            if (device.freed)
                document["freedBytes"] = *device.freed;
            print(document);
        } else {
            std::printf("%-10s %4zu backup%s, %s on the disk%s\n", device.device.c_str(), device.backups.size(),
                        device.backups.size() == 1 ? "" : "s", formatBytes(allocated).c_str(),
                        device.freed ? (", of which prune would free about " + formatBytes(*device.freed)).c_str()
                                     : "");
        }
    }
    return static_cast<int>(good ? Exit::ok : Exit::damaged);
}

} // namespace

void addReport(CLI::App& app, Context& context)
{
    const auto options = std::make_shared<Options>();
    CLI::App* command = app.add_subcommand("report", "Draw the backups on a page for a browser");
    command->add_option("--html", options->html, "File to write; what is there is replaced")->required();
    command->add_option("--from", options->from, "TARGET, or a directory below it")->required();
    addKeepRules(*command, options->rules);
    command->callback(
        [&context, options] { context.chosen = [&context, options] { return report(context, *options); }; });
}

} // namespace qbackup
