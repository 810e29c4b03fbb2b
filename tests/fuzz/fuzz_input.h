/* SPDX-License-Identifier: GPL-2.0-only */
// What the fuzzers share: the input as a stream of numbers, the commands to choose from, and the check that ends a
// run with its reason.
#pragma once

#include "kernel.h"
#include "quendrel.h"

#include <array>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>

namespace fuzz
{

inline void require(bool holds, const char* what)
{
    if (!holds) {
        std::fprintf(stderr, "does not hold: %s\n", what);
        std::abort();
    }
}

// The input, read piece by piece; zeros when it is used up.
class Input
{
  public:
    Input(const std::uint8_t* data, std::size_t size) : data_(data), left_(size) {}
    bool empty() const { return left_ == 0; }
    u32 word(unsigned bytes = 4)
    {
        u32 value = 0;
        for (unsigned i = 0; i < bytes && left_; i++, data_++, left_--)
            value |= u32(*data_) << (8 * i);
        return value;
    }

  private:
    const std::uint8_t* data_;
    std::size_t left_;
};

constexpr std::array<u32, 16> kCommands = {QUENDREL_GET_BLOCK_SIZE,    QUENDREL_START_BACKUP,
                                           QUENDREL_SNAPSHOT,          QUENDREL_GET_STATE,
                                           QUENDREL_GET_AUTOMAP_STATE, QUENDREL_NO_LOAD_FROM_AUTOMAP,
                                           QUENDREL_NO_START_AUTOMAP,  QUENDREL_LOAD_BLOCK_MAP,
                                           QUENDREL_GET_AUTOMAP,       QUENDREL_GET_DIRTY_BLOCK,
                                           QUENDREL_READ_BLOCKS,       QUENDREL_GET_VERSION_MAJOR,
                                           QUENDREL_GET_VERSION_MINOR, QUENDREL_SYNC,
                                           QUENDREL_SHUTDOWN,          QUENDREL_RESERVED16};

} // namespace fuzz
