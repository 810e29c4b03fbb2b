// SPDX-License-Identifier: GPL-2.0-only
// Who waits for whom: each test holds one of the driver's locks, and whoever needs it must not get on before it is
// given up. What has to happen under a lock is in other tests; that the lock is taken is here.
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

class Locking : public CopyOnWriteTest
{
  protected:
    // Runs `act` on a thread of its own while this one holds something, which `release` then gives up. Whether it waited
    // for that: it had not come back after a while, and `meanwhile` held then.
    static bool waits(const std::function<void()>& act, const std::function<void()>& release,
                      const std::function<bool()>& meanwhile = [] { return true; })
    {
        std::atomic<bool> begun{false}, back{false};
        std::thread thread([&] {
            begun = true;
            act();
            back = true;
        });
        while (!begun)
            std::this_thread::yield();
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
        const bool waited = meanwhile() && !back;
        release();
        thread.join();
        return waited;
    }
    // The same of an act that needs a semaphore.
    static bool waitsFor(semaphore* sem, const std::function<void()>& act)
    {
        down(sem);
        return waits(act, [=] { up(sem); });
    }
    // Of one that needs a spin lock.
    static bool waitsForLock(spinlock* lock, const std::function<void()>& act,
                             const std::function<bool()>& meanwhile = [] { return true; })
    {
        unsigned long flags;
        spin_lock_irqsave(lock, &flags);
        return waits(act, [&] { spin_unlock_irqrestore(lock, flags); }, meanwhile);
    }
    static bool isHeld(semaphore* sem)
    {
        const bool held = down_trylock(sem) != 0;
        if (!held)
            up(sem);
        return held;
    }
    // Of one that needs to read, or to write, what others write or read.
    static bool waitsForWriter(rw_semaphore* sem, const std::function<void()>& act)
    {
        down_write(sem);
        return waits(act, [=] { up_write(sem); });
    }
    static bool waitsForReader(rw_semaphore* sem, const std::function<void()>& act)
    {
        down_read(sem);
        return waits(act, [=] { up_read(sem); });
    }
    // Of one that needs what a drain gate counts the users of to itself.
    static bool waitsForUser(atomic_int* users, const std::function<void()>& act)
    {
        atomic_inc(users);
        return waits(act, [=] { atomic_dec(users); });
    }

    Backup* started()
    {
        EXPECT_EQ(program.open(), 0);
        EXPECT_EQ(program.start(sda().device(1), sda().blocks(1), 100000), 0);
        return recordOf(program);
    }
    Backup* begin()
    {
        program.beginFullBackup(sda(), 1);
        return recordOf(program);
    }
    // Keeps a block in the cache as the worker does.
    static int save(Backup* b, u32 block)
    {
        const Bytes data = filled(kBlock, 0x11);
        ReadHold users(b);
        return saveBlock(b, data.data(), block);
    }
    struct ReadHold {
        explicit ReadHold(Backup* b) : b(b) { down_read(&b->cacheUsers); }
        ~ReadHold() { up_read(&b->cacheUsers); }
        Backup* b;
    };
    static void enterAlone(rw_semaphore* sem)
    {
        down_write(sem);
        up_write(sem);
    }
    static semaphore* bucketOf(Backup* b, u32 block) { return &b->blockTable[block & CACHE_BUCKET_MASK]->sem; }
};

// ---- The record's own

TEST_F(Locking, TheStateIsAskedForWithTheRecordHeld)
{
    Backup* b = started();
    EXPECT_TRUE(waitsFor(&b->bSem, [&] { EXPECT_EQ(program.state().state, 2u); }));
}

TEST_F(Locking, TheCountersAreReadWithTheRecordHeld)
{
    Backup* b = started();
    const u32 at = program.memory().allocate(sizeof(Stats));
    user_addr to{at};
    EXPECT_TRUE(waitsFor(&b->bSem, [&] { EXPECT_EQ(ioctlGetStats(b, to, 0), 0); }));
}

TEST_F(Locking, AMapIsLoadedWithTheRecordHeld)
{
    program.beginSnapshot(sda(), 1);
    Backup* b = recordOf(program);
    EXPECT_TRUE(waitsFor(&b->bSem, [&] { EXPECT_EQ(program.loadMap(Bits(100, true)), 0); }));
}

TEST_F(Locking, ABackupIsStartedWithTheRecordHeld)
{
    ASSERT_EQ(program.open(), 0);
    EXPECT_TRUE(waitsFor(&recordOf(program)->bSem,
                         [&] { EXPECT_EQ(program.start(sda().device(1), sda().blocks(1), 100), 0); }));
}

