// SPDX-License-Identifier: GPL-2.0-only
// The state query, and the counters that are logged when a backup closes.
#include "core_view.h"
#include "task.h"

#include <chrono>

using namespace rig;

namespace
{

class Statistics : public DriverTest
{
  protected:
    static int getState(Program& program, u32 buffer, u32 length)
    {
        return program.command(QUENDREL_GET_STATE, program.put(GetState{buffer, length}));
    }
    static Stats statsOf(Program& program)
    {
        Stats stats;
        std::memset(&stats, 0xEE, sizeof stats);
        stats.driverVerMajor = stats.driverVerMinor = stats.driverVerMinor2 = 0;
        setStats(recordOf(program), &stats);
        return stats;
    }
};

// Makes a program's process the current one, for operations to which no command leads.
class CurrentProcess
{
  public:
    explicit CurrentProcess(Program& program) { hosted::this_task().memory = &program.memory(); }
    ~CurrentProcess() { hosted::this_task().memory = nullptr; }
    CurrentProcess(const CurrentProcess&) = delete;
    CurrentProcess& operator=(const CurrentProcess&) = delete;
};

Lines printed(const Stats& stats)
{
    hosted::log_clear();
    printStats(&stats);
    return hosted::log_lines();
}

} // namespace

TEST_F(Statistics, TheStateIsCopiedNoFurtherThanAsked)
{
    Program program;
    ASSERT_EQ(program.open(), 0);
    ASSERT_EQ(program.start(sda().device(1), 4096, 100), 0);
    const u32 at = program.memory().allocate(24);
    std::memset(program.memory().at(at), 0xEE, 24);
    EXPECT_EQ(getState(program, at, 0), 0);
    EXPECT_EQ(std::to_integer<int>(*program.memory().at(at)), 0xEE);
    EXPECT_EQ(getState(program, 0, 0), 0) << "with nothing to copy the address does not matter";
    EXPECT_EQ(getState(program, at, 8), 0);
    EXPECT_EQ(program.get<State>(at).major, 8u);
    EXPECT_EQ(program.get<State>(at).minor, 1u);
    EXPECT_EQ(program.get<State>(at).state, 0xEEEEEEEEu);
    EXPECT_EQ(getState(program, at, 0xFFFFFFFF), 0);
    EXPECT_EQ(program.get<State>(at).state, 2u);
    EXPECT_EQ(program.get<State>(at).mmapSize, 1048576);
    EXPECT_EQ(std::to_integer<int>(*program.memory().at(at + 20)), 0xEE) << "20 bytes are all there is";
    EXPECT_EQ(program.close(), 0);
}

TEST_F(Statistics, AnUnwritableStateBufferIsReported)
{
    Program program;
    ASSERT_EQ(program.open(), 0);
    const u32 tooShort = program.memory().allocate(19, true, true);
    EXPECT_EQ(getState(program, tooShort, 20), 7);
    EXPECT_EQ(takeLog(), (Lines{"<3>ioctlGetState: copy to user space failed\n"}));
    EXPECT_EQ(down_trylock(&recordOf(program)->bSem), 0) << "the session was given back";
    up(&recordOf(program)->bSem);
    EXPECT_EQ(program.close(), 0);
}

TEST_F(Statistics, AFreshFileReportsStateZeroAndZeros)
{
    Program program;
    ASSERT_EQ(program.open(), 0);
    const State state = program.state();
    const State zero{};
    EXPECT_EQ(std::memcmp(&state, &zero, sizeof zero), 0);
    EXPECT_EQ(program.close(), 0);
}

TEST_F(Statistics, AStartedBackupReportsItsDeviceAndBlockSize)
{
    Program program;
    ASSERT_EQ(program.open(), 0);
    ASSERT_EQ(program.start(sda().device(2), 4096, 100), 0);
    const State state = program.state();
    EXPECT_EQ(state.major, 8u);
    EXPECT_EQ(state.minor, 2u);
    EXPECT_EQ(state.state, 2u);
    EXPECT_EQ(state.blockSize, 1024);
    EXPECT_EQ(state.mmapSize, 262144);
    EXPECT_EQ(program.close(), 0);
}

