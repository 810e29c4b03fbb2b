// SPDX-License-Identifier: GPL-2.0-only
// The two functions in front of a queue: which requests wait for copy-on-write, which pass, and which are recorded.
#include "guest_io.h"

using namespace rig;
using hosted::Op;

namespace
{

constexpr u32 kBlock = 4096;         // of sda1
constexpr sector_type kStart = 2048; // of sda1

class Interception : public CopyOnWriteTest
{
  protected:
    request_queue* queue() { return sda().disk().queue(); }
    kdev_t whole() { return sda().device(0); }
    std::vector<u32> recorded(u32 partition = 1) { return membersOf(sessionOf(sda().device(partition))->map); }
};

using Blocks = std::vector<u32>;

} // namespace

// ---- What is held

TEST_F(Interception, PassesReadAheadWhileAWriteOfTheSameBlockIsHeld)
{
    program.beginFullBackup(sda(), 1);
    const Bytes old = sda().block(1, 5);
    DiskGate gate(firstRead(sda(), 1, 5));
    GuestIo write(sda(), 1, Op::write, 5 * kBlock, kBlock, 0xAA);
    gate.waitUntilStopped();

    GuestIo ahead(sda(), 1, Op::read, 5 * kBlock, kBlock, 0, true);
    EXPECT_TRUE(ahead.done());
    EXPECT_EQ(ahead.data(), old);
    EXPECT_FALSE(write.done());
    EXPECT_EQ(held(recordOf(program)), 1);

    gate.open();
    EXPECT_EQ(write.wait(), 0);
}

TEST_F(Interception, HoldsAPlainReadBehindTheWritesHeldBeforeIt)
{
    program.beginFullBackup(sda(), 1);
    DiskGate gate(firstRead(sda(), 1, 5));
    GuestIo write(sda(), 1, Op::write, 5 * kBlock, kBlock, 0xAA);
    gate.waitUntilStopped();

    GuestIo read(sda(), 1, Op::read, 5 * kBlock, kBlock);
    EXPECT_EQ(held(recordOf(program)), 2);
    EXPECT_FALSE(read.done());

    gate.open();
    EXPECT_EQ(write.wait(), 0);
    EXPECT_EQ(read.wait(), 0);
    EXPECT_EQ(read.data(), filled(kBlock, 0xAA));
}

TEST_F(Interception, PassesAReadOfABlockThatNeedsNoSaving)
{
    program.beginFullBackup(sda(), 1);
    write(recordOf(program), 1, 5, 0xAA);
    DiskGate gate(firstRead(sda(), 1, 6));
    GuestIo heldWrite(sda(), 1, Op::write, 6 * kBlock, kBlock, 0xBB);
    gate.waitUntilStopped();

    GuestIo read(sda(), 1, Op::read, 5 * kBlock, kBlock);
    EXPECT_TRUE(read.done());
    EXPECT_EQ(read.data(), filled(kBlock, 0xAA));
    gate.open();
}

TEST_F(Interception, HoldsAWriteUntilTheOldBlockIsRead)
{
    program.beginFullBackup(sda(), 1);
    const Bytes old = sda().block(1, 5);
    DiskGate gate(firstRead(sda(), 1, 5));
    GuestIo write(sda(), 1, Op::write, 5 * kBlock, kBlock, 0xAA);
    gate.waitUntilStopped();
    EXPECT_FALSE(write.done());
    EXPECT_EQ(sda().block(1, 5), old);

    gate.open();
    EXPECT_EQ(write.wait(), 0);
    EXPECT_EQ(sda().block(1, 5), filled(kBlock, 0xAA));
    settle(recordOf(program));
    Bytes read;
    EXPECT_EQ(program.readOne(5, kBlock, read), 0);
    EXPECT_EQ(read, old);
}

TEST_F(Interception, RecordsAHeldWriteBeforeItIsPerformed)
{
    program.beginFullBackup(sda(), 1);
    DiskGate gate(firstRead(sda(), 1, 5));
    GuestIo write(sda(), 1, Op::write, 5 * kBlock, kBlock, 0xAA);
    gate.waitUntilStopped();
    EXPECT_FALSE(write.done());
    EXPECT_EQ(recorded(), (Blocks{5}));
    gate.open();
}