TEST_F(Locking, TheTrackingStateIsAskedForWithTheRecordHeld)
{
    Backup* b = started();
    EXPECT_TRUE(waitsFor(&b->bSem, [&] { program.autoMapState(); }));
}

TEST_F(Locking, TheChangedBlocksAreHandedOverWithTheRecordHeld)
{
    trackDevice(sda(), 1);
    Backup* b = started();
    ASSERT_EQ(program.snapshot(keyOf(sessionOf(sda().device(1)))), 0);
    Bits changed(sda().blocks(1));
    EXPECT_TRUE(waitsFor(&b->bSem, [&] { EXPECT_EQ(program.autoMap(changed), 0); }));
}

TEST_F(Locking, TheOptionNotToStartTrackingIsSetWithTheRecordHeld)
{
    Backup* b = started();
    EXPECT_TRUE(waitsFor(&b->bSem, [&] { EXPECT_EQ(program.noStartAutoMap(), 0); }));
}

TEST_F(Locking, TheOptionNotToLoadTrackingIsSetWithTheRecordHeld)
{
    Backup* b = started();
    EXPECT_TRUE(waitsFor(&b->bSem, [&] { EXPECT_EQ(program.noLoadFromAutoMap(), 0); }));
}

TEST_F(Locking, AMapIsLoadedByOneWhoKeepsTheRecord)
{
    program.beginSnapshot(sda(), 1);
    Backup* b = recordOf(program);
    down_read(&b->writers);
    EXPECT_TRUE(waits([&] { EXPECT_EQ(program.loadMap(Bits(100, true)), 0); }, [=] { up_read(&b->writers); },
                      [=] { return eventually([=] { return isHeld(&b->bSem); }); }));
}

TEST_F(Locking, ASnapshotIsTakenWithTheRecordHeld)
{
    Backup* b = started();
    EXPECT_TRUE(waitsFor(&b->bSem, [&] { EXPECT_EQ(program.snapshot(), 0); }));
}

TEST_F(Locking, ADirtyBlockIsLookedForWithTheRecordHeld)
{
    Backup* b = begin();
    u32 block = 0;
    EXPECT_TRUE(waitsFor(&b->bSem, [&] { EXPECT_EQ(program.dirtyBlock(block), 0); }));
}

TEST_F(Locking, ACloseWaitsForTheCommandThatHoldsTheRecord)
{
    Backup* b = started();
    down(&b->bSem);
    EXPECT_TRUE(waits([&] { EXPECT_EQ(program.close(), 0); }, [=] { up(&b->bSem); },
                      [=] { return load_acquire(&b->state) == QUENDREL_STATE_STARTED; }));
}

TEST_F(Locking, ACloseWaitsForTheRequestsThatAreBeingDecided)
{
    Backup* b = started();
    down_read(&b->writers);
    EXPECT_TRUE(waits([&] { EXPECT_EQ(program.close(), 0); }, [=] { up_read(&b->writers); },
                      [=] { return load_acquire(&b->state) == QUENDREL_STATE_STARTED; }));
}

// ---- The one backup's slot

TEST_F(Locking, TheSlotIsTakenWithItsLockHeld)
{
    ASSERT_EQ(program.open(), 0);
    EXPECT_TRUE(waitsForLock(&busyLock,
                             [&] { EXPECT_EQ(program.start(sda().device(1), sda().blocks(1), 100), 0); },
                             [] { return atomic_read(&busy) == 0; }));
}

TEST_F(Locking, TheSlotIsGivenBackWithItsLockHeld)
{
    started();
    EXPECT_TRUE(waitsForLock(&busyLock, [&] { EXPECT_EQ(program.close(), 0); }, [] { return atomic_read(&busy) == 1; }));
}

TEST_F(Locking, ACloseLeavesTheHookUntilNoRequestIsBeingDecided)
{
    Backup* b = begin();
    down_read(&b->writers);
    EXPECT_TRUE(waits([&] { EXPECT_EQ(program.close(), 0); }, [=] { up_read(&b->writers); },
                      [&] { return hookOf(sda()) == qdrMRF; }));
}

TEST_F(Locking, ACloseKeepsTheRecordWhileItWaits)
{
    Backup* b = started();
    down_read(&b->writers);
    EXPECT_TRUE(waits([&] { EXPECT_EQ(program.close(), 0); }, [=] { up_read(&b->writers); },
                      [=] { return eventually([=] { return isHeld(&b->bSem); }); }));
}

// ---- The hook

TEST_F(Locking, ARequestIsDecidedWithTheRequestsOfTheBackupHeld)
{
    Backup* b = begin();
    EXPECT_TRUE(waitsForWriter(&b->writers, [&] { EXPECT_EQ(sda().writeBlock(1, 3, 0x33), 0); }));
}