TEST_F(Statistics, TheLargestMappingHolds256BlocksAndAtMost256Pages)
{
    TestDisk& disk = addDisk("sdb", 16, 8192,
                             {{1, 64, 1024, 512}, {2, 2048, 1024, 1024}, {3, 4096, 1024, 2048}, {4, 6144, 1024, 4096}});
    for (const auto& [partition, bytes] : {std::pair{1u, 131072}, {2u, 262144}, {3u, 524288}, {4u, 1048576}}) {
        Program program;
        ASSERT_EQ(program.open(), 0);
        ASSERT_EQ(program.start(disk.device(partition), 64, 100), 0);
        EXPECT_EQ(program.state().mmapSize, bytes) << "partition " << partition;
        EXPECT_EQ(program.close(), 0);
    }
}

TEST_F(Statistics, EveryFieldButTheVersionsIsFilledFromTheSession)
{
    Program program;
    ASSERT_EQ(program.open(), 0);
    Backup* b = recordOf(program);
    DiskInfo& d = b->diskInfo;
    d.kdev = kdev_make(9, 300);
    b->state = 13;
    d.partitionStart = (5ull << 32) + 101;
    d.blockSize = 102;
    d.blocksPerPage = 103;
    d.partitionSizeKB = (6ull << 32) + 104;
    d.numBlocks = (7ull << 32) + 105;
    b->maxVMPages = 106;
    b->vmAreas[0].vma = reinterpret_cast<vm_area_struct*>(b); // only its presence counts
    b->vmAreas[0].vmPages = 50;
    b->vmAreas[1].vma = reinterpret_cast<vm_area_struct*>(b);
    b->vmAreas[1].vmPages = 57;
    b->maxCacheBlocks = 108;
    atomic_set(&curAllocAMPages, 109);
    atomic_set(&b->totalAllocPages, 110);
    atomic_set(&b->curAllocPages, 111);
    atomic_set(&b->totalAllocBRs, 112);
    atomic_set(&b->curAllocBRs, 113);
    atomic_set(&b->totalAllocCPs, 114);
    atomic_set(&b->curAllocCPs, 115);
    atomic_set(&b->peakAllocCPs, 116);
    atomic_set(&b->totalCBs, 117);
    atomic_set(&b->curCBs, 118);
    atomic_set(&b->totalReadBlocks, 119);
    atomic_set(&b->totalReadCBs, 120);
    atomic_set(&b->totalCleanedCBs, 121);
    atomic_set(&b->ioctlCount, 122);
    b->eTimeToFreeze = {1, 2};
    b->eTimeFrozen = {3, 4};
    const Stats filled = statsOf(program);
    const Stats expected{0,   0,   0,   9,   300, 13,  101, 102, 103, 104, 105, 106, 107, 108,    109,
                         110, 111, 112, 113, 114, 115, 116, 117, 118, 119, 120, 121, 122, {1, 2}, {3, 4}};
    EXPECT_EQ(std::memcmp(&filled, &expected, sizeof expected), 0);
    b->vmAreas[1].vma = nullptr;
    EXPECT_EQ(statsOf(program).vmPages, 50) << "an area that is not mapped does not count";

    b->vmAreas[0] = {};
    b->vmAreas[1] = {};
    atomic_set(&curAllocAMPages, 0);
    b->state = 0;
    d = {};
    EXPECT_EQ(program.close(), 0);
}

