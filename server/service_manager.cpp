// SPDX-License-Identifier: GPL-2.0-only
#include "service_manager.h"

#include <systemd/sd-daemon.h>

namespace quendreld
{

void tell_manager(const char* assignments) { ::sd_notify(0, assignments); }

std::optional<std::chrono::microseconds> manager_patience()
{
    std::uint64_t microseconds = 0;
    if (::sd_watchdog_enabled(0, &microseconds) <= 0)
        return std::nullopt;
    return std::chrono::microseconds(microseconds);
}

} // namespace quendreld