TEST_F(Interception, PassesAWriteToAnotherPartitionAndRecordsIt)
{
    trackDevice(sda(), 2);
    program.beginFullBackup(sda(), 1);
    Backup* b = recordOf(program);
    DiskGate gate(firstRead(sda(), 1, 5));
    GuestIo heldWrite(sda(), 1, Op::write, 5 * kBlock, kBlock, 0xAA);
    gate.waitUntilStopped();

    GuestIo other(sda(), 2, Op::write, 9 * 1024, 1024, 0xBB);
    EXPECT_TRUE(other.done());
    EXPECT_EQ(held(b), 1);
    EXPECT_EQ(recorded(2), (Blocks{9}));

    gate.open();
    heldWrite.wait();
    settle(b);
    EXPECT_EQ(atomic_read(&b->totalCBs), 1);
    EXPECT_EQ(recorded(1), (Blocks{5}));
}

TEST_F(Interception, PassesAWriteToTheSameMinorOfAnotherMajor)
{
    TestDisk& backedUp = sda();
    TestDisk& other = addDisk("hda", 0, 2048 + 4096, {{1, 2048, 4096, 4096}}, true, 3);
    program.beginFullBackup(backedUp, 1);
    RawBio bio(other.device(0), Op::write, 2048, kBlock);
    EXPECT_EQ(cacheMRFBlock(other.disk().queue(), bio.get(), 1), 0);
    EXPECT_EQ(held(recordOf(program)), 0);
    EXPECT_EQ(bio.ends(), 0);
}

TEST_F(Interception, PassesEverythingWhileNoBackupRuns)
{
    RawBio bio(whole(), Op::write, kStart, kBlock);
    EXPECT_EQ(cacheMRFBlock(queue(), bio.get(), 1), 0);
    EXPECT_EQ(bio.ends(), 0);
}

TEST_F(Interception, HoldsEveryBlockNotYetSavedBeforeTheMapIsLoaded)
{
    for (u32 state : {QUENDREL_STATE_SNAPSHOT, QUENDREL_STATE_LOADING_MAP}) {
        SCOPED_TRACE(state);
        Program backup;
        backup.beginSnapshot(sda(), 1);
        Backup* b = recordOf(backup);
        set_mb(&b->state, state);
        write(b, 1, 7, 0x11);
        write(b, 1, 4095, 0x22);
        EXPECT_EQ(atomic_read(&b->totalCBs), 2);
        // Saved already: nothing more is read.
        hosted::faults::fail_read(0);
        write(b, 1, 7, 0x33);
        EXPECT_EQ(hosted::faults::reads_seen(), 0u);
        EXPECT_EQ(atomic_read(&b->totalCBs), 2);
        EXPECT_EQ(backup.close(), 0);
        hosted::unload_driver();
        ASSERT_EQ(hosted::load_driver(), 0);
    }
}

TEST_F(Interception, HoldsOnlyBlocksOfTheLoadedMap)
{
    program.beginSnapshot(sda(), 1);
    Backup* b = recordOf(program);
    Bits map(sda().blocks(1));
    map.set(7);
    ASSERT_EQ(program.loadMap(map), 0);
    hosted::faults::fail_read(0);
    write(b, 1, 8, 0x11);
    EXPECT_EQ(hosted::faults::reads_seen(), 0u);
    write(b, 1, 7, 0x22);
    EXPECT_EQ(hosted::faults::reads_seen(), 1u);
    EXPECT_EQ(membersOf(b->cacheMap), (Blocks{7}));
    EXPECT_EQ(recorded(), (Blocks{7, 8}));
}

