// SPDX-License-Identifier: GPL-2.0-only
// The life of a backup: what a start builds, every way in which it fails, and what closing the file takes down.
#include "core_view.h"

#include <algorithm>
#include <atomic>
#include <cstdlib>
#include <thread>

using rig::hookOf;
using rig::Lines;
using rig::Program;

namespace
{

using hosted::faults::Kind;

const char* const workerStarted = "<6>backup_cache: kbackupd thread started\n";
const char* const workerExits = "<6>backup_cache: backupd thread exiting\n";

std::string finishedLine(u32 major, u32 minor)
{
    return "<6>closeBackup: backup finished device major=" + std::to_string(major) + " minor=" + std::to_string(minor) +
           "\n";
}

// The log without the statistics.
Lines withoutStatistics(Lines log)
{
    std::erase_if(log, [](const std::string& line) { return line.compare(3, 11, "printStats:") == 0; });
    return log;
}

bool contains(const Lines& log, const std::string& line)
{
    return std::find(log.begin(), log.end(), line) != log.end();
}

class Session : public rig::DriverTest
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
    int start(u32 maxCacheBlocks = 10) { return program.start(sda().device(1), sda().blocks(1), maxCacheBlocks); }
    // Opens, makes the n-th allocation of these kinds fail, and starts.
    int failingStart(unsigned n, Kind kind)
    {
        EXPECT_EQ(program.open(), 0);
        hosted::faults::fail_allocation(n, unsigned(kind));
        const int result = start();
        hosted::faults::clear();
        return result;
    }
    // After a start that failed behind the geometry: what holds until the close, and that the close leaves a driver
    // that can start again.
    void expectHalfStartedAndClosable(bool workerRuns)
    {
        EXPECT_EQ(state(), 1u);
        EXPECT_EQ(atomic_read(&busy), 1);
        EXPECT_EQ(load_acquire(&activeSession), nullptr);
        EXPECT_EQ(hosted::live().threads, workerRuns ? 1 : 0);
        EXPECT_EQ(down_trylock(&record()->bSem), 0) << "the record is still held";
        up(&record()->bSem);
        takeLog();
        EXPECT_EQ(program.close(), 0);
        EXPECT_EQ(hosted::live().threads, 0);
        EXPECT_EQ(atomic_read(&busy), 0);
        Lines expected{finishedLine(8, 1)};
        if (workerRuns)
            expected.insert(expected.begin(), workerExits);
        EXPECT_EQ(withoutStatistics(takeLog()), expected);
        ASSERT_EQ(program.open(), 0);
        EXPECT_EQ(start(), 0) << "the driver cannot start again";
    }
    Program program;
};

// ---- Start

TEST_F(Session, StartBuildsTheSessionAndPublishesIt)
{
    ASSERT_EQ(program.open(), 0);
    make_request_fn* own = hookOf(sda());
    EXPECT_EQ(program.start(sda().device(1), 3000, 123), 0);
    Backup* b = record();
    EXPECT_EQ(takeLog(), (Lines{workerStarted, "<6>ioctlStartBackup: backup started for device major=8 minor=1\n"}));
    EXPECT_EQ(state(), 2u);
    EXPECT_EQ(load_acquire(&activeSession), b);
    EXPECT_EQ(atomic_read(&busy), 1);
    EXPECT_EQ(b->maxCacheBlocks, 123u);
    EXPECT_EQ(b->diskInfo.numBlocks, 3000u);
    EXPECT_EQ(b->diskInfo.kdev, sda().device(1));
    EXPECT_EQ(b->diskInfo.partitionStart, 2048u);
    EXPECT_EQ(b->diskInfo.realMRF, own);
    EXPECT_EQ(b->maxVMPages, 256);
    EXPECT_EQ(b->startedCacheThread, 1);
    EXPECT_GT(load_acquire(&backup_cachePID), 0);
    EXPECT_EQ(b->cacheMap.size, 3000u);
    EXPECT_EQ(rig::membersOf(b->cacheMap), std::vector<u32>{});
    EXPECT_EQ(b->blockMap.map, nullptr);
    EXPECT_EQ(atomic_read(&b->totalAllocPages), 1);
    EXPECT_EQ(atomic_read(&b->curAllocPages), 1);
    for (u32 i = 0; i < 256; i++)
        EXPECT_EQ(b->mmBIORequests[i], nullptr);
    for (u32 i = 0; i < CACHE_BUCKETS; i++) {
        ASSERT_EQ(b->blockTable[i]->busy, nullptr);
        ASSERT_EQ(down_trylock(&b->blockTable[i]->sem), 0);
        ASSERT_EQ(down_trylock(&b->blockTable[i]->sem), 1);
        up(&b->blockTable[i]->sem);
    }
    EXPECT_EQ(hookOf(sda()), own) << "the hook belongs to the snapshot";
    EXPECT_EQ(down_trylock(&b->bSem), 0);
    up(&b->bSem);
}

