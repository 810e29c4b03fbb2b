// SPDX-License-Identifier: GPL-2.0-only
// Which blocks of a file system count as used; dumpe2fs, which is not ours, is the judge.
#include "support.h"

#include "used_blocks.h"
#include "verify.h"

#include <fcntl.h>

#include <array>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <sstream>

namespace
{

using namespace test;

std::string output(const std::string& command)
{
    const std::unique_ptr<FILE, int (*)(FILE*)> pipe{::popen((command + " 2>&1").c_str(), "r"), ::pclose};
    std::string text;
    std::array<char, 4096> part;
    while (const std::size_t n = std::fread(part.data(), 1, part.size(), pipe.get()))
        text.append(part.data(), n);
    return text;
}

class UsedBlocksOf : public ::testing::Test
{
  protected:
    // A file system with some files, one of which was deleted; `blocks` of it on a device that has `more` behind it.
    void make(const std::string& options, std::uint32_t size, std::uint32_t blocks, std::uint32_t more = 0)
    {
        block_size = size;
        device_blocks = blocks + more;
        const fs::path files = directory / "files";
        fs::create_directories(files / "below");
        for (const char* name : {"one", "two", "below/three"})
            std::ofstream{files / name} << std::string(300000, *name);
        File{image, O_CREAT | O_RDWR}.truncate(std::uint64_t{device_blocks} * size);
        const std::string made = output("mke2fs -q -F -b " + std::to_string(size) + " " + options + " -d " + files.string() + " " + image.string() + " " + std::to_string(blocks));
        ASSERT_EQ(made.find("mke2fs:"), std::string::npos) << made;
        debugfs("rm two");
    }
    void debugfs(const std::string& order) { output("debugfs -w -R '" + order + "' " + image.string()); }

    UsedBlocks used(std::uint32_t size = 0)
    {
        const File file{image, O_RDONLY};
        const std::uint32_t bytes = size != 0 ? size : block_size;
        return usedBlocks(bytes, static_cast<std::uint32_t>(std::uint64_t{device_blocks} * block_size / bytes), 64, [&](std::uint32_t first, std::span<std::byte> to) {
            reads += to.size() / bytes;
            file.readAt(std::uint64_t{first} * bytes, to);
        });
    }
    // What dumpe2fs calls free. Of a run of clusters it tells the first blocks of the first and of the last one.
    quendrel::Bitmap judged(std::uint32_t cluster = 1)
    {
        quendrel::Bitmap map{device_blocks, true};
        std::istringstream text{output("dumpe2fs " + image.string())};
        for (std::string line; std::getline(text, line);) {
            const auto at = line.find("  Free blocks: ");
            if (at != 0)
                continue;
            std::istringstream ranges{line.substr(15)};
            for (std::string range; std::getline(ranges, range, ',');) {
                std::uint32_t first = 0, last = 0;
                const int numbers = std::sscanf(range.c_str(), " %u-%u", &first, &last);
                for (std::uint32_t block = first; numbers > 0 && block < (numbers == 2 ? last : first) + cluster; ++block)
                    map.clear(block);
            }
        }
        return map;
    }
    void expectAsJudged(std::uint32_t cluster = 1)
    {
        const UsedBlocks found = used();
        EXPECT_EQ(found.doubt, "");
        const auto expected = judged(cluster);
        EXPECT_LT(expected.count(), device_blocks / 2) << "much of it is free";
        for (std::uint32_t block = 0; block < device_blocks; ++block)
            ASSERT_EQ(found.map.test(block), expected.test(block)) << block;
    }
    void expectDoubt(const std::string& doubt)
    {
        const UsedBlocks found = used();
        EXPECT_EQ(found.doubt, doubt);
        EXPECT_EQ(found.map.count(), device_blocks);
    }

