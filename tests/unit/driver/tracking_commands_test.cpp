// SPDX-License-Identifier: GPL-2.0-only
// What the backup program sees and decides of tracking: the session's state and key, the map of changed blocks, and
// the two options.
#include "core_view.h"

#include <cstdio>

using namespace rig;

namespace
{

using Blocks = std::vector<u32>;

class TrackingCommands : public DriverTest
{
  protected:
    // A backup in state 4 whose map holds the blocks written since the last snapshot.
    void beginIncremental(Program& program, u32 totalBlocks, const Blocks& written)
    {
        trackDevice(sda(), 1, totalBlocks);
        const Key key = keyOf(session());
        for (u32 block : written)
            ASSERT_EQ(setBlock(&session()->map, block), 0u);
        ASSERT_EQ(program.open(), 0);
        ASSERT_EQ(program.start(sda().device(1), totalBlocks, 100), 0);
        ASSERT_EQ(program.snapshot(key), 0);
        ASSERT_EQ(program.state().state, 4u);
        takeLog();
    }
    AutoMapSession* session() { return sessionOf(sda().device(1)); }
    // GetAutoMap into a buffer of the caller's.
    static int getAutoMap(Program& program, u32 buffer, u32 mapLen)
    {
        return program.command(QUENDREL_GET_AUTOMAP, program.put(GetAutoMap{program.put(UserBlockMap{buffer, mapLen}),
                                                                            sizeof(UserBlockMap)}));
    }
    static int getState(Program& program, u32 buffer, u32 length)
    {
        return program.command(QUENDREL_GET_AUTOMAP_STATE, program.put(GetAutoMapState{buffer, length}));
    }
};

const Lines kNoMap{"<3>ioctlGetAutoMap: backup error automap is NULL \n"};

} // namespace

// ---- The session's state

TEST_F(TrackingCommands, ReportsTheSessionsDeviceStateSizeAndKey)
{
    Program program;
    ASSERT_EQ(program.open(), 0);
    ASSERT_EQ(program.start(sda().device(1), 4001, 100), 0);
    ASSERT_EQ(program.snapshot(), 0);
    AutoMapState ams = program.autoMapState();
    EXPECT_EQ(ams.major, 8u);
    EXPECT_EQ(ams.minor, 1u);
    EXPECT_EQ(ams.state, 1u);
    EXPECT_EQ(ams.mapLen, 4001u);
    EXPECT_EQ(ams.mapSize, 501u);
    EXPECT_EQ(std::memcmp(ams.amsKey.key, session()->sessionKey.key, QUENDREL_KEY_BYTES), 0);
    EXPECT_EQ(atomic_read(&session()->users), 1);
    EXPECT_EQ(atomic_read(&amListUsers), 1);
    set_mb(&session()->state, 0);
    ams = program.autoMapState();
    EXPECT_EQ(ams.state, 0u);
    EXPECT_EQ(ams.mapLen, 4001u) << "a session out of sync is still one";
    EXPECT_EQ(program.close(), 0);
}

TEST_F(TrackingCommands, ReportsAllZerosForADeviceWithoutASession)
{
    Program program;
    ASSERT_EQ(program.open(), 0);
    for (bool started : {false, true}) {
        if (started) {
            ASSERT_EQ(program.start(sda().device(1), 4096, 100), 0);
        }
        AutoMapState answer;
        std::memset(&answer, 0xEE, sizeof answer);
        const u32 at = program.put(answer);
        EXPECT_EQ(getState(program, at, sizeof answer), 0);
        answer = program.get<AutoMapState>(at);
        const AutoMapState zero{};
        EXPECT_EQ(std::memcmp(&answer, &zero, sizeof zero), 0);
    }
    EXPECT_EQ(program.close(), 0);
}

TEST_F(TrackingCommands, ReportsInEveryStateOfTheBackup)
{
    trackDevice(sda(), 1);
    Program program;
    ASSERT_EQ(program.open(), 0);
    ASSERT_EQ(program.start(sda().device(1), 4096, 100), 0);
    for (u32 state : {2u, 4u, 5u, 6u, 8u, 9u, 10u, 13u}) {
        recordOf(program)->state = state;
        EXPECT_EQ(program.autoMapState().state, 1u) << "in state " << state;
    }
    recordOf(program)->state = 2;
    EXPECT_EQ(program.close(), 0);
}

TEST_F(TrackingCommands, CopiesNoMoreOfTheReportThanIsAskedForOrThereIs)
{
    Program program;
    ASSERT_NO_FATAL_FAILURE(program.beginSnapshot(sda(), 1));
    EXPECT_EQ(getState(program, 0, 0), 0) << "nothing is copied, so the address does not matter";

    const u32 at = program.memory().allocate(80);
    std::memset(program.memory().at(at), 0xEE, 80);
    EXPECT_EQ(getState(program, at, 12), 0);
    EXPECT_EQ(std::to_integer<int>(*program.memory().at(at)), 8);
    EXPECT_EQ(std::to_integer<int>(*program.memory().at(at + 8)), 1);
    EXPECT_EQ(std::to_integer<int>(*program.memory().at(at + 12)), 0xEE);

    EXPECT_EQ(getState(program, at, 0xFFFFFFFF), 0);
    EXPECT_EQ(std::memcmp(program.memory().at(at + 20), session()->sessionKey.key, QUENDREL_KEY_BYTES), 0);
    EXPECT_EQ(std::to_integer<int>(*program.memory().at(at + 76)), 0xEE) << "76 bytes are all there is";
    EXPECT_EQ(program.close(), 0);
}