TEST_F(Session, SlabCachesAreNamedByMajorAndMinorInHexadecimal)
{
    rig::TestDisk& disk = addDisk("sdb", 16, 4096, {{1, 8, 800, 512}});
    ASSERT_EQ(disk.device(1), kdev_make(8, 17));
    ASSERT_EQ(program.open(), 0);
    ASSERT_EQ(program.start(disk.device(1), disk.blocks(1), 10), 0);
    EXPECT_STREQ(record()->htCacheName, "qdrHT0811");
    EXPECT_STREQ(record()->cpCacheName, "qdrCP0811");
    EXPECT_STREQ(record()->dataCacheName, "qdrDC0811");
    const std::string caches = hosted::describe(hosted::live());
    EXPECT_NE(
        caches.find("slab cache qdrHT0811 with 4096 object(s) of " + std::to_string(sizeof(HashTable)) + " bytes"),
        std::string::npos)
        << caches;
    // Room for eight block numbers behind two pointers' worth of bytes.
    EXPECT_NE(caches.find("slab cache qdrCP0811 with 0 object(s) of 40 bytes"), std::string::npos) << caches;
    EXPECT_NE(caches.find("slab cache qdrDC0811 with 0 object(s) of 512 bytes"), std::string::npos) << caches;
}

TEST_F(Session, NamesUseTwoDigitsEach)
{
    rig::TestDisk& disk = addDisk("vda", 240, 4096, {{0, 0, 4096, 4096}, {15, 8, 800, 512}}, true, 254);
    ASSERT_EQ(program.open(), 0);
    ASSERT_EQ(program.start(disk.device(15), disk.blocks(15), 10), 0);
    EXPECT_STREQ(record()->htCacheName, "qdrHTfeff");
    ASSERT_EQ(program.close(), 0);
    ASSERT_EQ(program.open(), 0);
    ASSERT_EQ(program.start(disk.device(0), disk.blocks(0), 10), 0);
    EXPECT_STREQ(record()->dataCacheName, "qdrDCfef0");
    // With one block a page the structure itself decides on a wide word, twelve bytes are enough on a narrow one.
    const std::string caches = hosted::describe(hosted::live());
    EXPECT_NE(caches.find("slab cache qdrCPfef0 with 0 object(s) of " +
                          std::to_string(std::max<std::size_t>(12, sizeof(CachePage))) + " bytes"),
              std::string::npos)
        << caches;
    EXPECT_NE(caches.find("slab cache qdrDCfef0 with 0 object(s) of 4096 bytes"), std::string::npos) << caches;
}

TEST_F(Session, NamesOfSmallNumbersUseTwoDigitsEach)
{
    ASSERT_EQ(program.open(), 0);
    ASSERT_EQ(start(), 0);
    EXPECT_STREQ(record()->htCacheName, "qdrHT0801");
    EXPECT_STREQ(record()->cpCacheName, "qdrCP0801");
    EXPECT_STREQ(record()->dataCacheName, "qdrDC0801");
}

TEST_F(Session, TransferAreaHoldsAtMost256Blocks)
{
    struct Case {
        u32 blockSize;
        s32 pages;
    };
    for (const Case& c : {Case{4096, 256}, Case{2048, 128}, Case{1024, 64}, Case{512, 32}}) {
        rig::TestDisk& disk = addDisk("sdb", 16, 4096, {{1, 8, 2048, c.blockSize}});
        ASSERT_EQ(program.open(), 0);
        ASSERT_EQ(program.start(disk.device(1), disk.blocks(1), 10), 0);
        EXPECT_EQ(record()->maxVMPages, c.pages) << c.blockSize;
        EXPECT_EQ(program.state().mmapSize, c.pages * 4096) << c.blockSize;
        ASSERT_EQ(program.close(), 0);
        disks_.clear();
    }
}

