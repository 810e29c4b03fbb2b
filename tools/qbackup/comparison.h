/* SPDX-License-Identifier: GPL-2.0-only */
// Takes the blocks of a device and passes on those that are not what they were at an earlier backup: so a backup whose
// device was not tracked is an increment nevertheless.
//
// Blocks are compared by the hashes that the earlier backup has; only where a hash differs, or where an increment has
// replaced a part of what it stands for, the old contents are read.
#pragma once

#include "backup_contents.h"
#include "qemu_image.h"
#include "repository.h"

#include <memory>
#include <optional>
#include <vector>

namespace qbackup
{

class Comparison : public BlockSink
{
  public:
    // With `earlier`, in a folder that is open for writing. Throws Failure when it cannot be compared with.
    Comparison(const Repository& repository, const StoredBackup& earlier);
    ~Comparison() override;
    Comparison(const Comparison&) = delete;
    Comparison& operator=(const Comparison&) = delete;

    // Where blocks are passed on to.
    void sendTo(BlockSink& out) { out_ = &out; }
    // All blocks that count, in ascending order; of others nothing is passed on.
    void put(std::uint32_t first, std::span<const std::byte> blocks, const Hold& hold) override;
    // The blocks that were passed on, after the last one has come.
    const quendrel::Bitmap& finish();

  private:
    std::optional<Extent> nextPiece();
    void compare(std::span<const std::byte> now);
    void compareStart();
    void passOn(std::uint64_t offset, std::span<const std::byte> blocks);

    std::uint32_t block_size_;
    BlockSink* out_ = nullptr;
    std::vector<fs::path> images_;       // the nearest first
    std::optional<MergedExtents> known_; // what the earlier backup gives
    std::optional<Extent> rest_;         // of what that gave last
    std::optional<Extent> piece_;        // the one that the next blocks belong to
    std::optional<OpenImage> earlier_;
    std::vector<std::byte> now_; // of that piece, as far as it has come
    std::vector<std::byte> before_;
    quendrel::Bitmap changed_;
};

} // namespace qbackup
