/* SPDX-License-Identifier: GPL-2.0-only */
// What a device is known by wherever it turns up: names and numbers change from boot to boot.
#pragma once

#include "device_catalog.h"

#include <cstdint>
#include <map>
#include <string>

namespace qbackup
{

struct DeviceIdentity {
    // By name: fileSystem (its UUID), partition (PARTUUID), mapped (the device mapper's, as of a logical volume), wwid and
    // serial (of the disk), served (the name that a daemon serves it by). Those that are known.
    std::map<std::string, std::string> marks;

    // No mark that both have differs, and they have one in common, or one of them has none at all.
    bool matches(const DeviceIdentity& other) const;
    // "partition 1234, file system 5678"; "no mark".
    std::string text() const;
};

// Reads the device's first blocks, if this user may. `sys`: where sysfs is.
DeviceIdentity identityOf(const Device& device, const fs::path& sys = "/sys");

} // namespace qbackup