TEST_F(Session, StartWhileAnotherBackupRunsIsRefusedForGood)
{
    Program running;
    ASSERT_NO_FATAL_FAILURE(running.beginFullBackup(sda(), 1));
    const rig::Bytes old = sda().block(1, 11);
    ASSERT_EQ(program.open(), 0);
    takeLog();
    EXPECT_EQ(program.start(sda().device(2), sda().blocks(2), 10), 9);
    EXPECT_EQ(takeLog(), (Lines{"<3>ioctlStartBackup: another backup operation is open can't start backup on device "
                                "major=8 minor=2\n"}));
    EXPECT_EQ(state(), 12u);
    // The running backup goes on: it is still the active one, holds writes and reads.
    EXPECT_EQ(running.state().state, 6u);
    EXPECT_EQ(load_acquire(&activeSession), rig::recordOf(running));
    EXPECT_EQ(sda().writeBlock(1, 11, 0x99), 0);
    rig::Bytes content;
    EXPECT_EQ(running.readOne(11, 4096, content), 0);
    EXPECT_EQ(content, old);
}

TEST_F(Session, StartTwiceOnOneFileIsAnsweredByBusyFirst)
{
    ASSERT_EQ(program.open(), 0);
    ASSERT_EQ(start(), 0);
    takeLog();
    EXPECT_EQ(start(), 9);
    EXPECT_EQ(takeLog(), (Lines{"<3>ioctlStartBackup: another backup operation is open can't start backup on device "
                                "major=8 minor=1\n"}));
    EXPECT_EQ(state(), 12u);
}

TEST_F(Session, StartTwiceOnOneFileAfterAnotherFilesCloseIsRefusedAsNotIdle)
{
    ASSERT_EQ(program.open(), 0);
    ASSERT_EQ(start(), 0);
    Program other;
    ASSERT_EQ(other.open(), 0);
    ASSERT_EQ(other.close(), 0); // clears busy
    takeLog();
    EXPECT_EQ(start(), 11);
    EXPECT_EQ(takeLog(),
              (Lines{"<3>ioctlStartBackup: tried to start backup on device major=8 minor=1 that is already busy\n"}));
    EXPECT_EQ(state(), 2u);
    EXPECT_EQ(atomic_read(&busy), 1) << "the slot stays taken";
    EXPECT_EQ(down_trylock(&record()->bSem), 0);
    up(&record()->bSem);
}

TEST_F(Session, ARefusedFileThatTriesAgainBlocksTheDriverUntilItIsReloaded)
{
    Program running;
    ASSERT_EQ(running.open(), 0);
    ASSERT_EQ(running.start(sda().device(2), sda().blocks(2), 10), 0);
    ASSERT_EQ(program.open(), 0);
    ASSERT_EQ(start(), 9);
    ASSERT_EQ(running.close(), 0);
    ASSERT_EQ(atomic_read(&busy), 0);
    EXPECT_EQ(start(), 11);
    ASSERT_EQ(program.close(), 0);
    EXPECT_EQ(atomic_read(&busy), 1);
    ASSERT_EQ(program.open(), 0);
    EXPECT_EQ(start(), 9);
    ASSERT_EQ(program.close(), 0);
    ASSERT_EQ(hosted::unload_driver(), 0);
    ASSERT_EQ(hosted::load_driver(), 0);
    ASSERT_EQ(program.open(), 0);
    EXPECT_EQ(start(), 0);
}

TEST_F(Session, DeviceNumberThatDoesNotFitTheTrackingTableIsRefusedBeforeAnythingIsTaken)
{
    ASSERT_EQ(program.open(), 0);
    const struct {
        u32 major, minor;
    } devices[] = {{256, 0}, {8, 256}, {259, 1}, {0xFFF, 0xFFFFF}};
    for (const auto& device : devices) {
        EXPECT_EQ(program.start(kdev_make(device.major, device.minor), 100, 10), 2);
        EXPECT_EQ(takeLog(), (Lines{"<3>ioctlStartBackup: device major=" + std::to_string(device.major) +
                                    " minor=" + std::to_string(device.minor) +
                                    " does not fit the tracking table, both must be below 256\n"}));
        EXPECT_EQ(state(), 0u);
        EXPECT_EQ(atomic_read(&busy), 0);
    }
    EXPECT_EQ(start(), 0) << "the file is as good as new";
}

TEST_F(Session, DeviceNumbersUpTo255AreAccepted)
{
    rig::TestDisk& disk = addDisk("vda", 240, 4096, {{15, 8, 800, 512}}, true, 255);
    ASSERT_EQ(program.open(), 0);
    EXPECT_EQ(program.start(kdev_make(255, 255), disk.blocks(15), 10), 0);
}

// ---- Starts that fail

