// SPDX-License-Identifier: GPL-2.0-only
#include "command.h"

#include "common.h"
#include "device_catalog.h"
#include "host_blocks.h"
#include "output.h"
#include "preflight.h"
#include "tracking.h"

#include <cstdio>
#include <optional>
#include <string>
#include <vector>

namespace qbackup
{
namespace
{

// Why it cannot be backed up, as far as that is known without the driver.
std::optional<std::string> problemOf(const Device& device)
try {
    refuseUnfitDevice(device);
    return std::nullopt;
} catch (const Failure& failure) {
    return failure.what();
}

int devices(const Context& context)
{
    requireControl(context.control);
    const HostBlocks host;
    const DeviceCatalog catalog{context.control, host};
    for (const Device& device : catalog.listed()) {
        std::vector<std::string> points;
        std::string type = device.type;
        for (const dev_t number : device.hostDevices)
            for (const HostBlocks::Mounted& mounted : host.mountsOf(number)) {
                points.push_back(mounted.point);
                type = type.empty() ? mounted.type : type;
            }
        std::string last;
        std::string state; // of the tracking, for people
        std::optional<bool> tracked;
        try {
            const Tracking tracking = trackingOf(context.control, catalog, host, device);
            tracked = tracking.ledger && tracking.goesOn;
            last = tracking.ledger ? tracking.ledger->time() : "";
            state = !tracking.ledger  ? "not tracked"
                    : tracking.goesOn ? "tracked since " + (last.empty() ? "its last snapshot" : last)
                                      : "was away, not tracked";
        } catch (const Failure&) {
            state = "tracking: no permission to see";
        }
        const auto problem = problemOf(device);
        if (context.json) {
            nlohmann::json document{
                {"ok", true},   {"name", device.name},  {"number", toString(device.number)}, {"bytes", device.bytes},
                {"type", type}, {"mountPoints", points}};
            if (tracked)
                document["tracked"] = *tracked;
            if (!last.empty())
                document["lastSnapshot"] = last;
            if (!device.holds.empty())
                document["holds"] = device.holds;
            if (problem)
                document["problem"] = *problem;
            print(document);
            continue;
        }
        std::printf("%-10s %-8s %11s  %-6s %s\n", device.name.c_str(), toString(device.number).c_str(),
                    device.bytes == 0 ? "" : formatBytes(device.bytes).c_str(), type.empty() ? "-" : type.c_str(),
                    problem ? ("cannot be backed up: " + *problem).c_str() : state.c_str());
        for (const std::string& point : points)
            std::printf("%-10s mounted on %s\n", "", point.c_str());
    }
    return static_cast<int>(Exit::ok);
}

} // namespace

void addDevices(CLI::App& app, Context& context)
{
    CLI::App* command =
        app.add_subcommand("devices", "Show the devices that can be backed up, and what is known of them");
    command->callback([&context] { context.chosen = [&context] { return devices(context); }; });
}

} // namespace qbackup
