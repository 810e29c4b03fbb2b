// SPDX-License-Identifier: GPL-2.0-only
// Reading blocks: where each block comes from, the read that a write overtakes, and what is refused.
#include "guest_io.h"

#include <atomic>
#include <chrono>
#include <thread>

using namespace rig;
using hosted::Op;
using hosted::faults::Kind;

namespace
{

constexpr u32 kBlock = 4096; // of sda1

using Blocks = std::vector<u32>;

class BlockReads : public SlowDiskTest
{
  protected:
    Backup* begin(u32 maxCacheBlocks = 100000)
    {
        program.beginFullBackup(sda(), 1, maxCacheBlocks);
        takeLog();
        return recordOf(program);
    }
    Backup* beginAtSnapshot()
    {
        program.beginSnapshot(sda(), 1);
        takeLog();
        return recordOf(program);
    }
    Bytes inArea(u32 index) { return program.blockInArea(0, index, kBlock); }
    Bytes onDisk(u32 block) { return sda().block(1, block); }

    // No slot in use, no read alive.
    void expectNothingUnderWay(Backup* b)
    {
        for (u32 i = 0; i < b->diskInfo.blocksPerPage * u32(b->maxVMPages); i++)
            EXPECT_EQ(isRequestSubmitted(b, int(i)), 0) << i;
        EXPECT_EQ(atomic_read(&b->curAllocBRs), 0);
        EXPECT_EQ(hosted::live().bios, 0);
        EXPECT_EQ(hosted::live().buffer_heads, 0);
    }
    // The answer of a read that must be refused before anything is sent.
    void expectRefused(u32 first, u32 count, const std::string& line)
    {
        hosted::faults::fail_read(0);
        EXPECT_EQ(program.readBlocks(first, count), 2);
        EXPECT_EQ(hosted::faults::reads_seen(), 0u);
        EXPECT_EQ(takeLog(), (Lines{line}));
        EXPECT_EQ(down_trylock(&recordOf(program)->bSem), 0);
        up(&recordOf(program)->bSem);
    }
};

const Lines kUnreadable7 = {
    "<4>qdrBIOEndIO: IO error, bio=P, major=8, sector=2104\n",
    "<4>qdrBHEndIO: buffer_head I/O error bh=P, major=8, minor=1, block=7\n",
    "<4>ioctlReadBlocks: Received an IO error while reading sectors for backup.  Some sectors could not be read\n"};

} // namespace

// ---- From the disk and from the cache

TEST_F(BlockReads, ReadEveryBlockThatIsNotCachedFromTheDisk)
{
    Backup* b = begin();
    hosted::faults::fail_read(0);
    EXPECT_EQ(program.readBlocks(100, 256), 0);
    EXPECT_EQ(hosted::faults::reads_seen(), 256u);
    for (u32 i = 0; i < 256; i++)
        ASSERT_EQ(inArea(i), onDisk(100 + i)) << i;
    EXPECT_EQ(atomic_read(&b->totalReadBlocks), 256);
    EXPECT_EQ(atomic_read(&b->totalReadCBs), 0);
    EXPECT_EQ(atomic_read(&b->totalAllocBRs), 256);
    expectNothingUnderWay(b);
    EXPECT_EQ(takeLog(), Lines{});
}

TEST_F(BlockReads, TakeARunThatIsWhollyCachedFromTheCacheAlone)
{
    Backup* b = begin();
    const Bytes old7 = onDisk(7);
    const Bytes old8 = onDisk(8);
    write(b, 1, 7, 0xAA);
    write(b, 1, 8, 0xBB);
    const int requests = atomic_read(&b->totalAllocBRs);
    hosted::faults::fail_read(0);
    EXPECT_EQ(program.readBlocks(7, 2), 0);
    EXPECT_EQ(hosted::faults::reads_seen(), 0u);
    EXPECT_EQ(inArea(0), old7);
    EXPECT_EQ(inArea(1), old8);
    EXPECT_EQ(atomic_read(&b->totalReadBlocks), 0);
    EXPECT_EQ(atomic_read(&b->totalReadCBs), 2);
    EXPECT_EQ(atomic_read(&b->totalAllocBRs), requests);
    EXPECT_EQ(takeLog(), Lines{});
}

