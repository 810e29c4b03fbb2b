/* SPDX-License-Identifier: GPL-2.0-only */
// Moves the blocks of a map from the driver to where they are stored.
//
// One thread gives the driver's commands, another one writes out. Every block of the map is read exactly once, and written
// out in ascending order. What is overwritten before it was read waits in the driver's cache, which is bounded: a full one
// ends the backup. So that is read first, whatever the writing does, and kept until its turn comes.
#pragma once

#include "client/bitmap.h"
#include "client/control_device.h"
#include "drained_blocks.h"
#include "failure.h"
#include "progress.h"
#include "stored_backup.h"

#include <cstddef>
#include <cstdint>

namespace qbackup
{

struct TransferSource {
    quendrel::ControlDevice& device;
    const quendrel::Bitmap& map;
    std::uint32_t blockSize;
    std::size_t areaBytes; // of the largest transfer area, a multiple of 4096 and of `blockSize`
};

// `bytes_per_second`: how fast blocks are handed to `out` at most; 0: as fast as it goes. The area is unmapped when this
// returns or throws. Throws quendrel::Error when a read fails, Failure when writing out fails or `stop` is raised.
void transfer(const TransferSource& source, DrainedBlocks& drained, std::uint64_t bytes_per_second, BlockSink& out,
              Progress& progress, const StopSignal& stop);

} // namespace qbackup
