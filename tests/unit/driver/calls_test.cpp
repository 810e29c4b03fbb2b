// SPDX-License-Identifier: GPL-2.0-only
// Calls of the platform whose effect is not to be seen on the hosted kernel, and answers and memory that it never
// gives: the linker puts this file's functions in front of the platform's.
#include "guest_io.h"

#include <atomic>
#include <chrono>
#include <functional>
#include <thread>

using namespace rig;
using hosted::Op;

namespace
{

constexpr u32 kBlock = 4096; // of sda1

std::atomic<int> awake, killable, associations, reads, upToDate, unsupported, mapped, unmapped;
std::atomic<int> waitedFor, usersAtUnlock, scheduled;
std::atomic<bool> putWithBuffer, watchBuffers, freedInUse, noDevices, dirtyMemory;
std::function<void(const void* from)> atCopyOut;
std::atomic<u32> blockSize;     // of each file system; 0: as it is
std::atomic<u32> slots;         // that each disk says it has; 0: as it is
std::atomic<u32> lastPartition; // that a disk was asked for

} // namespace

extern "C" {
#define COUNTED(name, parameters, arguments, counter)                                                                  \
    void __real_##name parameters;                                                                                     \
    void __wrap_##name parameters                                                                                      \
    {                                                                                                                  \
        counter++;                                                                                                     \
        __real_##name arguments;                                                                                       \
    }
COUNTED(set_current_running, (), (), awake)
COUNTED(allow_signal_kill, (), (), killable)
COUNTED(bh_init_assoc, (buffer_head * bh), (bh), associations)
COUNTED(bio_set_read, (bio * b), (b), reads)
COUNTED(set_buffer_uptodate, (buffer_head * bh), (bh), upToDate)
COUNTED(set_buffer_eopnotsupp, (buffer_head * bh), (bh), unsupported)
COUNTED(wait_on_buffer_locked, (buffer_head * bh), (bh), waitedFor)
COUNTED(schedule, (), (), scheduled)
COUNTED(kunmap, (page * p), (p), unmapped)
#undef COUNTED

void* __real_kmap(page* p);
void* __wrap_kmap(page* p)
{
    mapped++;
    return __real_kmap(p);
}
void __real_free_buffer_head(buffer_head* bh);
void __wrap_free_buffer_head(buffer_head* bh)
{
    // The end of its read may be about to drop its own count.
    for (int i = 0; i < 1000 && watchBuffers && bh_count(bh) >= 0; i++)
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    if (watchBuffers && bh_count(bh) >= 0)
        freedInUse = true;
    __real_free_buffer_head(bh);
}
void __real_unlock_buffer(buffer_head* bh);
void __wrap_unlock_buffer(buffer_head* bh)
{
    usersAtUnlock = bh_count(bh);
    __real_unlock_buffer(bh);
}
void __real_bio_put(bio* b);
void __wrap_bio_put(bio* b)
{
    if (b->references == 1 && bio_private(b))
        putWithBuffer = true;
    __real_bio_put(b);
}
block_device* __real_bdget(kdev_t dev);
block_device* __wrap_bdget(kdev_t dev) { return noDevices ? nullptr : __real_bdget(dev); }
u32 __real_super_block_size(super_block* sb);
u32 __wrap_super_block_size(super_block* sb) { return blockSize ? blockSize.load() : __real_super_block_size(sb); }
u32 __real_disk_partition_slots(gendisk* disk);
u32 __wrap_disk_partition_slots(gendisk* disk) { return slots ? slots.load() : __real_disk_partition_slots(disk); }
int __real_disk_partition(gendisk* disk, u32 index, sector_type* start, sector_type* sectors);
int __wrap_disk_partition(gendisk* disk, u32 index, sector_type* start, sector_type* sectors)
{
    lastPartition = index;
    return __real_disk_partition(disk, index, start, sectors);
}
unsigned long __real_copy_to_user(user_addr to, const void* from, unsigned long bytes);
unsigned long __wrap_copy_to_user(user_addr to, const void* from, unsigned long bytes)
{
    if (atCopyOut)
        atCopyOut(from);
    return __real_copy_to_user(to, from, bytes);
}
void* __real_kmalloc(kernel_size_t bytes, gfp_type gfp);
void* __wrap_kmalloc(kernel_size_t bytes, gfp_type gfp)
{
    void* p = __real_kmalloc(bytes, gfp);
    return p && dirtyMemory ? std::memset(p, 0xA5, bytes) : p;
}
void* __real_vmalloc(unsigned long bytes);
void* __wrap_vmalloc(unsigned long bytes)
{
    void* p = __real_vmalloc(bytes);
    return p && dirtyMemory ? std::memset(p, 0xA5, bytes) : p;
}
}

