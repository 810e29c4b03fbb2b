// SPDX-License-Identifier: GPL-2.0-only
// Partition tables and file systems of images built here.
#include "hosted.h"

#include <cstdlib>
#include <cstring>
#include <fstream>
#include <gtest/gtest.h>
#include <system_error>
#include <unistd.h>

using namespace hosted;

namespace
{

constexpr std::uint64_t mebibyte = 1 << 20;

class Image
{
  public:
    explicit Image(std::uint64_t bytes)
    {
        char name[] = "hosted_probe_XXXXXX";
        int fd = mkstemp(name);
        path = name;
        EXPECT_EQ(ftruncate(fd, off_t(bytes)), 0);
        close(fd);
    }
    ~Image() { unlink(path.c_str()); }
    void put(std::uint64_t offset, const void* bytes, std::size_t n)
    {
        std::fstream f(path, std::ios::in | std::ios::out | std::ios::binary);
        f.seekp(std::streamoff(offset));
        f.write(static_cast<const char*>(bytes), std::streamsize(n));
    }
    // An entry of a DOS table, or of the extended boot record at sector `record`.
    void partition(unsigned index, u32 start, u32 sectors, unsigned char type = 0x83, std::uint64_t record = 0)
    {
        unsigned char entry[16] = {};
        entry[4] = type;
        std::memcpy(entry + 8, &start, 4);
        std::memcpy(entry + 12, &sectors, 4);
        put(record * 512 + 446 + 16 * (index - 1), entry, sizeof entry);
        put(record * 512 + 510, "\x55\xAA", 2);
    }
    std::string path;
};

} // namespace

TEST(Probe, ReadsADosTableWithItsGaps)
{
    Image image(16 * mebibyte);
    image.partition(1, 2048, 4096);
    image.partition(3, 8192, 16384);
    auto table = read_partition_table(image.path).partitions;
    ASSERT_EQ(table.size(), 2u);
    EXPECT_EQ(table[0].index, 1u);
    EXPECT_EQ(table[0].start, 2048u);
    EXPECT_EQ(table[0].sectors, 4096u);
    EXPECT_EQ(table[1].index, 3u);
    EXPECT_EQ(table[1].start, 8192u);
    EXPECT_EQ(table[1].sectors, 16384u);
}

TEST(Probe, AnImageWithoutATableHasNoPartitions)
{
    Image image(mebibyte);
    EXPECT_EQ(read_partition_table(image.path), PartitionTable{});
    EXPECT_THROW(read_partition_table("/nonexistent/image"), std::system_error);
}

TEST(Probe, LeavesOutWhatLiesOverAnotherPartitionOrBehindTheDiskAndSaysSo)
{
    Image image(16 * mebibyte);
    image.partition(1, 2048, 4096);
    image.partition(2, 4096, 4096);
    image.partition(3, 32000, 1000);
    image.partition(4, 8192, 1024);
    const PartitionTable table = read_partition_table(image.path);
    EXPECT_EQ(table.partitions, (std::vector<PartitionSpec>{{1, 2048, 4096}, {4, 8192, 1024}}));
    EXPECT_EQ(table.left_out, (std::vector<std::string>{"partition 2 lies over partition 1, left out",
                                                        "partition 3 ends after the disk, left out"}));
}

TEST(Probe, WhatAFileHasGrownByIsNoPartOfTheDisk)
{
    Image image(16 * mebibyte);
    image.partition(1, 2048, 1024);
    image.partition(2, 20000, 4096);
    const PartitionTable table = read_partition_table(image.path, 16, 22000);
    EXPECT_EQ(table.partitions, (std::vector<PartitionSpec>{{1, 2048, 1024}}));
    EXPECT_EQ(table.left_out, std::vector<std::string>{"partition 2 ends after the disk, left out"});
}

TEST(Probe, LeavesOutPartitionsWithoutADeviceNumber)
{
    Image image(16 * mebibyte);
    image.partition(1, 2048, 1024);
    image.partition(2, 4096, 1024);
    const PartitionTable table = read_partition_table(image.path, 2);
    EXPECT_EQ(table.partitions, (std::vector<PartitionSpec>{{1, 2048, 1024}}));
    EXPECT_EQ(table.left_out, std::vector<std::string>{"partition 2 has no device number, left out"});
}