    Directory directory;
    fs::path image = directory / "disk";
    std::uint32_t block_size = 0;
    std::uint32_t device_blocks = 0;
    std::uint64_t reads = 0;
};

TEST_F(UsedBlocksOf, Ext4AreThoseOfItsBitmaps)
{
    make("-t ext4", 4096, 100000);
    expectAsJudged();
    EXPECT_LT(reads, 1000u) << "of 100000";
}

TEST_F(UsedBlocksOf, Ext2WithSmallBlocksAreThoseOfItsBitmaps)
{
    make("-t ext2", 1024, 20000);
    expectAsJudged();
}

TEST_F(UsedBlocksOf, Ext3AreThoseOfItsBitmaps)
{
    make("-t ext3", 1024, 30000);
    expectAsJudged();
}

TEST_F(UsedBlocksOf, ClustersAreWholeOnes)
{
    make("-t ext4 -O bigalloc -C 65536", 4096, 100000);
    expectAsJudged(16);
}

TEST_F(UsedBlocksOf, ADeviceHaveWhatLiesBehindItsFileSystem)
{
    make("-t ext4", 4096, 20000, 500);
    const UsedBlocks found = used();
    for (std::uint32_t block = 20000; block < 20500; ++block)
        EXPECT_TRUE(found.map.test(block));
    expectAsJudged();
}

TEST_F(UsedBlocksOf, AFileSystemNotAtRestAreAll)
{
    make("-t ext4", 4096, 20000);
    debugfs("feature needs_recovery");
    expectDoubt("it was not at rest: its journal has to be replayed first");
}

TEST_F(UsedBlocksOf, AnUncleanFileSystemAreAll)
{
    make("-t ext2", 1024, 20000);
    debugfs("set_super_value state 0");
    expectDoubt("it was not at rest");
}

TEST_F(UsedBlocksOf, AFileSystemWithErrorsAreAll)
{
    make("-t ext4", 4096, 20000);
    debugfs("set_super_value state 3");
    expectDoubt("it has noted errors");
}

TEST_F(UsedBlocksOf, ADamagedBitmapAreAll)
{
    make("-t ext4", 4096, 20000);
    unsigned long bitmap = 0;
    const std::string text = output("dumpe2fs " + image.string());
    ASSERT_EQ(std::sscanf(text.c_str() + text.find("Block bitmap at "), "Block bitmap at %lu", &bitmap), 1);
    const std::array<std::byte, 1> flipped{std::byte{0x5a}};
    File{image, O_RDWR}.writeAt(bitmap * 4096 + 300, flipped);
    expectDoubt("Block bitmap checksum does not match bitmap");
}

TEST_F(UsedBlocksOf, AnotherFileSystemAreAll)
{
    block_size = 4096;
    device_blocks = 1000;
    File{image, O_CREAT | O_RDWR}.truncate(4096000);
    expectDoubt("no ext2, ext3 or ext4");
}

TEST_F(UsedBlocksOf, AFileSystemWithOtherBlocksThanTheDriversAreAll)
{
    make("-t ext4", 4096, 20000);
    const UsedBlocks found = used(1024);
    EXPECT_EQ(found.doubt, "its blocks are of another size than the driver's");
    EXPECT_EQ(found.map.count(), 80000u);
}

TEST_F(UsedBlocksOf, ADeviceThatIsShorterThanItsFileSystemAreNotBeyondIt)
{
    make("-t ext4", 4096, 40000);
    device_blocks = 20000;
    const UsedBlocks found = used();
    EXPECT_EQ(found.map.blocks(), 20000u);
}

TEST_F(UsedBlocksOf, WhatTheReaderThrowsArrives)
{
    make("-t ext4", 4096, 20000);
    EXPECT_THROW(usedBlocks(4096, 20000, 64, [](std::uint32_t, std::span<std::byte>) { throw Interrupted{SIGTERM}; }), Interrupted);
}

// ---- in a backup

// A disk with an ext2 of its own size; what its free blocks hold is rubbish.
class OnlyUsed : public UsedBlocksOf
{
  protected:
    OnlyUsed()
    {
        machine.images = true;
        make("-t ext2", Machine::block_size, Machine::blocks);
        map = judged();
        machine.driver.writeAt(0, readAll(image));
        for (std::uint32_t block = 0; block < Machine::blocks; ++block)
            if (!map.test(block))
                machine.driver.write(block, 99);
    }
    // The file system's own checker, and a file.
    void expectWhole(const std::vector<std::byte>& restored)
    {
        File{image, O_RDWR}.writeAt(0, restored);
        EXPECT_EQ(output("e2fsck -fn " + image.string() + " >/dev/null; echo $?"), "0\n");
        EXPECT_EQ(output("debugfs -R 'cat below/three' " + image.string() + " 2>/dev/null | tr -d b | wc -c"), "0\n");
    }
    std::uint64_t blocksRead() const
    {
        std::uint64_t sum = 0;
        for (const auto& read : machine.driver.reads())
            sum += read.count;
        return sum;
    }