TEST_F(Locking, TheHookLooksForTheRunningBackupAsOneOfItsUsers)
{
    begin();
    EXPECT_TRUE(waitsForWriter(&activeSessionUsers, [&] { EXPECT_EQ(sda().writeBlock(1, 3, 0x33), 0); }));
}

// Once queued it may be performed at any moment, and a snapshot before it is recorded would miss it.
TEST_F(Locking, AHeldWriteIsRecordedBeforeItIsQueued)
{
    Backup* b = begin();
    // Recording needs this lock.
    EXPECT_TRUE(waitsForLock(&amListUsersLock, [&] { EXPECT_EQ(sda().writeBlock(1, 4, 0x44), 0); },
                             [=] { return held(b) == 0; }));
    EXPECT_EQ(membersOf(sessionOf(sda().device(1))->map), std::vector<u32>{4});
}

// ---- The moment of a snapshot

TEST_F(Locking, ASnapshotWaitsForTheRequestsThatAreBeingDecided)
{
    Backup* b = started();
    down_read(&b->writers);
    EXPECT_TRUE(waits([&] { EXPECT_EQ(program.snapshot(), 0); }, [=] { up_read(&b->writers); },
                      [=] { return load_acquire(&b->state) == QUENDREL_STATE_STARTED; }));
}

TEST_F(Locking, ASnapshotWaitsForTheUsersOfItsSession)
{
    trackDevice(sda(), 1);
    AutoMapSession* ams = sessionOf(sda().device(1));
    const Key key = keyOf(ams);
    Backup* b = started();
    ASSERT_EQ(getAMS(sda().device(1)), ams);
    EXPECT_TRUE(waits([&] { EXPECT_EQ(program.snapshot(key), 0); }, [=] { putAMS(ams); },
                      [=] { return load_acquire(&b->state) == QUENDREL_STATE_STARTED; }));
    EXPECT_EQ(load_acquire(&b->state), QUENDREL_STATE_SNAPSHOT);
}

// ---- The table of sessions

TEST_F(Locking, ASessionIsLookedForAsAReaderOfTheTable)
{
    EXPECT_TRUE(waitsForLock(&amListUsersLock, [&] { EXPECT_EQ(getAMS(sda().device(1)), nullptr); }));
}

TEST_F(Locking, ADeviceThatChangedLosesItsSessionAsAReaderOfTheTable)
{
    trackDevice(sda(), 1);
    const AutoMapSession* ams = sessionOf(sda().device(1));
    EXPECT_TRUE(waitsForLock(&amListUsersLock, [&] { forgetAM(sda().device(1)); },
                             [=] { return load_acquire(&ams->state) == 1; }));
}

TEST_F(Locking, TheSessionsOfAQueueLoseSyncAsAReaderOfTheTable)
{
    trackDevice(sda(), 1);
    const AutoMapSession* ams = sessionOf(sda().device(1));
    EXPECT_TRUE(waitsForLock(&amListUsersLock, [&] { errorAMSDEV(sda().device(1)); },
                             [=] { return load_acquire(&ams->state) == 1; }));
}

TEST_F(Locking, TheSessionsOfAQueueAreCountedAsAReaderOfTheTable)
{
    trackDevice(sda(), 1);
    EXPECT_TRUE(waitsForLock(&amListUsersLock, [&] { EXPECT_EQ(countQueueAMS(sda().disk().queue()), 1); }));
}

TEST_F(Locking, AQueueIsGivenBackAsAReaderOfTheTable)
{
    trackDevice(sda(), 1);
    const AutoMapSession* ams = sessionOf(sda().device(1));
    EXPECT_TRUE(waitsForLock(&amListUsersLock, [&] { unsetQueueMRFAMS(sda().disk().queue()); }, [=] {
        return load_acquire(&ams->state) == 1 && atomic_read(&amListUsers) == 1;
    }));
}

TEST_F(Locking, ASessionIsTakenOutWithNoReaderInTheTable)
{
    trackDevice(sda(), 1);
    LooseBackup b(sda(), 1);
    EXPECT_TRUE(waitsForUser(&amListUsers, [&] { EXPECT_EQ(closeAMS(b.get()), 0); }));
}

TEST_F(Locking, AllSessionsAreTakenOutWithNoReaderInTheTable)
{
    trackDevice(sda(), 1);
    EXPECT_TRUE(waitsForUser(&amListUsers, [] { closeAllAMS(); }));
}

