// SPDX-License-Identifier: GPL-2.0-only
#include "verify.h"

#include <map>

namespace qbackup
{
namespace
{

std::string checkFiles(const StoredBackup& backup, Progress& progress, const StopSignal& stop)
try {
    readMap(backup);
    DataReader data = openData(backup);
    for (auto piece = data.next(); !piece.empty(); piece = data.next()) {
        throwIfStopped(stop);
        progress.advance(piece.size());
    }
    return {};
} catch (const Interrupted&) {
    throw;
} catch (const Failure& failure) {
    return failure.what();
}

std::string checkChain(const Repository& repository, const StoredBackup& backup,
                       const std::map<fs::path, std::string>& problems)
try {
    for (const StoredBackup& link : repository.chain(backup))
        if (const auto found = problems.find(link.directory.filename());
            found != problems.end() && !found->second.empty())
            return link.manifest.id == backup.manifest.id
                       ? found->second
                       : "builds on backup " + link.manifest.id + ", which is damaged: " + found->second;
    return {};
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
    std::map<fs::path, std::string> problems; // by name of the backup
    for (const StoredBackup& backup : backups)
        problems[backup.directory.filename()] = checkFiles(backup, progress, stop);
    progress.end();
    for (const StoredBackup& backup : backups)
        results.push_back({backup.directory, backup.manifest.id, checkChain(repository, backup, problems)});
}

} // namespace

std::vector<VerifyResult> verifyBackups(const fs::path& from, Progress& progress, const StopSignal& stop)
{
    std::vector<VerifyResult> results;
    std::error_code error;
    if (fs::exists(from / "manifest.json", error)) {
        const StoredBackup backup = readBackup(fs::canonical(from));
        const Repository repository{backup.directory.parent_path()};
        verifyIn(repository, repository.chain(backup), results, progress, stop);
        return results;
    }
    const fs::path place = from.filename() == "latest" ? from.parent_path() : from;
    for (const fs::path& directory : findRepositories(place.empty() ? "." : place)) {
        const Repository repository{directory};
        std::vector<DamagedBackup> damaged;
        verifyIn(repository, repository.backups(&damaged), results, progress, stop);
        for (const DamagedBackup& backup : damaged)
            results.push_back({backup.directory, "", backup.problem});
    }
    if (results.empty())
        throw Failure{Exit::refused, "there is no backup in " + place.string()};
    return results;
}

} // namespace qbackup
