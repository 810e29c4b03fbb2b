/* SPDX-License-Identifier: GPL-2.0-only */
// Takes backups that are folders over into a repository of images, one by one, as they are: number, time and tracking key
// stay, so that the next backup of the device is an increment on them.
#pragma once

#include "failure.h"
#include "progress.h"
#include "repository.h"

#include <vector>

namespace qbackup
{

struct Imported {
    fs::path from;
    fs::path to;         // empty: it could not be taken over
    bool before = false; // it was there already
    std::string problem;
};

// Into `to`, which has to be open for writing. What is there from an import that was cut off is not taken again. A damaged
// backup, and whatever builds on it, is left out and told of. Throws Failure; what was taken over until then stays.
std::vector<Imported> importBackups(const Repository& from, const Repository& to, Progress& progress, const StopSignal& stop);

} // namespace qbackup