namespace
{

class Calls : public CopyOnWriteTest
{
  protected:
    void TearDown() override
    {
        watchBuffers = noDevices = dirtyMemory = false;
        blockSize = slots = 0;
        atCopyOut = nullptr;
        CopyOnWriteTest::TearDown();
    }
    Backup* begin()
    {
        program.beginFullBackup(sda(), 1);
        return recordOf(program);
    }
};

} // namespace

// ---- What the hosted kernel does not show

// A kernel's task may have been about to sleep.
TEST_F(Calls, ARequestIsInterceptedInATaskThatIsAwake)
{
    begin();
    awake = 0;
    ASSERT_EQ(sda().writeBlock(1, 7, 0x77), 0);
    EXPECT_EQ(awake, 1);
}

TEST_F(Calls, TheWorkerCanBeKilledBeforeTheStartEnds)
{
    killable = 0;
    ASSERT_EQ(program.open(), 0);
    ASSERT_EQ(program.start(sda().device(1), sda().blocks(1), 100), 0);
    EXPECT_EQ(killable, 1);
}

TEST_F(Calls, TheWorkersRequestIsARead)
{
    Backup* b = begin();
    reads = associations = 0;
    write(b, 1, 7, 0x77);
    EXPECT_EQ(reads, 1);
    EXPECT_EQ(associations, 1);
}

TEST_F(Calls, TheRequestsOfAReadAreReads)
{
    begin();
    reads = associations = 0;
    EXPECT_EQ(program.readBlocks(5, 3), 0);
    EXPECT_EQ(reads, 3);
    EXPECT_EQ(associations, 3);
}

TEST_F(Calls, AReadThatEndsWellMarksItsBufferSo)
{
    Backup* b = begin();
    upToDate = 0;
    cacheBlock(b, nullptr, 7);
    EXPECT_EQ(upToDate, 1);
}

TEST_F(Calls, AReadThatFailsDoesNotMarkItsBufferGood)
{
    Backup* b = begin();
    upToDate = 0;
    hosted::faults::fail_read(1);
    cacheBlock(b, nullptr, 7);
    hosted::faults::clear();
    EXPECT_EQ(upToDate, 0);
}

TEST_F(Calls, AReadThatTheDeviceDoesNotKnowMarksItsBufferSo)
{
    Backup* b = begin();
    page* p = alloc_page(GFP_NOIO);
    buffer_head* bh = newBufferHead();
    bio* bio = newReadBIO();
    initBH(b, bh, p, 0, 7);
    initBIO(b, bio, bh);
    unsupported = 0;
    qdrBIOEndIO(bio, -KERNEL_EOPNOTSUPP);
    EXPECT_EQ(unsupported, 1);
    free_buffer_head(bh);
    bio_put(bio);
    free_page_ref(p);
}

