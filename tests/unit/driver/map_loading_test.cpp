// SPDX-License-Identifier: GPL-2.0-only
// LoadBlockMap: from the snapshot to a loaded map, the cache cleaned by it, and what a failure leaves.
#include "core_view.h"
#include "guards.h"

#include <atomic>
#include <thread>

using rig::Bits;
using rig::Lines;
using rig::Program;

namespace
{

class MapLoading : public rig::DriverTest
{
  protected:
    void TearDown() override
    {
        if (program.isOpen())
            program.close();
        DriverTest::TearDown();
    }
    Backup* record() { return rig::recordOf(program); }
    u32 state() { return load_acquire(&record()->state); }
    void snapshot(rig::TestDisk& disk, u32 partition = 1)
    {
        ASSERT_NO_FATAL_FAILURE(program.beginSnapshot(disk, partition));
        takeLog();
    }
    // The command with a map of `blocks` blocks at a user address.
    int load(u32 data, u32 blocks)
    {
        return program.command(QUENDREL_LOAD_BLOCK_MAP,
                               program.put(LoadBlockMap{program.put(UserBlockMap{data, blocks}), 8}));
    }
    // Writes a block and waits until its old contents are kept.
    void save(rig::TestDisk& disk, u32 partition, u32 block)
    {
        ASSERT_EQ(disk.writeBlock(partition, block, 0xE1), 0);
        ASSERT_TRUE(eventually([&] { return blockInMap(&record()->cacheMap, block) == -1; }));
    }
    bool cached(u32 block)
    {
        CachePage* before = nullptr;
        HashTable* ht = record()->blockTable[block & CACHE_BUCKET_MASK];
        SemaphoreGuard bucket(&ht->sem);
        return locateBlockInList(ht->busy, block, &before) != nullptr;
    }
    Program program;
};

TEST_F(MapLoading, ReplacesTheStateAndCountsItsPages)
{
    ASSERT_NO_FATAL_FAILURE(snapshot(sda()));
    const int total = atomic_read(&record()->totalAllocPages);
    const int current = atomic_read(&record()->curAllocPages);
    Bits bits(40000);
    bits.set(0);
    bits.set(4095);
    bits.set(39999);
    EXPECT_EQ(program.loadMap(bits), 0);
    EXPECT_EQ(state(), 6u);
    EXPECT_EQ(rig::membersOf(record()->blockMap), bits.members());
    EXPECT_EQ(atomic_read(&record()->totalAllocPages), total + 2);
    EXPECT_EQ(atomic_read(&record()->curAllocPages), current + 2);
    EXPECT_EQ(takeLog(), Lines{});
    EXPECT_EQ(down_trylock(&record()->bSem), 0);
    up(&record()->bSem);
}

TEST_F(MapLoading, CloseTakesTheMapsPagesOffTheCount)
{
    ASSERT_NO_FATAL_FAILURE(snapshot(sda()));
    ASSERT_EQ(program.loadMap(Bits(sda().blocks(1), true)), 0);
    const int current = atomic_read(&record()->curAllocPages);
    closeBUBlockMap(record());
    EXPECT_EQ(atomic_read(&record()->curAllocPages), current - 1);
    EXPECT_EQ(record()->blockMap.map, nullptr);
    closeBUBlockMap(record());
    EXPECT_EQ(atomic_read(&record()->curAllocPages), current - 1) << "an empty map was counted";
}

TEST_F(MapLoading, IsRefusedBeforeTheSnapshotAndTheStateStays)
{
    ASSERT_EQ(program.open(), 0);
    EXPECT_EQ(load(program.memory().allocate(8), 8), 2);
    EXPECT_EQ(takeLog(), (Lines{"<3>ioctlLoadBlockMap: backup error snapshot not complete\n"}));
    EXPECT_EQ(state(), 0u);
    ASSERT_EQ(program.start(sda().device(1), sda().blocks(1), 10), 0);
    takeLog();
    EXPECT_EQ(load(program.memory().allocate(8), 8), 2);
    EXPECT_EQ(takeLog(), (Lines{"<3>ioctlLoadBlockMap: backup error snapshot not complete\n"}));
    EXPECT_EQ(state(), 2u);
    EXPECT_EQ(record()->blockMap.map, nullptr);
}

TEST_F(MapLoading, SecondLoadIsRefusedAndTheStateStaysSix)
{
    ASSERT_NO_FATAL_FAILURE(snapshot(sda()));
    Bits first(100);
    first.set(7);
    ASSERT_EQ(program.loadMap(first), 0);
    EXPECT_EQ(program.loadMap(Bits(100, true)), 2);
    EXPECT_EQ(takeLog(), (Lines{"<3>ioctlLoadBlockMap: backup error snapshot not complete\n"}));
    EXPECT_EQ(state(), 6u);
    EXPECT_EQ(rig::membersOf(record()->blockMap), (std::vector<u32>{7}));
}

TEST_F(MapLoading, IsRefusedInEveryStateButFour)
{
    ASSERT_NO_FATAL_FAILURE(snapshot(sda()));
    for (u32 other : {0u, 1u, 2u, 3u, 5u, 6u, 7u, 8u, 9u, 10u, 12u, 13u}) {
        set_mb(&record()->state, other);
        EXPECT_EQ(load(program.memory().allocate(8), 8), 2) << other;
        EXPECT_EQ(state(), other);
        EXPECT_EQ(takeLog(), (Lines{"<3>ioctlLoadBlockMap: backup error snapshot not complete\n"}));
    }
    set_mb(&record()->state, 4);
}

TEST_F(MapLoading, MapWithoutBlocksFailsAndLeavesStateNine)
{
    ASSERT_NO_FATAL_FAILURE(snapshot(sda()));
    EXPECT_EQ(load(program.memory().allocate(8), 0), 2);
    EXPECT_EQ(takeLog(),
              (Lines{"<3>newBlockMap: block size size=0 invalid\n", "<3>newBUBlockMap: error creating map of size=0\n",
                     "<3>ioctlLoadBlockMap: backup error failed to load device map\n"}));
    EXPECT_EQ(state(), 9u);
    EXPECT_EQ(down_trylock(&record()->bSem), 0);
    up(&record()->bSem);
}

TEST_F(MapLoading, MapWhoseByteCountWrapsFailsAndLeavesStateNine)
{
    ASSERT_NO_FATAL_FAILURE(snapshot(sda()));
    EXPECT_EQ(load(program.memory().allocate(8), 4294967295u), 2);
    EXPECT_EQ(takeLog(), (Lines{"<3>newBlockMap: block size size=4294967295 invalid\n",
                                "<3>newBUBlockMap: error creating map of size=4294967295\n",
                                "<3>ioctlLoadBlockMap: backup error failed to load device map\n"}));
    EXPECT_EQ(state(), 9u);
}

TEST_F(MapLoading, WithoutMemoryForThePageArrayFailsAndLeavesStateNine)
{
    ASSERT_NO_FATAL_FAILURE(snapshot(sda()));
    const hosted::Live before = hosted::live();
    hosted::faults::fail_allocation(1, unsigned(hosted::faults::Kind::vmalloc));
    EXPECT_EQ(load(program.memory().allocate(8192), 65536), 5);
    EXPECT_EQ(takeLog(), (Lines{"<3>newBlockMap: failed allocating (8) bytes of memory for block map page array\n",
                                "<3>newBUBlockMap: error creating map of size=65536\n",
                                "<3>ioctlLoadBlockMap: backup error failed to load device map\n"}));
    EXPECT_EQ(state(), 9u);
    EXPECT_EQ(hosted::live(), before);
}

TEST_F(MapLoading, WithoutMemoryForAPageFailsAndLeavesStateNine)
{
    ASSERT_NO_FATAL_FAILURE(snapshot(sda()));
    const hosted::Live before = hosted::live();
    const int total = atomic_read(&record()->totalAllocPages);
    hosted::faults::fail_allocation(2, unsigned(hosted::faults::Kind::page));
    EXPECT_EQ(load(program.memory().allocate(8192), 65536), 5);
    EXPECT_EQ(takeLog(),
              (Lines{"<3>newBlockMap: failed allocating page number (1) for block map\n",
                     "<3>newBlockMap: Out of Memory Error.\n", "<3>newBUBlockMap: error creating map of size=65536\n",
                     "<3>ioctlLoadBlockMap: backup error failed to load device map\n"}));
    EXPECT_EQ(state(), 9u);
    EXPECT_EQ(hosted::live(), before);
    EXPECT_EQ(atomic_read(&record()->totalAllocPages), total);
}

TEST_F(MapLoading, MapPartlyInUnmappedMemoryFailsAndLeavesNoPages)
{
    ASSERT_NO_FATAL_FAILURE(snapshot(sda()));
    const hosted::Live before = hosted::live();
    const u32 at = program.memory().allocate(PAGE_BYTES);
    EXPECT_EQ(load(at, 32769), 6);
    char copy[120];
    snprintf(copy, sizeof copy, "<3>newBlockMap: copy to user space failed data=%x bytesCopied=1 bytesInMap=4097\n",
             at + PAGE_BYTES);
    EXPECT_EQ(takeLog(), (Lines{copy, "<3>newBlockMap: Out of Memory Error.\n",
                                "<3>newBUBlockMap: error creating map of size=32769\n",
                                "<3>ioctlLoadBlockMap: backup error failed to load device map\n"}));
    EXPECT_EQ(state(), 9u);
    EXPECT_EQ(hosted::live(), before);
}

TEST_F(MapLoading, MapAtAddressZeroHasEveryBlock)
{
    ASSERT_NO_FATAL_FAILURE(snapshot(sda()));
    EXPECT_EQ(load(0, 20), 0);
    EXPECT_EQ(state(), 6u);
    EXPECT_EQ(rig::membersOf(record()->blockMap).size(), 20u);
}

TEST_F(MapLoading, AFailedLoadLetsLaterWritesPassUncopied)
{
    ASSERT_NO_FATAL_FAILURE(snapshot(sda()));
    ASSERT_EQ(load(program.memory().allocate(8), 0), 2);
    EXPECT_EQ(sda().writeBlock(1, 5, 0x77), 0);
    EXPECT_EQ(sda().block(1, 5), rig::Bytes(4096, std::byte(0x77)));
    EXPECT_EQ(atomic_read(&record()->totalCBs), 0);
}

TEST_F(MapLoading, CachedBlocksOutsideTheMapAreFreedAndThoseInsideStay)
{
    ASSERT_NO_FATAL_FAILURE(snapshot(sda()));
    const rig::Bytes old6 = sda().block(1, 6);
    for (u32 block : {5u, 6u, 7u})
        ASSERT_NO_FATAL_FAILURE(save(sda(), 1, block));
    ASSERT_EQ(atomic_read(&record()->curCBs), 3);
    Bits bits(sda().blocks(1));
    bits.set(6);
    bits.set(9);
    EXPECT_EQ(program.loadMap(bits), 0);
    EXPECT_EQ(atomic_read(&record()->totalCleanedCBs), 2);
    EXPECT_EQ(atomic_read(&record()->curCBs), 1);
    EXPECT_FALSE(cached(5));
    EXPECT_TRUE(cached(6));
    EXPECT_FALSE(cached(7));
    EXPECT_EQ(rig::membersOf(record()->cacheMap), (std::vector<u32>{6}));
    rig::Bytes content;
    EXPECT_EQ(program.readOne(6, 4096, content), 0);
    EXPECT_EQ(content, old6);
}

TEST_F(MapLoading, CleansTheHeadTheMiddleAndTheEndOfABucket)
{
    // Five blocks of one bucket; the list holds the newest first.
    rig::TestDisk& disk = addDisk("sdb", 16, 20000, {{1, 0, 20000, 512}});
    const std::vector<u32> blocks{3, 4099, 8195, 12291, 16387};
    for (u32 kept = 0; kept < 32; kept++) {
        Program other;
        ASSERT_EQ(other.open(), 0);
        ASSERT_EQ(other.start(disk.device(1), disk.blocks(1), 100), 0);
        ASSERT_EQ(other.noStartAutoMap(), 0);
        ASSERT_EQ(other.snapshot(), 0);
        Backup* b = rig::recordOf(other);
        Bits bits(disk.blocks(1));
        std::vector<u32> expected;
        for (u32 i = 0; i < 5; i++) {
            ASSERT_EQ(disk.writeBlock(1, blocks[i], (unsigned char)(kept)), 0);
            ASSERT_TRUE(eventually([&] { return blockInMap(&b->cacheMap, blocks[i]) == -1; }));
            if (kept >> i & 1) {
                bits.set(blocks[i]);
                expected.insert(expected.begin(), blocks[i]);
            }
        }
        ASSERT_EQ(other.loadMap(bits), 0);
        std::vector<u32> left;
        for (CachePage* cp = b->blockTable[3]->busy; cp; cp = cp->next)
            left.push_back(cp->blockNum);
        EXPECT_EQ(left, expected);
        EXPECT_EQ(atomic_read(&b->totalCleanedCBs), int(5 - expected.size()));
        ASSERT_EQ(other.close(), 0);
    }
}

TEST_F(MapLoading, PagesOfTheSnapshotsMapAreOverwrittenNotFreed)
{
    ASSERT_NO_FATAL_FAILURE(rig::trackDevice(sda(), 1));
    ASSERT_EQ(sda().writeBlock(1, 3, 0x33), 0);
    ASSERT_EQ(program.open(), 0);
    ASSERT_EQ(program.start(sda().device(1), sda().blocks(1), 10), 0);
    ASSERT_EQ(program.snapshot(rig::keyOf(rig::sessionOf(sda().device(1)))), 0);
    ASSERT_EQ(rig::membersOf(record()->blockMap), (std::vector<u32>{3}));
    const hosted::Live before = hosted::live();
    ASSERT_EQ(program.loadMap(Bits(sda().blocks(1), true)), 0);
    EXPECT_EQ(hosted::live().pages, before.pages + 1);
    EXPECT_EQ(hosted::live().vmallocs, before.vmallocs + 1);
    EXPECT_EQ(rig::membersOf(record()->blockMap).size(), sda().blocks(1));
    takeLog();
    ASSERT_EQ(program.close(), 0);
    // The page stays in the session's count, too.
    const Lines log = takeLog();
    EXPECT_NE(std::find(log.begin(), log.end(), "<6>printStats: current pages allocated: 1\n"), log.end());
    hosted::Live left{};
    left.pages = 1;
    left.vmallocs = 1;
    expectLeft(left);
}

TEST_F(MapLoading, FetchingTheSnapshotsMapFirstLeavesNothing)
{
    ASSERT_NO_FATAL_FAILURE(rig::trackDevice(sda(), 1));
    ASSERT_EQ(sda().writeBlock(1, 3, 0x33), 0);
    ASSERT_EQ(program.open(), 0);
    ASSERT_EQ(program.start(sda().device(1), sda().blocks(1), 10), 0);
    ASSERT_EQ(program.snapshot(rig::keyOf(rig::sessionOf(sda().device(1)))), 0);
    Bits changed(sda().blocks(1));
    ASSERT_EQ(program.autoMap(changed), 0);
    EXPECT_EQ(changed.members(), (std::vector<u32>{3}));
    EXPECT_EQ(program.loadMap(changed), 0);
}

TEST_F(MapLoading, MapShorterThanTheDeviceIsAcceptedAndReadsBeyondItAreRefused)
{
    ASSERT_NO_FATAL_FAILURE(snapshot(sda()));
    const rig::Bytes old9 = sda().block(1, 9);
    ASSERT_EQ(program.loadMap(Bits(10, true)), 0);
    EXPECT_EQ(state(), 6u);
    rig::Bytes content;
    EXPECT_EQ(program.readOne(9, 4096, content), 0);
    EXPECT_EQ(content, old9);
    EXPECT_EQ(program.readBlocks(10, 1), 2);
    // A write beyond the map is not held.
    EXPECT_EQ(sda().writeBlock(1, 10, 0x11), 0);
    EXPECT_EQ(atomic_read(&record()->totalCBs), 0);
}

TEST_F(MapLoading, AfterwardsOnlyBlocksOfTheMapAreCopied)
{
    ASSERT_NO_FATAL_FAILURE(snapshot(sda()));
    Bits bits(sda().blocks(1));
    bits.set(20);
    ASSERT_EQ(program.loadMap(bits), 0);
    EXPECT_EQ(sda().writeBlock(1, 21, 0x11), 0);
    EXPECT_EQ(atomic_read(&record()->totalCBs), 0);
    ASSERT_NO_FATAL_FAILURE(save(sda(), 1, 20));
    EXPECT_EQ(atomic_read(&record()->totalCBs), 1);
}

TEST_F(MapLoading, WaitsForTheRequestsBeingDecidedBeforeItSetsTheState)
{
    ASSERT_NO_FATAL_FAILURE(snapshot(sda()));
    down_read(&record()->writers);
    std::atomic<int> result{-1};
    std::thread loader([&] { result = program.loadMap(Bits(100, true)); });
    ASSERT_TRUE(eventually([&] { return state() == 5; }));
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    EXPECT_EQ(state(), 5u);
    up_read(&record()->writers);
    loader.join();
    EXPECT_EQ(result, 0);
    EXPECT_EQ(state(), 6u);
}

// Stops a load between its change to state 6 and the clean-up.
class AtTheCleanUp
{
  public:
    AtTheCleanUp(Program& program, Backup* b) : b_(b)
    {
        down_write(&b->cacheUsers);
        loader_ = std::thread([this, &program] { result_ = program.loadMap(Bits(100, true)); });
    }
    int goOn()
    {
        up_write(&b_->cacheUsers);
        loader_.join();
        return result_;
    }