TEST_F(BlockReads, MixBothInTheOrderOfTheRun)
{
    Backup* b = begin();
    Bytes old[5];
    for (u32 i = 0; i < 5; i++)
        old[i] = onDisk(6 + i);
    write(b, 1, 7, 0xAA);
    write(b, 1, 9, 0xBB);
    EXPECT_EQ(program.readBlocks(6, 5), 0);
    for (u32 i = 0; i < 5; i++)
        EXPECT_EQ(inArea(i), old[i]) << i;
    EXPECT_EQ(atomic_read(&b->totalReadBlocks), 3);
    EXPECT_EQ(atomic_read(&b->totalReadCBs), 2);
    expectNothingUnderWay(b);
}

TEST_F(BlockReads, FillTheAreaThatTheirAddressNames)
{
    begin();
    ASSERT_EQ(program.map(1, 4), 0);
    ASSERT_EQ(program.readBlocks(20, 1, 0), 0);
    ASSERT_EQ(program.readBlocks(30, 1, 1), 0);
    EXPECT_EQ(program.blockInArea(0, 0, kBlock), onDisk(20));
    EXPECT_EQ(program.blockInArea(1, 0, kBlock), onDisk(30));
}

TEST_F(BlockReads, AreNeitherHeldNorRecorded)
{
    Backup* b = begin();
    DiskGate gate(firstRead(sda(), 1, 5));
    GuestIo heldWrite(sda(), 1, Op::write, 5 * kBlock, kBlock, 0xAA);
    gate.waitUntilStopped(); // the worker can pass nothing on
    EXPECT_EQ(program.readBlocks(6, 2), 0);
    EXPECT_EQ(held(b), 1);
    EXPECT_EQ(membersOf(sessionOf(sda().device(1))->map), (Blocks{5}));
    gate.open();
}

TEST_F(BlockReads, SendEveryBlockBeforeTheyWaitForAny)
{
    SlowStore& slow = beginOnSlowDisk(0, 4096, 100);
    std::atomic<bool> over{false};
    std::thread reader([&] {
        EXPECT_EQ(program.readBlocks(10, 8), 0);
        over = true;
    });
    eventually([&] { return slow.keptBytes() == 8 * kBlock; });
    EXPECT_FALSE(over);
    EXPECT_EQ(atomic_read(&recordOf(program)->curAllocBRs), 8);
    slow.serve();
    reader.join();
    for (u32 i = 0; i < 8; i++)
        EXPECT_EQ(inArea(i), filled(kBlock, (unsigned char)(11 + i)));
}

TEST_F(BlockReads, LookAtTheResultOfAReadOnlyWhenItHasEnded)
{
    SlowStore& slow = beginOnSlowDisk(0, 4096, 100);
    std::memset(page_address(recordOf(program)->vmAreas[0].mmPages[0]), 0x77, kBlock);
    std::atomic<bool> over{false};
    std::thread reader([&] {
        EXPECT_EQ(program.readBlocks(10, 1), 12);
        over = true;
    });
    eventually([&] { return slow.keptBytes() == kBlock; });
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
    EXPECT_FALSE(over);
    slow.serve(-5);
    reader.join();
    EXPECT_EQ(inArea(0), filled(kBlock, 0));
}

TEST_F(BlockReads, WaitForTheSessionCommandUnderWay)
{
    Backup* b = begin();
    down(&b->bSem);
    std::atomic<bool> over{false};
    std::thread reader([&] {
        EXPECT_EQ(program.readBlocks(5, 1), 0);
        over = true;
    });
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
    EXPECT_FALSE(over);
    EXPECT_EQ(atomic_read(&b->totalReadBlocks), 0);
    up(&b->bSem);
    reader.join();
}

// ---- The maps

TEST_F(BlockReads, StrikeEveryBlockFromTheLoadedMap)
{
    Backup* b = begin();
    write(b, 1, 7, 0xAA);
    EXPECT_EQ(program.readBlocks(6, 3), 0);
    for (u32 block = 0; block < 12; block++)
        EXPECT_EQ(blockInMap(&b->blockMap, block) != 0, block < 6 || block > 8) << block;
    EXPECT_EQ(membersOf(b->cacheMap), Blocks{});
    // Later writes to them are not held.
    hosted::faults::fail_read(0);
    write(b, 1, 6, 0xBB);
    write(b, 1, 7, 0xBB);
    EXPECT_EQ(hosted::faults::reads_seen(), 0u);
}