TEST_F(Session, StartOnAnUnmountedDeviceLeavesStateZeroAndTheSlotTaken)
{
    ASSERT_EQ(program.open(), 0);
    sda();
    EXPECT_EQ(program.start(sda().device(0), 100, 10), 8);
    EXPECT_EQ(takeLog(), (Lines{"<3>getDiskInfo: device major=8 minor=0 not found, getting super block failed\n"}));
    EXPECT_EQ(state(), 0u);
    EXPECT_EQ(atomic_read(&busy), 1);
    EXPECT_EQ(hosted::live().threads, 0);
    Program other;
    ASSERT_EQ(other.open(), 0);
    EXPECT_EQ(other.start(sda().device(1), 100, 10), 9);
    EXPECT_EQ(program.close(), 0);
    EXPECT_EQ(atomic_read(&busy), 0);
    takeLog();
}

TEST_F(Session, StartOnABlockSizeBelowASectorLeavesStateZero)
{
    hosted::mount_file_system(sda().device(0), 256);
    ASSERT_EQ(program.open(), 0);
    EXPECT_EQ(program.start(sda().device(0), 100, 10), 3);
    hosted::unmount_file_system(sda().device(0));
    EXPECT_EQ(takeLog(), (Lines{"<4>getDiskInfo: device 800000 has bad block size 256\n"}));
    EXPECT_EQ(state(), 0u);
    EXPECT_EQ(hosted::live().supers, 0);
    EXPECT_EQ(program.close(), 0);
    EXPECT_EQ(takeLog(), Lines{}) << "nothing was started";
    EXPECT_EQ(atomic_read(&busy), 0);
}

TEST_F(Session, BucketSlabCacheThatCannotBeMadeFailsTheStart)
{
    EXPECT_EQ(failingStart(1, Kind::slab_cache), 5);
    EXPECT_EQ(takeLog(), (Lines{"<3>newBlockTable: kmem_cache_create failed for HashTable structs during backup start "
                                "major=8 minor=1\n"}));
    expectHalfStartedAndClosable(false);
}

TEST_F(Session, BucketTableThatCannotBeAllocatedFailsTheStartSilently)
{
    EXPECT_EQ(failingStart(1, Kind::vmalloc), 5);
    EXPECT_EQ(takeLog(), Lines{});
    expectHalfStartedAndClosable(false);
}

TEST_F(Session, AnyBucketThatCannotBeAllocatedFailsTheStartSilently)
{
    for (unsigned n : {1u, 2u, 2000u, 4096u}) {
        EXPECT_EQ(failingStart(n, Kind::slab), 5) << n;
        EXPECT_EQ(takeLog(), Lines{});
        expectHalfStartedAndClosable(false);
        ASSERT_EQ(program.close(), 0);
        takeLog();
    }
}

TEST_F(Session, ThreadThatCannotBeStartedFailsTheStartWithTheKernelsError)
{
    EXPECT_EQ(failingStart(1, Kind::thread), -12);
    EXPECT_EQ(takeLog(), (Lines{"<3>startWorkQueue: error starting cache thread\n"}));
    EXPECT_EQ(record()->startedCacheThread, 0);
    // The count that the thread would have given back is back, or the next start would wait for ever.
    EXPECT_EQ(down_trylock(&signalThread), 0);
    EXPECT_EQ(down_trylock(&signalThread), 1);
    up(&signalThread);
    expectHalfStartedAndClosable(false);
}

TEST_F(Session, DataSlabCacheThatCannotBeMadeFailsTheStartAndLeavesNothing)
{
    EXPECT_EQ(failingStart(3, Kind::slab_cache), 5);
    EXPECT_EQ(
        takeLog(),
        (Lines{workerStarted, "<3>ioctlStartBackup: kmem_cache_create failed during backup start major=8 minor=1\n"}));
    expectHalfStartedAndClosable(true);
}

TEST_F(Session, EntrySlabCacheThatCannotBeMadeFailsTheStartAndLeavesItsTwin)
{
    EXPECT_EQ(failingStart(2, Kind::slab_cache), 5);
    EXPECT_EQ(
        takeLog(),
        (Lines{workerStarted, "<3>ioctlStartBackup: kmem_cache_create failed during backup start major=8 minor=1\n"}));
    expectHalfStartedAndClosable(true);
    // The close looks at the one that is missing.
    hosted::Live left{};
    left.slab_caches = 1;
    expectLeft(left);
}

TEST_F(Session, CacheMapWithoutBlocksFailsTheStart)
{
    ASSERT_EQ(program.open(), 0);
    EXPECT_EQ(program.start(sda().device(1), 0, 10), 2);
    EXPECT_EQ(takeLog(), (Lines{workerStarted, "<3>newBlockMap: block size size=0 invalid\n",
                                "<3>newCacheMap: error creating cache map of size=0\n"}));
    expectHalfStartedAndClosable(true);
}