TEST_F(Interception, HoldsNothingInAnyOtherState)
{
    program.beginFullBackup(sda(), 1);
    Backup* b = recordOf(program);
    for (u32 state : {QUENDREL_STATE_IDLE, QUENDREL_STATE_STARTING, QUENDREL_STATE_STARTED, QUENDREL_STATE_CLOSING,
                      QUENDREL_STATE_READ_FAILED, QUENDREL_STATE_MAP_LOAD_FAILED, QUENDREL_STATE_CACHE_EXHAUSTED,
                      QUENDREL_STATE_REFUSED_BUSY, QUENDREL_STATE_QUEUE_FAILED}) {
        SCOPED_TRACE(state);
        set_mb(&b->state, state);
        RawBio bio(whole(), Op::write, kStart, kBlock);
        EXPECT_EQ(cacheMRFBlock(queue(), bio.get(), 1), 0);
        EXPECT_EQ(held(b), 0);
    }
    for (u32 state : {QUENDREL_STATE_SNAPSHOT, QUENDREL_STATE_LOADING_MAP, QUENDREL_STATE_MAP_LOADED}) {
        SCOPED_TRACE(state);
        set_mb(&b->state, state);
        RawBio bio(whole(), Op::write, kStart + state * 8, kBlock);
        EXPECT_EQ(cacheMRFBlock(queue(), bio.get(), 1), 1);
        eventually([&] { return bio.ends() == 1; });
        settle(b);
    }
}

TEST_F(Interception, HoldsAWriteWholeWhenOnlyItsLastBlockNeedsSaving)
{
    program.beginFullBackup(sda(), 1);
    Backup* b = recordOf(program);
    write(b, 1, 4, 0x11);
    DiskGate gate(firstRead(sda(), 1, 20));
    GuestIo first(sda(), 1, Op::write, 20 * kBlock, kBlock, 0x22);
    gate.waitUntilStopped();

    GuestIo both(sda(), 1, Op::write, 4 * kBlock, 2 * kBlock, 0x33);
    EXPECT_FALSE(both.done());
    unsigned long flags;
    spin_lock_irqsave(&b->mrLock, &flags);
    MakeRequest* mr = b->mrHead;
    EXPECT_NE(mr, nullptr);
    if (mr) {
        EXPECT_EQ(mr, b->mrTail);
        EXPECT_EQ(mr->q, queue());
        EXPECT_EQ(mr->startBN, 4u);
        EXPECT_EQ(mr->endBN, 5u);
        EXPECT_EQ(mr->next, nullptr);
    }
    spin_unlock_irqrestore(&b->mrLock, flags);

    gate.open();
    EXPECT_EQ(both.wait(), 0);
    EXPECT_EQ(sda().block(1, 4), filled(kBlock, 0x33));
    EXPECT_EQ(sda().block(1, 5), filled(kBlock, 0x33));
    settle(b);
    EXPECT_EQ(membersOf(b->cacheMap), (Blocks{4, 5, 20}));
    EXPECT_EQ(atomic_read(&b->totalCBs), 3);
}

TEST_F(Interception, AsksTheCacheMapOnlyForBlocksOfTheLoadedMap)
{
    program.beginSnapshot(sda(), 1);
    Backup* b = recordOf(program);
    setBlock(&b->cacheMap, 2);
    EXPECT_EQ(doWeCacheBlock(b, 1), 1);
    EXPECT_EQ(doWeCacheBlock(b, 2), 0);
    EXPECT_EQ(doWeCacheBlocks(b, 2, 2), 0);
    EXPECT_EQ(doWeCacheBlocks(b, 2, 3), 1);
    EXPECT_EQ(doWeCacheBlocks(b, 3, 2), 0);
    Bits map(sda().blocks(1));
    map.set(3);
    map.set(2);
    ASSERT_EQ(program.loadMap(map), 0);
    EXPECT_EQ(doWeCacheBlock(b, 1), 0);
    EXPECT_EQ(doWeCacheBlock(b, 2), 0);
    EXPECT_EQ(doWeCacheBlock(b, 3), 1);
    EXPECT_EQ(doWeCacheBlocks(b, 0, 2), 0);
    EXPECT_EQ(doWeCacheBlocks(b, 0, 3), 1);
}

// ---- Requests without data, and those that change data without carrying it