TEST_F(TrackingCommands, ReportsAnUnwritableBuffer)
{
    Program program;
    ASSERT_NO_FATAL_FAILURE(program.beginSnapshot(sda(), 1));
    takeLog();
    const u32 tooShort = program.memory().allocate(75, true, true);
    EXPECT_EQ(getState(program, tooShort, 76), 7);
    EXPECT_EQ(takeLog(), (Lines{"<3>ioctlGetAutoMapState: copy to user space failed\n"}));
    EXPECT_EQ(atomic_read(&session()->users), 1);
    EXPECT_EQ(program.close(), 0);
}

// ---- The map of changed blocks

TEST_F(TrackingCommands, HandsOverTheChangedBlocksOnceAndFreesThem)
{
    Program program;
    ASSERT_NO_FATAL_FAILURE(beginIncremental(program, 4096, {0, 7, 8, 4095}));
    EXPECT_EQ(atomic_read(&recordOf(program)->curAllocPages), 2);
    const int total = atomic_read(&recordOf(program)->totalAllocPages);
    Bits bits(4096);
    EXPECT_EQ(program.autoMap(bits), 0);
    EXPECT_EQ(bits.members(), (Blocks{0, 7, 8, 4095}));
    EXPECT_EQ(bits.bytes()[0], 0x81) << "least significant bit first";
    EXPECT_EQ(atomic_read(&recordOf(program)->curAllocPages), 1);
    EXPECT_EQ(atomic_read(&recordOf(program)->totalAllocPages), total);
    EXPECT_EQ(recordOf(program)->blockMap.map, nullptr);
    EXPECT_EQ(program.state().state, 4u);
    EXPECT_EQ(takeLog(), Lines{});
    EXPECT_EQ(program.autoMap(bits), 2) << "the second time there is none";
    EXPECT_EQ(takeLog(), kNoMap);
    EXPECT_EQ(program.close(), 0);
}

TEST_F(TrackingCommands, HasNoChangedBlocksAfterAFirstSnapshot)
{
    Program program;
    ASSERT_NO_FATAL_FAILURE(program.beginSnapshot(sda(), 1));
    takeLog();
    Bits bits(4096);
    EXPECT_EQ(program.autoMap(bits), 2);
    EXPECT_EQ(takeLog(), kNoMap);
    EXPECT_EQ(bits.members(), Blocks{});
    EXPECT_EQ(program.close(), 0);
}

TEST_F(TrackingCommands, HasNoChangedBlocksWhenTrackingWasSwitchedOffOrNotUsed)
{
    for (u32 option : {QUENDREL_NO_START_AUTOMAP, QUENDREL_NO_LOAD_FROM_AUTOMAP}) {
        trackDevice(sda(), 1);
        const Key key = keyOf(session());
        Program program;
        ASSERT_EQ(program.open(), 0);
        ASSERT_EQ(program.start(sda().device(1), 4096, 100), 0);
        ASSERT_EQ(program.command(option), 0);
        ASSERT_EQ(program.snapshot(key), 0);
        takeLog();
        Bits bits(4096);
        EXPECT_EQ(program.autoMap(bits), 2);
        EXPECT_EQ(takeLog(), kNoMap);
        EXPECT_EQ(program.close(), 0);
    }
}

TEST_F(TrackingCommands, RefusesAMapBeforeTheSnapshotAndAfterLoading)
{
    const Lines notLoaded{"<3>ioctlGetAutoMap: backup error map not loaded \n"};
    Program program;
    ASSERT_EQ(program.open(), 0);
    ASSERT_EQ(program.start(sda().device(1), 4096, 100), 0);
    takeLog();
    Bits bits(4096);
    EXPECT_EQ(program.autoMap(bits), 2);
    EXPECT_EQ(takeLog(), notLoaded);
    ASSERT_EQ(program.snapshot(), 0);
    ASSERT_EQ(program.loadMap(Bits(4096, true)), 0);
    takeLog();
    EXPECT_EQ(program.autoMap(bits), 2);
    EXPECT_EQ(takeLog(), notLoaded);
    EXPECT_NE(recordOf(program)->blockMap.map, nullptr) << "the loaded map is not touched";
    EXPECT_EQ(program.close(), 0);
}