TEST_F(Session, CacheMapWithoutItsArrayFailsTheStart)
{
    EXPECT_EQ(failingStart(2, Kind::vmalloc), 5);
    EXPECT_EQ(takeLog(),
              (Lines{workerStarted, "<3>newBlockMap: failed allocating (4) bytes of memory for block map page array\n",
                     "<3>newCacheMap: error creating cache map of size=4096\n"}));
    expectHalfStartedAndClosable(true);
}

TEST_F(Session, CacheMapWithoutItsPageFailsTheStart)
{
    EXPECT_EQ(failingStart(1, Kind::page), 5);
    EXPECT_EQ(takeLog(), (Lines{workerStarted, "<3>newBlockMap: failed allocating page number (0) for block map\n",
                                "<3>newBlockMap: Out of Memory Error.\n",
                                "<3>newCacheMap: error creating cache map of size=4096\n"}));
    EXPECT_EQ(atomic_read(&record()->totalAllocPages), 0);
    expectHalfStartedAndClosable(true);
}

TEST_F(Session, RequestSlotsThatCannotBeAllocatedFailTheStartSilently)
{
    EXPECT_EQ(failingStart(3, Kind::vmalloc), 5);
    EXPECT_EQ(takeLog(), (Lines{workerStarted}));
    expectHalfStartedAndClosable(true);
}

class SessionDeathTest : public Session
{
};

// In a process of its own: asking for a null queue's function leaves the registry's count one lower.
TEST_F(SessionDeathTest, UnknownRequestFunctionFailsTheStart)
{
    testing::FLAGS_gtest_death_test_style = "threadsafe";
    auto run = [this] {
        const kdev_t dev = kdev_make(9, 5); // a file system without a disk
        hosted::mount_file_system(dev, 4096);
        EXPECT_EQ(program.open(), 0);
        EXPECT_EQ(program.start(dev, 100, 10), 1);
        EXPECT_EQ(takeLog(), (Lines{"<4>getDiskInfo: can't detect device 900005 size.\n", workerStarted,
                                    "<4>getRealMRF: Can't get MRF on NULL queue.\n",
                                    "<3>ioctlStartBackup: error getting real MRF for major=9 minor=5\n"}));
        EXPECT_EQ(state(), 1u);
        EXPECT_EQ(atomic_read(&busy), 1);
        EXPECT_EQ(atomic_read(&queueListUsers), 0);
        EXPECT_EQ(program.close(), 0);
        EXPECT_EQ(hosted::live().threads, 0);
        EXPECT_EQ(hosted::live().slab_caches, 0);
        EXPECT_EQ(hosted::live().vmallocs, 0);
        EXPECT_EQ(hosted::live().kmallocs, 0);
        EXPECT_EQ(hosted::live().pages, 0);
        EXPECT_EQ(hosted::unload_driver(), 0) << "an unload waits for a registry that is never idle again";
        fflush(stdout);
        std::_Exit(HasFailure() ? 1 : 42);
    };
    EXPECT_EXIT(run(), testing::ExitedWithCode(42), "");
}

// ---- Close

TEST_F(Session, CloseOfAnIdleFileLogsNothing)
{
    ASSERT_EQ(program.open(), 0);
    EXPECT_EQ(program.close(), 0);
    EXPECT_EQ(takeLog(), Lines{});
}

TEST_F(Session, CloseOfAStartedBackupUnhooksNothingAndSaysFinished)
{
    make_request_fn* own = hookOf(sda());
    ASSERT_EQ(program.open(), 0);
    const hosted::Live before = hosted::live();
    ASSERT_EQ(start(), 0);
    takeLog();
    EXPECT_EQ(program.close(), 0);
    const Lines log = takeLog();
    EXPECT_EQ(withoutStatistics(log), (Lines{workerExits, finishedLine(8, 1)}));
    EXPECT_EQ(log.size(), 28u) << "the statistics have their twenty-six lines";
    EXPECT_EQ(log.back(), finishedLine(8, 1));
    EXPECT_TRUE(contains(log, "<6>printStats: state: 7\n"));
    EXPECT_EQ(hookOf(sda()), own);
    EXPECT_EQ(atomic_read(&busy), 0);
    EXPECT_EQ(load_acquire(&activeSession), nullptr);
    EXPECT_EQ(load_acquire(&backup_cachePID), 0);
    EXPECT_EQ(hosted::live().slab_caches, before.slab_caches);
    EXPECT_EQ(hosted::live().vmallocs, before.vmallocs);
    EXPECT_EQ(hosted::live().pages, before.pages);
}

