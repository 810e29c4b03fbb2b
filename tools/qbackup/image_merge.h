/* SPDX-License-Identifier: GPL-2.0-only */
// Drops backups out of a chain of images: what they hold goes into the next one that is kept.
//
// Over an older image: the one that is kept is written anew, with all of theirs, and takes the place of the old one. From a
// full one on: what the others hold is written into the full one's image, which then gets the name of the one that is
// kept; until then the one that is kept lies over it and hides what changes there. Not into a compressed one, where each
// changed block would have its whole cluster written without compression: there, too, the one that is kept is written
// anew, as a compressed full one.
// All that can fail for damage is done, and the space that is needed is seen to be there, before anything changes. Then a
// journal, .merge.json, says what is to be done; every step can be done again, and whoever opens the folder for writing
// does it again after a kill.
#pragma once

#include "failure.h"
#include "progress.h"
#include "repository.h"

#include <functional>
#include <set>
#include <string>
#include <vector>

namespace qbackup
{

// Called with the name of each step; for tests that end the process there.
using MergeWatcher = std::function<void(const char* step)>;

// `run`: neighbours in a chain, the oldest first; the last one is kept. The folder has to be open for writing and held.
// Throws Failure; if the journal was not written by then, nothing has changed.
void mergeBackups(const fs::path& folder, const std::vector<StoredBackup>& run, Progress& progress, const StopSignal& stop,
                  const MergeWatcher& watcher = {});
// Drops backups on which none that is kept builds.
void dropBackups(const fs::path& folder, const std::vector<StoredBackup>& dropped);
// Finishes what a journal says, if there is one. A journal whose work is not there, as a copy of a folder may have one, goes.
// The folder has to be open for writing.
void finishMerge(const fs::path& folder, const MergeWatcher& watcher = {});
bool isMergeUnfinished(const fs::path& folder);
// Those that are dropped by a merge which is not finished.
std::set<std::string> idsGoing(const fs::path& folder);

} // namespace qbackup
