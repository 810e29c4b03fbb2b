// SPDX-License-Identifier: GPL-2.0-only
#include "restore.h"

#include "destination.h"

#include <chrono>

namespace qbackup
{
namespace
{

// Writes the blocks of one backup to their places.
void apply(const StoredBackup& backup, Destination& destination, Progress& progress, const StopSignal& stop)
{
    const std::uint32_t block_size = backup.manifest.blockSize;
    const quendrel::Bitmap map = readMap(backup);
    DataReader data = openData(backup);
    if (backup.manifest.segmentBytes % block_size != 0)
        throw Failure{Exit::damaged, backup.directory.string() + ": the manifest's sizes contradict each other"};
    std::uint32_t next = 0;
    for (auto piece = data.next(); !piece.empty(); piece = data.next()) {
        throwIfStopped(stop);
        progress.advance(piece.size());
        while (!piece.empty()) {
            // The map has as many blocks as the data: readMap() and openData() have checked both counts.
            const auto run = map.nextRun(next, static_cast<std::uint32_t>(piece.size() / block_size));
            const std::size_t bytes = std::size_t{run->count} * block_size;
            destination.put(std::uint64_t{run->first} * block_size, piece.first(bytes), block_size);
            piece = piece.subspan(bytes);
            next = run->first + run->count;
        }
    }
}

} // namespace

RestoreReport restoreBackup(const fs::path& from, const fs::path& to, bool force, Progress& progress,
                            const StopSignal& stop)
{
    const auto begun = std::chrono::steady_clock::now();
    RestoreReport report{findBackup(from)};
    const auto chain = Repository{fs::canonical(report.backup.directory).parent_path()}.chain(report.backup);
    report.chainLength = chain.size();
    for (const StoredBackup& link : chain)
        report.bytesRead += link.manifest.dataBytes;
    Destination destination{to, report.backup.manifest.deviceBytes, force};
    progress.begin("restoring " + report.backup.manifest.id, report.bytesRead);
    for (const StoredBackup& link : chain)
        apply(link, destination, progress, stop);
    throwIfStopped(stop);
    destination.finish();
    progress.end();
    report.seconds = std::chrono::duration<double>{std::chrono::steady_clock::now() - begun}.count();
    return report;
}

} // namespace qbackup
