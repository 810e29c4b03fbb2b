// SPDX-License-Identifier: GPL-2.0-only
// The table of tracking sessions: making, finding, closing and putting out of sync, and what each does to the queue.
#include "core_view.h"

#include <atomic>
#include <chrono>
#include <thread>

using namespace rig;

namespace
{

class TrackingTable : public DriverTest
{
  protected:
    TestDisk& sdb()
    {
        sda();
        if (disks_.size() < 2)
            addDisk("sdb", 16, 1024 + 256 * 8, {{1, 1024, 256 * 8, 4096}});
        return *disks_[1];
    }
    // What a device node on a queue's list is for: the queue is hooked for the device without a session.
    static void hook(LooseBackup& b, make_request_fn* fn) { ASSERT_EQ(setMRF(b.get(), fn), 0); }
};

bool finishes(const std::atomic<bool>& done)
{
    std::this_thread::sleep_for(std::chrono::milliseconds(60));
    return done;
}

} // namespace

TEST_F(TrackingTable, IsEmptyInAFreshModuleAndClosingAllOfItDoesNothing)
{
    const auto allNull = [] {
        for (auto& row : amList)
            for (AutoMapSession* slot : row)
                if (slot)
                    return false;
        return true;
    };
    ASSERT_EQ(sizeof amList / sizeof amList[0][0], 65536u);
    EXPECT_TRUE(allNull());
    EXPECT_EQ(atomic_read(&amListUsers), 1);
    EXPECT_EQ(atomic_read(&curAllocAMPages), 0);
    closeAllAMS();
    EXPECT_TRUE(allNull());
    EXPECT_EQ(atomic_read(&amListUsers), 1);
    EXPECT_EQ(takeLog(), Lines{});
}

TEST_F(TrackingTable, ANewSessionIsPublishedOutOfSyncWithAZeroKeyAndAnEmptyMap)
{
    LooseBackup b(sda(), 1);
    AutoMapSession* ams = nullptr;
    ASSERT_EQ(newAMS(b.get(), &ams), 0);
    EXPECT_EQ(amList[8][1], ams);
    EXPECT_EQ(ams->state, 0u);
    EXPECT_EQ(keyOf(ams), Key{});
    EXPECT_EQ(ams->next, nullptr);
    EXPECT_EQ(atomic_read(&ams->users), 1);
    EXPECT_EQ(ams->diskInfo.kdev, kdev_make(8, 1));
    EXPECT_EQ(ams->diskInfo.partitionStart, 2048u);
    EXPECT_EQ(ams->diskInfo.partitionLen, 4096u * 8);
    EXPECT_EQ(ams->diskInfo.sectorsPerBlockShift, 3);
    EXPECT_EQ(ams->map.size, 4096u);
    EXPECT_EQ(ams->map.numBytes, 512u);
    EXPECT_EQ(membersOf(ams->map), std::vector<u32>{});
    EXPECT_EQ(atomic_read(&curAllocAMPages), 1);
    EXPECT_EQ(atomic_read(&amListUsers), 1);
    EXPECT_EQ(closeAMS(b.get()), 0);
    EXPECT_EQ(atomic_read(&curAllocAMPages), 0);
    EXPECT_EQ(takeLog(), Lines{});
}

TEST_F(TrackingTable, SizesAMapByTheLowWordOfTheBlockCountAndCountsItsPages)
{
    LooseBackup b(sda(), 1);
    b->diskInfo.numBlocks = (1ull << 32) + 3 * 32768;
    AutoMapSession* ams = nullptr;
    ASSERT_EQ(newAMS(b.get(), &ams), 0);
    EXPECT_EQ(ams->map.size, 3u * 32768);
    EXPECT_EQ(atomic_read(&curAllocAMPages), 3);
    EXPECT_EQ(closeAMS(b.get()), 0);
    EXPECT_EQ(atomic_read(&curAllocAMPages), 0);
}

TEST_F(TrackingTable, ClosingASessionTwiceIsRefusedTheSecondTime)
{
    LooseBackup b(sda(), 1);
    AutoMapSession* ams = nullptr;
    ASSERT_EQ(newAMS(b.get(), &ams), 0);
    EXPECT_EQ(closeAMS(b.get()), 0);
    EXPECT_EQ(amList[8][1], nullptr);
    EXPECT_EQ(closeAMS(b.get()), 2);
    EXPECT_EQ(takeLog(), Lines{});
}