    Machine machine;
    quendrel::Bitmap map;
};

TEST_F(OnlyUsed, AFullBackupHasZerosWhereTheFileSystemHasNothing)
{
    const auto report = machine.backup();
    const auto restored = machine.restored(report.backup.path);
    const auto disk = machine.driver.contents();
    const std::vector<std::byte> zeros(Machine::block_size);
    map.widen(4);
    for (std::uint32_t block = 0; block < Machine::blocks; ++block) {
        const auto at = std::ptrdiff_t{block} * Machine::block_size;
        const bool as_disk = std::equal(restored.begin() + at, restored.begin() + at + Machine::block_size, disk.begin() + at);
        const bool zero = std::equal(restored.begin() + at, restored.begin() + at + Machine::block_size, zeros.begin());
        EXPECT_TRUE(map.test(block) ? as_disk : zero) << block;
    }
    expectWhole(restored);
    EXPECT_EQ(report.backup.manifest.copiedBlocks, Machine::blocks);
    EXPECT_EQ(report.backup.manifest.unusedBlocks, Machine::blocks - map.count());
    EXPECT_GT(report.backup.manifest.unusedBlocks, Machine::blocks / 2);
    Progress progress{Progress::Style::none};
    for (const VerifyResult& result : verifyBackups(machine.repository(), progress, machine.stop))
        EXPECT_EQ(result.problem, "");
}

TEST_F(OnlyUsed, AllBlocksAreReadWhenThatIsAskedFor)
{
    auto job = machine.job();
    job.allBlocks = true;
    const auto report = machine.backup(quendrel::ControlDevice{fake::connect(machine.driver), "memory"}, job);
    EXPECT_EQ(machine.restored(report.backup.path), machine.driver.contents());
    EXPECT_EQ(report.backup.manifest.unusedBlocks, 0u);
}

TEST_F(OnlyUsed, AFolderHoldsAllBlocks)
{
    machine.images = false;
    const auto report = machine.backup();
    EXPECT_EQ(machine.restored(report.backup.path), machine.driver.contents());
}

TEST_F(OnlyUsed, WhatIsWrittenLaterWhereNothingWasIsInTheIncrement)
{
    machine.backup();
    std::uint32_t unused = Machine::blocks - 300;
    while (map.test(unused))
        ++unused;
    machine.driver.write(unused, 5);
    const auto report = machine.backup();
    EXPECT_EQ(report.backup.manifest.mode, Mode::incremental);
    const auto restored = machine.restored(report.backup.path);
    const auto disk = machine.driver.contents();
    const auto at = std::ptrdiff_t{unused} * Machine::block_size;
    EXPECT_TRUE(std::equal(restored.begin() + at, restored.begin() + at + Machine::block_size, disk.begin() + at));
    expectWhole(restored);
}

TEST_F(OnlyUsed, WhatIsComparedAreTheUsedBlocks)
{
    machine.backup();
    machine.driver.forget();
    // One of a file; and rubbish where nothing is.
    std::uint32_t used = Machine::blocks - 1;
    while (!map.test(used))
        --used;
    machine.driver.write(used, 123);
    for (std::uint32_t block = 0; block < Machine::blocks; ++block)
        if (!map.test(block))
            machine.driver.write(block, 55);
    const auto report = machine.backup();
    EXPECT_NE(report.backup.manifest.compared, "");
    const auto restored = machine.restored(report.backup.path);
    const auto disk = machine.driver.contents();
    for (std::uint32_t block = 0; block < Machine::blocks; ++block) {
        const auto at = std::ptrdiff_t{block} * Machine::block_size;
        if (map.test(block)) {
            EXPECT_TRUE(std::equal(restored.begin() + at, restored.begin() + at + Machine::block_size, disk.begin() + at)) << block;
        }
    }
    EXPECT_LT(blocksRead(), Machine::blocks / 2);
}

TEST_F(OnlyUsed, WhatIsNotAtRestIsReadWhole)
{
    debugfs("set_super_value state 0");
    const auto disk = readAll(image);
    machine.driver.writeAt(0, std::span{disk}.first(4 * Machine::block_size));
    const auto report = machine.backup();
    EXPECT_EQ(machine.restored(report.backup.path), machine.driver.contents());
    EXPECT_EQ(report.backup.manifest.unusedBlocks, 0u);
}

} // namespace
