// SPDX-License-Identifier: GPL-2.0-only
#include "client/low_memory.h"

#include <gtest/gtest.h>

#include <new>
#include <vector>

namespace
{

using quendrel::LowMemory;

bool isLow(const LowMemory& memory)
{
    return reinterpret_cast<std::uintptr_t>(memory.data()) + memory.bytes() <= (std::uint64_t{1} << 32);
}

TEST(LowMemory, IsZeroFilledWholePagesBelow4GiB)
{
    const LowMemory memory{5000};
    EXPECT_EQ(memory.bytes(), 8192u);
    EXPECT_TRUE(isLow(memory));
    for (std::size_t i = 0; i < memory.bytes(); ++i)
        ASSERT_EQ(memory.data()[i], std::byte{0});
}

// The window of MAP_32BIT has 1 GiB; the map of a large device does not fit there beside others.
TEST(LowMemory, FindsRoomOutsideTheWindowOfMap32Bit)
{
    std::vector<LowMemory> areas;
    for (int i = 0; i < 3; ++i) {
        areas.emplace_back(std::size_t{400} << 20, LowMemory::Access::reserve);
        EXPECT_TRUE(isLow(areas.back()));
    }
}

TEST(LowMemory, MoreThanThereIsThrows)
{
    EXPECT_THROW(LowMemory(std::size_t{1} << 32, LowMemory::Access::reserve), std::bad_alloc);
}

TEST(LowMemory, MovingLeavesTheSourceEmpty)
{
    LowMemory a{4096};
    std::byte* const data = a.data();
    LowMemory b{std::move(a)};
    EXPECT_EQ(b.data(), data);
    EXPECT_EQ(a.data(), nullptr);
    a = std::move(b);
    EXPECT_EQ(a.data(), data);
}

} // namespace
