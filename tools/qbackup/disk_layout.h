/* SPDX-License-Identifier: GPL-2.0-only */
// The partition table of the disk that a device is a part of: without it a disk of another machine can be filled, but not
// made as it was. Kept as the text that sfdisk(8) reads, in HOST/layout/DISK-TIME.sfdisk, whenever it is another one than
// before.
#pragma once

#include "device_catalog.h"

#include <optional>
#include <string>

namespace qbackup
{

struct DiskLayout {
    std::string disk;
    std::string text;
};

// Nothing when the device is no partition, or its disk cannot be read or looked at here.
std::optional<DiskLayout> layoutOf(const Device& device, const fs::path& sys = "/sys");
// Whether it was another one than before. Throws Failure.
bool keepLayout(const fs::path& host_folder, const DiskLayout& layout);

} // namespace qbackup
