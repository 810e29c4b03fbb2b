/* SPDX-License-Identifier: GPL-2.0-only */
// flock() on a file, with as much patience as the user has.
#pragma once

#include "failure.h"
#include "files.h"

#include <chrono>

namespace qbackup
{

struct Patience {
    std::chrono::seconds most{0}; // how long another run is waited for
    const StopSignal* stop = nullptr;
};

// Takes the lock, which goes with the file, for writing. False: another had it all the time. Throws Failure, Interrupted
// when the signal comes meanwhile.
bool takeLock(const File& file, const Patience& patience);

} // namespace qbackup