TEST_F(BlockReads, NeitherAskNorChangeTheBackupsMapBeforeItIsLoaded)
{
    trackDevice(sda(), 1);
    ASSERT_EQ(sda().writeBlock(1, 3, 0x11), 0);
    ASSERT_EQ(sda().writeBlock(1, 4, 0x22), 0);
    Key key;
    {
        Program other;
        ASSERT_EQ(other.open(), 0);
        ASSERT_EQ(other.start(sda().device(1), sda().blocks(1), 10), 0);
        key = other.key();
        ASSERT_EQ(other.close(), 0);
    }
    ASSERT_EQ(program.open(), 0);
    ASSERT_EQ(program.start(sda().device(1), sda().blocks(1), 10), 0);
    ASSERT_EQ(program.snapshot(key), 0);
    ASSERT_EQ(program.map(0, 8), 0);
    Backup* b = recordOf(program);
    ASSERT_EQ(load_acquire(&b->state), u32(QUENDREL_STATE_SNAPSHOT));
    ASSERT_EQ(membersOf(b->blockMap), (Blocks{3, 4}));
    EXPECT_EQ(program.readBlocks(2, 4), 0); // in the map or not
    EXPECT_EQ(inArea(1), onDisk(3));
    EXPECT_EQ(membersOf(b->blockMap), (Blocks{3, 4}));
    EXPECT_EQ(program.readBlocks(4095, 1), 0);
}

TEST_F(BlockReads, WorkWithoutABackupsMapAfterASnapshot)
{
    Backup* b = beginAtSnapshot();
    EXPECT_EQ(b->blockMap.map, nullptr);
    EXPECT_EQ(program.readBlocks(5, 2), 0);
    EXPECT_EQ(inArea(1), onDisk(6));
    EXPECT_EQ(takeLog(), Lines{});
}

TEST_F(BlockReads, ReadBlocksThatTheLoadedMapDoesNotHold)
{
    beginAtSnapshot();
    ASSERT_EQ(program.loadMap(Bits(sda().blocks(1))), 0);
    EXPECT_EQ(program.readBlocks(5, 2), 0);
    EXPECT_EQ(inArea(0), onDisk(5));
}

// ---- A write overtakes the read

TEST_F(BlockReads, GiveTheSavedCopyWhenAWriteChangedTheDiskBeforeItWasRead)
{
    Backup* b = begin();
    const Bytes old = onDisk(5);
    DiskGate gate(firstRead(sda(), 1, 5));
    std::thread reader([&] { EXPECT_EQ(program.readBlocks(5, 1), 0); });
    gate.waitUntilStopped(); // the read is sent, and not yet at the disk
    write(b, 1, 5, 0xAA);
    EXPECT_EQ(onDisk(5), filled(kBlock, 0xAA));
    EXPECT_EQ(membersOf(b->cacheMap), (Blocks{5}));
    gate.open();
    reader.join();

    EXPECT_EQ(inArea(0), old);
    EXPECT_EQ(atomic_read(&b->totalReadBlocks), 1);
    EXPECT_EQ(atomic_read(&b->totalReadCBs), 1);
    EXPECT_EQ(atomic_read(&b->curCBs), 0);
    EXPECT_EQ(membersOf(b->cacheMap), Blocks{});
    EXPECT_FALSE(blockInMap(&b->blockMap, 5));
    expectNothingUnderWay(b);
}

TEST_F(BlockReads, GiveTheSavedCopyWhenAWriteCameAfterTheDiskWasRead)
{
    Backup* b = begin();
    const Bytes old6 = onDisk(6);
    DiskGate gate(firstRead(sda(), 1, 6));
    std::thread reader([&] { EXPECT_EQ(program.readBlocks(5, 2), 0); });
    gate.waitUntilStopped(); // block 5 is read by now, and its read not yet looked at
    write(b, 1, 5, 0xAA);
    // So that the two copies differ.
    CachePage* entry = entryOf(b, 5);
    ASSERT_NE(entry, nullptr);
    std::memset(entry->data, 0x5A, kBlock);
    gate.open();
    reader.join();

    EXPECT_EQ(inArea(0), filled(kBlock, 0x5A));
    EXPECT_EQ(inArea(1), old6);
    EXPECT_EQ(atomic_read(&b->totalReadBlocks), 2);
    EXPECT_EQ(atomic_read(&b->totalReadCBs), 1);
    EXPECT_EQ(atomic_read(&b->curCBs), 0);
    EXPECT_EQ(membersOf(b->cacheMap), Blocks{});
}

