/* SPDX-License-Identifier: GPL-2.0-only */
// What is known of a device's tracking without asking the driver, which tells only who begins a backup: the ledger.
#pragma once

#include "device_catalog.h"
#include "files.h"
#include "ledger.h"

#include <optional>

namespace qbackup
{

// The folder with the ledgers of all devices behind a control device.
fs::path ledgersOf(const fs::path& control);

struct Tracking {
    std::optional<Ledger> ledger; // nothing: no snapshot is known
    bool goesOn = false;          // the device has been there all the time since
};
// Throws Failure (denied) when this user may not read it.
Tracking trackingOf(const fs::path& control, const DeviceCatalog& catalog, const HostBlocks& host,
                    const Device& device);

} // namespace qbackup
