// SPDX-License-Identifier: GPL-2.0-only
#include "restore.h"

#include "destination.h"
#include "folder_hold.h"
#include "layers_ahead.h"

#include <chrono>

namespace qbackup
{
namespace
{

// Writes the blocks of one backup to their places.
void apply(LayerReader& layer, Destination& destination, std::uint32_t block_size, Progress& progress, const StopSignal& stop)
{
    for (auto piece = layer.next(); piece; piece = layer.next()) {
        throwIfStopped(stop);
        progress.advance(piece->data.size());
        if (piece->data.empty())
            destination.putZeros(piece->offset, piece->bytes);
        else
            destination.put(piece->offset, piece->data, block_size);
    }
}

} // namespace

RestoreReport restoreBackup(const fs::path& from, const fs::path& to, bool force, Progress& progress,
                            const StopSignal& stop, const std::string& at)
{
    const auto begun = std::chrono::steady_clock::now();
    RestoreReport report{findBackup(from, at)};
    const base::Descriptor hold = holdForReading(report.backup.path.parent_path());
    report.backup = readBackup(report.backup.path); // as it is from here on
    const auto chain = Repository{report.backup.path.parent_path()}.chain(report.backup);
    report.chainLength = chain.size();
    for (const StoredBackup& link : chain)
        report.bytesRead += link.manifest.dataBytes;
    Destination destination{to, report.backup.manifest.deviceBytes, force};
    progress.begin("restoring " + report.backup.manifest.id, report.bytesRead);
    LayersAhead layers{chain};
    for (const StoredBackup& link : chain)
        apply(*layers.next(), destination, link.manifest.blockSize, progress, stop);
    throwIfStopped(stop);
    destination.finish();
    progress.end();
    report.seconds = std::chrono::duration<double>{std::chrono::steady_clock::now() - begun}.count();
    return report;
}

} // namespace qbackup