TEST_F(BlockReads, GiveTheSavedCopyBeforeTheMapIsLoadedToo)
{
    Backup* b = beginAtSnapshot();
    const Bytes old = onDisk(5);
    DiskGate gate(firstRead(sda(), 1, 5));
    std::thread reader([&] { EXPECT_EQ(program.readBlocks(5, 1), 0); });
    gate.waitUntilStopped();
    write(b, 1, 5, 0xAA);
    gate.open();
    reader.join();
    EXPECT_EQ(inArea(0), old);
    EXPECT_EQ(membersOf(b->cacheMap), (Blocks{5}));
    EXPECT_EQ(atomic_read(&b->curCBs), 1);
}

TEST_F(BlockReads, GiveTheOldContentsWhenTheWriteIsStillHeld)
{
    Backup* b = begin();
    const Bytes old = onDisk(5);
    DiskGate gate(firstRead(sda(), 1, 5));
    GuestIo heldWrite(sda(), 1, Op::write, 5 * kBlock, kBlock, 0xAA);
    gate.waitUntilStopped(); // the worker, at its own read of the block
    EXPECT_EQ(program.readBlocks(5, 1), 0);
    EXPECT_EQ(inArea(0), old);
    gate.open();
    EXPECT_EQ(heldWrite.wait(), 0);
    settle(b);
    EXPECT_EQ(onDisk(5), filled(kBlock, 0xAA));
    // The block has been read: there was nothing to keep.
    EXPECT_EQ(atomic_read(&b->totalCBs), 0);
}

TEST_F(BlockReads, GiveTheSavedCopyOfABlockThatTheDiskCouldNotRead)
{
    Backup* b = begin();
    const Bytes old = onDisk(5);
    DiskGate gate(firstRead(sda(), 1, 5));
    std::thread reader([&] { EXPECT_EQ(program.readBlocks(5, 1), 12); });
    gate.waitUntilStopped();
    write(b, 1, 5, 0xAA);
    hosted::faults::fail_read(1);
    gate.open();
    reader.join();
    EXPECT_EQ(inArea(0), old);
}

// ---- A read that ends early

TEST_F(BlockReads, FreeRequestsNeverWaitedForWhenTheCacheLimitIsReachedInTheMiddle)
{
    SlowStore& slow = beginOnSlowDisk(11, 13, 1);
    ASSERT_EQ(program.loadMap(Bits(4096, true)), 0);
    Backup* b = recordOf(program);
    const Bytes fresh(kBlock, std::byte(0xAA));
    ASSERT_EQ(slowDisk_->write(10 * kBlock, fresh), 0); // fills the cache
    settle(b);
    takeLog();

    // The read of block 11 is under way and that of block 12 about to be sent when the next write finds no room.
    DiskGate gate([](const hosted::BioView& bio) { return !bio.write && bio.sector == 12 * 8; });
    std::atomic<bool> over{false};
    std::thread reader([&] {
        EXPECT_EQ(program.readBlocks(10, 3), 2);
        over = true;
    });
    gate.waitUntilStopped();
    ASSERT_EQ(slowDisk_->write(20 * kBlock, fresh), 0);
    settle(b);
    EXPECT_EQ(load_acquire(&b->state), u32(QUENDREL_STATE_CACHE_EXHAUSTED));
    gate.open();
    eventually([&] { return slow.keptBytes() == 2 * kBlock; });
    // The disk still has both; freeing them must not outrun it.
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
    EXPECT_FALSE(over);
    slow.serve();
    reader.join();

    EXPECT_EQ(
        takeLog(),
        (Lines{"<3>getCacheBlock: configured max cache memory reached (1 blocks) failed to allocate cache object\n",
               "<3>cacheBlock: Error caching blockNum=20 MAJOR=8 MINOR=16\n",
               "<4>readFromCache: expected to read block number (10) from cache and block not found in cache\n",
               "<3>ioctlReadBlocks: read (2) blocks from disk and (0) blocks from cache and expected to read (3) "
               "blocks\n"}));
    expectNothingUnderWay(b);
    EXPECT_TRUE(blockInMap(&b->blockMap, 11)); // not waited for, not struck
}