  private:
    Backup* b_;
    int result_ = -1;
    std::thread loader_;
};

TEST_F(MapLoading, StateBelowSixBeforeTheCleanUpFailsTheLoad)
{
    ASSERT_NO_FATAL_FAILURE(snapshot(sda()));
    AtTheCleanUp load(program, record());
    ASSERT_TRUE(eventually([&] { return state() == 6; }));
    set_mb(&record()->state, 5);
    EXPECT_EQ(load.goOn(), 3);
    EXPECT_EQ(takeLog(), (Lines{"<3>ioctlLoadBlockMap: error cleaning cache\n"}));
    EXPECT_EQ(state(), 9u);
}

TEST_F(MapLoading, FailureOfTheBackupBeforeTheCleanUpSkipsItAndSucceeds)
{
    ASSERT_NO_FATAL_FAILURE(snapshot(sda()));
    ASSERT_NO_FATAL_FAILURE(save(sda(), 1, 4000)); // not in the map that is loaded
    AtTheCleanUp load(program, record());
    ASSERT_TRUE(eventually([&] { return state() == 6; }));
    set_mb(&record()->state, 10);
    EXPECT_EQ(load.goOn(), 0);
    EXPECT_EQ(takeLog(), Lines{});
    EXPECT_EQ(state(), 10u);
    EXPECT_EQ(atomic_read(&record()->totalCleanedCBs), 0);
    EXPECT_EQ(atomic_read(&record()->curCBs), 1);
}

} // namespace
