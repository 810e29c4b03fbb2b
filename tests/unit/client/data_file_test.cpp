// SPDX-License-Identifier: GPL-2.0-only
#include "data_file.h"
#include "support.h"

#include <fcntl.h>

#include <sys/stat.h>

namespace
{

using namespace test;

std::vector<std::byte> noise(std::size_t bytes, unsigned seed)
{
    std::mt19937 random{seed};
    std::vector<std::byte> data(bytes);
    for (std::byte& byte : data)
        byte = static_cast<std::byte>(random());
    return data;
}

std::vector<std::byte> drain(DataReader& reader)
{
    std::vector<std::byte> all;
    for (auto piece = reader.next(); !piece.empty(); piece = reader.next())
        all.insert(all.end(), piece.begin(), piece.end());
    return all;
}

TEST(DataFile, BytesComeBackInOrderAcrossSegments)
{
    Directory directory;
    const auto data = noise(2 * segment_bytes + 12345 * 4, 1);
    DataWriter writer{directory / "data"};
    for (std::size_t at = 0; at < data.size(); at += 999 * 4)
        writer.append(std::span{data}.subspan(at, std::min<std::size_t>(999 * 4, data.size() - at)), 4);
    const auto sums = writer.finish();
    EXPECT_EQ(sums.size(), 3u * 16);
    DataReader reader{directory / "data", sums, data.size(), segment_bytes};
    EXPECT_EQ(drain(reader), data);
}

TEST(DataFile, LongRunsOfZerosTakeNoSpace)
{
    Directory directory;
    std::vector<std::byte> data = noise(8 << 20, 2);
    std::fill(data.begin() + (1 << 20), data.begin() + (7 << 20), std::byte{0});
    DataWriter writer{directory / "data"};
    for (std::size_t at = 0; at < data.size(); at += 1 << 20)
        writer.append(std::span{data}.subspan(at, 1 << 20), 4096);
    const auto sums = writer.finish();
    struct stat st {
    };
    ASSERT_EQ(::stat((directory / "data").c_str(), &st), 0);
    EXPECT_EQ(static_cast<std::size_t>(st.st_size), data.size());
    EXPECT_LT(st.st_blocks * 512, 3 << 20);
    DataReader reader{directory / "data", sums, data.size(), segment_bytes};
    EXPECT_EQ(drain(reader), data);
}

TEST(DataFile, ZerosAtTheEndKeepTheSize)
{
    Directory directory;
    const std::vector<std::byte> zeros(1 << 20);
    DataWriter writer{directory / "data"};
    writer.append(zeros, 4096);
    const auto sums = writer.finish();
    DataReader reader{directory / "data", sums, zeros.size(), segment_bytes};
    EXPECT_EQ(drain(reader), zeros);
}

TEST(DataFile, EveryPatternOfZeroBlocksComesBack)
{
    Directory directory;
    std::mt19937 random{3};
    for (int round = 0; round < 60; ++round) {
        std::vector<std::byte> data = noise(512 * (1 + random() % 600), static_cast<unsigned>(round));
        for (std::size_t at = 0; at < data.size(); at += 512 * (1 + random() % 200)) {
            const std::size_t end = std::min<std::size_t>(data.size(), at + 512 * (random() % 300));
            std::fill(data.begin() + static_cast<std::ptrdiff_t>(at), data.begin() + static_cast<std::ptrdiff_t>(end),
                      std::byte{0});
            at = std::max(at, end);
        }
        const fs::path path = directory / ("data" + std::to_string(round));
        DataWriter writer{path};
        writer.append(data, 512);
        const auto sums = writer.finish();
        ASSERT_EQ(readAll(path), data) << round;
    }
}

TEST(DataFile, DamageIsSaidWithItsPlace)
{
    Directory directory;
    const auto data = noise(segment_bytes + 4096, 4);
    DataWriter writer{directory / "data"};
    writer.append(data, 4096);
    const auto sums = writer.finish();
    damage(directory / "data", segment_bytes + 10);
    DataReader reader{directory / "data", sums, data.size(), segment_bytes};
    EXPECT_EQ(reader.next().size(), segment_bytes);
    try {
        reader.next();
        FAIL();
    } catch (const Failure& failure) {
        EXPECT_EQ(failure.exitCode(), 5);
        EXPECT_NE(std::string{failure.what()}.find(std::to_string(segment_bytes)), std::string::npos);
    }
}

TEST(DataFile, WrongSizeIsNoticedBeforeReading)
{
    Directory directory;
    const auto data = noise(8192, 5);
    DataWriter writer{directory / "data"};
    writer.append(data, 4096);
    const auto sums = writer.finish();
    fs::resize_file(directory / "data", 4096);
    EXPECT_THROW((DataReader{directory / "data", sums, 8192, segment_bytes}), Failure);
}

TEST(DataFile, FullDiskSaysWhatToDo)
{
    if (!fs::exists("/dev/full"))
        GTEST_SKIP() << "no /dev/full";
    const File full{"/dev/full", O_WRONLY};
    const auto data = noise(4096, 6);
    try {
        full.writeAt(0, data);
        FAIL();
    } catch (const Failure& failure) {
        EXPECT_NE(std::string{failure.what()}.find("No space left"), std::string::npos);
        EXPECT_NE(std::string{failure.what()}.find("Free some space"), std::string::npos);
    }
}

TEST(DataFile, AllZeroLooksAtEveryByte)
{
    std::vector<std::byte> bytes(4096);
    EXPECT_TRUE(allZero(bytes));
    for (const std::size_t at : {std::size_t{0}, std::size_t{1}, std::size_t{2048}, std::size_t{4095}}) {
        bytes[at] = std::byte{1};
        EXPECT_FALSE(allZero(bytes)) << at;
        bytes[at] = std::byte{0};
    }
}

} // namespace