TEST_F(TrackingTable, ANewSessionOverwritesTheEntryOfTheOldOne)
{
    LooseBackup b(sda(), 1);
    AutoMapSession* first = nullptr;
    AutoMapSession* second = nullptr;
    ASSERT_EQ(newAMS(b.get(), &first), 0);
    ASSERT_EQ(newAMS(b.get(), &second), 0);
    EXPECT_NE(first, second);
    EXPECT_EQ(amList[8][1], second);
    EXPECT_EQ(first->next, nullptr);
    EXPECT_EQ(second->next, nullptr);
    EXPECT_EQ(closeAMS(b.get()), 0);
    EXPECT_EQ(closeAMS(b.get()), 2);
    EXPECT_EQ(atomic_read(&curAllocAMPages), 1) << "the old session is out of the table's reach, not freed";
    closeAM(first);
    EXPECT_EQ(atomic_read(&curAllocAMPages), 0);
}

TEST_F(TrackingTable, WithoutMemoryForTheRecordNothingChanges)
{
    LooseBackup b(sda(), 1);
    AutoMapSession* ams = nullptr;
    hosted::faults::fail_allocation(1, unsigned(hosted::faults::Kind::kmalloc));
    EXPECT_EQ(newAMS(b.get(), &ams), 5);
    EXPECT_EQ(ams, nullptr);
    EXPECT_EQ(amList[8][1], nullptr);
    EXPECT_EQ(atomic_read(&curAllocAMPages), 0);
    EXPECT_EQ(takeLog(), Lines{});
}

TEST_F(TrackingTable, ABlockSizeOfZeroStopsTheKernel)
{
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    LooseBackup b(sda(), 1);
    b->diskInfo.blockSize = 0;
    AutoMapSession* ams = nullptr;
    EXPECT_DEATH(
        {
            hosted::log_set_sink([](std::string_view line) { fprintf(stderr, "[%s]", std::string(line).c_str()); });
            newAMS(b.get(), &ams);
        },
        "\\[<2>newAMS: Blocksize set to 0 when making automap\n\\]hosted kernel: kernel BUG at .*tracking_table.cpp");
}

TEST_F(TrackingTable, ASessionWhoseQueueIsGoneIsClosedWithAWarning)
{
    ASSERT_NO_FATAL_FAILURE(trackDevice(sda(), 1));
    AutoMapSession* ams = sessionOf(sda().device(1));
    ASSERT_NE(ams, nullptr);
    sda().disk().unplug();
    takeLog();
    closeAllAMS();
    EXPECT_EQ(takeLog(), (Lines{"<4>unSetMRFDEV: Unable to get request queue for MAJOR=8, MINOR=1 while unsetting "
                                "MRF."}));
    EXPECT_EQ(amList[8][1], nullptr);
    EXPECT_EQ(atomic_read(&curAllocAMPages), 0);
    QueueList* left = nextQueueList(nullptr);
    ASSERT_NE(left, nullptr) << "the registry is left as it is until the unload";
    EXPECT_TRUE(isInDevList(left, kdev_make(8, 1)));
}

TEST_F(TrackingTable, ClosingTheLastSessionOfAQueueGivesTheQueueItsOwnFunctionBack)
{
    make_request_fn* own = hookOf(sda());
    ASSERT_NO_FATAL_FAILURE(trackDevice(sda(), 1));
    ASSERT_NO_FATAL_FAILURE(trackDevice(sda(), 2));
    ASSERT_EQ(hookOf(sda()), qdrAMRF);
    LooseBackup first(sda(), 1), second(sda(), 2);
    EXPECT_EQ(closeAMS(first.get()), 0);
    EXPECT_EQ(hookOf(sda()), qdrAMRF) << "the other device of the queue is still tracked";
    EXPECT_EQ(sessionOf(sda().device(2))->state, 1u);
    EXPECT_EQ(closeAMS(second.get()), 0);
    EXPECT_EQ(hookOf(sda()), own);
    EXPECT_TRUE(registryIsEmpty());
}