TEST_F(Calls, EveryPageOfAMapThatIsMappedIsUnmapped)
{
    mapped = unmapped = 0;
    ASSERT_NO_FATAL_FAILURE(trackDevice(sda(), 1));
    ASSERT_EQ(sda().writeBlock(1, 3, 0x33), 0);
    program.open();
    ASSERT_EQ(program.start(sda().device(1), sda().blocks(1), 100), 0);
    ASSERT_EQ(program.snapshot(keyOf(sessionOf(sda().device(1)))), 0);
    Bits changed(sda().blocks(1));
    ASSERT_EQ(program.autoMap(changed), 0);
    ASSERT_EQ(program.loadMap(changed), 0);
    write(recordOf(program), 1, 3, 0x44);
    EXPECT_GT(mapped, 0);
    EXPECT_EQ(mapped, unmapped);
}

TEST_F(Calls, TheCountersAreReadByTheOneWhoHoldsTheRecord)
{
    Backup* b = begin();
    Stats shown{};
    atCopyOut = [&](const void* from) { std::memcpy(&shown, from, sizeof shown); };
    down(&b->bSem);
    std::thread asker([&] { ioctlGetStats(b, user_addr(0), sizeof shown); });
    std::this_thread::sleep_for(std::chrono::milliseconds(30));
    b->maxCacheBlocks = 4242;
    up(&b->bSem);
    asker.join();
    EXPECT_EQ(shown.maxCacheBlocks, 4242u);
}

TEST_F(Calls, ABufferIsUnlockedBeforeTheEndOfItsReadDropsIt)
{
    Backup* b = begin();
    usersAtUnlock = 0;
    cacheBlock(b, nullptr, 7);
    EXPECT_EQ(usersAtUnlock, 1);
}

// One count was taken, and both drop one: the platform takes no count below zero for an error.
TEST_F(Calls, ABufferHeadIsFreedWhenTheEndOfItsReadAndWhoWaitedHaveDroppedIt)
{
    Backup* b = begin();
    watchBuffers = true;
    freedInUse = false;
    write(b, 1, 7, 0x77);
    EXPECT_EQ(program.readBlocks(4, 3), 0);
    EXPECT_FALSE(freedInUse);
}

TEST_F(Calls, ARequestOfAReadEndsWithoutItsBuffer)
{
    begin();
    putWithBuffer = false;
    EXPECT_EQ(program.readBlocks(4, 3), 0);
    EXPECT_FALSE(putWithBuffer);
}

TEST_F(Calls, ABufferIsWaitedForIfItIsLockedOrNobodyUsesIt)
{
    begin();
    buffer_head* bh = newBufferHead();
    waitedFor = 0;
    wait_on_buffer(bh);
    EXPECT_EQ(waitedFor, 1) << "unlocked and unused";
    get_bh(bh);
    wait_on_buffer(bh);
    EXPECT_EQ(waitedFor, 1) << "unlocked and used";
    put_bh(bh);
    free_buffer_head(bh);
}

TEST_F(Calls, AReadUsesTheSlotsOfItsRunAndNoMore)
{
    Backup* b = begin();
    BIORequest* const stranger = reinterpret_cast<BIORequest*>(0x10);
    b->mmBIORequests[3] = stranger;
    EXPECT_EQ(program.readBlocks(5, 3), 0);
    EXPECT_EQ(b->mmBIORequests[3], stranger);
    b->mmBIORequests[3] = nullptr;
}

TEST_F(Calls, TheChangedBlocksAreCopiedOutByAUserOfTheirMap)
{
    ASSERT_NO_FATAL_FAILURE(trackDevice(sda(), 1));
    ASSERT_EQ(program.open(), 0);
    ASSERT_EQ(program.start(sda().device(1), sda().blocks(1), 100), 0);
    ASSERT_EQ(program.snapshot(keyOf(sessionOf(sda().device(1)))), 0);
    Backup* b = recordOf(program);
    int users = 0;
    atCopyOut = [&](const void*) { users = atomic_read(&b->blockMap.users); };
    Bits changed(sda().blocks(1));
    ASSERT_EQ(program.autoMap(changed), 0);
    EXPECT_EQ(users, 2) << "one more than the idle count";
}

// ---- Whoever waits in a loop gives up the processor