TEST_F(Statistics, AllCountersAreLoggedInTheirOrder)
{
    const Stats stats{901, 902, 903, 9,   300, 13,  101, 102, 103, 104, 105, 106, 107, 108,      109,
                      110, 111, 112, 113, 114, 115, 116, 117, 118, 119, 120, 121, 122, {12, 34}, {56, 123456789}};
    EXPECT_EQ(printed(stats), (Lines{
                                  "<6>printStats: device: major(9) minor(300)\n",
                                  "<6>printStats: state: 13\n",
                                  "<6>printStats: block size: 102\n",
                                  "<6>printStats: partition size (KB): 104\n",
                                  "<6>printStats: file system size (blocks): 105\n",
                                  "<6>printStats: pages allocated for write journal: 109\n",
                                  "<6>printStats: max cache size in blocks: 108\n",
                                  "<6>printStats: total pages allocated: 110\n",
                                  "<6>printStats: current pages allocated: 111\n",
                                  "<6>printStats: total Block Requests allocated: 112\n",
                                  "<6>printStats: current Block Requests allocated: 113\n",
                                  "<6>printStats: total cached blocks: 114\n",
                                  "<6>printStats: current cached blocks: 115\n",
                                  "<6>printStats: peak cached blocks: 116\n",
                                  "<6>printStats: total block cache data structures: 117\n",
                                  "<6>printStats: current block cache data structures: 118\n",
                                  "<6>printStats: total reads from disk: 119\n",
                                  "<6>printStats: total reads from cache: 120\n",
                                  "<6>printStats: blocks cleaned from cache: 121\n",
                                  "<6>printStats: partition start (sector): 101\n",
                                  "<6>printStats: blocks per page: 103\n",
                                  "<6>printStats: max buffer size in pages: 106\n",
                                  "<6>printStats: buffer pages allocated: 107\n",
                                  "<6>printStats: commands processed: 122\n",
                                  "<6>printStats: time to freeze in seconds: 12.000000034\n",
                                  "<6>printStats: time frozen in seconds: 56.123456789\n",
                              }));
}

TEST_F(Statistics, SignedAndUnsignedFieldsPrintAsSuch)
{
    Stats stats{};
    stats.partitionStart = stats.partitionSizeKB = stats.numBlocks = 0xFFFFFFFF;
    stats.maxCacheBlocks = 0xFFFFFFFF;
    stats.eTimeToFreeze = {0, 5000000};
    const Lines lines = printed(stats);
    EXPECT_EQ(lines[3], "<6>printStats: partition size (KB): 4294967295\n");
    EXPECT_EQ(lines[4], "<6>printStats: file system size (blocks): 4294967295\n");
    EXPECT_EQ(lines[6], "<6>printStats: max cache size in blocks: -1\n");
    EXPECT_EQ(lines[19], "<6>printStats: partition start (sector): 4294967295\n");
    EXPECT_EQ(lines[24], "<6>printStats: time to freeze in seconds: 0.005000000\n");
}

// ---- The record for user space

TEST_F(Statistics, TheRecordForUserSpaceIsBoundedByItsSizeAndTheCallersLength)
{
    Program program;
    ASSERT_NO_FATAL_FAILURE(program.beginSnapshot(sda(), 1));
    CurrentProcess process(program);
    const u32 at = program.memory().allocate(136);
    std::memset(program.memory().at(at), 0xEE, 136);
    takeLog();
    EXPECT_EQ(ioctlGetStats(recordOf(program), user_addr(at), 0), 0);
    EXPECT_EQ(program.get<Stats>(at).driverVerMajor, 0xEEEEEEEEu);
    EXPECT_EQ(ioctlGetStats(recordOf(program), user_addr(at), 20), 0);
    EXPECT_EQ(program.get<Stats>(at).driverVerMajor, 0u);
    EXPECT_EQ(program.get<Stats>(at).driverVerMinor, 0u);
    EXPECT_EQ(program.get<Stats>(at).driverVerMinor2, 0u);
    EXPECT_EQ(program.get<Stats>(at).minor, 1u);
    EXPECT_EQ(program.get<Stats>(at).state, 0xEEEEEEEEu);
    EXPECT_EQ(ioctlGetStats(recordOf(program), user_addr(at), 0xFFFFFFFF), 0);
    const Stats copied = program.get<Stats>(at);
    const Stats expected = statsOf(program);
    EXPECT_EQ(std::memcmp(&copied, &expected, sizeof expected), 0);
    EXPECT_EQ(std::to_integer<int>(*program.memory().at(at + 128)), 0xEE) << "128 bytes are all there is";
    EXPECT_EQ(takeLog(), Lines{});
    EXPECT_EQ(program.close(), 0);
}