TEST_F(TrackingTable, ClosingAllSessionsUnhooksEveryQueue)
{
    make_request_fn* ownA = hookOf(sda());
    make_request_fn* ownB = hookOf(sdb());
    ASSERT_NO_FATAL_FAILURE(trackDevice(sda(), 1));
    ASSERT_NO_FATAL_FAILURE(trackDevice(sda(), 2));
    ASSERT_NO_FATAL_FAILURE(trackDevice(sdb(), 1));
    EXPECT_EQ(atomic_read(&curAllocAMPages), 3);
    closeAllAMS();
    EXPECT_EQ(hookOf(sda()), ownA);
    EXPECT_EQ(hookOf(sdb()), ownB);
    EXPECT_TRUE(registryIsEmpty());
    EXPECT_EQ(atomic_read(&curAllocAMPages), 0);
    EXPECT_EQ(atomic_read(&amListUsers), 1);
    EXPECT_EQ(sessionOf(sda().device(1)), nullptr);
    EXPECT_EQ(sessionOf(sda().device(2)), nullptr);
    EXPECT_EQ(sessionOf(sdb().device(1)), nullptr);
}

TEST_F(TrackingTable, ClosingASessionWaitsForItsReferences)
{
    LooseBackup b(sda(), 1);
    AutoMapSession* ams = nullptr;
    ASSERT_EQ(newAMS(b.get(), &ams), 0);
    AutoMapSession* referenced = getAMS(sda().device(1));
    ASSERT_EQ(referenced, ams);
    EXPECT_EQ(atomic_read(&ams->users), 2);
    EXPECT_EQ(atomic_read(&amListUsers), 1) << "the table is left once the reference is held";
    std::atomic<bool> done{false};
    std::thread closer([&] {
        EXPECT_EQ(closeAMS(b.get()), 0);
        done = true;
    });
    EXPECT_FALSE(finishes(done));
    EXPECT_EQ(getAMS(sda().device(1)), nullptr) << "nobody finds it any more";
    EXPECT_EQ(setBlock(&referenced->map, 7), 0u) << "the map is alive as long as the reference is";
    putAMS(referenced);
    closer.join();
}

TEST_F(TrackingTable, AWriterOfTheTableWaitsForTheReadersInside)
{
    unsigned long flags;
    spin_lock_irqsave(&amListUsersLock, &flags);
    atomic_inc(&amListUsers);
    spin_unlock_irqrestore(&amListUsersLock, flags);
    std::atomic<bool> done{false};
    std::thread writer([&] {
        unsigned long mine;
        waitForAMListUsers(&mine);
        done = true;
        spin_unlock_irqrestore(&amListUsersLock, mine);
    });
    EXPECT_FALSE(finishes(done));
    atomic_dec(&amListUsers);
    writer.join();
    EXPECT_TRUE(done);
    EXPECT_EQ(atomic_read(&amListUsers), 1);
}

TEST_F(TrackingTable, AFailureLeavesTheQueueToTheOtherTrackedDevices)
{
    ASSERT_NO_FATAL_FAILURE(trackDevice(sda(), 1));
    ASSERT_NO_FATAL_FAILURE(trackDevice(sda(), 2));
    LooseBackup b(sda(), 1);
    hook(b, qdrMRF);
    errorAMS(b.get());
    EXPECT_EQ(hookOf(sda()), qdrAMRF);
    EXPECT_EQ(sessionOf(sda().device(1))->state, 0u);
    EXPECT_EQ(sessionOf(sda().device(2))->state, 1u);
    EXPECT_EQ(sda().writeBlock(2, 5, 0xAB), 0);
    EXPECT_EQ(membersOf(sessionOf(sda().device(2))->map), std::vector<u32>{5});
}

TEST_F(TrackingTable, AFailureOfAnUntrackedDeviceLeavesTheQueueToTheTrackedOne)
{
    ASSERT_NO_FATAL_FAILURE(trackDevice(sda(), 2));
    LooseBackup b(sda(), 1);
    hook(b, qdrMRF);
    errorAMS(b.get());
    EXPECT_EQ(hookOf(sda()), qdrAMRF);
    EXPECT_EQ(sessionOf(sda().device(2))->state, 1u);
}

TEST_F(TrackingTable, AFailureUnhooksAQueueThatNoOtherDeviceNeeds)
{
    make_request_fn* own = hookOf(sda());
    ASSERT_NO_FATAL_FAILURE(trackDevice(sda(), 1));
    LooseBackup b(sda(), 1);
    hook(b, qdrMRF);
    errorAMS(b.get());
    EXPECT_EQ(hookOf(sda()), own);
    EXPECT_TRUE(registryIsEmpty());
    ASSERT_NE(sessionOf(sda().device(1)), nullptr) << "the session stays in its table";
    EXPECT_EQ(sessionOf(sda().device(1))->state, 0u);
    EXPECT_EQ(atomic_read(&amListUsers), 1);
    EXPECT_EQ(atomic_read(&queueListUsers), 1);
}

