// SPDX-License-Identifier: GPL-2.0-only
#include "client/bitmap.h"

#include <gtest/gtest.h>

#include <random>

namespace
{

using quendrel::Bitmap;

TEST(Bitmap, BlockNIsBitNMod8OfByteNDiv8LeastSignificantFirst)
{
    Bitmap map{40000};
    for (const std::uint32_t block : {0u, 7u, 8u, 13u, 32768u})
        map.set(block);
    EXPECT_EQ(map.bytes()[0], std::byte{0x81});
    EXPECT_EQ(map.bytes()[1], std::byte{0x21});
    EXPECT_EQ(map.bytes()[4096], std::byte{0x01});
    map.clear(7);
    EXPECT_EQ(map.bytes()[0], std::byte{0x01});
    EXPECT_TRUE(map.test(13));
    EXPECT_FALSE(map.test(12));
}

TEST(Bitmap, LiesBelow4GiB)
{
    const Bitmap map{1u << 20};
    EXPECT_EQ(static_cast<std::uint64_t>(reinterpret_cast<std::uintptr_t>(map.bytes().data())), map.address());
}

TEST(Bitmap, FullOneHasClearSpareBits)
{
    for (const std::uint32_t blocks : {1u, 7u, 8u, 9u, 63u, 64u, 65u, 4097u}) {
        const Bitmap map{blocks, true};
        EXPECT_EQ(map.count(), blocks);
        if (blocks % 8 != 0) {
            EXPECT_EQ(std::to_integer<unsigned>(map.bytes().back()) >> (blocks % 8), 0u);
        }
    }
}

TEST(Bitmap, SpareBitsWrittenByOthersAreCleared)
{
    Bitmap map{10};
    map.bytes()[1] = std::byte{0xff};
    map.clearSpareBits();
    EXPECT_EQ(map.bytes()[1], std::byte{0x03});
    EXPECT_EQ(map.count(), 2u);
}

TEST(Bitmap, EmptyOneHasNoRun)
{
    EXPECT_EQ(Bitmap{1000}.nextRun(0, 256), std::nullopt);
    EXPECT_EQ((Bitmap{1000, true}.nextRun(1000, 256)), std::nullopt);
}

TEST(Bitmap, RunsAreCutAtTheGivenLength)
{
    const Bitmap map{600, true};
    EXPECT_EQ(map.nextRun(0, 256), (Bitmap::Run{0, 256}));
    EXPECT_EQ(map.nextRun(256, 256), (Bitmap::Run{256, 256}));
    EXPECT_EQ(map.nextRun(512, 256), (Bitmap::Run{512, 88}));
}

TEST(Bitmap, RunsTogetherAreExactlyTheSet)
{
    std::mt19937 random{7};
    for (int round = 0; round < 200; ++round) {
        const std::uint32_t blocks = 1 + random() % 3000;
        const std::uint32_t most = 1 + random() % 300;
        Bitmap map{blocks, round % 2 == 0};
        std::vector<bool> expected(blocks, round % 2 == 0);
        for (std::uint32_t i = 0; i < blocks / 20; ++i) {
            const std::uint32_t block = random() % blocks;
            expected[block] = !expected[block];
            expected[block] ? map.set(block) : map.clear(block);
        }
        std::vector<bool> seen(blocks, false);
        std::uint32_t after = 0;
        for (auto run = map.nextRun(0, most); run; run = map.nextRun(run->first + run->count, most)) {
            ASSERT_GE(run->first, after);
            ASSERT_LE(run->count, most);
            after = run->first + run->count;
            for (std::uint32_t i = 0; i < run->count; ++i)
                seen[run->first + i] = true;
        }
        ASSERT_EQ(seen, expected) << "round " << round;
        ASSERT_EQ(map.count(), static_cast<std::uint32_t>(std::count(expected.begin(), expected.end(), true)));
    }
}

TEST(Bitmap, WidenedSetsWholeGroupsAndNoOthers)
{
    std::mt19937 random{8};
    for (int round = 0; round < 200; ++round) {
        const std::uint32_t blocks = 1 + random() % 500;
        const std::uint32_t size = 1 + random() % 9;
        Bitmap map{blocks};
        std::vector<bool> expected(blocks, false);
        for (std::uint32_t i = 0; i < blocks / 20; ++i) {
            const std::uint32_t block = random() % blocks;
            map.set(block);
            for (std::uint32_t other = block - block % size; other < std::min(blocks, block - block % size + size); ++other)
                expected[other] = true;
        }
        map.widen(size);
        for (std::uint32_t block = 0; block < blocks; ++block)
            ASSERT_EQ(map.test(block), expected[block]) << "round " << round << " block " << block;
        ASSERT_EQ(map.count(), static_cast<std::uint32_t>(std::count(expected.begin(), expected.end(), true)));
    }
}

} // namespace
