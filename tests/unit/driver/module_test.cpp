// SPDX-License-Identifier: GPL-2.0-only
// Loading, unloading and shutting down the driver, its globals as a load leaves them, and the kernel-version shim.
#include "driver_rig.h"
#include "qdrlib.h"

#include <atomic>
#include <cerrno>
#include <cstring>
#include <thread>

using rig::Program;
using Lines = std::vector<std::string>;

namespace
{

make_request_fn* hookOf(rig::TestDisk& disk) { return queue_make_request_fn(disk.disk().queue()); }

// Makes a tracking session of 8:1 that is in sync and leaves its queue to tracking.
void track(rig::TestDisk& disk, u32 partition)
{
    Program program;
    ASSERT_NO_FATAL_FAILURE(program.beginSnapshot(disk, partition));
    ASSERT_EQ(program.close(), 0);
}

class Module : public rig::DriverTest
{
};

TEST_F(Module, LoadRegistersTheDeviceAndLogsTheVersion)
{
    ASSERT_EQ(hosted::unload_driver(), 0);
    takeLog();
    ASSERT_EQ(hosted::load_driver(), 0);
    EXPECT_EQ(takeLog(), (Lines{"<6>qdrInit: quendrel version 3.1.0 build 9504 loaded\n"}));
    EXPECT_EQ(atomic_read(&initDone), 1);
    Program program;
    EXPECT_EQ(program.open(), 0);
}

TEST_F(Module, LoadWhenTheMajorIsTakenReturnsTheKernelsErrorAndLogsTheFailure)
{
    ASSERT_EQ(hosted::unload_driver(), 0);
    takeLog();
    static const file_operations other = {};
    ASSERT_EQ(register_chrdev(120, "other", &other), 0);
    EXPECT_EQ(hosted::load_driver(), -EBUSY);
    EXPECT_EQ(takeLog(), (Lines{"<6>qdrInit: quendrel version 3.1.0 build 9504 load FAILED\n"}));
    EXPECT_EQ(atomic_read(&initDone), 0);
    EXPECT_FALSE(hosted::driver_loaded());
    unregister_chrdev(120, "other");
}

TEST_F(Module, AFailedLoadFreesTheBusyLockAndClearsTheTrackingTable)
{
    ASSERT_EQ(hosted::unload_driver(), 0);
    driver_static_init();
    AutoMapSession stale{};
    amList[3][4] = &stale;
    atomic_set(&initDone, 1);
    memset(&busyLock, 0x5A, sizeof busyLock);
    hosted::faults::fail_register(-EIO);
    EXPECT_EQ(qdrInit(), -EIO);
    hosted::faults::fail_register(0);
    EXPECT_EQ(amList[3][4], nullptr);
    unsigned long flags;
    spin_lock_irqsave(&busyLock, &flags);
    spin_unlock_irqrestore(&busyLock, flags);
    EXPECT_EQ(atomic_read(&initDone), 0);
}

TEST_F(Module, ASuccessfulLoadLeavesTheTrackingTableAsItStands)
{
    ASSERT_EQ(hosted::unload_driver(), 0);
    driver_static_init();
    AutoMapSession session{};
    amList[3][4] = &session;
    EXPECT_EQ(qdrInit(), 0);
    EXPECT_EQ(amList[3][4], &session);
    amList[3][4] = nullptr;
    unregister_chrdev(QUENDREL_CHRDEV_MAJOR, QUENDREL_NAME);
}

TEST_F(Module, GlobalsStartIdle)
{
    EXPECT_EQ(atomic_read(&initDone), 1);
    EXPECT_EQ(atomic_read(&curAllocAMPages), 0);
    for (auto& row : amList)
        for (AutoMapSession* session : row)
            EXPECT_EQ(session, nullptr);
    EXPECT_EQ(atomic_read(&amListUsers), 1);
    EXPECT_TRUE(listEmpty(&queueListHead));
    EXPECT_EQ(atomic_read(&queueListUsers), 1);
    EXPECT_EQ(atomic_read(&busy), 0);
    EXPECT_EQ(load_acquire(&activeSession), nullptr);
    EXPECT_EQ(load_acquire(&backup_cachePID), 0);
    EXPECT_EQ(atomic_read(&backup_cacheThreadContinue), 1);
    EXPECT_EQ(atomic_read(&shutting_down), 0);
    EXPECT_EQ(atomic_read(&shutdown_ready), 0);
    // The wake-up semaphore holds exactly one count.
    EXPECT_EQ(down_trylock(&signalThread), 0);
    EXPECT_EQ(down_trylock(&signalThread), 1);
    up(&signalThread);
}

// Bytes and all: nothing of a load before may show through.
template <typename Object> void scribble(Object& object)
{
    std::memset(static_cast<void*>(&object), 0xA5, sizeof object);
}
template <typename Object, typename Init> bool isAsMadeBy(const Object& object, Init init)
{
    Object fresh;
    scribble(fresh);
    init(&fresh);
    return std::memcmp(static_cast<const void*>(&object), static_cast<const void*>(&fresh), sizeof fresh) == 0;
}

TEST_F(Module, GlobalsStartIdleWhateverTheyWere)
{
    ASSERT_EQ(hosted::unload_driver(), 0);
    for (atomic_int* word : {&initDone, &curAllocAMPages, &amListUsers, &queueListUsers, &busy,
                             &backup_cacheThreadContinue, &shutting_down, &shutdown_ready})
        atomic_set(word, 77);
    for (spinlock* lock : {&amListUsersLock, &queueListUsersLock, &busyLock})
        scribble(*lock);
    for (completion* c : {&backup_cacheThreadStartCompleted, &backup_cacheThreadExited})
        scribble(*c);
    scribble(amList);
    scribble(queueListHead);
    scribble(activeSession);
    scribble(activeSessionUsers);
    scribble(backup_cachePID);
    qdrFileOps.owner = this_module();

    driver_static_init();
    for (const atomic_int* word : {&initDone, &curAllocAMPages, &busy, &shutting_down, &shutdown_ready})
        EXPECT_EQ(atomic_read(word), 0);
    for (const atomic_int* word : {&amListUsers, &queueListUsers, &backup_cacheThreadContinue})
        EXPECT_EQ(atomic_read(word), 1);
    for (const spinlock* lock : {&amListUsersLock, &queueListUsersLock, &busyLock})
        EXPECT_TRUE(isAsMadeBy(*lock, [](spinlock* l) { spin_lock_init(l); }));
    for (const completion* c : {&backup_cacheThreadStartCompleted, &backup_cacheThreadExited})
        EXPECT_TRUE(isAsMadeBy(*c, [](completion* fresh) { init_completion(fresh); }));
    for (auto& row : amList)
        for (AutoMapSession* session : row)
            EXPECT_EQ(session, nullptr);
    EXPECT_TRUE(listEmpty(&queueListHead));
    EXPECT_EQ(load_acquire(&activeSession), nullptr);
    EXPECT_TRUE(isAsMadeBy(activeSessionUsers, [](rw_semaphore* sem) { init_rwsem(sem); }));
    EXPECT_EQ(load_acquire(&backup_cachePID), 0);
    EXPECT_EQ(qdrFileOps.owner, nullptr);
}

TEST_F(Module, TheShutdownFlagsStayUntouchedByALifeOfTheDriver)
{
    ASSERT_NO_FATAL_FAILURE(track(sda(), 1));
    EXPECT_EQ(qdrShutdown(), 0);
    ASSERT_EQ(hosted::unload_driver(), 0);
    EXPECT_EQ(atomic_read(&shutting_down), 0);
    EXPECT_EQ(atomic_read(&shutdown_ready), 0);
}

TEST_F(Module, FileOperationsFillExactlyTheirSlots)
{
    EXPECT_EQ(qdrFileOps.owner, this_module());
    EXPECT_EQ(qdrFileOps.read, qdrRead);
    EXPECT_EQ(qdrFileOps.write, qdrWrite);
    EXPECT_EQ(qdrFileOps.poll, qdrPoll);
    EXPECT_EQ(qdrFileOps.ioctl, qdrIOCTL);
    EXPECT_EQ(qdrFileOps.mmap, qdrMMAP);
    EXPECT_EQ(qdrFileOps.open, qdrOpen);
    EXPECT_EQ(qdrFileOps.release, qdrRelease);
}

TEST_F(Module, ExitLogsUnloadBeforeItsOwnLineAndLeavesInitDone)
{
    ASSERT_EQ(hosted::unload_driver(), 0);
    EXPECT_EQ(takeLog(), (Lines{"<6>qdrUnload: quendrel version 3.1.0 build 9504 ready to be unloaded\n",
                                "<6>qdrExit: quendrel version 3.1.0 build 9504 exiting\n"}));
    EXPECT_EQ(atomic_read(&initDone), 1);
}

TEST_F(Module, UnloadGivesHookedQueuesBackFreesEveryMapAndUnregisters)
{
    make_request_fn* own = hookOf(sda());
    ASSERT_NO_FATAL_FAILURE(track(sda(), 1));
    ASSERT_NO_FATAL_FAILURE(track(sda(), 2));
    ASSERT_EQ(hookOf(sda()), qdrAMRF);
    ASSERT_EQ(atomic_read(&curAllocAMPages), 2);
    takeLog();

    EXPECT_EQ(qdrUnload(), 0);

    EXPECT_EQ(hookOf(sda()), own);
    EXPECT_EQ(atomic_read(&curAllocAMPages), 0);
    EXPECT_EQ(amList[8][1], nullptr);
    EXPECT_EQ(amList[8][2], nullptr);
    EXPECT_TRUE(listEmpty(&queueListHead));
    EXPECT_EQ(takeLog(), (Lines{"<6>qdrUnload: quendrel version 3.1.0 build 9504 ready to be unloaded\n"}));
    Program late;
    EXPECT_EQ(late.open(), -ENXIO) << "the device is still registered";
}

TEST_F(Module, AnUntrackedDeviceBesideTwoTrackedOnesKeepsTheHookUntilTheUnload)
{
    rig::TestDisk& disk = addDisk("sdb", 16, 4096, {{1, 8, 800, 512}, {2, 808, 800, 512}, {3, 1608, 800, 512}});
    make_request_fn* own = hookOf(disk);
    ASSERT_NO_FATAL_FAILURE(track(disk, 2));
    ASSERT_NO_FATAL_FAILURE(track(disk, 3));
    Program program;
    ASSERT_EQ(program.open(), 0);
    ASSERT_EQ(program.start(disk.device(1), disk.blocks(1), 10), 0);
    ASSERT_EQ(program.noStartAutoMap(), 0);
    ASSERT_EQ(program.snapshot(), 0);
    ASSERT_EQ(program.close(), 0);
    EXPECT_EQ(qdrShutdown(), 0);
    EXPECT_EQ(hookOf(disk), qdrAMRF);
    EXPECT_EQ(isInQueueList(disk.disk().queue(), disk.device(1)), 1);
    EXPECT_EQ(qdrUnload(), 0);
    EXPECT_EQ(hookOf(disk), own);
    EXPECT_TRUE(listEmpty(&queueListHead));
}

TEST_F(Module, ModuleUnloadWrapsUnload)
{
    doModuleUnload();
    EXPECT_EQ(takeLog(), (Lines{"<6>qdrUnload: quendrel version 3.1.0 build 9504 ready to be unloaded\n"}));
}

TEST_F(Module, AnOpenFileKeepsTheModuleLoaded)
{
    Program program;
    ASSERT_EQ(program.open(), 0);
    EXPECT_EQ(hosted::driver_references(), 1);
    EXPECT_EQ(hosted::unload_driver(), -EBUSY);
    EXPECT_EQ(program.close(), 0);
    EXPECT_EQ(hosted::driver_references(), 0);
    EXPECT_EQ(hosted::unload_driver(), 0);
}

TEST_F(Module, ReloadForgetsAllTracking)
{
    rig::Key key;
    {
        Program program;
        ASSERT_NO_FATAL_FAILURE(program.beginSnapshot(sda(), 1));
        key = program.key();
        ASSERT_EQ(program.close(), 0);
    }
    ASSERT_EQ(hosted::unload_driver(), 0);
    ASSERT_EQ(hosted::load_driver(), 0);
    Program program;
    ASSERT_EQ(program.open(), 0);
    ASSERT_EQ(program.start(sda().device(1), sda().blocks(1), 10), 0);
    EXPECT_EQ(program.autoMapState().mapLen, 0u);
    EXPECT_EQ(program.autoMapState().state, 0u);
}

TEST_F(Module, ShutdownWithoutSessionsReturnsZeroAndChangesNothing)
{
    const hosted::Live before = hosted::live();
    EXPECT_EQ(qdrShutdown(), 0);
    EXPECT_EQ(hosted::live(), before);
    EXPECT_EQ(takeLog(), Lines{});
    EXPECT_EQ(atomic_read(&initDone), 1);
    Program program;
    EXPECT_EQ(program.open(), 0) << "the device went with the shutdown";
}

TEST_F(Module, ShutdownEndsTrackingAndLaterBackupsStartItAnew)
{
    make_request_fn* own = hookOf(sda());
    ASSERT_NO_FATAL_FAILURE(track(sda(), 1));
    Program program;
    ASSERT_EQ(program.open(), 0);
    EXPECT_EQ(program.command(QUENDREL_SHUTDOWN), 0);
    EXPECT_EQ(hookOf(sda()), own);
    EXPECT_EQ(amList[8][1], nullptr);
    ASSERT_EQ(program.start(sda().device(1), sda().blocks(1), 10), 0);
    ASSERT_EQ(program.snapshot(), 0);
    EXPECT_EQ(program.autoMapState().state, 1u);
    EXPECT_EQ(hookOf(sda()), qdrMRF);
}

TEST_F(Module, ShutdownLeavesTheRunningBackupAsItIs)
{
    Program program;
    ASSERT_NO_FATAL_FAILURE(program.beginFullBackup(sda(), 1));
    const rig::Bytes before = sda().block(1, 7);
    EXPECT_EQ(program.command(QUENDREL_SHUTDOWN), 0);
    EXPECT_EQ(program.state().state, unsigned(QUENDREL_STATE_MAP_LOADED));
    EXPECT_EQ(load_acquire(&activeSession), file_private(program.file().raw()));
    EXPECT_EQ(atomic_read(&busy), 1);
    rig::Bytes content;
    EXPECT_EQ(program.readOne(7, 4096, content), 0);
    EXPECT_EQ(content, before);
    EXPECT_EQ(program.autoMapState().state, 0u);
}

TEST_F(Module, ShutdownFromAnIdleFileWhileAnotherBacksUpReturnsZero)
{
    Program running, other;
    ASSERT_NO_FATAL_FAILURE(running.beginSnapshot(sda(), 1));
    ASSERT_EQ(other.open(), 0);
    EXPECT_EQ(other.command(QUENDREL_SHUTDOWN), 0);
    EXPECT_EQ(running.state().state, unsigned(QUENDREL_STATE_SNAPSHOT));
}

class Shim : public rig::DriverTest
{
};

TEST_F(Shim, NeverCallsTheModuleInUse)
{
    Program program;
    ASSERT_EQ(program.open(), 0);
    EXPECT_EQ(qdrCheckModUse(), 0);
}

TEST_F(Shim, TakesAndDropsModuleReferences)
{
    EXPECT_EQ(qdrModGet(), 0);
    EXPECT_EQ(hosted::driver_references(), 1);
    qdrModPut();
    EXPECT_EQ(hosted::driver_references(), 0);
}

TEST_F(Shim, TakesNoReferenceOnAModuleThatIsGoing)
{
    hosted::faults::module_going(true);
    EXPECT_EQ(qdrModGet(), 1);
    EXPECT_EQ(hosted::driver_references(), 0);
}

TEST_F(Shim, RegistrationNamesTheDriversModuleAsOwner)
{
    file_operations operations = {};
    EXPECT_EQ(qdrModRegister(121, "second", &operations), 0);
    EXPECT_EQ(operations.owner, this_module());
    EXPECT_EQ(qdrModRegister(121, "third", &operations), -EBUSY);
    unregister_chrdev(121, "second");
}

TEST_F(Shim, FindsTheQueueOfADevicesDiskOnly)
{
    EXPECT_EQ(qdrGetRequestQueue(bdget(sda().device(1))), sda().disk().queue());
    EXPECT_EQ(qdrGetRequestQueue(bdget(kdev_make(9, 9))), nullptr) << "a device without a disk";
    EXPECT_EQ(qdrGetRequestQueue(nullptr), nullptr);
}

TEST_F(Shim, LockingAQueueExcludesOthersUntilUnlocked)
{
    request_queue* q = sda().disk().queue();
    unsigned long flags = 77;
    qdrLockRequestQueue(q, &flags);
    EXPECT_NE(flags, 77ul) << "the interrupt state was not saved";
    std::atomic<bool> entered{false};
    std::thread other([&] {
        unsigned long f;
        spin_lock_irqsave(queue_lock(q), &f);
        entered = true;
        spin_unlock_irqrestore(queue_lock(q), f);
    });
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    EXPECT_FALSE(entered);
    qdrUnlockRequestQueue(q, flags);
    other.join();
    EXPECT_TRUE(entered);
}

TEST_F(Shim, LeavesAQueueWithoutALockAlone)
{
    rig::TestDisk& disk = addDisk("sdb", 16, 4096, {}, false);
    ASSERT_EQ(queue_lock(disk.disk().queue()), nullptr);
    unsigned long flags = 77;
    qdrLockRequestQueue(disk.disk().queue(), &flags);
    qdrUnlockRequestQueue(disk.disk().queue(), flags);
    EXPECT_EQ(flags, 77ul);
}

} // namespace