TEST_F(Locking, ANewSessionIsPutInWithNoReaderInTheTable)
{
    LooseBackup b(sda(), 1);
    AutoMapSession* ams = nullptr;
    EXPECT_TRUE(waitsForUser(&amListUsers, [&] { EXPECT_EQ(newAMS(b.get(), &ams), 0); }));
}

// Until then the queues stay hooked, and writes are recorded for sessions that can still be looked up.
TEST_F(Locking, AnUnloadEndsTheSessionsBeforeItGivesTheQueuesBack)
{
    trackDevice(sda(), 1);
    atomic_inc(&amListUsers);
    EXPECT_TRUE(waits([] { EXPECT_EQ(hosted::unload_driver(), 0); }, [] { atomic_dec(&amListUsers); },
                      [&] { return hookOf(sda()) == qdrAMRF; }));
}

// ---- The registry

TEST_F(Locking, ADeviceIsLookedForAsAReaderOfTheRegistry)
{
    EXPECT_TRUE(waitsForLock(&queueListUsersLock,
                             [&] { EXPECT_EQ(isInQueueList(sda().disk().queue(), sda().device(1)), 0); }));
}

TEST_F(Locking, AQueuesOwnFunctionIsLookedForAsAReaderOfTheRegistry)
{
    EXPECT_TRUE(waitsForLock(&queueListUsersLock, [&] { EXPECT_NE(getRealMRF(sda().disk().queue()), nullptr); }));
}

TEST_F(Locking, TheSessionsOfAQueueLoseSyncAsAReaderOfTheRegistry)
{
    trackDevice(sda(), 1);
    EXPECT_TRUE(waitsForLock(&queueListUsersLock, [&] { errorAMSDEV(sda().device(1)); }));
}

TEST_F(Locking, TheSessionsOfAQueueAreCountedAsAReaderOfTheRegistry)
{
    EXPECT_TRUE(waitsForLock(&queueListUsersLock, [&] { EXPECT_EQ(countQueueAMS(sda().disk().queue()), 0); }));
}

// ---- The cache

TEST_F(Locking, ABlockIsSavedByTheWorkerAsAUserOfTheCache)
{
    Backup* b = begin();
    EXPECT_TRUE(waitsForWriter(&b->cacheUsers, [&] { cacheBlock(b, nullptr, 7); }));
}

TEST_F(Locking, ABlockIsTakenOutAsAUserOfTheCache)
{
    Backup* b = begin();
    Bytes data(kBlock);
    EXPECT_TRUE(waitsForWriter(&b->cacheUsers, [&] { EXPECT_EQ(cacheRead(b, data.data(), 7), 0); }));
}

TEST_F(Locking, ADirtyBlockIsLookedForAsAUserOfTheCache)
{
    Backup* b = begin();
    ASSERT_EQ(save(b, 7), 0);
    EXPECT_TRUE(waitsForWriter(&b->cacheUsers, [&] { EXPECT_EQ(anyDirtyBlock(b), 7u); }));
}

TEST_F(Locking, TheCacheIsCleanedAsAUserOfIt)
{
    Backup* b = begin();
    EXPECT_TRUE(waitsForWriter(&b->cacheUsers, [&] { EXPECT_EQ(cleanUpCache(b), 0); }));
}

TEST_F(Locking, ABlockIsSavedWithItsBucketHeld)
{
    Backup* b = begin();
    EXPECT_TRUE(waitsFor(bucketOf(b, 7), [&] { EXPECT_EQ(save(b, 7), 0); }));
}

TEST_F(Locking, ABlockIsTakenOutWithItsBucketHeld)
{
    Backup* b = begin();
    Bytes data(kBlock);
    EXPECT_TRUE(waitsFor(bucketOf(b, 7), [&] { EXPECT_EQ(cacheRead(b, data.data(), 7), 0); }));
}

TEST_F(Locking, ADirtyBlockIsLookedForWithTheBucketHeld)
{
    Backup* b = begin();
    ASSERT_EQ(save(b, 7), 0);
    EXPECT_TRUE(waitsFor(bucketOf(b, 7), [&] { EXPECT_EQ(anyDirtyBlock(b), 7u); }));
}

TEST_F(Locking, TheCacheIsCleanedWithEachBucketHeld)
{
    Backup* b = begin();
    EXPECT_TRUE(waitsFor(bucketOf(b, 7), [&] { EXPECT_EQ(cleanUpCache(b), 0); }));
}

TEST_F(Locking, TheWorkerStaysAUserOfTheCacheWhileItReadsABlock)
{
    Backup* b = begin();
    DiskGate gate(firstRead(sda(), 1, 7));
    std::thread worker([=] { cacheBlock(b, nullptr, 7); });
    gate.waitUntilStopped();
    EXPECT_TRUE(waits([=] { enterAlone(&b->cacheUsers); }, [&] { gate.open(); }));
    worker.join();
}