TEST_F(Interception, PassesAnEmptyWriteThatStartsOnABlockBoundary)
{
    program.beginSnapshot(sda(), 1);
    Backup* b = recordOf(program);
    hosted::faults::fail_read(0);
    RawBio bio(whole(), Op::write, kStart + 8, 0);
    generic_make_request(bio.get());
    EXPECT_EQ(bio.ends(), 1);
    settle(b);
    EXPECT_EQ(hosted::faults::reads_seen(), 0u);
    EXPECT_EQ(membersOf(b->cacheMap), Blocks{});
}

TEST_F(Interception, TestsBlock0ForAnEmptyWriteAtThePartitionsStart)
{
    program.beginSnapshot(sda(), 1);
    Backup* b = recordOf(program);
    const Bytes old = sda().block(1, 0);
    RawBio bio(whole(), Op::write, kStart, 0);
    generic_make_request(bio.get());
    eventually([&] { return bio.ends() == 1; });
    settle(b);
    EXPECT_EQ(membersOf(b->cacheMap), (Blocks{0}));
    EXPECT_EQ(sda().block(1, 0), old);
}

TEST_F(Interception, PassesAFlushWhileAWriteIsHeld)
{
    program.beginFullBackup(sda(), 1);
    Backup* b = recordOf(program);
    DiskGate gate(firstRead(sda(), 1, 0));
    GuestIo write(sda(), 1, Op::write, 0, kBlock, 0xAA);
    gate.waitUntilStopped();
    GuestIo flush(sda(), 1, Op::flush, 0, 0);
    EXPECT_TRUE(flush.done());
    EXPECT_EQ(flush.wait(), 0);
    EXPECT_FALSE(write.done());
    EXPECT_EQ(held(b), 1);
    gate.open();
}

TEST_F(Interception, SavesAndRecordsTheBlocksOfADiscard)
{
    program.beginFullBackup(sda(), 1);
    Backup* b = recordOf(program);
    const Bytes old5 = sda().block(1, 5);
    const Bytes old6 = sda().block(1, 6);
    DiskGate gate(firstRead(sda(), 1, 5));
    GuestIo discard(sda(), 1, Op::discard, 5 * kBlock, 2 * kBlock);
    gate.waitUntilStopped();
    EXPECT_FALSE(discard.done());
    EXPECT_EQ(sda().block(1, 5), old5);
    gate.open();
    EXPECT_EQ(discard.wait(), 0);
    settle(b);
    EXPECT_EQ(sda().block(1, 5), filled(kBlock, 0));
    EXPECT_EQ(sda().block(1, 6), filled(kBlock, 0));
    EXPECT_EQ(recorded(), (Blocks{5, 6}));
    EXPECT_EQ(program.readBlocks(5, 2), 0);
    EXPECT_EQ(program.blockInArea(0, 0, kBlock), old5);
    EXPECT_EQ(program.blockInArea(0, 1, kBlock), old6);
}

TEST_F(Interception, SavesAndRecordsTheBlocksOfAWriteZeroes)
{
    program.beginFullBackup(sda(), 1);
    Backup* b = recordOf(program);
    const Bytes old5 = sda().block(1, 5);
    DiskGate gate(firstRead(sda(), 1, 5));
    GuestIo zeroes(sda(), 1, Op::write_zeroes, 5 * kBlock, kBlock);
    gate.waitUntilStopped();
    EXPECT_FALSE(zeroes.done());
    EXPECT_EQ(sda().block(1, 5), old5);
    gate.open();
    EXPECT_EQ(zeroes.wait(), 0);
    settle(b);
    EXPECT_EQ(sda().block(1, 5), filled(kBlock, 0));
    EXPECT_EQ(recorded(), (Blocks{5}));
    Bytes read;
    EXPECT_EQ(program.readOne(5, kBlock, read), 0);
    EXPECT_EQ(read, old5);
}

