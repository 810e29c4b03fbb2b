/* SPDX-License-Identifier: GPL-2.0-only */
// A set of blocks in the driver's bit layout: block n is bit n mod 8, least significant first, of byte n / 8.
//
// The bytes lie below 4 GiB, so a bitmap can be handed to the driver and filled by it without a copy. Bits of the
// last byte beyond the number of blocks are clear in every bitmap made here; those that the driver writes are cleared
// by clearSpareBits().
#pragma once

#include "low_memory.h"

#include <cstdint>
#include <optional>
#include <span>

namespace quendrel
{

class Bitmap
{
  public:
    struct Run {
        std::uint32_t first;
        std::uint32_t count;
        bool operator==(const Run&) const = default;
    };

    Bitmap() = default;
    // `blocks` bits, all clear or all set. Throws std::bad_alloc.
    explicit Bitmap(std::uint32_t blocks, bool all_set = false);

    std::uint32_t blocks() const noexcept { return blocks_; }
    std::span<std::byte> bytes() noexcept { return {memory_.data(), byteCount(blocks_)}; }
    std::span<const std::byte> bytes() const noexcept { return {memory_.data(), byteCount(blocks_)}; }
    std::uint32_t address() const noexcept { return memory_.address(); }
    static std::size_t byteCount(std::uint32_t blocks) noexcept { return (std::size_t{blocks} + 7) / 8; }

    // `block` has to be below blocks().
    bool test(std::uint32_t block) const noexcept;
    void set(std::uint32_t block) noexcept;
    void clear(std::uint32_t block) noexcept;

    // Number of blocks in the set.
    std::uint32_t count() const noexcept;
    // First block of the set at or after `from`; nothing when there is none.
    std::optional<std::uint32_t> nextSet(std::uint32_t from) const noexcept;
    // The first run of neighbouring blocks of the set at or after `from`, cut to at most `most` (1 or more) blocks.
    std::optional<Run> nextRun(std::uint32_t from, std::uint32_t most) const noexcept;
    // Sets the other blocks of each group that has one in the set: group g is blocks g * size up to (g + 1) * size.
    void widen(std::uint32_t size) noexcept;
    // Clears the bits beyond the last block.
    void clearSpareBits() noexcept;

  private:
    LowMemory memory_;
    std::uint32_t blocks_ = 0;
};

} // namespace quendrel
