/* SPDX-License-Identifier: GPL-2.0-only */
// Blocks that were read before it was their turn, so that the driver need not keep them: in memory up to a bound, beyond it
// in a file without a name. Each is handed out once.
#pragma once

#include "client/bitmap.h"
#include "files.h"
#include "progress.h"

#include <cstddef>
#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <span>

namespace qbackup
{

class DrainedBlocks
{
  public:
    using Run = quendrel::Bitmap::Run;

    // `memory_bytes`: the bound. `spool`: a directory for what is beyond it; empty: there is none. Throws Failure (refused)
    // when it cannot be used.
    DrainedBlocks(std::uint32_t block_size, std::uint64_t memory_bytes, const fs::path& spool, Progress& progress);

    // Whether blocks may still be put, one run after which there may be none.
    bool hasRoom() const noexcept { return inMemory() || spool_works_; }
    // Whether the next run goes into memory.
    bool inMemory() const noexcept { return memory_used_ < memory_bytes_; }
    // Blocks that are not there yet. A spool that cannot be written is given up with a warning, and the run kept in memory.
    void put(std::uint32_t first, std::span<const std::byte> blocks);
    // The first run of blocks at or behind `from`.
    std::optional<Run> next(std::uint32_t from) const;
    bool holds(std::uint32_t block) const;
    // The run that ends right before `block`.
    std::optional<Run> before(std::uint32_t block) const;
    // The whole run that begins with `first`, into as many bytes; it is gone then. Throws Failure.
    void take(std::uint32_t first, std::span<std::byte> to);

  private:
    struct Kept {
        std::uint32_t count = 0;
        std::unique_ptr<std::byte[]> data; // null: in the spool
        std::uint64_t at = 0;              // there
    };

    std::size_t bytesOf(const Kept& kept) const { return std::size_t{kept.count} * block_size_; }
    bool spooled(std::span<const std::byte> blocks);

    std::uint32_t block_size_;
    std::uint64_t memory_bytes_;
    std::uint64_t memory_used_ = 0;
    Progress& progress_;
    File spool_;
    bool spool_works_ = false;
    std::uint64_t spool_end_ = 0;
    std::map<std::uint32_t, Kept> runs_; // by their first blocks; none overlap
};

} // namespace qbackup