TEST_F(Interception, FailsTheBackupAndNotADiscardThatTheCacheCannotHold)
{
    program.beginFullBackup(sda(), 1, 10);
    Backup* b = recordOf(program);
    takeLog();
    const u32 blocks = sda().blocks(1);
    EXPECT_EQ(sda().disk().discard(0, u64(blocks) * kBlock, 1), 0);
    settle(b);
    EXPECT_EQ(sda().image(1), filled(blocks * kBlock, 0));
    EXPECT_EQ(program.state().state, unsigned(QUENDREL_STATE_CACHE_EXHAUSTED));
    EXPECT_EQ(sessionOf(sda().device(1))->state, 0u);
    EXPECT_EQ(complaints(takeLog()), (Lines{"<3>getCacheBlock: configured max cache memory reached (10 blocks) failed "
                                            "to allocate cache object\n",
                                            "<3>cacheBlock: Error caching blockNum=10 MAJOR=8 MINOR=1\n"}));
    EXPECT_EQ(program.readBlocks(0, 1), 2);
    EXPECT_EQ(complaints(takeLog()), (Lines{"<3>ioctlReadBlocks: state (10) not valid\n"}));
}

// ---- No memory

TEST_F(Interception, PassesAWriteUnprotectedWhenThereIsNoMemoryToHoldIt)
{
    make_request_fn* own = hookOf(sda());
    program.beginFullBackup(sda(), 1);
    Backup* b = recordOf(program);
    EXPECT_EQ(hookOf(sda()), &qdrMRF);
    takeLog();
    hosted::faults::fail_allocation(1, unsigned(hosted::faults::Kind::kmalloc));
    hosted::faults::fail_read(0);
    EXPECT_EQ(sda().writeBlock(1, 5, 0xAA), 0);
    EXPECT_EQ(sda().block(1, 5), filled(kBlock, 0xAA));
    EXPECT_EQ(held(b), 0);
    EXPECT_EQ(hosted::faults::reads_seen(), 0u);
    EXPECT_EQ(program.state().state, unsigned(QUENDREL_STATE_QUEUE_FAILED));
    EXPECT_EQ(sessionOf(sda().device(1))->state, 0u);
    EXPECT_EQ(hookOf(sda()), own);
    EXPECT_EQ(takeLog(), Lines{});
}

TEST_F(Interception, HoldingARequestSaysThatThereIsNoMemory)
{
    program.beginFullBackup(sda(), 1);
    RawBio bio(whole(), Op::write, kStart, kBlock);
    hosted::faults::fail_allocation(1, unsigned(hosted::faults::Kind::kmalloc));
    EXPECT_EQ(newMR(recordOf(program), queue(), bio.get(), 0, 0), 5);
    EXPECT_EQ(held(recordOf(program)), 0);
}

TEST_F(Interception, AnswersMinusOneWhenThereIsNoMemoryToHoldARequest)
{
    program.beginFullBackup(sda(), 1);
    RawBio bio(whole(), Op::write, kStart, kBlock);
    hosted::faults::fail_allocation(1, unsigned(hosted::faults::Kind::kmalloc));
    EXPECT_EQ(cacheMRFBlock(queue(), bio.get(), 1), -1);
    EXPECT_EQ(bio.ends(), 0);
    EXPECT_EQ(program.state().state, unsigned(QUENDREL_STATE_QUEUE_FAILED));
}

// ---- Block and minor numbers

