// SPDX-License-Identifier: GPL-2.0-only
// The paged block bitmap: making, filling, freeing, the bit operations and the drain gate around them.
#include "core_view.h"

#include <atomic>
#include <set>
#include <thread>

using rig::Lines;
using rig::Program;

namespace
{

constexpr u32 unwritten = 0xDEADBEEF;
constexpr unsigned pagesOnly = unsigned(hosted::faults::Kind::page);
constexpr unsigned vmallocsOnly = unsigned(hosted::faults::Kind::vmalloc);

const unsigned char* bytesOf(const BlockMap& map, u32 page)
{
    return static_cast<const unsigned char*>(page_address(map.map[page]));
}

class BlockMaps : public rig::DriverTest
{
  protected:
    BlockMap map{};
    u32 pages = unwritten;

    // A map without user data.
    void make(u32 size, int zeroFill = 1) { ASSERT_EQ(newBlockMap(&map, size, user_addr(0), zeroFill, &pages), 0); }
    void TearDown() override
    {
        u32 freed;
        closeBlockMap(&map, &freed);
        DriverTest::TearDown();
    }
};

TEST_F(BlockMaps, SizeWithoutBytesIsRefusedAndTheRecordUntouched)
{
    BlockMap before;
    std::memset(static_cast<void*>(&before), 0x3C, sizeof before);
    for (u32 size : {0u, 4294967289u, 4294967290u, 4294967291u, 4294967292u, 4294967293u, 4294967294u, 4294967295u}) {
        BlockMap record = before;
        EXPECT_EQ(newBlockMap(&record, size, user_addr(0), 1, &pages), 2);
        EXPECT_EQ(std::memcmp(&record, &before, sizeof record), 0);
        EXPECT_EQ(takeLog(), (Lines{"<3>newBlockMap: block size size=" + std::to_string(size) + " invalid\n"}));
    }
    EXPECT_EQ(pages, unwritten);
}

TEST_F(BlockMaps, LargestSizeThatDoesNotWrapIsAttempted)
{
    // 4294967288 blocks are 536870911 bytes, 131072 pages; only the array is wanted here.
    hosted::faults::fail_allocation(1, pagesOnly);
    EXPECT_EQ(newBlockMap(&map, 4294967288u, user_addr(0), 1, &pages), 5);
    EXPECT_EQ(takeLog(), (Lines{"<3>newBlockMap: failed allocating page number (0) for block map\n",
                                "<3>newBlockMap: Out of Memory Error.\n"}));
}

TEST_F(BlockMaps, OneBlockTakesOneByteOfOnePage)
{
    make(1);
    EXPECT_EQ(map.size, 1u);
    EXPECT_EQ(map.numBytes, 1u);
    EXPECT_EQ(pages, 1u);
    EXPECT_EQ(numPagesInBlockMap(&map), 1u);
    EXPECT_EQ(atomic_read(&map.users), 1);
    EXPECT_EQ(down_trylock(&map.sem), 0);
    EXPECT_EQ(down_trylock(&map.sem), 1);
    up(&map.sem);
}

// Pages that the next allocations will get, with known bytes in them.
std::set<page*> dirtyPages(u32 count)
{
    std::vector<page*> taken;
    for (u32 i = 0; i < count; i++) {
        taken.push_back(alloc_page(GFP_HIGHUSER));
        std::memset(kmap(taken.back()), 0xAB, PAGE_BYTES);
        kunmap(taken.back());
    }
    for (page* p : taken)
        free_page_ref(p);
    return {taken.begin(), taken.end()};
}

TEST_F(BlockMaps, OnlyTheBytesThatCarryBitsAreFilled)
{
    page* anchor = alloc_page(GFP_HIGHUSER); // keeps the dirtied pages from going back to the host
    for (int zeroFill : {1, 0}) {
        const unsigned char filled = zeroFill == 1 ? 0x00 : 0xFF;
        const std::set<page*> dirtied = dirtyPages(9);
        make(1, zeroFill);
        ASSERT_TRUE(dirtied.contains(map.map[0])) << "the page is fresh: nothing can be told";
        EXPECT_EQ(bytesOf(map, 0)[0], filled);
        EXPECT_EQ(bytesOf(map, 0)[1], 0xAB);
        EXPECT_EQ(bytesOf(map, 0)[4095], 0xAB);
        closeBlockMap(&map, &pages);

        make(262145, zeroFill);
        ASSERT_TRUE(dirtied.contains(map.map[8]));
        EXPECT_EQ(bytesOf(map, 7)[4095], filled);
        EXPECT_EQ(bytesOf(map, 8)[0], filled);
        EXPECT_EQ(bytesOf(map, 8)[1], 0xAB);
        closeBlockMap(&map, &pages);

        make(262144, zeroFill);
        for (u32 i = 0; i < PAGE_BYTES; i++)
            ASSERT_EQ(bytesOf(map, 7)[i], filled) << "byte " << i << " of a page that is used in full";
        closeBlockMap(&map, &pages);
    }
    free_page_ref(anchor);
}

TEST_F(BlockMaps, PageCountsAroundAFullPage)
{
    struct Case {
        u32 size, bytes, pages;
    };
    for (const Case& c : {Case{8, 1, 1}, Case{9, 2, 1}, Case{32768, 4096, 1}, Case{32769, 4097, 2},
                          Case{262144, 32768, 8}, Case{262145, 32769, 9}}) {
        make(c.size);
        EXPECT_EQ(map.numBytes, c.bytes);
        EXPECT_EQ(pages, c.pages);
        EXPECT_EQ(numPagesInBlockMap(&map), c.pages);
        u32 freed = unwritten;
        closeBlockMap(&map, &freed);
        EXPECT_EQ(freed, c.pages);
    }
}

TEST_F(BlockMaps, FillIsClearForOneAndSetForAnyOtherValue)
{
    for (int zeroFill : {1, 0, 2, -1}) {
        make(20, zeroFill);
        for (u32 i = 0; i < 3; i++)
            EXPECT_EQ(bytesOf(map, 0)[i], zeroFill == 1 ? 0x00 : 0xFF) << "zeroFill " << zeroFill;
        EXPECT_EQ(blockInMap(&map, 19), zeroFill == 1 ? 0 : -1);
        EXPECT_EQ(blockInMap(&map, 20), 0) << "a spare bit was read";
        u32 freed;
        closeBlockMap(&map, &freed);
    }
}

TEST_F(BlockMaps, BlockNIsBitNModEightOfByteNDividedByEight)
{
    make(262145);
    EXPECT_EQ(setBlock(&map, 7), 0u);
    EXPECT_EQ(bytesOf(map, 0)[0], 0x80);
    EXPECT_EQ(setBlock(&map, 0), 0u);
    EXPECT_EQ(bytesOf(map, 0)[0], 0x81);
    EXPECT_EQ(setBlock(&map, 8), 0u);
    EXPECT_EQ(bytesOf(map, 0)[1], 0x01);
    EXPECT_EQ(setBlock(&map, 32767), 0u);
    EXPECT_EQ(bytesOf(map, 0)[4095], 0x80);
    EXPECT_EQ(setBlock(&map, 32768), 0u);
    EXPECT_EQ(bytesOf(map, 1)[0], 0x01);
    EXPECT_EQ(setBlock(&map, 262144), 0u);
    EXPECT_EQ(bytesOf(map, 8)[0], 0x01);
    EXPECT_EQ(rig::membersOf(map), (std::vector<u32>{0, 7, 8, 32767, 32768, 262144}));
}

TEST_F(BlockMaps, ClearingTakesExactlyOneBlockOut)
{
    make(64, 0);
    EXPECT_EQ(unSetBlock(&map, 9), 0);
    EXPECT_EQ(bytesOf(map, 0)[1], 0xFD);
    EXPECT_EQ(blockInMap(&map, 9), 0);
    EXPECT_EQ(blockInMap(&map, 8), -1);
    EXPECT_EQ(blockInMap(&map, 10), -1);
    EXPECT_EQ(unSetBlock(&map, 9), 0) << "a clear block may be cleared again";
    EXPECT_EQ(setBlock(&map, 9), 0u);
    EXPECT_EQ(setBlock(&map, 9), 0u);
    EXPECT_EQ(blockInMap(&map, 9), -1);
}

TEST_F(BlockMaps, BlocksBeyondTheSizeHaveThreeDifferentAnswers)
{
    make(10, 0);
    for (u32 block : {10u, 11u, 4096u * 8, 0xFFFFFFFFu}) {
        EXPECT_EQ(setBlock(&map, block), block);
        EXPECT_EQ(unSetBlock(&map, block), 1);
        EXPECT_EQ(blockInMap(&map, block), 0);
    }
    EXPECT_EQ(bytesOf(map, 0)[1], 0xFF) << "a spare bit was changed";
    EXPECT_EQ(atomic_read(&map.users), 1);
    EXPECT_EQ(takeLog(), Lines{});
}

TEST_F(BlockMaps, AfterCloseEveryBlockIsOutside)
{
    make(100, 0);
    u32 freed = unwritten;
    closeBlockMap(&map, &freed);
    EXPECT_EQ(freed, 1u);
    EXPECT_EQ(map.map, nullptr);
    EXPECT_EQ(map.size, 0u);
    EXPECT_EQ(map.numBytes, 13u);
    for (u32 block : {0u, 1u, 99u, 100u}) {
        EXPECT_EQ(blockInMap(&map, block), 0);
        EXPECT_EQ(setBlock(&map, block), block);
        EXPECT_EQ(unSetBlock(&map, block), 1);
    }
    EXPECT_EQ(atomic_read(&map.users), 1);
}

TEST_F(BlockMaps, ClosingAnEmptyMapWritesNothing)
{
    u32 freed = unwritten;
    closeBlockMap(&map, &freed);
    EXPECT_EQ(freed, unwritten);
    make(5);
    closeBlockMap(&map, &freed);
    EXPECT_EQ(freed, 1u);
    freed = unwritten;
    closeBlockMap(&map, &freed);
    EXPECT_EQ(freed, unwritten);
}

TEST_F(BlockMaps, AMapThatWasNeverMadeHasNoBlocks)
{
    EXPECT_EQ(blockInMap(&map, 3), 0);
    EXPECT_EQ(setBlock(&map, 3), 3u);
    EXPECT_EQ(unSetBlock(&map, 3), 1);
}

TEST_F(BlockMaps, PageArrayThatCannotBeAllocatedLeavesTheRecordZero)
{
    std::memset(static_cast<void*>(&map), 0x3C, sizeof map);
    hosted::faults::fail_allocation(1, vmallocsOnly);
    EXPECT_EQ(newBlockMap(&map, 3 * 32768, user_addr(0), 1, &pages), 5);
    EXPECT_EQ(takeLog(), (Lines{"<3>newBlockMap: failed allocating (12) bytes of memory for block map page array\n"}));
    const BlockMap zero{};
    EXPECT_EQ(std::memcmp(&map, &zero, sizeof map), 0);
    EXPECT_EQ(pages, unwritten);
}

TEST_F(BlockMaps, PageThatCannotBeAllocatedFreesThoseBeforeIt)
{
    const hosted::Live before = hosted::live();
    for (u32 failing = 0; failing < 5; failing++) {
        hosted::faults::fail_allocation(failing + 1, pagesOnly);
        EXPECT_EQ(newBlockMap(&map, 5 * 32768, user_addr(0), 1, &pages), 5);
        EXPECT_EQ(takeLog(), (Lines{"<3>newBlockMap: failed allocating page number (" + std::to_string(failing) +
                                        ") for block map\n",
                                    "<3>newBlockMap: Out of Memory Error.\n"}));
        EXPECT_EQ(map.map, nullptr);
        EXPECT_EQ(map.size, 0u);
        EXPECT_EQ(hosted::live(), before);
        u32 freed = unwritten;
        closeBlockMap(&map, &freed);
        EXPECT_EQ(freed, unwritten) << "a failed map may be closed again without harm";
    }
    EXPECT_EQ(pages, unwritten);
}

// Maps from user memory are made by a command, which runs in the process that owns that memory.
class UserMaps : public rig::DriverTest
{
  protected:
    void SetUp() override
    {
        DriverTest::SetUp();
        ASSERT_NO_FATAL_FAILURE(program.beginSnapshot(sda(), 1));
        takeLog();
    }
    void TearDown() override
    {
        program.close();
        DriverTest::TearDown();
    }
    int load(u32 data, u32 blocks)
    {
        return program.command(QUENDREL_LOAD_BLOCK_MAP,
                               program.put(LoadBlockMap{program.put(UserBlockMap{data, blocks}), 8}));
    }
    BlockMap& map() { return rig::recordOf(program)->blockMap; }
    Program program;
};

TEST_F(UserMaps, AreCopiedByteForByteAcrossPages)
{
    const u32 bytes = 2 * PAGE_BYTES + 3;
    const u32 at = program.memory().allocate(bytes, true, true); // not a byte more can be read
    for (u32 i = 0; i < bytes; i++)
        program.memory().at(at)[i] = std::byte(i * 13 + i / 256);
    EXPECT_EQ(load(at, bytes * 8 - 5), 0);
    EXPECT_EQ(map().size, bytes * 8 - 5);
    EXPECT_EQ(map().numBytes, bytes);
    for (u32 i = 0; i < bytes; i++)
        ASSERT_EQ(bytesOf(map(), i / PAGE_BYTES)[i % PAGE_BYTES], (unsigned char)(i * 13 + i / 256)) << i;
}

TEST_F(UserMaps, CopyThatFailsOnPageThreeOfFiveFreesTheOthers)
{
    const hosted::Live before = hosted::live();
    const u32 at = program.memory().allocate(3 * PAGE_BYTES);
    EXPECT_EQ(load(at, 5 * 32768), 6);
    char address[16];
    snprintf(address, sizeof address, "%x", at + 3 * PAGE_BYTES);
    EXPECT_EQ(takeLog(),
              (Lines{std::string("<3>newBlockMap: copy to user space failed data=") + address +
                         " bytesCopied=4096 bytesInMap=20480\n",
                     "<3>newBlockMap: Out of Memory Error.\n", "<3>newBUBlockMap: error creating map of size=163840\n",
                     "<3>ioctlLoadBlockMap: backup error failed to load device map\n"}));
    EXPECT_EQ(hosted::live(), before);
    EXPECT_EQ(map().map, nullptr);
    EXPECT_EQ(map().size, 0u);
}

TEST_F(UserMaps, CopyThatFailsInTheLastPartOfAPageSaysItsCount)
{
    // Ninety bytes of the hundred in the second page can be read.
    const u32 at = program.memory().allocate(PAGE_BYTES + 90, true, true);
    EXPECT_EQ(load(at, (PAGE_BYTES + 100) * 8), 6);
    char line[120];
    snprintf(line, sizeof line, "<3>newBlockMap: copy to user space failed data=%x bytesCopied=100 bytesInMap=4196\n",
             at + PAGE_BYTES);
    const Lines log = takeLog();
    ASSERT_EQ(log.size(), 4u);
    EXPECT_EQ(log[0], line);
}

class BlockMapGate : public BlockMaps
{
};

TEST_F(BlockMapGate, TheDrainWaitsForEveryBitOperationInside)
{
    make(100);
    down(&map.sem); // holds bit operations inside the gate
    std::thread user([&] { EXPECT_EQ(setBlock(&map, 5), 0u); });
    ASSERT_TRUE(eventually([&] { return atomic_read(&map.users) == 2; }));
    std::atomic<bool> alone{false};
    std::thread writer([&] {
        unsigned long flags = 99;
        waitForBlockMapUsers(&map, &flags);
        EXPECT_NE(flags, 99ul) << "the interrupt state was not saved";
        EXPECT_EQ(atomic_read(&map.users), 1);
        alone = true;
        spin_unlock_irqrestore(&map.usersLock, flags);
    });
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    EXPECT_FALSE(alone);
    up(&map.sem);
    user.join();
    writer.join();
    EXPECT_TRUE(alone);
    EXPECT_EQ(blockInMap(&map, 5), -1);
}

TEST_F(BlockMapGate, NobodyEntersWhileTheDrainIsHeld)
{
    make(100);
    unsigned long flags;
    waitForBlockMapUsers(&map, &flags);
    std::atomic<bool> done{false};
    std::thread user([&] {
        setBlock(&map, 5);
        done = true;
    });
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    EXPECT_FALSE(done);
    EXPECT_EQ(atomic_read(&map.users), 1);
    spin_unlock_irqrestore(&map.usersLock, flags);
    user.join();
    EXPECT_TRUE(done);
}

TEST_F(BlockMapGate, BitOperationsOnOneByteFromManyThreadsAllStick)
{
    make(32768);
    std::vector<std::thread> threads;
    for (u32 t = 0; t < 4; t++)
        threads.emplace_back([&, t] {
            for (u32 i = t; i < 4000; i += 4) {
                setBlock(&map, i);
                if (i % 8 == 7)
                    unSetBlock(&map, i);
            }
        });
    for (std::thread& t : threads)
        t.join();
    for (u32 i = 0; i < 4000; i++)
        ASSERT_EQ(blockInMap(&map, i), i % 8 == 7 ? 0 : -1) << i;
    EXPECT_EQ(atomic_read(&map.users), 1);
}

} // namespace
