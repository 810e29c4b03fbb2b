// SPDX-License-Identifier: GPL-2.0-only
// The control device: open, release, the entry points that do nothing, and the dispatch of commands.
#include "driver_rig.h"
#include "qdrlib.h"

using rig::Program;
using Lines = std::vector<std::string>;

namespace
{

constexpr u32 unmapped = 0x10; // no process of these tests has anything there

Backup* recordOf(Program& program) { return static_cast<Backup*>(file_private(program.file().raw())); }
int commandsOf(Program& program) { return atomic_read(&recordOf(program)->ioctlCount); }

class ControlDevice : public rig::DriverTest
{
  protected:
    void TearDown() override
    {
        if (program.isOpen())
            program.close();
        DriverTest::TearDown();
    }
    Program program;
};

TEST_F(ControlDevice, OpenBeforeInitialisationIsRefused)
{
    const hosted::Live before = hosted::live();
    atomic_set(&initDone, 0);
    EXPECT_EQ(program.open(), 1);
    EXPECT_EQ(hosted::live(), before);
    atomic_set(&initDone, 1);
    EXPECT_EQ(program.open(), 0);
}

TEST_F(ControlDevice, OpenWithoutMemoryReturnsTheCodeAndTakesNothing)
{
    const hosted::Live before = hosted::live();
    hosted::faults::fail_allocation(1, unsigned(hosted::faults::Kind::kmalloc));
    EXPECT_EQ(program.open(), 5);
    EXPECT_EQ(hosted::live(), before);
    EXPECT_EQ(hosted::driver_references(), 0);
}

TEST_F(ControlDevice, OpenWhileTheModuleGoesLeavesItsRecordBehind)
{
    hosted::faults::module_going(true);
    EXPECT_EQ(program.open(), 3);
    EXPECT_EQ(hosted::driver_references(), 0);
    // The failed open is never released, so its record stays: that one allocation and no more.
    hosted::Live left{};
    left.kmallocs = 1;
    expectLeft(left);
}

TEST_F(ControlDevice, TheRecordOfARefusedOpenIsFreedByARelease)
{
    ASSERT_EQ(program.open(), 0);
    file* f = program.file().raw();
    Backup* mine = recordOf(program);
    const hosted::Live before = hosted::live();
    ASSERT_EQ(qdrModGet(), 0); // the release will drop a reference that the refused open did not take
    hosted::faults::module_going(true);
    EXPECT_EQ(qdrOpen(nullptr, f), 3);
    hosted::faults::module_going(false);
    ASSERT_NE(file_private(f), nullptr);
    ASSERT_NE(file_private(f), mine);
    EXPECT_EQ(qdrRelease(nullptr, f), 0);
    EXPECT_EQ(hosted::live(), before);
    file_set_private(f, mine);
}

TEST_F(ControlDevice, OpenMakesAnIdleRecord)
{
    ASSERT_EQ(program.open(), 0);
    Backup* b = recordOf(program);
    EXPECT_EQ(load_acquire(&b->state), 0u);
    for (atomic_int* counter :
         {&b->mrInQueue, &b->ioctlCount, &b->totalAllocPages, &b->curAllocPages, &b->totalAllocCPs, &b->curAllocCPs,
          &b->peakAllocCPs, &b->totalCBs, &b->curCBs, &b->totalReadBlocks, &b->totalReadCBs, &b->totalCleanedCBs,
          &b->totalAllocBRs, &b->curAllocBRs})
        EXPECT_EQ(atomic_read(counter), 0);
    EXPECT_EQ(b->diskInfo.kdev, 0u);
    EXPECT_EQ(b->blockMap.map, nullptr);
    EXPECT_EQ(b->cacheMap.map, nullptr);
    EXPECT_EQ(b->mrHead, nullptr);
    EXPECT_EQ(b->mrTail, nullptr);
    // bSem holds exactly one count, the other locks are free.
    EXPECT_EQ(down_trylock(&b->bSem), 0);
    EXPECT_EQ(down_trylock(&b->bSem), 1);
    up(&b->bSem);
    down_write(&b->writers);
    up_write(&b->writers);
    down_write(&b->cacheUsers);
    up_write(&b->cacheUsers);
    unsigned long flags;
    spin_lock_irqsave(&b->mrLock, &flags);
    spin_unlock_irqrestore(&b->mrLock, flags);
    EXPECT_EQ(hosted::driver_references(), 1);
    EXPECT_EQ(takeLog(), Lines{});
}

TEST_F(ControlDevice, TwoOpensGiveTwoIndependentRecordsWhileABackupRuns)
{
    Program first, second;
    ASSERT_NO_FATAL_FAILURE(program.beginSnapshot(sda(), 1));
    ASSERT_EQ(first.open(), 0);
    ASSERT_EQ(second.open(), 0);
    EXPECT_NE(recordOf(first), recordOf(second));
    EXPECT_NE(recordOf(first), recordOf(program));
    EXPECT_EQ(hosted::driver_references(), 3);
    EXPECT_EQ(first.noStartAutoMap(), 0);
    EXPECT_EQ(recordOf(first)->noStartAutoMap, 1);
    EXPECT_EQ(recordOf(second)->noStartAutoMap, 0);
    EXPECT_EQ(commandsOf(second), 0);
    EXPECT_EQ(load_acquire(&recordOf(first)->state), 0u);
    EXPECT_EQ(program.state().state, unsigned(QUENDREL_STATE_SNAPSHOT));
}

TEST_F(ControlDevice, ReadWriteAndPollDoNothing)
{
    ASSERT_EQ(program.open(), 0);
    const u32 buffer = program.put(u32(0xA5A5A5A5));
    EXPECT_EQ(program.file().read(buffer, 4), 0);
    EXPECT_EQ(program.file().write(buffer, 4), 0);
    EXPECT_EQ(program.file().poll(), 0u);
    EXPECT_EQ(program.get<u32>(buffer), 0xA5A5A5A5u);
    EXPECT_EQ(program.file().read(unmapped, 4), 0);
    EXPECT_EQ(program.file().write(unmapped, 4), 0);
    EXPECT_EQ(commandsOf(program), 0);
}

TEST_F(ControlDevice, ReleaseOfAFileWithoutARecordIsRefused)
{
    ASSERT_EQ(program.open(), 0);
    Backup* b = recordOf(program);
    file_set_private(program.file().raw(), nullptr);
    EXPECT_EQ(program.close(), 2);
    EXPECT_EQ(hosted::driver_references(), 1) << "the reference was dropped all the same";
    closeBackup(b);
    qdrModPut();
}

TEST_F(ControlDevice, ReleaseTakesTheRecordOffTheFile)
{
    ASSERT_EQ(program.open(), 0);
    EXPECT_EQ(program.file().close(), 0);
    EXPECT_EQ(file_private(program.file().raw()), nullptr);
}

TEST_F(ControlDevice, ClosingAnIdleFileFreesItsRecordAndDropsTheReference)
{
    make_request_fn* own = queue_make_request_fn(sda().disk().queue());
    const hosted::Live before = hosted::live();
    ASSERT_EQ(program.open(), 0);
    EXPECT_EQ(program.close(), 0);
    EXPECT_EQ(hosted::live(), before);
    EXPECT_EQ(hosted::driver_references(), 0);
    EXPECT_EQ(queue_make_request_fn(sda().disk().queue()), own);
    EXPECT_EQ(takeLog(), Lines{});
}

TEST_F(ControlDevice, ClosingAnIdleFileDetachesTheRunningBackup)
{
    Program idle;
    ASSERT_NO_FATAL_FAILURE(program.beginSnapshot(sda(), 1));
    ASSERT_EQ(idle.open(), 0);
    ASSERT_EQ(load_acquire(&activeSession), recordOf(program));
    const pid_type worker = load_acquire(&backup_cachePID);
    EXPECT_EQ(idle.close(), 0);
    EXPECT_EQ(load_acquire(&activeSession), nullptr);
    EXPECT_EQ(atomic_read(&busy), 0);
    // Neither the hook nor the thread is touched, and writes are held no more.
    EXPECT_EQ(queue_make_request_fn(sda().disk().queue()), qdrMRF);
    EXPECT_EQ(load_acquire(&backup_cachePID), worker);
    EXPECT_EQ(sda().writeBlock(1, 3, 0xEE), 0);
    EXPECT_EQ(atomic_read(&recordOf(program)->totalCBs), 0);
    EXPECT_EQ(program.state().state, unsigned(QUENDREL_STATE_SNAPSHOT));
}

TEST_F(ControlDevice, ClosingTheFileOfTheBackupEndsItAndLeavesAnIdleFileUsable)
{
    Program second;
    ASSERT_NO_FATAL_FAILURE(program.beginFullBackup(sda(), 1));
    ASSERT_EQ(second.open(), 0);
    EXPECT_EQ(program.close(), 0);
    EXPECT_EQ(load_acquire(&activeSession), nullptr);
    EXPECT_EQ(atomic_read(&busy), 0);
    EXPECT_EQ(load_acquire(&backup_cachePID), 0);
    EXPECT_EQ(queue_make_request_fn(sda().disk().queue()), qdrAMRF);
    EXPECT_EQ(hosted::live().threads, 0);
    EXPECT_EQ(load_acquire(&recordOf(second)->state), 0u);
    EXPECT_EQ(second.start(sda().device(1), sda().blocks(1), 10), 0);
}

class Dispatch : public ControlDevice
{
  protected:
    void SetUp() override
    {
        ControlDevice::SetUp();
        ASSERT_EQ(program.open(), 0);
    }
};

TEST_F(Dispatch, CommandBeforeInitialisationIsRefused)
{
    atomic_set(&initDone, 0);
    EXPECT_EQ(program.command(QUENDREL_RESERVED16), 1);
    atomic_set(&initDone, 1);
    EXPECT_EQ(commandsOf(program), 0);
    EXPECT_EQ(takeLog(), Lines{});
}

TEST_F(Dispatch, CommandOnAFileWithoutARecordIsRefusedBeforeAnyCounter)
{
    Backup* b = recordOf(program);
    file_set_private(program.file().raw(), nullptr);
    EXPECT_EQ(program.command(QUENDREL_RESERVED16), 2);
    EXPECT_EQ(program.command(0x1234), 2);
    file_set_private(program.file().raw(), b);
    EXPECT_EQ(commandsOf(program), 0);
    EXPECT_EQ(takeLog(), Lines{});
}

TEST_F(Dispatch, UnknownNumberLogsOnceReturnsFourAndCounts)
{
    EXPECT_EQ(program.command(0x40042a0b), 4); // 11 is not assigned
    EXPECT_EQ(takeLog(), (Lines{"<3>qdrIOCTL: ioctl command not found\n"}));
    EXPECT_EQ(commandsOf(program), 1);
}

TEST_F(Dispatch, KnownNumberWithAnotherSizeOrDirectionOrTypeIsUnknown)
{
    for (unsigned number : {0x40042a00u, 0x80102a01u, 0x00102a01u, 0xc0082a03u, 0x40042a05u, 0x40002a05u, 0x00002a0eu,
                            0x40042b10u, 0x40042a11u, 0x40142a01u, 1u, 0u, 0xFFFFFFFFu}) {
        EXPECT_EQ(program.command(number), 4) << std::hex << number;
        EXPECT_EQ(takeLog(), (Lines{"<3>qdrIOCTL: ioctl command not found\n"})) << std::hex << number;
    }
    EXPECT_EQ(commandsOf(program), 13);
}

TEST_F(Dispatch, EveryCommandIsCounted)
{
    program.command(QUENDREL_RESERVED16);
    program.command(QUENDREL_START_BACKUP, unmapped);
    program.command(QUENDREL_SHUTDOWN);
    program.command(0x2a0b);
    program.noLoadFromAutoMap();
    EXPECT_EQ(commandsOf(program), 5);
}

TEST_F(Dispatch, EveryNumberReachesItsOwnCommand)
{
    ASSERT_EQ(program.command(0x40102a01, program.put(StartBackup{8, 1, sda().blocks(1), 10})), 0);
    Backup* b = recordOf(program);
    EXPECT_EQ(load_acquire(&b->state), unsigned(QUENDREL_STATE_STARTED));

    const u32 size = program.put(BlockSize{});
    EXPECT_EQ(program.command(0x40102a00, program.put(GetBlockSize{8, 2, size, sizeof(BlockSize)})), 0);
    EXPECT_EQ(program.get<BlockSize>(size).blockSize, 1024);

    const u32 state = program.put(State{});
    EXPECT_EQ(program.command(0x40082a03, program.put(GetState{state, sizeof(State)})), 0);
    EXPECT_EQ(program.get<State>(state).state, unsigned(QUENDREL_STATE_STARTED));

    EXPECT_EQ(b->noLoadFromAutoMap, 0);
    EXPECT_EQ(program.command(0x2a05), 0);
    EXPECT_EQ(b->noLoadFromAutoMap, 1);
    EXPECT_EQ(b->noStartAutoMap, 0);

    const u32 key = program.put(AMSessionKey{});
    EXPECT_EQ(program.command(0x40082a02, program.put(SnapShot{key, sizeof(AMSessionKey)})), 0);
    EXPECT_EQ(load_acquire(&b->state), unsigned(QUENDREL_STATE_SNAPSHOT));

    const u32 tracking = program.put(AutoMapState{});
    EXPECT_EQ(program.command(0x40082a04, program.put(GetAutoMapState{tracking, sizeof(AutoMapState)})), 0);
    EXPECT_EQ(program.get<AutoMapState>(tracking).mapLen, sda().blocks(1));

    EXPECT_EQ(program.command(0x2a06), 0);
    EXPECT_EQ(b->noStartAutoMap, 1);

    takeLog();
    const u32 bits = program.memory().allocate(4096);
    const u32 map = program.put(UserBlockMap{bits, 8});
    EXPECT_EQ(program.command(0x40082a08, program.put(GetAutoMap{map, sizeof(UserBlockMap)})), 2);
    EXPECT_EQ(takeLog(), (Lines{"<3>ioctlGetAutoMap: backup error automap is NULL \n"}));

    EXPECT_EQ(program.command(0x40082a07, program.put(LoadBlockMap{map, sizeof(UserBlockMap)})), 0);
    EXPECT_EQ(load_acquire(&b->state), unsigned(QUENDREL_STATE_MAP_LOADED));
    EXPECT_EQ(b->blockMap.size, 8u);

    const u32 dirty = program.put(u32(0));
    EXPECT_EQ(program.command(0x40042a09, program.put(DirtyBlock{dirty})), 0);
    EXPECT_EQ(program.get<u32>(dirty), 0xFFFFFFFFu);

    EXPECT_EQ(program.command(0x400c2a0a, program.put(ReadBlocks{0, 1, 0})), 2) << "a read without a mapping";

    const u32 version = program.put(u32(0));
    EXPECT_EQ(program.command(0x40042a0c, version), 0);
    EXPECT_EQ(program.get<u32>(version), 3u);
    EXPECT_EQ(program.command(0x40042a0d, version), 0);
    EXPECT_EQ(program.get<u32>(version), 1u);
    EXPECT_EQ(program.command(0x40042a0e), 0);
    EXPECT_NE(amList[8][1], nullptr);
    EXPECT_EQ(program.command(0x40042a0f), 0);
    EXPECT_EQ(amList[8][1], nullptr);
    EXPECT_EQ(program.command(0x40042a10), 3);
}

TEST_F(Dispatch, RecordThatCannotBeReadReturnsSixWithoutAMessage)
{
    struct Case {
        u32 command;
        u32 bytes;
    };
    const Case cases[] = {{QUENDREL_GET_BLOCK_SIZE, 16}, {QUENDREL_START_BACKUP, 16},     {QUENDREL_SNAPSHOT, 8},
                          {QUENDREL_GET_STATE, 8},       {QUENDREL_GET_AUTOMAP_STATE, 8}, {QUENDREL_LOAD_BLOCK_MAP, 8},
                          {QUENDREL_GET_AUTOMAP, 8},     {QUENDREL_GET_DIRTY_BLOCK, 4},   {QUENDREL_READ_BLOCKS, 12}};
    for (const Case& c : cases) {
        EXPECT_EQ(program.command(c.command, unmapped), 6) << std::hex << c.command;
        // All but the last byte can be read.
        const u32 shortRecord = program.memory().allocate(c.bytes - 1, true, true);
        EXPECT_EQ(program.command(c.command, shortRecord), 6) << std::hex << c.command;
        EXPECT_EQ(takeLog(), Lines{}) << std::hex << c.command;
        // The whole record and not a byte more can be read: whatever is wrong now, it is not that.
        const u32 exactRecord = program.memory().allocate(c.bytes, true, true);
        if (c.command != QUENDREL_LOAD_BLOCK_MAP && c.command != QUENDREL_GET_AUTOMAP) {
            EXPECT_NE(program.command(c.command, exactRecord), 6) << std::hex << c.command;
            takeLog(); // what is wrong now is another test's subject
        }
    }
    EXPECT_EQ(commandsOf(program), 9 * 2 + 7);
}

TEST_F(Dispatch, MapRecordWhoseInnerRecordCannotBeReadReturnsSixAndCallsNothing)
{
    for (u32 command : {QUENDREL_LOAD_BLOCK_MAP, QUENDREL_GET_AUTOMAP}) {
        EXPECT_EQ(program.command(command, program.put(LoadBlockMap{unmapped, sizeof(UserBlockMap)})), 6);
        const u32 shortMap = program.memory().allocate(7, true, true);
        EXPECT_EQ(program.command(command, program.put(LoadBlockMap{shortMap, sizeof(UserBlockMap)})), 6);
    }
    // Either operation would have refused this state with a message.
    EXPECT_EQ(takeLog(), Lines{});
}

TEST_F(Dispatch, MapRecordsLengthIsNotLookedAt)
{
    ASSERT_EQ(program.start(sda().device(1), sda().blocks(1), 10), 0);
    ASSERT_EQ(program.snapshot(), 0);
    const u32 bits = program.memory().allocate(4096);
    // Exactly eight bytes can be read of the inner record, and the length says nothing or too much.
    const u32 inner = program.memory().allocate(8, true, true);
    const UserBlockMap userBM{bits, 16};
    std::memcpy(program.memory().at(inner), &userBM, sizeof userBM);
    EXPECT_EQ(program.command(QUENDREL_GET_AUTOMAP, program.put(GetAutoMap{inner, 0xFFFFFFFF})), 2);
    EXPECT_EQ(program.command(QUENDREL_LOAD_BLOCK_MAP, program.put(LoadBlockMap{inner, 0})), 0);
    EXPECT_EQ(recordOf(program)->blockMap.size, 16u);
}

TEST_F(Dispatch, VersionsAreWrittenToTheCallersWord)
{
    const u32 words = program.put(std::array<u32, 3>{9, 9, 9});
    EXPECT_EQ(program.command(QUENDREL_GET_VERSION_MAJOR, words + 4), 0);
    EXPECT_EQ((program.get<std::array<u32, 3>>(words)), (std::array<u32, 3>{9, 3, 9}));
    EXPECT_EQ(program.command(QUENDREL_GET_VERSION_MINOR, words + 4), 0);
    EXPECT_EQ((program.get<std::array<u32, 3>>(words)), (std::array<u32, 3>{9, 1, 9}));
    EXPECT_EQ(takeLog(), Lines{});
}

TEST_F(Dispatch, VersionsToAnUnwritableWordLogAndReturnSeven)
{
    const u32 readOnly = program.memory().allocate(4, false);
    for (u32 command : {QUENDREL_GET_VERSION_MAJOR, QUENDREL_GET_VERSION_MINOR}) {
        EXPECT_EQ(program.command(command, readOnly), 7);
        EXPECT_EQ(takeLog(), (Lines{"<3>qdrIOCTL: copy to user space failed\n"}));
        EXPECT_EQ(program.command(command, unmapped), 7);
        EXPECT_EQ(takeLog(), (Lines{"<3>qdrIOCTL: copy to user space failed\n"}));
    }
}

TEST_F(Dispatch, Reserved16ReturnsThreeAndDoesNothingElse)
{
    const hosted::Live before = hosted::live();
    EXPECT_EQ(program.command(QUENDREL_RESERVED16, unmapped), 3);
    EXPECT_EQ(hosted::live(), before);
    EXPECT_EQ(takeLog(), Lines{});
    EXPECT_EQ(load_acquire(&recordOf(program)->state), 0u);
    EXPECT_EQ(commandsOf(program), 1);
}

TEST_F(Dispatch, SyncAndShutdownIgnoreTheirArgument)
{
    ASSERT_EQ(program.start(sda().device(1), sda().blocks(1), 10), 0);
    for (u32 argument : {0u, unmapped, 0xFFFFFFFFu}) {
        EXPECT_EQ(program.command(QUENDREL_SYNC, argument), 0);
        EXPECT_EQ(program.command(QUENDREL_SHUTDOWN, argument), 0);
    }
}

TEST_F(Dispatch, SyncWithoutABackupSucceeds) { EXPECT_EQ(program.command(QUENDREL_SYNC), 0); }

TEST_F(Dispatch, DeviceNumberIsMajorShiftedByTwentyOrMinor)
{
    BlockSize answer{};
    sda();
    ASSERT_EQ(program.blockSize(kdev_make(8, 1), answer), 0);
    const u32 at = program.put(BlockSize{});
    // A minor of more than twenty bits runs into the major.
    EXPECT_EQ(
        program.command(QUENDREL_GET_BLOCK_SIZE, program.put(GetBlockSize{0, (8u << 20) | 2u, at, sizeof(BlockSize)})),
        0);
    answer = program.get<BlockSize>(at);
    EXPECT_EQ(answer.major, 8u);
    EXPECT_EQ(answer.minor, 2u);
    EXPECT_EQ(answer.blockSize, 1024);
}

} // namespace