TEST_F(Interception, CountsBlocksFromThePartitionsStart)
{
    DiskInfo info{};
    info.partitionStart = 100;
    info.partitionLen = 800;
    info.sectorsPerBlockShift = 3;
    struct Case {
        sector_type sector;
        u32 bytes, startBN, endBN;
    };
    const Case cases[] = {
        {100, 4096, 0, 0},        // one block
        {107, 1024, 0, 1},        // across a boundary
        {50, 4096, 0, 0},         // starts before the partition: from its first block
        {99, 512 * 9, 0, 1},      // the sectors before are not taken off the end
        {100, 0, 0, 0},           // empty at the start: block 0
        {108, 0, 1, 0},           // empty on a boundary: an empty range
        {109, 0, 1, 1},           // empty inside a block: that block
        {100, 100, 0, 0},         // less than a sector
        {107, 513, 0, 1},         // a byte more than a sector takes the next one too
        {892, 4096, 99, 99},      // the last block
        {899, 1024, 99, 100},     // ends one sector beyond: kept as it is
        {899, 1536, 99, 99},      // ends further beyond: the last sector
        {100, 800 * 512, 0, 99},  // all of it
        {0, 4000u * 512u, 0, 99}, // more than all of it
        {1000, 4096, 112, 99},    // behind the partition: an empty range
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(std::to_string(c.sector) + " " + std::to_string(c.bytes));
        RawBio bio(whole(), Op::write, c.sector, 0);
        bio.get()->size = c.bytes;
        u32 startBN = 0xDEAD, endBN = 0xDEAD;
        BIOToBlockNumbers(&info, bio.get(), &startBN, &endBN);
        EXPECT_EQ(startBN, c.startBN);
        EXPECT_EQ(endBN, c.endBN);
    }
}

TEST_F(Interception, EndsAtBlock0OnADeviceOfNoLength)
{
    DiskInfo info{};
    info.sectorsPerBlockShift = 3;
    RawBio bio(whole(), Op::write, 0, 8 * kBlock);
    u32 startBN = 1, endBN = 1;
    BIOToBlockNumbers(&info, bio.get(), &startBN, &endBN);
    EXPECT_EQ(startBN, 0u);
    EXPECT_EQ(endBN, 0u);
}

TEST_F(Interception, CutsBlockNumbersTo32BitsAfterCountingIn64)
{
    DiskInfo info{};
    info.partitionStart = 100;
    info.partitionLen = 1ull << 41;
    info.sectorsPerBlockShift = 3;
    RawBio bio(whole(), Op::write, 1ull << 40, kBlock);
    u32 startBN = 0, endBN = 0;
    BIOToBlockNumbers(&info, bio.get(), &startBN, &endBN);
    EXPECT_EQ(startBN, 0xFFFFFFF3u);
    EXPECT_EQ(endBN, 0xFFFFFFF4u);
}

TEST_F(Interception, NamesThePartitionOfTheFirstSectorLowestIndexFirst)
{
    TestDisk& sdb = addDisk("sdb", 16, 400, {{1, 100, 100, 0}, {3, 150, 150, 0}});
    const std::pair<sector_type, int> cases[] = {{0, 16},   {99, 16},  {100, 17}, {160, 17}, {199, 17},
                                                 {200, 19}, {299, 19}, {300, 16}, {399, 16}};
    for (auto [sector, minor] : cases) {
        SCOPED_TRACE(sector);
        RawBio bio(sdb.device(0), Op::read, sector, 512);
        EXPECT_EQ(BIOToMinor(bio.get()), minor);
    }
}

// The device's own function will fail it.
TEST_F(Interception, NamesTheDeviceOfARequestWhoseDiskHasGone)
{
    TestDisk& sdb = addDisk("sdb", 16, 400, {{1, 100, 100, 0}});
    RawBio bio(sdb.device(0), Op::read, 150, 512);
    RawBio ofThePartition(sdb.device(1), Op::read, 0, 512);
    EXPECT_EQ(BIOToMinor(bio.get()), 17);
    sdb.disk().unplug();
    EXPECT_EQ(BIOToMinor(bio.get()), 16);
    EXPECT_EQ(BIOToMinor(ofThePartition.get()), 17);
    schedule(); // which the kernel allows nobody who keeps a partition table's lock
}

// ---- Passing on

namespace
{

std::atomic<int> redirected{0};

int redirects(request_queue*, bio*)
{
    redirected++;
    return 7;
}

} // namespace

TEST_F(Interception, AnswersWithTheResultOfTheQueuesOwnFunction)
{
    make_request_fn* own = hookOf(sda());
    queue_set_make_request_fn(queue(), redirects);
    RawBio bio(whole(), Op::write, kStart, kBlock);
    EXPECT_EQ(qdrMRF(queue(), bio.get()), 7);
    EXPECT_EQ(qdrAMRF(queue(), bio.get()), 7);
    EXPECT_EQ(bio.ends(), 0);
    queue_set_make_request_fn(queue(), own);
}

