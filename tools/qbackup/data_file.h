/* SPDX-License-Identifier: GPL-2.0-only */
// The block data of a backup, and the hashes that guard it.
//
// `data` holds the copied blocks one after the other; long runs of zero blocks are left as holes. `sums` holds the
// XXH3-128 hash of every segment of `data` (segment_bytes each, the last one shorter), 16 bytes each in canonical
// (big-endian) form, so that damage is found before the segment is used and can be said where it is.
#pragma once

#include "files.h"

#include <xxhash.h>

#include <cstdint>
#include <memory>
#include <span>
#include <vector>

namespace qbackup
{

constexpr std::uint32_t segment_bytes = 4u << 20;

struct FreeHashState {
    void operator()(XXH3_state_t* state) const noexcept { XXH3_freeState(state); }
};

// Writes `data`. Used by one thread at a time.
class DataWriter
{
  public:
    explicit DataWriter(const fs::path& path);
    // Appends whole blocks of `block_size` bytes.
    void append(std::span<const std::byte> bytes, std::uint32_t block_size);
    // Sets the file's size, makes it durable and gives the contents of `sums`. Nothing may be appended after.
    std::vector<std::byte> finish();
    std::uint64_t bytes() const noexcept { return written_; }

  private:
    void hash(std::span<const std::byte> bytes);
    void endSegment();
    void write(std::span<const std::byte> bytes, std::uint32_t block_size);

    File file_;
    std::unique_ptr<XXH3_state_t, FreeHashState> state_;
    std::vector<std::byte> sums_;
    std::uint64_t written_ = 0;
    std::uint32_t in_segment_ = 0;
    std::uint64_t flushed_ = 0;
};

// Reads `data` from its start to its end, a segment at a time; each segment is checked before it is handed out.
class DataReader
{
  public:
    // `sums`: the contents of the file of that name, checked already. Throws Failure (damaged) when the sizes do not
    // fit each other.
    DataReader(const fs::path& path, std::vector<std::byte> sums, std::uint64_t data_bytes, std::uint32_t segment);
    // The next segment, valid until the next call; empty at the end. Throws Failure (damaged).
    std::span<const std::byte> next();

  private:
    File file_;
    std::vector<std::byte> sums_;
    std::vector<std::byte> buffer_;
    std::uint64_t bytes_;
    std::uint64_t at_ = 0;
};

// Whether all bytes are zero.
bool allZero(std::span<const std::byte> bytes) noexcept;

} // namespace qbackup