TEST_F(Session, CloseWithoutMemoryForTheStatisticsStillSaysFinished)
{
    ASSERT_EQ(program.open(), 0);
    ASSERT_EQ(start(), 0);
    takeLog();
    hosted::faults::fail_allocation(1, unsigned(Kind::kmalloc));
    EXPECT_EQ(program.close(), 0);
    EXPECT_EQ(takeLog(), (Lines{workerExits, finishedLine(8, 1)}));
}

TEST_F(Session, CloseOfARefusedFileKeepsTheSlotTakenButDetaches)
{
    Program running;
    ASSERT_NO_FATAL_FAILURE(running.beginSnapshot(sda(), 1));
    ASSERT_EQ(program.open(), 0);
    ASSERT_EQ(program.start(sda().device(2), sda().blocks(2), 10), 9);
    takeLog();
    EXPECT_EQ(program.close(), 0);
    EXPECT_EQ(atomic_read(&busy), 1);
    EXPECT_EQ(load_acquire(&activeSession), nullptr);
    EXPECT_GT(load_acquire(&backup_cachePID), 0) << "the other backup's worker was stopped";
    const Lines log = takeLog();
    EXPECT_EQ(withoutStatistics(log),
              (Lines{"<3>countQueueAMS: Could not count ams sessions for request queue because queue was null.\n",
                     "<3>unsetQueueMRFAMS: Could not unset MRFS for request queue because queue was null.\n",
                     finishedLine(0, 0)}));
    EXPECT_TRUE(contains(log, "<6>printStats: state: 12\n"));
    EXPECT_EQ(running.close(), 0);
    EXPECT_EQ(atomic_read(&busy), 0);
}

TEST_F(Session, CloseKeepsAFailureStateInTheStatistics)
{
    ASSERT_EQ(program.open(), 0);
    ASSERT_EQ(start(), 0);
    ASSERT_EQ(program.snapshot(), 0);
    ASSERT_EQ(program.command(QUENDREL_LOAD_BLOCK_MAP, program.put(LoadBlockMap{program.put(UserBlockMap{1, 0}), 8})),
              2);
    ASSERT_EQ(state(), 9u);
    takeLog();
    EXPECT_EQ(program.close(), 0);
    EXPECT_TRUE(contains(takeLog(), "<6>printStats: state: 9\n"));
    EXPECT_EQ(atomic_read(&busy), 0);
}

TEST_F(Session, CloseLeavesTheQueueToTheTrackingOfTheDevice)
{
    make_request_fn* own = hookOf(sda());
    ASSERT_EQ(program.open(), 0);
    ASSERT_EQ(start(), 0);
    ASSERT_EQ(program.snapshot(), 0);
    ASSERT_EQ(hookOf(sda()), qdrMRF);
    EXPECT_EQ(program.close(), 0);
    EXPECT_EQ(hookOf(sda()), qdrAMRF);
    EXPECT_EQ(getRealMRF(sda().disk().queue()), own);
    AutoMapSession* ams = rig::sessionOf(sda().device(1));
    ASSERT_NE(ams, nullptr);
    EXPECT_EQ(load_acquire(&ams->state), 1u);
    EXPECT_EQ(atomic_read(&ams->users), 1);
    EXPECT_EQ(atomic_read(&amListUsers), 1);
}

TEST_F(Session, CloseUnhooksWhenTheOnlySessionOnTheQueueIsOutOfSync)
{
    make_request_fn* own = hookOf(sda());
    ASSERT_EQ(program.open(), 0);
    ASSERT_EQ(start(), 0);
    ASSERT_EQ(program.snapshot(), 0);
    AutoMapSession* ams = rig::sessionOf(sda().device(1));
    set_mb(&ams->state, 0);
    EXPECT_EQ(program.close(), 0);
    EXPECT_EQ(hookOf(sda()), own);
    EXPECT_TRUE(rig::registryIsEmpty());
    EXPECT_EQ(rig::sessionOf(sda().device(1)), ams) << "the session stays in the table";
    EXPECT_EQ(atomic_read(&ams->users), 1);
}

TEST_F(Session, CloseUnhooksWhenTrackingWasSwitchedOff)
{
    make_request_fn* own = hookOf(sda());
    ASSERT_EQ(program.open(), 0);
    ASSERT_EQ(start(), 0);
    ASSERT_EQ(program.noStartAutoMap(), 0);
    ASSERT_EQ(program.snapshot(), 0);
    ASSERT_EQ(hookOf(sda()), qdrMRF);
    EXPECT_EQ(program.close(), 0);
    EXPECT_EQ(hookOf(sda()), own);
    EXPECT_TRUE(rig::registryIsEmpty());
}

