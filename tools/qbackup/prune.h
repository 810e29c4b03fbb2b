/* SPDX-License-Identifier: GPL-2.0-only */
// Which backups are kept, and dropping the others.
#pragma once

#include "file_lock.h"
#include "image_merge.h"
#include "progress.h"
#include "repository.h"

#include <string>
#include <vector>

namespace qbackup
{

// The newest so many, and the newest of each of so many hours, days, weeks, months and years that have one.
struct KeepRules {
    unsigned last = 0;
    unsigned hourly = 0;
    unsigned daily = 0;
    unsigned weekly = 0;
    unsigned monthly = 0;
    unsigned yearly = 0;
    bool any() const noexcept { return (last | hourly | daily | weekly | monthly | yearly) != 0; }
};

struct Choice {
    StoredBackup backup;
    std::vector<std::string> reasons; // to keep it, as "daily"; none: it goes
};

// `backups` in the order of their making. Hours and days are those of this machine's clock.
std::vector<Choice> chooseKept(const std::vector<StoredBackup>& backups, const KeepRules& rules);

// Drops what the rules do not keep from one device's images; with `dry_run` only tells. Throws Failure, nothing being dropped
// when one of them is damaged; what was dropped until then is.
std::vector<Choice> pruneBackups(const fs::path& folder, const KeepRules& rules, bool dry_run, const Patience& patience, Progress& progress,
                                 const StopSignal& stop);

} // namespace qbackup