TEST_F(TrackingTable, ADeviceThatChangedUnseenLosesItsSessionsSyncAndNoOtherDoes)
{
    ASSERT_NO_FATAL_FAILURE(trackDevice(sda(), 1));
    ASSERT_NO_FATAL_FAILURE(trackDevice(sda(), 2));
    hosted::device_changed(sda().device(3));
    hosted::device_changed(sda().device(2));
    EXPECT_EQ(sessionOf(sda().device(1))->state, 1u);
    EXPECT_EQ(sessionOf(sda().device(2))->state, 0u);
    EXPECT_EQ(hookOf(sda()), qdrAMRF) << "the other one is still tracked";
    EXPECT_EQ(atomic_read(&amListUsers), 1);
}

TEST_F(TrackingTable, PuttingAQueueOutOfSyncReachesEverySessionOnItAndNoOther)
{
    ASSERT_NO_FATAL_FAILURE(trackDevice(sda(), 1));
    ASSERT_NO_FATAL_FAILURE(trackDevice(sda(), 2));
    ASSERT_NO_FATAL_FAILURE(trackDevice(sdb(), 1));
    errorAMSDEV(kdev_make(8, 99));
    EXPECT_EQ(sessionOf(sda().device(1))->state, 1u) << "a device that is not registered changes nothing";
    errorAMSDEV(sda().device(2));
    EXPECT_EQ(sessionOf(sda().device(1))->state, 0u);
    EXPECT_EQ(sessionOf(sda().device(2))->state, 0u);
    EXPECT_EQ(sessionOf(sdb().device(1))->state, 1u);
    EXPECT_EQ(hookOf(sda()), qdrAMRF);
    EXPECT_EQ(atomic_read(&amListUsers), 1);
    EXPECT_EQ(atomic_read(&queueListUsers), 1);
}

TEST_F(TrackingTable, CountsTheTrackedDevicesOfAQueue)
{
    ASSERT_NO_FATAL_FAILURE(trackDevice(sda(), 1));
    LooseBackup untracked(sda(), 2);
    hook(untracked, qdrAMRF);
    EXPECT_EQ(countQueueAMS(sda().disk().queue()), 1) << "a registered device without a session does not count";
    ASSERT_NO_FATAL_FAILURE(trackDevice(sda(), 2));
    EXPECT_EQ(countQueueAMS(sda().disk().queue()), 2);
    EXPECT_EQ(atomic_read(&amListUsers), 1);
    EXPECT_EQ(atomic_read(&queueListUsers), 1);
}

TEST_F(TrackingTable, CountsOverTheLastEntryForAQueueThatIsNotRegistered)
{
    EXPECT_EQ(countQueueAMS(sdb().disk().queue()), 0) << "the registry is empty";
    TestDisk& sdc = addDisk("sdc", 32, 1024 + 64 * 8, {{1, 1024, 64 * 8, 4096}});
    ASSERT_NO_FATAL_FAILURE(trackDevice(sdc, 1));
    ASSERT_NO_FATAL_FAILURE(trackDevice(sda(), 1));
    ASSERT_NO_FATAL_FAILURE(trackDevice(sda(), 2));
    EXPECT_EQ(countQueueAMS(sdc.disk().queue()), 1);
    EXPECT_EQ(countQueueAMS(sdb().disk().queue()), 2) << "sda's entry is the last";
}

TEST_F(TrackingTable, CountsNothingWithoutAQueue)
{
    EXPECT_EQ(countQueueAMS(nullptr), 0);
    EXPECT_EQ(takeLog(), (Lines{"<3>countQueueAMS: Could not count ams sessions for request queue because queue was "
                                "null.\n"}));
}

TEST_F(TrackingTable, FindsByTheFlatIndexAndNeverBeyondTheTable)
{
    LooseBackup b(sda(), 1);
    AutoMapSession* ams = nullptr;
    ASSERT_EQ(newAMS(b.get(), &ams), 0);
    EXPECT_EQ(getAMS(kdev_make(7, 257)), ams) << "a minor above 255 falls into a later major's row";
    putAMS(ams);
    EXPECT_EQ(getAMS(kdev_make(256, 0)), nullptr);
    EXPECT_EQ(getAMS(kdev_make(255, 256)), nullptr);
    EXPECT_EQ(getAMS(kdev_make(0xFFF, 0xFFFFF)), nullptr);
    EXPECT_EQ(amSlot(255, 255), &amList[255][255]);
    EXPECT_EQ(closeAMS(b.get()), 0);
}

