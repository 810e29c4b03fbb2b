/* SPDX-License-Identifier: GPL-2.0-only */
// Which blocks of a device its file system uses: what the others hold is of no consequence, and need not be backed up.
//
// Read from the snapshot, so that it is true of that moment. Whatever is doubtful, is not this kind of file system, or has
// not been brought to rest counts as used.
#pragma once

#include "client/bitmap.h"

#include <cstddef>
#include <cstdint>
#include <functional>
#include <span>
#include <string>

namespace qbackup
{

struct UsedBlocks {
    quendrel::Bitmap map; // as many blocks as the device
    std::string doubt;    // why all count as used; empty: they do not
};

// Reads whole blocks of the device, `first` being the number of the first one.
using BlockReader = std::function<void(std::uint32_t first, std::span<std::byte> to)>;

// `block_size` in bytes, `blocks` of the device; `read` is asked for at most `most` blocks at a time. Throws what `read`
// throws.
UsedBlocks usedBlocks(std::uint32_t block_size, std::uint32_t blocks, std::uint32_t most, const BlockReader& read);

} // namespace qbackup
