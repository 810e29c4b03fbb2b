/* SPDX-License-Identifier: GPL-2.0-only */
// The backups of devices drawn for people: one HTML page that needs nothing else. Names are escaped, whatever is in
// them.
//
// Drawings hold no text, so that they may be stretched to whatever width there is.
#pragma once

#include "prune.h"
#include "stored_backup.h"

#include <array>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace qbackup
{

constexpr std::size_t report_regions = 96; // of a device, from its start to its end
constexpr std::size_t report_rows = 60;    // of backups in the picture of the disk: the newest

struct ReportedBackup {
    StoredBackup backup;
    std::uint64_t allocated = 0;
    bool kept = true;                            // by the rules
    std::array<float, report_regions> written{}; // which part of each region it holds as data
};

struct DeviceReport {
    std::string device;
    std::string host; // empty: not known
    fs::path folder;
    std::vector<ReportedBackup> backups; // the oldest first
    std::vector<DamagedBackup> damaged;
    std::optional<std::uint64_t> freed; // bytes of data that pruning by the rules would free; nothing without rules
};

// What one repository has. `rules` may have none. Throws Failure.
DeviceReport reportOf(const fs::path& folder, const KeepRules& rules);
std::string htmlOf(const std::vector<DeviceReport>& devices, const std::string& title);

} // namespace qbackup