TEST_F(Session, CloseLeavesTheQueueToTrackingWhenTwoOfItsDevicesHaveSessions)
{
    ASSERT_NO_FATAL_FAILURE(rig::trackDevice(sda(), 2));
    ASSERT_EQ(program.open(), 0);
    ASSERT_EQ(start(), 0);
    ASSERT_EQ(program.snapshot(), 0);
    set_mb(&rig::sessionOf(sda().device(1))->state, 0);
    EXPECT_EQ(program.close(), 0);
    EXPECT_EQ(hookOf(sda()), qdrAMRF);
    EXPECT_EQ(load_acquire(&rig::sessionOf(sda().device(2))->state), 1u);
}

TEST_F(Session, CloseOfAnUntrackedPartitionEndsTheTrackingOfTheOnlyOtherOne)
{
    make_request_fn* own = hookOf(sda());
    ASSERT_NO_FATAL_FAILURE(rig::trackDevice(sda(), 2));
    ASSERT_EQ(program.open(), 0);
    ASSERT_EQ(start(), 0);
    ASSERT_EQ(program.noStartAutoMap(), 0);
    ASSERT_EQ(program.snapshot(), 0);
    EXPECT_EQ(program.close(), 0);
    EXPECT_EQ(hookOf(sda()), own);
    ASSERT_NE(rig::sessionOf(sda().device(2)), nullptr);
    EXPECT_EQ(load_acquire(&rig::sessionOf(sda().device(2))->state), 0u);
}

TEST_F(Session, CloseOfAnIdleFileAfterAFailedStartOfATrackedDeviceLeavesItTracked)
{
    ASSERT_NO_FATAL_FAILURE(rig::trackDevice(sda(), 1));
    hosted::unmount_file_system(sda().device(1));
    ASSERT_EQ(program.open(), 0);
    ASSERT_EQ(start(), 8);
    EXPECT_EQ(program.close(), 0);
    hosted::mount_file_system(sda().device(1), 4096);
    EXPECT_EQ(hookOf(sda()), qdrAMRF);
    EXPECT_EQ(load_acquire(&rig::sessionOf(sda().device(1))->state), 1u);
}

TEST_F(Session, CloseOfADeviceThatLostItsDiskPutsItsTrackingOutOfSync)
{
    ASSERT_EQ(program.open(), 0);
    ASSERT_EQ(start(), 0);
    ASSERT_EQ(program.snapshot(), 0);
    sda().disk().unplug();
    takeLog();
    EXPECT_EQ(program.close(), 0);
    EXPECT_EQ(withoutStatistics(takeLog()),
              (Lines{"<3>countQueueAMS: Could not count ams sessions for request queue because queue was null.\n",
                     "<3>unsetQueueMRFAMS: Could not unset MRFS for request queue because queue was null.\n",
                     workerExits, finishedLine(8, 1)}));
    EXPECT_EQ(load_acquire(&rig::sessionOf(sda().device(1))->state), 0u);
    // The unload cannot find the queue through the device either.
    ASSERT_EQ(hosted::unload_driver(), 0);
    EXPECT_EQ(rig::complaints(takeLog()),
              (Lines{"<4>unSetMRFDEV: Unable to get request queue for MAJOR=8, MINOR=1 while unsetting MRF."}));
}

TEST_F(Session, CloseWaitsForTheWritesThatAreHeld)
{
    ASSERT_NO_FATAL_FAILURE(program.beginFullBackup(sda(), 1));
    // The worker stops at its read of block 4's old contents.
    rig::DiskGate gate([&](const hosted::BioView& bio) { return !bio.write && bio.sector == 2048 + 4 * 8; });
    std::atomic<bool> written{false};
    std::thread writer([&] {
        EXPECT_EQ(sda().writeBlock(1, 4, 0x44), 0);
        EXPECT_EQ(sda().writeBlock(1, 5, 0x55), 0);
        written = true;
    });
    gate.waitUntilStopped();
    Backup* b = record();
    EXPECT_EQ(atomic_read(&b->mrInQueue), 1);
    std::atomic<bool> closed{false};
    std::thread closer([&] {
        EXPECT_EQ(program.file().close(), 0);
        closed = true;
    });
    // Closing, unhooked, still the active session, and waiting.
    ASSERT_TRUE(eventually([&] { return load_acquire(&b->state) == 7; }));
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    EXPECT_FALSE(closed);
    EXPECT_FALSE(written);
    EXPECT_EQ(hookOf(sda()), qdrAMRF) << "the hook goes before the drain";
    EXPECT_EQ(load_acquire(&activeSession), b);
    gate.open();
    closer.join();
    writer.join();
    EXPECT_EQ(sda().block(1, 4), rig::Bytes(4096, std::byte(0x44)));
    EXPECT_EQ(sda().block(1, 5), rig::Bytes(4096, std::byte(0x55)));
    EXPECT_EQ(rig::complaints(takeLog()).size(), 1u) << "only the freeze's announcement";
}

