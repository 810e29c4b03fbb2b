// SPDX-License-Identifier: GPL-2.0-only
#include "tracking.h"

#include "run_lock.h"

#include <sys/sysmacros.h>

namespace qbackup
{

fs::path ledgersOf(const fs::path& control) { return RunLock::placeFor(control).parent_path() / "ledger"; }

Tracking trackingOf(const fs::path& control, const DeviceCatalog& catalog, const HostBlocks& host, const Device& device)
{
    Tracking tracking{Ledger::at(ledgersOf(control) / toString(device.number))};
    if (!tracking.ledger)
        return tracking;
    const std::string now = catalog.runDirectory().empty()
                                ? host.instance(makedev(device.number.major, device.number.minor))
                                : device.instance;
    tracking.goesOn = tracking.ledger->identity() == now;
    return tracking;
}

} // namespace qbackup