TEST_F(Statistics, AnUnwritableRecordBufferIsReportedAndTheRecordFreed)
{
    Program program;
    ASSERT_EQ(program.open(), 0);
    CurrentProcess process(program);
    takeLog();
    const u32 tooShort = program.memory().allocate(127, true, true);
    EXPECT_EQ(ioctlGetStats(recordOf(program), user_addr(tooShort), 128), 7);
    EXPECT_EQ(takeLog(), (Lines{"<3>ioctlGetStats: copy to user space failed\n"}));
    EXPECT_EQ(program.close(), 0);
}

TEST_F(Statistics, WithoutMemoryForTheRecordForUserSpaceNothingIsLogged)
{
    Program program;
    ASSERT_EQ(program.open(), 0);
    CurrentProcess process(program);
    takeLog();
    hosted::faults::fail_allocation(1, unsigned(hosted::faults::Kind::kmalloc));
    EXPECT_EQ(ioctlGetStats(recordOf(program), user_addr(0), 128), 5);
    EXPECT_EQ(takeLog(), Lines{});
    EXPECT_EQ(program.close(), 0);
}

// ---- The log of a closing backup

TEST_F(Statistics, ABackupLogsItsCountersAsItCloses)
{
    Program program;
    ASSERT_NO_FATAL_FAILURE(program.beginFullBackup(sda(), 1, 500));
    EXPECT_EQ(sda().writeBlock(1, 10, 1), 0);
    EXPECT_EQ(sda().writeBlock(1, 11, 1), 0);
    // A held write completes before the worker has marked its block.
    eventually([&] { return atomic_read(&recordOf(program)->mrInQueue) == 0; });
    EXPECT_EQ(program.readBlocks(8, 4), 0);
    Stats stats{};
    setStats(recordOf(program), &stats);
    EXPECT_EQ(stats.totalReadBlocks, 2);
    EXPECT_EQ(stats.totalReadCBs, 2);
    EXPECT_EQ(stats.totalAllocCPs, 2);
    EXPECT_EQ(stats.curAllocCPs, 0);
    EXPECT_EQ(stats.peakAllocCPs, 2);
    EXPECT_EQ(stats.totalAllocBRs, 4);
    EXPECT_EQ(stats.curAllocBRs, 0);
    EXPECT_EQ(stats.vmPages, 256);
    EXPECT_EQ(stats.totalAllocPages, 1 + 1 + 256 + 2) << "cache map, backup map, transfer pages, saved blocks";
    EXPECT_EQ(stats.curAllocPages, 1 + 1 + 256);
    EXPECT_EQ(stats.curAllocAMPages, 1);
    takeLog();
    EXPECT_EQ(program.close(), 0);
    const Lines log = takeLog();
    // What is freed by the time of the dump counts no more, and the state is that of closing.
    stats.state = 7;
    stats.vmPages = 0;
    stats.curAllocPages = 0;
    EXPECT_EQ(linesOf(log, "printStats"), printed(stats));
    EXPECT_EQ(log.back(), "<6>closeBackup: backup finished device major=8 minor=1\n");
}

TEST_F(Statistics, WithoutMemoryForTheDumpItIsSkippedSilently)
{
    Program program;
    ASSERT_NO_FATAL_FAILURE(program.beginSnapshot(sda(), 1));
    takeLog();
    hosted::faults::fail_allocation(1, unsigned(hosted::faults::Kind::kmalloc));
    EXPECT_EQ(program.close(), 0);
    const Lines log = takeLog();
    EXPECT_EQ(linesOf(log, "printStats"), Lines{});
    EXPECT_EQ(linesOf(log, "closeBackup"), (Lines{"<6>closeBackup: backup finished device major=8 minor=1\n"}));
    EXPECT_EQ(complaints(log), Lines{});
}

TEST_F(Statistics, AFileThatNeverStartedLogsNothing)
{
    Program program;
    ASSERT_EQ(program.open(), 0);
    takeLog();
    EXPECT_EQ(program.close(), 0);
    EXPECT_EQ(takeLog(), Lines{});
}
