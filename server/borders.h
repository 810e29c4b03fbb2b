/* SPDX-License-Identifier: GPL-2.0-only */
// The places on a disk where a partition begins or ends, asked for with each request and seldom changed.
//
// A look takes no lock and waits for nobody but a change that is being made: it is repeated when one was made
// meanwhile.
#pragma once

#include <array>
#include <atomic>
#include <cstddef>
#include <cstdint>
#include <mutex>
#include <vector>

namespace quendreld
{

class Borders
{
  public:
    // Of these at most are kept: two a partition, and the records of an extended one.
    static constexpr std::size_t most = 256;

    void set(std::vector<std::uint64_t> places); // bytes, in any order; those that are too many are left out

    struct Neighbours {
        std::uint64_t below; // the last border at or before a place; 0 without one
        std::uint64_t above; // the first behind it; all ones without one
    };
    Neighbours around(std::uint64_t place) const;

  private:
    std::mutex changing_;                   // one change at a time; innermost
    std::atomic<std::uint32_t> changes_{0}; // odd: one is being made
    std::atomic<std::size_t> count_{0};
    std::array<std::atomic<std::uint64_t>, most> places_{}; // ascending
};

} // namespace quendreld