TEST_F(TrackingCommands, RefusesAMapLengthThatIsOneOff)
{
    Program program;
    ASSERT_NO_FATAL_FAILURE(beginIncremental(program, 4096, {1}));
    for (u32 length : {4095u, 4097u}) {
        const u32 at = program.memory().allocate(1024);
        EXPECT_EQ(getAutoMap(program, at, length), 2);
        EXPECT_EQ(takeLog(), (Lines{"<3>ioctlGetAutoMap: backup error map size mismatch kernel map size=4096 user map "
                                    "size=" +
                                    std::to_string(length) + "\n"}));
        EXPECT_EQ(std::to_integer<int>(*program.memory().at(at)), 0) << "nothing is copied";
        EXPECT_EQ(atomic_read(&recordOf(program)->blockMap.users), 1);
    }
    Bits bits(4096);
    EXPECT_EQ(program.autoMap(bits), 0) << "the map is still there";
    EXPECT_EQ(bits.members(), Blocks{1});
    EXPECT_EQ(program.close(), 0);
}

TEST_F(TrackingCommands, CopiesFullPagesAndThenTheRest)
{
    struct Case {
        u32 blocks;
        u32 bytes;
    };
    for (const Case c : {Case{2 * 32768, 8192}, Case{32768 + 1, 4097}, Case{32768 + 8, 4097}, Case{9, 2}}) {
        Program program;
        const u32 last = c.blocks - 1;
        ASSERT_NO_FATAL_FAILURE(beginIncremental(program, c.blocks, {0, last}));
        const u32 at = program.memory().allocate(c.bytes, true, true); // a byte more would fail
        EXPECT_EQ(getAutoMap(program, at, c.blocks), 0) << c.blocks << " blocks";
        std::vector<unsigned char> bytes(c.bytes);
        EXPECT_EQ(program.memory().read(at, bytes.data(), c.bytes), 0u);
        EXPECT_EQ(bytes.front() & 1, 1);
        EXPECT_EQ(bytes.back(), 1 << (last % 8));
        EXPECT_EQ(program.close(), 0);
    }
}

TEST_F(TrackingCommands, AFailedCopyKeepsTheMapAndNamesThePageThatFailed)
{
    Program program;
    ASSERT_NO_FATAL_FAILURE(beginIncremental(program, 32768 + 1, {3, 32768}));
    const u32 onePage = program.memory().allocate(4096); // the second page would begin in a hole
    EXPECT_EQ(getAutoMap(program, onePage, 32768 + 1), 7);
    char line[200];
    snprintf(line, sizeof line, "<3>ioctlGetAutoMap: copy to user space failed data=%x bytesCopied=1 bytesInMap=4097\n",
             onePage + 4096);
    EXPECT_EQ(takeLog(), Lines{line});
    EXPECT_EQ(std::to_integer<int>(*program.memory().at(onePage)), 8) << "the first page was copied";
    EXPECT_EQ(atomic_read(&recordOf(program)->blockMap.users), 1);
    Bits bits(32768 + 1);
    EXPECT_EQ(program.autoMap(bits), 0);
    EXPECT_EQ(bits.members(), (Blocks{3, 32768}));
    EXPECT_EQ(program.close(), 0);
}

// ---- The options

TEST_F(TrackingCommands, OptionsAreSetOnceAndKeptForTheFile)
{
    Program program;
    ASSERT_EQ(program.open(), 0);
    EXPECT_EQ(recordOf(program)->noStartAutoMap, 0);
    EXPECT_EQ(recordOf(program)->noLoadFromAutoMap, 0);
    EXPECT_EQ(program.noStartAutoMap(), 0) << "in any state";
    EXPECT_EQ(program.noLoadFromAutoMap(), 0);
    ASSERT_EQ(program.start(sda().device(1), 4096, 100), 0);
    ASSERT_EQ(program.snapshot(), 0);
    EXPECT_EQ(recordOf(program)->noStartAutoMap, 1);
    EXPECT_EQ(recordOf(program)->noLoadFromAutoMap, 1);
    EXPECT_EQ(program.close(), 0);
}

TEST_F(TrackingCommands, WithBothOptionsTrackingIsSwitchedOff)
{
    trackDevice(sda(), 1);
    Program program;
    ASSERT_EQ(program.open(), 0);
    ASSERT_EQ(program.start(sda().device(1), 4096, 100), 0);
    EXPECT_EQ(program.noLoadFromAutoMap(), 0);
    EXPECT_EQ(program.noStartAutoMap(), 0);
    ASSERT_EQ(program.snapshot(), 0);
    EXPECT_EQ(session(), nullptr);
    EXPECT_EQ(program.state().state, 4u);
    EXPECT_EQ(program.close(), 0);
}

TEST_F(TrackingCommands, OptionsSetAfterTheSnapshotDoNotTouchThisBackup)
{
    Program program;
    ASSERT_NO_FATAL_FAILURE(beginIncremental(program, 4096, {42}));
    EXPECT_EQ(program.noStartAutoMap(), 0);
    EXPECT_EQ(program.noLoadFromAutoMap(), 0);
    ASSERT_NE(session(), nullptr);
    EXPECT_EQ(session()->state, 1u);
    Bits bits(4096);
    EXPECT_EQ(program.autoMap(bits), 0);
    EXPECT_EQ(bits.members(), Blocks{42});
    EXPECT_EQ(program.close(), 0);
    EXPECT_EQ(hookOf(sda()), qdrAMRF);
}
