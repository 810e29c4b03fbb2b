/* SPDX-License-Identifier: GPL-2.0-only */
// What the service manager is told of the daemon. Without one ($NOTIFY_SOCKET) nothing happens.
#pragma once

#include <chrono>
#include <optional>
#include <string>

namespace quendreld
{

// Assignments as sd_notify(3) knows them, a line each: "READY=1". Never waits for the manager.
void tell_manager(const char* assignments);

// Within which time the manager wants to hear WATCHDOG=1 again; none: it does not watch this process.
std::optional<std::chrono::microseconds> manager_patience();

} // namespace quendreld