// ---- The end of a backup

TEST_F(TrackingTable, TheEndOfABackupLeavesTheQueueToASessionInSync)
{
    make_request_fn* own = hookOf(sda());
    Program program;
    ASSERT_NO_FATAL_FAILURE(program.beginSnapshot(sda(), 1));
    EXPECT_EQ(hookOf(sda()), qdrMRF);
    ASSERT_EQ(program.close(), 0);
    EXPECT_EQ(hookOf(sda()), qdrAMRF);
    EXPECT_EQ(sda().writeBlock(1, 77, 1), 0);
    EXPECT_EQ(membersOf(sessionOf(sda().device(1))->map), std::vector<u32>{77});
    EXPECT_EQ(hosted::unload_driver(), 0);
    EXPECT_EQ(hookOf(sda()), own);
}

TEST_F(TrackingTable, TheEndOfABackupUnhooksWhenItsOnlySessionIsOutOfSync)
{
    make_request_fn* own = hookOf(sda());
    Program program;
    ASSERT_NO_FATAL_FAILURE(program.beginSnapshot(sda(), 1));
    set_mb(&sessionOf(sda().device(1))->state, 0);
    ASSERT_EQ(program.close(), 0);
    EXPECT_EQ(hookOf(sda()), own);
    EXPECT_TRUE(registryIsEmpty());
    ASSERT_NE(sessionOf(sda().device(1)), nullptr);
    EXPECT_EQ(atomic_read(&sessionOf(sda().device(1))->users), 1);
}

TEST_F(TrackingTable, TheEndOfAnOutOfSyncBackupKeepsTheHookForTwoTrackedDevices)
{
    ASSERT_NO_FATAL_FAILURE(trackDevice(sda(), 2));
    Program program;
    ASSERT_NO_FATAL_FAILURE(program.beginSnapshot(sda(), 1));
    set_mb(&sessionOf(sda().device(1))->state, 0);
    ASSERT_EQ(program.close(), 0);
    EXPECT_EQ(hookOf(sda()), qdrAMRF);
    EXPECT_EQ(sessionOf(sda().device(2))->state, 1u);
}

TEST_F(TrackingTable, TheEndOfAnUntrackedBackupPutsTheOnlyOtherTrackedDeviceOutOfSync)
{
    make_request_fn* own = hookOf(sda());
    ASSERT_NO_FATAL_FAILURE(trackDevice(sda(), 2));
    Program program;
    ASSERT_EQ(program.open(), 0);
    ASSERT_EQ(program.start(sda().device(1), 4096, 100), 0);
    ASSERT_EQ(program.noStartAutoMap(), 0);
    ASSERT_EQ(program.snapshot(), 0);
    ASSERT_EQ(program.close(), 0);
    EXPECT_EQ(hookOf(sda()), own) << "one tracked device is fewer than two";
    EXPECT_EQ(sessionOf(sda().device(2))->state, 0u);
}

TEST_F(TrackingTable, TheEndOfABackupWhoseQueueIsGonePutsItsSessionOutOfSync)
{
    Program program;
    ASSERT_NO_FATAL_FAILURE(program.beginSnapshot(sda(), 1));
    sda().disk().unplug();
    set_mb(&sessionOf(sda().device(1))->state, 1); // as if the platform had not told of it
    takeLog();
    ASSERT_EQ(program.close(), 0);
    EXPECT_EQ(complaints(takeLog()),
              (Lines{"<3>countQueueAMS: Could not count ams sessions for request queue because queue was null.\n",
                     "<3>unsetQueueMRFAMS: Could not unset MRFS for request queue because queue was null.\n"}));
    ASSERT_NE(sessionOf(sda().device(1)), nullptr);
    EXPECT_EQ(sessionOf(sda().device(1))->state, 0u);
}

TEST_F(TrackingTable, ClosingAFileThatNeverStartedLeavesTrackingAlone)
{
    ASSERT_NO_FATAL_FAILURE(trackDevice(sda(), 1));
    Program program;
    ASSERT_EQ(program.open(), 0);
    ASSERT_EQ(program.close(), 0);
    EXPECT_EQ(hookOf(sda()), qdrAMRF);
    EXPECT_EQ(sessionOf(sda().device(1))->state, 1u);
}