class CallsInLoops : public Calls
{
  protected:
    // Runs `act`, which waits until `release`, and releases it when it has given up the processor.
    static void expectGivesUpTheProcessor(const std::function<void()>& act, const std::function<void()>& release)
    {
        scheduled = 0;
        std::thread thread(act);
        EXPECT_TRUE(eventually([] { return scheduled > 0; }));
        release();
        thread.join();
    }
    // Runs `act`, the first allocation of which fails.
    static void expectTriesAgainLater(hosted::faults::Kind kind, const std::function<void()>& act)
    {
        scheduled = 0;
        hosted::faults::fail_allocation(1, unsigned(kind));
        act();
        hosted::faults::clear();
        EXPECT_EQ(scheduled, 1);
    }
};

TEST_F(CallsInLoops, ForTheUsersOfAGateToLeave)
{
    atomic_inc(&amListUsers);
    expectGivesUpTheProcessor([] { closeAllAMS(); }, [] { atomic_dec(&amListUsers); });
}

TEST_F(CallsInLoops, ForTheUsersOfASnapshotsSessionToLeave)
{
    ASSERT_NO_FATAL_FAILURE(trackDevice(sda(), 1));
    AutoMapSession* ams = getAMS(sda().device(1));
    const Key key = keyOf(ams);
    ASSERT_EQ(program.open(), 0);
    ASSERT_EQ(program.start(sda().device(1), sda().blocks(1), 100), 0);
    expectGivesUpTheProcessor([&] { EXPECT_EQ(program.snapshot(key), 0); }, [=] { putAMS(ams); });
}

// That is with the requests of the backup held: the snapshot is their dividing line.
TEST_F(CallsInLoops, ForTheUsersOfItsSessionAndKeepsRequestsOutMeanwhile)
{
    ASSERT_NO_FATAL_FAILURE(trackDevice(sda(), 1));
    AutoMapSession* ams = getAMS(sda().device(1));
    const Key key = keyOf(ams);
    ASSERT_EQ(program.open(), 0);
    ASSERT_EQ(program.start(sda().device(1), sda().blocks(1), 100), 0);
    RawBio request(sda().device(0), Op::read, sectorOf(sda(), 1, 6), kBlock);
    std::atomic<int> decided{-1};
    std::thread other;
    expectGivesUpTheProcessor([&] { EXPECT_EQ(program.snapshot(key), 0); },
                              [&] {
                                  other = std::thread(
                                      [&] { decided = cacheMRFBlock(sda().disk().queue(), request.get(), 1); });
                                  std::this_thread::sleep_for(std::chrono::milliseconds(50));
                                  EXPECT_EQ(decided, -1);
                                  putAMS(ams);
                              });
    other.join();
    EXPECT_EQ(decided, 1) << "it is held for the snapshot";
    EXPECT_TRUE(eventually([&] { return request.ends() == 1; }));
    settle(recordOf(program));
}

TEST_F(CallsInLoops, ForTheHeldRequestsToEndAndSaysWhenTheWorkerHasGone)
{
    auto b = std::make_unique<Backup>();
    spin_lock_init(&b->mrLock);
    atomic_set(&b->mrInQueue, 1);
    store_release(&backup_cachePID, 1234);
    expectGivesUpTheProcessor(
        [&] {
            unsigned long flags;
            waitForMRs(b.get(), &flags);
        },
        [&] {
            EXPECT_EQ(takeLog(), Lines{});
            store_release(&backup_cachePID, 0);
        });
    EXPECT_EQ(takeLog(), (Lines{"<3>waitForMRs: backup_cache thread died during waitForMRs\n"}));
}

TEST_F(CallsInLoops, ForABufferHead)
{
    buffer_head* bh = nullptr;
    expectTriesAgainLater(hosted::faults::Kind::buffer_head, [&] { bh = newBufferHead(); });
    free_buffer_head(bh);
}

TEST_F(CallsInLoops, ForABio)
{
    bio* b = nullptr;
    expectTriesAgainLater(hosted::faults::Kind::bio, [&] { b = newReadBIO(); });
    bio_put(b);
}