TEST(Probe, FindsLogicalPartitionsAndTheRecordsThatDescribeThem)
{
    Image image(16 * mebibyte);
    image.partition(1, 2048, 1024);
    image.partition(2, 8192, 16384, 0x05);
    image.partition(1, 64, 1000, 0x83, 8192);
    image.partition(2, 4096, 4096, 0x05, 8192);
    image.partition(1, 64, 2000, 0x83, 8192 + 4096);
    const PartitionTable table = read_partition_table(image.path);
    EXPECT_EQ(table.partitions, (std::vector<PartitionSpec>{{1, 2048, 1024}, {5, 8256, 1000}, {6, 12352, 2000}}));
    EXPECT_EQ(table.records, (std::vector<sector_type>{8192, 12288}));
    EXPECT_TRUE(table.left_out.empty());
}

TEST(Probe, AChainOfExtendedRecordsThatBitesItsTailEndsThere)
{
    Image image(16 * mebibyte);
    image.partition(2, 8192, 16384, 0x05);
    image.partition(1, 64, 1000, 0x83, 8192);
    image.partition(2, 4096, 4096, 0x05, 8192);
    image.partition(1, 64, 2000, 0x83, 8192 + 4096);
    image.partition(2, 0, 4096, 0x05, 8192 + 4096);
    const PartitionTable table = read_partition_table(image.path);
    EXPECT_EQ(table.partitions, (std::vector<PartitionSpec>{{5, 8256, 1000}, {6, 12352, 2000}}));
    EXPECT_EQ(table.left_out, std::vector<std::string>{
                                  "the extended boot record at sector 8192 is in the chain twice: what would follow "
                                  "is left out"});
}

TEST(Probe, FindsAnExt4WithItsBlockSizeInsideAPartition)
{
    for (unsigned block_size : {1024u, 4096u}) {
        Image image(32 * mebibyte);
        image.partition(1, 2048, 16 * mebibyte / 512);
        std::string make = "PATH=$PATH:/sbin:/usr/sbin mkfs.ext4 -q -F -b " + std::to_string(block_size) +
                           " -E offset=1048576 " + image.path + " 16M >/dev/null 2>&1";
        if (std::system(make.c_str()) != 0)
            GTEST_SKIP() << "no mkfs.ext4";
        auto info = probe_place(image.path, mebibyte, 16 * mebibyte);
        ASSERT_TRUE(info);
        EXPECT_TRUE(info->file_system);
        EXPECT_EQ(info->type, "ext4");
        EXPECT_EQ(info->block_size, block_size);
    }
}

TEST(Probe, TakesTheBlockSizeOfAnXfsFromItsSuperBlock)
{
    Image image(512 * mebibyte);
    std::string make =
        "PATH=$PATH:/sbin:/usr/sbin mkfs.xfs -q -f -b size=1024 -s size=512 " + image.path + " >/dev/null 2>&1";
    if (std::system(make.c_str()) != 0)
        GTEST_SKIP() << "no mkfs.xfs";
    auto info = probe_place(image.path, 0, 512 * mebibyte);
    ASSERT_TRUE(info);
    EXPECT_EQ(info->type, "xfs");
    EXPECT_EQ(info->block_size, 1024u);
}

TEST(Probe, SwapSpaceIsKnownAndNoFileSystem)
{
    Image image(16 * mebibyte);
    if (std::system(("PATH=$PATH:/sbin:/usr/sbin mkswap " + image.path + " >/dev/null 2>&1").c_str()) != 0)
        GTEST_SKIP() << "no mkswap";
    const auto info = probe_place(image.path, 0, 16 * mebibyte);
    ASSERT_TRUE(info);
    EXPECT_FALSE(info->file_system);
    EXPECT_EQ(info->type, "swap");
}

TEST(Probe, FindsNothingInZeroes)
{
    Image image(mebibyte);
    EXPECT_FALSE(probe_place(image.path, 0, mebibyte));
}