TEST_F(BlockReads, AreRefusedWhenACachedBlockVanished)
{
    Backup* b = begin();
    write(b, 1, 12, 0xAA);
    setBlock(&b->cacheMap, 11);
    EXPECT_EQ(program.readBlocks(10, 4), 2);
    EXPECT_EQ(takeLog(),
              (Lines{"<4>readFromCache: expected to read block number (11) from cache and block not found in cache\n",
                     "<3>ioctlReadBlocks: read (2) blocks from disk and (1) blocks from cache and expected to read (4) "
                     "blocks\n"}));
    expectNothingUnderWay(b);
    for (u32 block : {10u, 11u, 13u})
        EXPECT_TRUE(blockInMap(&b->blockMap, block));
    EXPECT_FALSE(blockInMap(&b->blockMap, 12));
    EXPECT_EQ(program.readBlocks(10, 1), 0);
}

// ---- Blocks that cannot be read

TEST_F(BlockReads, GiveZerosForABlockThatCannotBeReadAndGoOn)
{
    Backup* b = begin();
    ASSERT_EQ(program.readBlocks(100, 8), 0); // something else in the area first
    takeLog();
    hosted::faults::fail_read(2);
    EXPECT_EQ(program.readBlocks(6, 3), 12);
    EXPECT_EQ(inArea(0), onDisk(6));
    EXPECT_EQ(inArea(1), filled(kBlock, 0));
    EXPECT_EQ(inArea(2), onDisk(8));
    EXPECT_EQ(inArea(3), onDisk(103));
    EXPECT_EQ(withoutPointers(takeLog()), kUnreadable7);
    for (u32 block : {6u, 7u, 8u})
        EXPECT_FALSE(blockInMap(&b->blockMap, block));
    EXPECT_EQ(program.state().state, unsigned(QUENDREL_STATE_MAP_LOADED));
    expectNothingUnderWay(b);
}

TEST_F(BlockReads, ZeroOnlyTheirOwnPartOfAPage)
{
    program.beginFullBackup(sda(), 2);
    hosted::faults::fail_read(2);
    EXPECT_EQ(program.readBlocks(40, 4), 12);
    EXPECT_EQ(program.blockInArea(0, 0, 1024), sda().block(2, 40));
    EXPECT_EQ(program.blockInArea(0, 1, 1024), filled(1024, 0));
    EXPECT_EQ(program.blockInArea(0, 2, 1024), sda().block(2, 42));
    EXPECT_EQ(program.blockInArea(0, 3, 1024), sda().block(2, 43));
}

TEST_F(BlockReads, ReportUnreadableBlocksBeforeTheMapIsLoadedToo)
{
    beginAtSnapshot();
    hosted::faults::fail_read(1);
    EXPECT_EQ(program.readBlocks(7, 1), 12);
    EXPECT_EQ(inArea(0), filled(kBlock, 0));
    EXPECT_EQ(withoutPointers(takeLog()), kUnreadable7);
}

TEST_F(BlockReads, TakeCachedBlocksBesideAnUnreadableOne)
{
    Backup* b = begin();
    const Bytes old = onDisk(8);
    write(b, 1, 8, 0xAA);
    hosted::faults::fail_read(1);
    EXPECT_EQ(program.readBlocks(7, 2), 12);
    EXPECT_EQ(inArea(0), filled(kBlock, 0));
    EXPECT_EQ(inArea(1), old);
}

TEST_F(BlockReads, StopTheKernelOnAFailedReadBeyondItsPage)
{
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    Backup* b = begin();
    EXPECT_DEATH(
        {
            hosted::faults::fail_read(1);
            EXPECT_EQ(readBlocks(b, 7, 1, &b->vmAreas[0]), 1u);
            bio_set_single_vector(b->mmBIORequests[0]->bio, b->vmAreas[0].mmPages[0], kBlock, 512);
            showLog();
            waitForSubmitted(b, 7, 1);
        },
        "^<2>waitForSubmitted: BIO segment greater than page size \\(offset=512, length=4096\\)"
        "hosted kernel: kernel BUG at ");
}

// ---- Memory