TEST_F(Interception, AnswersZeroForAHeldRequest)
{
    program.beginFullBackup(sda(), 1);
    RawBio bio(whole(), Op::write, kStart, kBlock);
    EXPECT_EQ(qdrMRF(queue(), bio.get()), 0);
    eventually([&] { return bio.ends() == 1; });
    settle(recordOf(program));
    EXPECT_EQ(bio.ends(), 1);
}

TEST_F(Interception, RecordsWritesAndNothingElseWhileOnlyTracking)
{
    trackDevice(sda(), 1);
    EXPECT_EQ(hookOf(sda()), &qdrAMRF);
    EXPECT_EQ(sda().writeBlock(1, 3, 0x11), 0);
    GuestIo read(sda(), 1, Op::read, 4 * kBlock, kBlock);
    GuestIo ahead(sda(), 1, Op::read, 5 * kBlock, kBlock, 0, true);
    GuestIo flush(sda(), 1, Op::flush, 0, 0);
    EXPECT_EQ(read.wait() | ahead.wait() | flush.wait(), 0);
    EXPECT_EQ(recorded(), (Blocks{3}));
}

TEST_F(Interception, RecordsWritesAndNothingElseWhileABackupRuns)
{
    program.beginSnapshot(sda(), 1);
    ASSERT_EQ(program.loadMap(Bits(sda().blocks(1))), 0);
    EXPECT_EQ(sda().writeBlock(1, 3, 0x11), 0);
    GuestIo read(sda(), 1, Op::read, 4 * kBlock, kBlock);
    GuestIo ahead(sda(), 1, Op::read, 5 * kBlock, kBlock, 0, true);
    EXPECT_EQ(read.wait() | ahead.wait(), 0);
    EXPECT_EQ(recorded(), (Blocks{3}));
}

TEST_F(Interception, SubmitsARequestAgainThatTheDevicesOwnFunctionRedirects)
{
    program.beginFullBackup(sda(), 1);
    Backup* b = recordOf(program);
    make_request_fn* own = b->diskInfo.realMRF;
    redirected = 0;
    b->diskInfo.realMRF = redirects;
    RawBio bio(whole(), Op::read, 0, kBlock);
    EXPECT_EQ(callRealMRF(b, bio.get()), 0);
    EXPECT_EQ(redirected, 1);
    EXPECT_EQ(bio.ends(), 1);
    b->diskInfo.realMRF = own;
}

TEST_F(Interception, DropsARequestForADeviceWithoutAQueue)
{
    program.beginFullBackup(sda(), 1);
    takeLog();
    RawBio bio(kdev_make(240, 3), Op::read, 0, kBlock);
    EXPECT_EQ(callRealMRF(recordOf(program), bio.get()), 0);
    EXPECT_EQ(bio.ends(), 0);
    EXPECT_EQ(takeLog(), (Lines{"<3>callRealMRF: Block read error: (bdev queue is null) MAJOR=8 MINOR=1\n"}));
}

// ---- A queue without a function of its own

TEST_F(Interception, StopsTheKernelOnAHeldQueueWithoutAFunction)
{
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    RawBio bio(whole(), Op::write, kStart, kBlock);
    EXPECT_DEATH(
        {
            showLog();
            queue_set_make_request_fn(queue(), nullptr);
            qdrMRF(queue(), bio.get());
        },
        "^<2>qdrMRF: request intercepted for unknown device major=8 minor=1\nhosted kernel: kernel BUG at ");
}

TEST_F(Interception, StopsTheKernelOnATrackedQueueWithoutAFunction)
{
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    RawBio bio(whole(), Op::write, kStart, kBlock);
    EXPECT_DEATH(
        {
            showLog();
            queue_set_make_request_fn(queue(), nullptr);
            qdrAMRF(queue(), bio.get());
        },
        "^<2>qdrAMRF: request intercepted for unknown device major=8 realMRF=0\nhosted kernel: kernel BUG at ");
}