TEST_F(CallsInLoops, ForARecordOfTheRegistry)
{
    expectTriesAgainLater(hosted::faults::Kind::kmalloc,
                          [&] { addQueueToList(sda().disk().queue(), sda().device(1)); });
}

// ---- What it never answers

TEST_F(Calls, TheDiskOfADeviceThatCannotBeHadIsMinusOne)
{
    noDevices = true;
    EXPECT_EQ(getDiskMinor(kdev_make(8, 17)), -1);
    EXPECT_EQ(takeLog(), (Lines{"<3>getDiskMinor: Could not get block device for MAJOR=17, MINOR=0\n"}));
}

// The platforms mount none: a page would not hold what the worker reads.
TEST_F(Calls, BlocksLargerThanAPageMakeNoLargerTransferAreasAndCannotBeRead)
{
    blockSize = 8192;
    ASSERT_EQ(program.open(), 0);
    ASSERT_EQ(program.start(sda().device(1), 100, 100), 0);
    Backup* b = recordOf(program);
    EXPECT_EQ(b->diskInfo.blocksPerPage, 0u);
    EXPECT_EQ(b->diskInfo.sectorsPerBlock, 16);
    EXPECT_EQ(b->diskInfo.sectorsPerBlockShift, 4);
    EXPECT_EQ(b->maxVMPages, 256);
    ASSERT_EQ(program.snapshot(), 0);
    ASSERT_EQ(program.map(0, 2), 0);
    EXPECT_EQ(program.readBlocks(5, 1), 2);
}

TEST_F(Calls, ADiskIsAskedForThePartitionsThatItHasRoomFor)
{
    TestDisk& sdb = addDisk("sdb", 16, 400, {{1, 100, 100, 0}, {3, 200, 100, 0}});
    RawBio bio(sdb.device(0), Op::read, 399, 512);
    EXPECT_EQ(BIOToMinor(bio.get()), 16);
    EXPECT_EQ(lastPartition, 3u);
}

// The numbers behind them are another disk's.
TEST_F(Calls, ADiskIsAskedForThePartitionsThatHaveAMinorOfItsOwn)
{
    TestDisk& sdb = addDisk("sdb", 16, 400, {{1, 100, 100, 0}});
    RawBio bio(sdb.device(0), Op::read, 399, 512);
    slots = 64;
    EXPECT_EQ(BIOToMinor(bio.get()), 16);
    EXPECT_EQ(lastPartition, 15u);
}

// ---- Memory that is not clean

TEST_F(Calls, AMapThatGotOnlySomeOfItsPagesFreesThose)
{
    dirtyMemory = true;
    const hosted::Live before = hosted::live();
    hosted::faults::fail_allocation(3, unsigned(hosted::faults::Kind::page));
    BlockMap map;
    u32 pages;
    EXPECT_EQ(newBlockMap(&map, 5 * BLOCKS_PER_MAP_PAGE, user_addr(0), 1, &pages), 5);
    hosted::faults::clear();
    EXPECT_EQ(hosted::live(), before);
}

TEST_F(Calls, TheCountersShowUserSpaceNothingOfTheMemoryTheyAreIn)
{
    ASSERT_EQ(program.open(), 0);
    ASSERT_EQ(program.start(sda().device(1), sda().blocks(1), 100), 0);
    Stats shown;
    std::memset(&shown, 0xFF, sizeof shown);
    atCopyOut = [&](const void* from) { std::memcpy(&shown, from, sizeof shown); };
    dirtyMemory = true;
    ioctlGetStats(recordOf(program), user_addr(0), sizeof shown);
    EXPECT_EQ(shown.driverVerMajor, 0u);
    EXPECT_EQ(shown.driverVerMinor, 0u);
    EXPECT_EQ(shown.driverVerMinor2, 0u);
    EXPECT_EQ(shown.minor, 1u);
}