TEST_F(BlockReads, TryUntilTheyHaveABufferHeadAndABio)
{
    Backup* b = begin();
    for (Kind kind : {Kind::buffer_head, Kind::bio}) {
        hosted::faults::fail_allocation(2, unsigned(kind));
        EXPECT_EQ(program.readBlocks(6, 3), 0);
        EXPECT_EQ(hosted::faults::allocations_seen(), 4u);
        for (u32 i = 0; i < 3; i++)
            EXPECT_EQ(inArea(i), onDisk(6 + i));
    }
    expectNothingUnderWay(b);
    EXPECT_EQ(takeLog(), Lines{});
}

TEST_F(BlockReads, MarkTheRequestsAllocationAsOneThatMustNotFail)
{
    begin();
    hosted::faults::fail_allocation(1, unsigned(Kind::kmalloc));
    EXPECT_EQ(program.readBlocks(6, 3), 0);
    EXPECT_EQ(hosted::faults::allocations_seen(), 0u);
}

TEST_F(BlockReads, GiveTheirSlotsBackOnce)
{
    Backup* b = begin();
    const hosted::Live before = hosted::live();
    freeMMBRs(b);
    EXPECT_EQ(b->mmBIORequests, nullptr);
    EXPECT_EQ(hosted::live().vmallocs, before.vmallocs - 1);
    freeMMBRs(b);
    EXPECT_EQ(hosted::live().vmallocs, before.vmallocs - 1);
}

// ---- Ranges

TEST_F(BlockReads, OfNoBlocksSucceed)
{
    Backup* b = begin();
    hosted::faults::fail_read(0);
    EXPECT_EQ(program.readBlocks(5, 0), 0);
    EXPECT_EQ(program.readBlocks(4096, 0), 0);
    EXPECT_EQ(hosted::faults::reads_seen(), 0u);
    EXPECT_EQ(takeLog(), Lines{});
    EXPECT_TRUE(blockInMap(&b->blockMap, 5));
    expectRefused(4097, 0, "<3>ioctlReadBlocks: end block number out of block map range\n");
}

TEST_F(BlockReads, AreRefusedWhenTheRangeWraps)
{
    begin();
    expectRefused(4294967295u, 2, "<3>ioctlReadBlocks: invalid block read range (4294967295-1)\n");
    expectRefused(4294967295u, 1, "<3>ioctlReadBlocks: invalid block read range (4294967295-0)\n");
    expectRefused(5, 4294967295u, "<3>ioctlReadBlocks: invalid block read range (5-4)\n");
}

TEST_F(BlockReads, EndWithTheDevicesLastBlock)
{
    beginAtSnapshot();
    EXPECT_EQ(program.readBlocks(4095, 1), 0);
    EXPECT_EQ(inArea(0), onDisk(4095));
    expectRefused(4095, 2, "<3>ioctlReadBlocks: block num (4097) out of range (4096)\n");
}

TEST_F(BlockReads, EndWithTheLoadedMapsLastBlock)
{
    beginAtSnapshot();
    ASSERT_EQ(program.loadMap(Bits(100, true)), 0);
    EXPECT_EQ(program.readBlocks(99, 1), 0);
    expectRefused(99, 2, "<3>ioctlReadBlocks: end block number out of block map range\n");
}

TEST_F(BlockReads, EndWithTheDeviceWhenTheLoadedMapIsLarger)
{
    beginAtSnapshot();
    ASSERT_EQ(program.loadMap(Bits(5000, true)), 0);
    EXPECT_EQ(program.readBlocks(4095, 1), 0);
    expectRefused(4095, 2, "<3>ioctlReadBlocks: block num (4097) out of range (4096)\n");
}

// ---- Refusals

TEST_F(BlockReads, AreRefusedInEveryStateButTwo)
{
    Backup* b = begin();
    for (u32 state : {QUENDREL_STATE_IDLE, QUENDREL_STATE_STARTING, QUENDREL_STATE_STARTED, QUENDREL_STATE_LOADING_MAP,
                      QUENDREL_STATE_CLOSING, QUENDREL_STATE_READ_FAILED, QUENDREL_STATE_MAP_LOAD_FAILED,
                      QUENDREL_STATE_CACHE_EXHAUSTED, QUENDREL_STATE_REFUSED_BUSY, QUENDREL_STATE_QUEUE_FAILED}) {
        set_mb(&b->state, state);
        expectRefused(5, 1, "<3>ioctlReadBlocks: state (" + std::to_string(state) + ") not valid\n");
    }
    for (u32 state : {QUENDREL_STATE_SNAPSHOT, QUENDREL_STATE_MAP_LOADED}) {
        set_mb(&b->state, state);
        EXPECT_EQ(program.readBlocks(5, 1), 0);
    }
}

