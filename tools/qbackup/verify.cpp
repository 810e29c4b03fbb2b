// SPDX-License-Identifier: GPL-2.0-only
#include "verify.h"

#include "folder_hold.h"
#include "layers_ahead.h"

#include <map>
#include <string>

namespace qbackup
{
namespace
{

std::string checkNext(LayersAhead& layers, Progress& progress, const StopSignal& stop)
try {
    const auto layer = layers.next();
    for (auto piece = layer->next(); piece; piece = layer->next()) {
        throwIfStopped(stop);
        progress.advance(piece->data.size());
    }
    return {};
} catch (const Interrupted&) {
    throw;
} catch (const Failure& failure) {
    return failure.what();
}

// What is wrong with what the backup builds on; `problems` has those of the backups before it, by name.
std::string checkParent(const Repository& repository, const StoredBackup& backup,
                        const std::map<std::string, std::string>& problems)
try {
    if (backup.manifest.mode == Mode::full)
        return {};
    const StoredBackup parent = repository.parentOf(backup);
    const auto found = problems.find(parent.manifest.id);
    if (found == problems.end() || found->second.empty())
        return {};
    // One that says itself what is damaged below it need not be named.
    return found->second.starts_with("builds on ")
               ? found->second
               : "builds on backup " + parent.manifest.id + ", which is damaged: " + found->second;
} catch (const Failure& failure) {
    return failure.what();
}

void verifyIn(const Repository& repository, const std::vector<StoredBackup>& backups,
              std::vector<VerifyResult>& results, Progress& progress, const StopSignal& stop)
{
    std::uint64_t bytes = 0;
    for (const StoredBackup& backup : backups)
        bytes += backup.manifest.dataBytes;
    progress.begin("verifying " + repository.directory().string(), bytes);
    LayersAhead layers{backups};
    std::map<std::string, std::string> problems; // by name of the backup; what it builds on stands before it
    for (const StoredBackup& backup : backups) {
        std::string& problem = problems[backup.manifest.id];
        problem = checkNext(layers, progress, stop);
        if (problem.empty())
            problem = checkParent(repository, backup, problems);
        results.push_back({backup.path, backup.manifest.id, problem});
    }
    progress.end();
}

} // namespace

std::vector<VerifyResult> verifyBackups(const fs::path& from, Progress& progress, const StopSignal& stop)
{
    std::vector<VerifyResult> results;
    if (looksLikeBackup(from)) {
        const StoredBackup backup = findBackup(from);
        const Repository repository{backup.path.parent_path()};
        const base::Descriptor hold = holdForReading(repository.directory());
        verifyIn(repository, repository.chain(backup), results, progress, stop);
        return results;
    }
    const fs::path place = from.filename() == "latest" ? from.parent_path() : from;
    for (const fs::path& directory : findRepositories(place.empty() ? "." : place)) {
        settle(directory);
        const Repository repository{directory};
        const base::Descriptor hold = holdForReading(directory);
        std::vector<DamagedBackup> damaged;
        verifyIn(repository, repository.backups(&damaged), results, progress, stop);
        for (const DamagedBackup& backup : damaged)
            results.push_back({backup.path, "", backup.problem});
    }
    return results;
}

} // namespace qbackup
