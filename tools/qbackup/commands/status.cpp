// SPDX-License-Identifier: GPL-2.0-only
#include "command.h"

#include "common.h"
#include "device_catalog.h"
#include "host_blocks.h"
#include "output.h"
#include "preflight.h"
#include "repository.h"
#include "run_lock.h"

#include <cstdio>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace qbackup
{
namespace
{

using nlohmann::json;

struct Options {
    std::string device; // empty: all that the daemon serves
    fs::path target;    // empty: stored backups are not shown
};

std::vector<fs::path> repositoriesIfAny(const fs::path& target)
try {
    return findRepositories(target);
} catch (const Failure& failure) {
    if (failure.exitCode() != static_cast<int>(Exit::nothing))
        throw;
    return {};
}

int status(const Context& context, const Options& options)
{
    requireControl(context.control);
    json document{{"ok", true}, {"control", context.control.string()}, {"running", nullptr}};
    std::string text;
    const DeviceCatalog catalog{context.control, HostBlocks{}};
    std::vector<Device> devices = catalog.listed();
    if (!options.device.empty())
        devices = {catalog.find(options.device)};

    // Opening the control device would detach a running backup: it is opened only while this program holds the lock.
    const fs::path lock_file = RunLock::placeFor(context.control);
    std::optional<RunLock> lock;
    try {
        lock.emplace(lock_file, "status", context.control);
    } catch (const Failure& failure) {
        const auto holder = RunLock::holder(lock_file);
        if (failure.exitCode() != static_cast<int>(Exit::busy) || !holder)
            throw;
        document["running"] = *holder;
        text += "running: " + *holder + "\n";
    }
    std::optional<quendrel::ControlDevice> control;
    if (lock) {
        text += "no backup is running\n";
        control.emplace(openControl(context.control));
        const auto version = control->version();
        document["driver"] = std::to_string(version.major) + "." + std::to_string(version.minor);
        text += "driver " + std::to_string(version.major) + "." + std::to_string(version.minor) + " at " +
                context.control.string() + "\n";
    }
    document["devices"] = json::array();
    for (const Device& device : devices) {
        json entry{{"name", device.name}, {"number", toString(device.number)}, {"bytes", device.bytes}};
        std::string line = device.name + " (" + toString(device.number) + "), " + formatBytes(device.bytes);
        if (!device.type.empty()) {
            entry["type"] = device.type;
            line += ", " + device.type;
        }
        if (control && device.partitions.empty()) {
            try {
                const auto geometry = control->blockSize(device.number);
                entry["blockSize"] = geometry.blockSize;
                line += ", blocks of " + std::to_string(geometry.blockSize) + " bytes";
            } catch (const quendrel::Error& error) {
                const auto known = device.blockSize != 0 ? unfitBlockSize(device.name, device.blockSize) : std::nullopt;
                const std::string problem = known.value_or(quendrel::codeText(error.command(), error.code()));
                entry["problem"] = problem;
                line += ": cannot be backed up: " + problem;
            }
        }
        document["devices"].push_back(entry);
        text += line + "\n";
    }
    if (!options.target.empty()) {
        document["lastBackups"] = json::array();
        for (const fs::path& directory : repositoriesIfAny(options.target)) {
            const auto backups = Repository{directory}.backups();
            if (backups.empty())
                continue;
            document["lastBackups"].push_back(describe(backups.back()));
            text += "last backup of " + backups.back().manifest.device + ": " + backups.back().manifest.id + " (" +
                    std::to_string(backups.size()) + " stored)\n";
        }
    }
    if (context.json)
        print(document);
    else
        std::fputs(text.c_str(), stdout);
    return static_cast<int>(Exit::ok);
}

} // namespace

void addStatus(CLI::App& app, Context& context)
{
    const auto options = std::make_shared<Options>();
    CLI::App* command = app.add_subcommand("status", "Show whether a backup runs, and what can be backed up");
    command->add_option("--device", options->device, "Only this device");
    command->add_option("--to", options->target, "Show the last backups in this target directory too");
    command->callback([&context, options] { context.chosen = [&context, options] { return status(context, *options); }; });
}

} // namespace qbackup