// ---- The queue of held requests

TEST_F(Locking, ARequestIsQueuedWithTheQueueHeld)
{
    Backup* b = started();
    RawBio bio(sda().device(0), Op::write, sectorOf(sda(), 1, 6), kBlock);
    EXPECT_TRUE(waitsForLock(&b->mrLock, [&] { EXPECT_EQ(newMR(b, sda().disk().queue(), bio.get(), 6, 6), 0); },
                             [=] { return b->mrHead == nullptr; }));
    closeMR(getTopMR(b));
    atomic_dec(&b->mrInQueue);
}

TEST_F(Locking, ARequestIsTakenOffTheQueueWithItHeld)
{
    Backup* b = started();
    EXPECT_TRUE(waitsForLock(&b->mrLock, [&] { EXPECT_EQ(getTopMR(b), nullptr); }));
}

// ---- The worker

TEST_F(Locking, TheWorkerThatFindsNoRunningBackupGoesOnWaiting)
{
    Backup* b = begin();
    store_release(&activeSession, nullptr);
    up(&signalThread);
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    store_release(&activeSession, b);
    write(b, 1, 5, 0x55);
    EXPECT_EQ(membersOf(b->cacheMap), std::vector<u32>{5}) << "it still saves";
}

TEST_F(Locking, TheWorkerTakesNothingBeforeTheSnapshot)
{
    Backup* b = started();
    RawBio bio(sda().device(0), Op::write, sectorOf(sda(), 1, 6), kBlock);
    ASSERT_EQ(newMR(b, sda().disk().queue(), bio.get(), 6, 6), 0);
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    EXPECT_EQ(held(b), 1);
    EXPECT_EQ(bio.ends(), 0);
    closeMR(getTopMR(b));
    atomic_dec(&b->mrInQueue);
}

// ---- Failures: whoever finds that tracking has ended finds the backup's state and the reason in the log

class LockingOnFailure : public Locking
{
  protected:
    void TearDown() override
    {
        hosted::faults::clear();
        Locking::TearDown();
    }
    // Whether `act` comes to put tracking out of sync, which needs the table of sessions, with the state set and this
    // logged.
    static bool endsTrackingAfter(Backup* b, u32 state, const Lines& logged, const std::function<void()>& act)
    {
        hosted::log_clear();
        return waitsForLock(&amListUsersLock, act, [&] {
            return eventually([&] {
                return load_acquire(&b->state) == state && linesOf(hosted::log_lines(), "cacheBlock") == logged;
            }) && load_acquire(&sessionOf(b->diskInfo.kdev)->state) == 1;
        });
    }
};

TEST_F(LockingOnFailure, ABlockThatCannotBeReadEndsTrackingLast)
{
    Backup* b = begin();
    hosted::faults::fail_read(1);
    EXPECT_TRUE(endsTrackingAfter(b, QUENDREL_STATE_READ_FAILED,
                                  {"<3>cacheBlock: Block read error blockNum=7 MAJOR=8 MINOR=1\n"},
                                  [&] { cacheBlock(b, nullptr, 7); }));
}

TEST_F(LockingOnFailure, ABlockThatCannotBeKeptEndsTrackingLast)
{
    Backup* b = begin();
    b->maxCacheBlocks = 0;
    EXPECT_TRUE(endsTrackingAfter(b, QUENDREL_STATE_CACHE_EXHAUSTED,
                                  {"<3>cacheBlock: Error caching blockNum=7 MAJOR=8 MINOR=1\n"},
                                  [&] { cacheBlock(b, nullptr, 7); }));
}

TEST_F(LockingOnFailure, ABlockWithoutAPageToReadItIntoEndsTrackingLast)
{
    Backup* b = begin();
    hosted::faults::fail_allocation(1, unsigned(hosted::faults::Kind::page));
    EXPECT_TRUE(endsTrackingAfter(b, QUENDREL_STATE_CACHE_EXHAUSTED, {}, [&] { cacheBlock(b, nullptr, 7); }));
}

TEST_F(LockingOnFailure, AWriteThatCannotBeHeldEndsTrackingLast)
{
    Backup* b = begin();
    hosted::faults::fail_allocation(1, unsigned(hosted::faults::Kind::kmalloc));
    EXPECT_TRUE(endsTrackingAfter(b, QUENDREL_STATE_QUEUE_FAILED, {},
                                  [&] { EXPECT_EQ(sda().writeBlock(1, 7, 0x77), 0); }));
}

} // namespace
