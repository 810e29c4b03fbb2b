// SPDX-License-Identifier: GPL-2.0-only
#include "command.h"

#include "common.h"
#include "host_blocks.h"
#include "manifest.h"
#include "output.h"
#include "tracking.h"

#include <cstdio>
#include <memory>
#include <string>
#include <vector>

namespace qbackup
{
namespace
{

// Enough of it to tell it from others.
std::string shortened(const quendrel::SessionKey& key) { return toHex(key).substr(0, 12); }

void tell(const Context& context, const Device& device, const Tracking& tracking)
{
    const Ledger& ledger = *tracking.ledger;
    const auto newest = ledger.newest().value();
    if (context.json) {
        nlohmann::json entries = nlohmann::json::array();
        for (const Ledger::Entry& entry : ledger.entries()) {
            nlohmann::json one{{"from", toHex(entry.from)},
                               {"to", toHex(entry.to)},
                               {"snapshots", entry.snapshots},
                               {"time", entry.time},
                               {"bytes", entry.bytes}};
            if (entry.changed)
                one["changedBlocks"] = *entry.changed;
            else
                one["problem"] = "its map cannot be read";
            entries.push_back(std::move(one));
        }
        print({{"ok", true},
               {"device", device.name},
               {"number", toString(device.number)},
               {"goesOn", tracking.goesOn},
               {"newest", toHex(newest)},
               {"time", ledger.time()},
               {"blockSize", ledger.blockSize()},
               {"blocks", ledger.blocks()},
               {"entries", entries}});
        return;
    }
    std::printf("%s (%s): key %s since %s%s\n", device.name.c_str(), toString(device.number).c_str(),
                shortened(newest).c_str(), ledger.time().empty() ? "a time that is not known" : ledger.time().c_str(),
                tracking.goesOn ? "" : "; the device was away since, so that this is worth nothing");
    for (const Ledger::Entry& entry : ledger.entries()) {
        const std::string changed = entry.changed ? std::to_string(*entry.changed) + " of " +
                                                        std::to_string(ledger.blocks()) + " blocks changed"
                                                  : "its map cannot be read";
        const std::string united =
            entry.snapshots == 1 ? "" : ", of " + std::to_string(entry.snapshots) + " snapshots together";
        std::printf("  %s to %s  %-20s  %s, %s%s\n", shortened(entry.from).c_str(), shortened(entry.to).c_str(),
                    entry.time.c_str(), changed.c_str(), formatBytes(entry.bytes).c_str(), united.c_str());
    }
}

int showLedger(const Context& context, const std::string& name)
{
    requireControl(context.control);
    const HostBlocks host;
    const DeviceCatalog catalog{context.control, host};
    const std::vector<Device> devices = name.empty() ? catalog.listed() : std::vector{catalog.find(name)};
    bool any = false;
    for (const Device& device : devices)
        if (const Tracking tracking = trackingOf(context.control, catalog, host, device); tracking.ledger) {
            any = true;
            tell(context, device, tracking);
        }
    if (!any && !context.json)
        std::printf("no snapshot of %s is known; the next backup begins the ledger\n",
                    name.empty() ? "any device" : name.c_str());
    return static_cast<int>(Exit::ok);
}

} // namespace

void addLedger(CLI::App& app, Context& context)
{
    const auto device = std::make_shared<std::string>();
    CLI::App* command = app.add_subcommand("ledger", "Show since when the changes of each device are known");
    command->add_option("--device", *device, "Only this device");
    command->callback(
        [&context, device] { context.chosen = [&context, device] { return showLedger(context, *device); }; });
}

} // namespace qbackup