TEST_F(Session, DrainGivesUpWithAMessageWhenTheWorkerIsGone)
{
    ASSERT_EQ(program.open(), 0);
    Backup* b = record();
    takeLog();
    atomic_set(&b->mrInQueue, 1);
    store_release(&backup_cachePID, 77);
    std::atomic<bool> through{false};
    std::thread waiter([&] {
        unsigned long flags;
        waitForMRs(b, &flags);
        through = true;
    });
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    EXPECT_FALSE(through);
    store_release(&backup_cachePID, 0);
    waiter.join();
    EXPECT_EQ(takeLog(), (Lines{"<3>waitForMRs: backup_cache thread died during waitForMRs\n"}));
    // Without a worker there is nothing to wait for, and nothing to say.
    unsigned long flags;
    waitForMRs(b, &flags);
    EXPECT_EQ(takeLog(), Lines{});
    atomic_set(&b->mrInQueue, 0);
}

TEST_F(Session, CloseWaitsForTheIntercepterOfTheActiveSession)
{
    ASSERT_EQ(program.open(), 0);
    ASSERT_EQ(start(), 0);
    Backup* b = record();
    down_read(&activeSessionUsers);
    std::atomic<bool> closed{false};
    std::thread closer([&] {
        EXPECT_EQ(program.file().close(), 0);
        closed = true;
    });
    ASSERT_TRUE(eventually([&] { return load_acquire(&b->state) == 7; }));
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    EXPECT_FALSE(closed);
    EXPECT_EQ(load_acquire(&activeSession), b);
    up_read(&activeSessionUsers);
    closer.join();
    EXPECT_EQ(load_acquire(&activeSession), nullptr);
}

TEST_F(Session, CloseOfTheCacheOfAnIdleRecordStaysHeld)
{
    ASSERT_EQ(program.open(), 0);
    Backup* b = record();
    closeCache(b);
    std::atomic<bool> entered{false};
    std::thread reader([&] {
        down_read(&b->cacheUsers);
        entered = true;
        up_read(&b->cacheUsers);
    });
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    EXPECT_FALSE(entered);
    up_write(&b->cacheUsers); // as only this test may: the record is discarded right after
    reader.join();
}

TEST_F(Session, CloseFreesMappingsMapsCacheAndTableOfARunningBackup)
{
    const hosted::Live before = hosted::live();
    ASSERT_NO_FATAL_FAILURE(program.beginFullBackup(sda(), 1));
    ASSERT_EQ(program.map(1, 256), 0);
    for (u32 block = 0; block < 20; block++)
        ASSERT_EQ(sda().writeBlock(1, block, 0x20), 0);
    ASSERT_EQ(program.readBlocks(100, 30, 1), 0);
    EXPECT_EQ(program.file().close(), 0);
    const hosted::Live after = hosted::live();
    EXPECT_EQ(after.pages, before.pages + 1) << "the tracking map's page";
    EXPECT_EQ(after.vmallocs, before.vmallocs + 1);
    EXPECT_EQ(after.slab_caches, before.slab_caches);
    EXPECT_EQ(after.slab_objects, before.slab_objects);
    EXPECT_EQ(after.mappings, before.mappings);
    EXPECT_EQ(after.threads, before.threads);
    EXPECT_EQ(after.bios, before.bios);
    EXPECT_EQ(after.buffer_heads, before.buffer_heads);
}

TEST_F(Session, CloseReleasesASuperBlockThatIsHeld)
{
    ASSERT_EQ(program.open(), 0);
    ASSERT_EQ(start(), 0);
    record()->diskInfo.superBlock = get_super(record()->diskInfo.bdev);
    ASSERT_EQ(hosted::live().supers, 1);
    EXPECT_EQ(program.close(), 0);
    EXPECT_EQ(hosted::live().supers, 0);
}

TEST_F(Session, ManyBackupsOneAfterTheOtherKeepTheWorkersCount)
{
    for (int i = 0; i < 20; i++) {
        ASSERT_EQ(program.open(), 0);
        ASSERT_EQ(start(), 0);
        ASSERT_EQ(program.close(), 0);
    }
    EXPECT_EQ(down_trylock(&signalThread), 0);
    up(&signalThread);
}

} // namespace