TEST_F(BlockReads, AreRefusedOnAFileThatStartedNothing)
{
    ASSERT_EQ(program.open(), 0);
    expectRefused(5, 1, "<3>ioctlReadBlocks: state (0) not valid\n");
}

TEST_F(BlockReads, AreRefusedWithoutABackupsMapOnceItShouldBeLoaded)
{
    Backup* b = begin();
    page** map = b->blockMap.map;
    b->blockMap.map = nullptr;
    expectRefused(5, 1, "<3>ioctlReadBlocks: block map is null\n");
    b->blockMap.map = map;
}

TEST_F(BlockReads, AreRefusedWithoutACacheMap)
{
    Backup* b = begin();
    page** map = b->cacheMap.map;
    b->cacheMap.map = nullptr;
    expectRefused(5, 1, "<3>ioctlReadBlocks: cache map is null\n");
    b->cacheMap.map = map;
}

TEST_F(BlockReads, AreRefusedAtAnAddressThatIsNoMappingsFirst)
{
    begin();
    const u32 start = program.area(0)->start();
    for (u32 address : {start + PAGE_BYTES, start + 1, start - PAGE_BYTES, 0u}) {
        SCOPED_TRACE(address);
        EXPECT_EQ(program.command(QUENDREL_READ_BLOCKS, program.put(ReadBlocks{5, 1, address})), 2);
        EXPECT_EQ(takeLog(), (Lines{"<3>ioctlReadBlocks: invalid data pointer\n"}));
    }
    program.unmap(0);
    EXPECT_EQ(program.command(QUENDREL_READ_BLOCKS, program.put(ReadBlocks{5, 1, start})), 2);
    EXPECT_EQ(takeLog(), (Lines{"<3>ioctlReadBlocks: invalid data pointer\n"}));
}

TEST_F(BlockReads, KeepTheirAreaUntilTheyAreOver)
{
    begin();
    DiskGate gate([](const hosted::BioView& bio) { return !bio.write; });
    std::thread reader([&] { EXPECT_EQ(program.readBlocks(5, 3), 0); });
    gate.waitUntilStopped();
    std::atomic<bool> unmapped = false;
    std::thread other([&] {
        program.unmap(0);
        unmapped = true;
    });
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    EXPECT_FALSE(unmapped);
    gate.open();
    reader.join();
    other.join();
    EXPECT_TRUE(unmapped);
}

TEST_F(BlockReads, FillAnAreaAndNoMore)
{
    begin();
    EXPECT_EQ(program.readBlocks(0, 256), 0);
    expectRefused(0, 257,
                  "<3>ioctlReadBlocks: tried to read (257) number of blocks size (4096) and mmap region can hold "
                  "(1048576) bytes\n");
    program.unmap(0);
    ASSERT_EQ(program.map(0, 3), 0);
    EXPECT_EQ(program.readBlocks(300, 3), 0);
    expectRefused(300, 4,
                  "<3>ioctlReadBlocks: tried to read (4) number of blocks size (4096) and mmap region can hold (12288) "
                  "bytes\n");
}

TEST_F(BlockReads, AreRefusedWhenTheirSizeInBytesWraps)
{
    ASSERT_EQ(program.open(), 0);
    ASSERT_EQ(program.start(sda().device(1), 3000000, 10), 0);
    ASSERT_EQ(program.snapshot(), 0);
    ASSERT_EQ(program.map(0, 256), 0);
    takeLog();
    expectRefused(0, 1u << 20,
                  "<3>ioctlReadBlocks: tried to read (1048576) number of blocks size (4096) and mmap region "
                  "can hold (1048576) bytes\n");
    expectRefused(7, (1u << 20) + 1,
                  "<3>ioctlReadBlocks: tried to read (1048577) number of blocks size (4096) and mmap "
                  "region can hold (1048576) bytes\n");
}
