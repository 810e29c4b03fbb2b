/* SPDX-License-Identifier: GPL-2.0-only */
// Moves the blocks of a map from the driver to where they are stored.
//
// Two transfer areas: the calling thread has the driver fill one while a writer thread puts away what is in the
// other. Only the calling thread gives commands. Every block of the map is read exactly once, in ascending order.
#pragma once

#include "client/bitmap.h"
#include "client/control_device.h"
#include "failure.h"
#include "progress.h"
#include "stored_backup.h"

#include <cstddef>
#include <cstdint>

namespace qbackup
{

// `area_bytes`: size of a transfer area, a multiple of 4096 and of `block_size`. The areas are unmapped when this
// returns or throws. Throws quendrel::Error when a read fails, Failure when writing out fails or `stop` is raised.
void transfer(quendrel::ControlDevice& device, const quendrel::Bitmap& map, std::uint32_t block_size,
              std::size_t area_bytes, BlockSink& out, Progress& progress, const StopSignal& stop);

} // namespace qbackup
