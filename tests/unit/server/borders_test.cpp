// SPDX-License-Identifier: GPL-2.0-only
// The borders of a disk's partitions: neighbours of a place, and looks while they change.
#include "borders.h"

#include <gtest/gtest.h>

#include <array>
#include <atomic>
#include <chrono>
#include <thread>

namespace
{

using quendreld::Borders;

constexpr std::uint64_t none = ~std::uint64_t(0);

TEST(Borders, NeighboursAreTheLastAtOrBeforeAndTheFirstBehind)
{
    Borders borders;
    EXPECT_EQ(borders.around(5).below, 0u);
    EXPECT_EQ(borders.around(5).above, none);
    borders.set({30, 10, 20, 20});
    for (const auto& [place, below, above] : {std::array<std::uint64_t, 3>{0, 0, 10},
                                              {9, 0, 10},
                                              {10, 10, 20},
                                              {19, 10, 20},
                                              {20, 20, 30},
                                              {30, 30, none},
                                              {99, 30, none}}) {
        EXPECT_EQ(borders.around(place).below, below) << place;
        EXPECT_EQ(borders.around(place).above, above) << place;
    }
}

TEST(Borders, MoreThanFitAreLeftOut)
{
    Borders borders;
    std::vector<std::uint64_t> many;
    for (std::uint64_t i = 1; i <= Borders::most + 10; ++i)
        many.push_back(i * 100);
    borders.set(many);
    EXPECT_EQ(borders.around(Borders::most * 100 + 50).below, Borders::most * 100);
    EXPECT_EQ(borders.around(Borders::most * 100 + 50).above, none);
}

TEST(Borders, ALookDuringAChangeSeesAllOfTheOldOrAllOfTheNew)
{
    std::vector<std::uint64_t> hundreds, fifties;
    for (std::uint64_t i = 1; i <= 200; ++i) {
        hundreds.push_back(i * 100);
        fifties.push_back(i * 100 + 50);
    }
    Borders borders;
    borders.set(hundreds);
    std::atomic<bool> ends = false;
    std::thread changer([&] {
        const auto until = std::chrono::steady_clock::now() + std::chrono::milliseconds(500);
        for (unsigned i = 0; std::chrono::steady_clock::now() < until; ++i)
            borders.set(i % 2 ? hundreds : fifties);
        ends = true;
    });
    std::size_t wrong = 0;
    for (std::uint64_t place = 1000; !ends; place = place < 19000 ? place + 7 : 1000) {
        const Borders::Neighbours found = borders.around(place);
        wrong += found.above - found.below != 100 || place < found.below || place >= found.above;
    }
    changer.join();
    EXPECT_EQ(wrong, 0u);
}

} // namespace
