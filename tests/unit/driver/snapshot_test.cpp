// SPDX-License-Identifier: GPL-2.0-only
// The snapshot command: which tracking session serves it, what is handed over while the file system is frozen, and
// what stays when it fails. Also the flush command and the subtraction of times.
#include "core_view.h"
#include "guards.h"

#include <algorithm>
#include <atomic>
#include <optional>
#include <thread>

using namespace rig;

namespace
{

using Blocks = std::vector<u32>;

// A file system that reports what it sees as it is frozen and thawed.
class WatchedFileSystem final : public hosted::Freezer
{
  public:
    bool freeze() override
    {
        freezes++;
        return atFreeze ? atFreeze() : true;
    }
    void thaw() override
    {
        thaws++;
        if (atThaw)
            atThaw();
    }
    int freezes = 0;
    int thaws = 0;
    std::function<bool()> atFreeze;
    std::function<void()> atThaw;
};

class Snapshot : public DriverTest
{
  protected:
    // A backup that is started and not yet snapped.
    void begin(Program& program, u32 totalBlocks = 4096)
    {
        ASSERT_EQ(program.open(), 0);
        ASSERT_EQ(program.start(sda().device(1), totalBlocks, 1000), 0);
    }
    // Device sda1 tracked in sync; its key.
    Key track()
    {
        trackDevice(sda(), 1);
        return keyOf(session());
    }
    AutoMapSession* session() { return sessionOf(sda().device(1)); }
    std::shared_ptr<WatchedFileSystem> watch()
    {
        auto watched = std::make_shared<WatchedFileSystem>();
        hosted::mount_file_system(sda().device(1), 4096, watched);
        return watched;
    }
    static unsigned stateOf(Program& program) { return program.state().state; }
};

kernel_timespec timeOf(s32 seconds, s32 nanoseconds) { return {seconds, nanoseconds}; }

const std::string kFreezing = "<3>ioctlSnapShot: Going to freez: 8.1\n";
const std::string kMismatch = "<3>ioctlSnapShot: session key mismatch\n";

} // namespace

TEST_F(Snapshot, TheFirstOneOfADeviceStartsTrackingInSyncWithARandomKeyAndAnEmptyMap)
{
    Program program;
    begin(program);
    takeLog();
    EXPECT_EQ(program.snapshot(), 0);
    EXPECT_EQ(takeLog(), Lines{kFreezing});
    const AutoMapState ams = program.autoMapState();
    EXPECT_EQ(ams.state, 1u);
    EXPECT_EQ(ams.mapLen, 4096u);
    const Key key = program.key();
    EXPECT_TRUE(std::any_of(key.begin(), key.end(), [](unsigned char c) { return c != 0; }));
    EXPECT_TRUE(std::any_of(key.begin(), key.end(), [](unsigned char c) { return c != 0xFF; }));
    EXPECT_EQ(membersOf(session()->map), Blocks{});
    EXPECT_EQ(stateOf(program), 4u);
    EXPECT_EQ(hookOf(sda()), qdrMRF);
    EXPECT_EQ(recordOf(program)->blockMap.map, nullptr);
    EXPECT_EQ(atomic_read(&session()->users), 1);
    EXPECT_EQ(program.close(), 0);
}

TEST_F(Snapshot, IsRefusedOutsideTheStartedState)
{
    Program program;
    ASSERT_EQ(program.open(), 0);
    takeLog();
    EXPECT_EQ(program.snapshot(), 2) << "nothing is started";
    ASSERT_EQ(program.start(sda().device(1), 4096, 1000), 0);
    ASSERT_EQ(program.snapshot(), 0);
    const Key key = program.key();
    takeLog();
    EXPECT_EQ(program.snapshot(), 2) << "a second one on the same backup";
    EXPECT_EQ(program.key(), key);
    EXPECT_EQ(stateOf(program), 4u);
    EXPECT_EQ(takeLog(), Lines{});
    EXPECT_EQ(program.close(), 0);
}

TEST_F(Snapshot, AnUnreadableKeyChangesNothing)
{
    const Key key = track();
    Program program;
    begin(program);
    takeLog();
    const u32 shortBuffer = program.memory().allocate(55, true, true); // one byte less than a key
    EXPECT_EQ(program.command(QUENDREL_SNAPSHOT, program.put(SnapShot{shortBuffer, 56})), 6);
    EXPECT_EQ(takeLog(), (Lines{"<3>ioctlSnapShot: copy from user space failed\n"}));
    EXPECT_EQ(stateOf(program), 2u);
    EXPECT_EQ(keyOf(session()), key);
    EXPECT_EQ(hookOf(sda()), qdrAMRF);
    EXPECT_EQ(program.close(), 0);
}

TEST_F(Snapshot, AWrongKeySucceedsAndChangesNothing)
{
    const Key key = track();
    EXPECT_EQ(sda().writeBlock(1, 5, 1), 0);
    for (const std::size_t at : {0u, 55u}) {
        Program program;
        begin(program);
        takeLog();
        Key wrong = key;
        wrong[at] ^= 0x80;
        EXPECT_EQ(program.snapshot(wrong), 0) << "byte " << at << " differs";
        EXPECT_EQ(takeLog(), Lines{kMismatch});
        EXPECT_EQ(stateOf(program), 2u);
        EXPECT_EQ(keyOf(session()), key);
        EXPECT_EQ(session()->state, 1u);
        EXPECT_EQ(membersOf(session()->map), Blocks{5});
        EXPECT_EQ(hookOf(sda()), qdrAMRF);
        EXPECT_EQ(atomic_read(&session()->users), 1);
        EXPECT_EQ(program.close(), 0);
    }
}

TEST_F(Snapshot, AfterAWrongKeyTheOptionNotToLoadReplacesTheSession)
{
    const Key key = track();
    EXPECT_EQ(sda().writeBlock(1, 5, 1), 0);
    Program program;
    begin(program);
    EXPECT_EQ(program.snapshot(), 0);
    EXPECT_EQ(stateOf(program), 2u);
    EXPECT_EQ(program.noLoadFromAutoMap(), 0);
    takeLog();
    EXPECT_EQ(program.snapshot(), 0);
    EXPECT_EQ(takeLog(), Lines{kFreezing});
    EXPECT_EQ(stateOf(program), 4u);
    EXPECT_NE(program.key(), key);
    EXPECT_EQ(membersOf(session()->map), Blocks{}) << "a new session";
    EXPECT_EQ(recordOf(program)->blockMap.map, nullptr) << "no changed blocks for this backup";
    EXPECT_EQ(atomic_read(&curAllocAMPages), 1);
    EXPECT_EQ(program.close(), 0);
}

TEST_F(Snapshot, AKeyLengthOfZeroComparesAnAllZeroKey)
{
    const Key key = track();
    Program program;
    begin(program);
    takeLog();
    EXPECT_EQ(program.snapshot(key, 0), 0);
    EXPECT_EQ(takeLog(), Lines{kMismatch});
    EXPECT_EQ(stateOf(program), 2u);
    std::memset(session()->sessionKey.key, 0, sizeof session()->sessionKey.key);
    EXPECT_EQ(program.snapshot(key, 0), 0);
    EXPECT_EQ(stateOf(program), 4u);
    EXPECT_EQ(program.close(), 0);
}

TEST_F(Snapshot, AShortKeyIsPaddedWithZeros)
{
    Key key = track();
    session()->sessionKey.key[55] = 1;
    Program program;
    begin(program);
    EXPECT_EQ(program.snapshot(keyOf(session()), 55), 0);
    EXPECT_EQ(stateOf(program), 2u);
    session()->sessionKey.key[55] = 0;
    key[55] = 0xEE;
    EXPECT_EQ(program.snapshot(key, 55), 0);
    EXPECT_EQ(stateOf(program), 4u);
    EXPECT_EQ(program.close(), 0);
}

TEST_F(Snapshot, AKeyLengthBeyondTheKeyIsCut)
{
    const Key key = track();
    Program program;
    begin(program);
    EXPECT_EQ(program.snapshot(key, 4096), 0);
    EXPECT_EQ(stateOf(program), 4u);
    EXPECT_EQ(program.close(), 0);
}

TEST_F(Snapshot, OnlyTheKeysOwnBytesAreRead)
{
    const Key key = track();
    Program program;
    begin(program);
    const u32 at = program.memory().allocate(QUENDREL_KEY_BYTES, true, true); // nothing is mapped behind it
    std::memcpy(program.memory().at(at), key.data(), key.size());
    EXPECT_EQ(program.command(QUENDREL_SNAPSHOT, program.put(SnapShot{at, 0xFFFFFFFF})), 0);
    EXPECT_EQ(stateOf(program), 4u);
    EXPECT_EQ(program.close(), 0);
}

TEST_F(Snapshot, TwoInARowHandOverTheBlocksWrittenBetweenTheirFreezes)
{
    Program first;
    begin(first);
    EXPECT_EQ(sda().writeBlock(1, 1, 1), 0); // before the first freeze
    ASSERT_EQ(first.snapshot(), 0);
    const Key key = first.key();
    EXPECT_EQ(sda().writeBlock(1, 10, 1), 0);
    EXPECT_EQ(sda().writeBlock(1, 4095, 1), 0);
    ASSERT_EQ(first.close(), 0);
    EXPECT_EQ(sda().writeBlock(1, 11, 1), 0);

    Program second;
    begin(second);
    EXPECT_EQ(sda().writeBlock(1, 12, 1), 0);
    takeLog();
    ASSERT_EQ(second.snapshot(key), 0);
    EXPECT_EQ(takeLog(), Lines{kFreezing});
    EXPECT_EQ(stateOf(second), 4u);
    EXPECT_EQ(membersOf(recordOf(second)->blockMap), (Blocks{10, 11, 12, 4095}));
    EXPECT_EQ(membersOf(session()->map), Blocks{});
    EXPECT_EQ(session()->state, 1u);
    EXPECT_NE(second.key(), key);
    EXPECT_EQ(hookOf(sda()), qdrMRF);
    EXPECT_EQ(atomic_read(&session()->users), 1);
    EXPECT_EQ(atomic_read(&recordOf(second)->blockMap.users), 1);
    EXPECT_EQ(atomic_read(&recordOf(second)->curAllocPages), 2) << "the cache map's page and the backup map's";
    EXPECT_EQ(atomic_read(&recordOf(second)->totalAllocPages), 2);
    EXPECT_EQ(sda().writeBlock(1, 13, 1), 0);
    EXPECT_EQ(membersOf(session()->map), Blocks{13});
    ASSERT_EQ(second.close(), 0);
}

TEST_F(Snapshot, WithTrackingSwitchedOffTheSessionIsClosedAndNoneIsMade)
{
    const Key key = track();
    Program program;
    begin(program);
    EXPECT_EQ(program.noStartAutoMap(), 0);
    takeLog();
    EXPECT_EQ(program.snapshot(key), 0);
    EXPECT_EQ(takeLog(), Lines{kFreezing});
    EXPECT_EQ(session(), nullptr);
    EXPECT_EQ(atomic_read(&curAllocAMPages), 0);
    EXPECT_EQ(stateOf(program), 4u);
    EXPECT_EQ(hookOf(sda()), qdrMRF);
    EXPECT_EQ(recordOf(program)->blockMap.map, nullptr);
    EXPECT_EQ(program.close(), 0);
}

TEST_F(Snapshot, WithTrackingSwitchedOffAnUntrackedDeviceIsSnappedWithoutASession)
{
    Program program;
    begin(program);
    EXPECT_EQ(program.noStartAutoMap(), 0);
    EXPECT_EQ(program.snapshot(), 0);
    EXPECT_EQ(session(), nullptr);
    EXPECT_EQ(stateOf(program), 4u);
    EXPECT_EQ(program.close(), 0);
}

TEST_F(Snapshot, ASessionOutOfSyncIsReplacedWhateverTheKey)
{
    const Key key = track();
    EXPECT_EQ(sda().writeBlock(1, 5, 1), 0);
    set_mb(&session()->state, 0);
    Program program;
    begin(program);
    takeLog();
    EXPECT_EQ(program.snapshot(key), 0);
    EXPECT_EQ(takeLog(), Lines{kFreezing});
    EXPECT_EQ(stateOf(program), 4u);
    EXPECT_EQ(session()->state, 1u);
    EXPECT_EQ(membersOf(session()->map), Blocks{});
    EXPECT_NE(program.key(), key);
    EXPECT_EQ(recordOf(program)->blockMap.map, nullptr);
    EXPECT_EQ(atomic_read(&curAllocAMPages), 1);
    EXPECT_EQ(program.close(), 0);
}

TEST_F(Snapshot, TheOptionNotToLoadReplacesASessionWithoutAKeyCheck)
{
    const Key key = track();
    EXPECT_EQ(sda().writeBlock(1, 5, 1), 0);
    Program program;
    begin(program);
    EXPECT_EQ(program.noLoadFromAutoMap(), 0);
    EXPECT_EQ(program.snapshot(key), 0) << "the right key makes no difference";
    EXPECT_EQ(stateOf(program), 4u);
    EXPECT_EQ(recordOf(program)->blockMap.map, nullptr);
    EXPECT_EQ(membersOf(session()->map), Blocks{});
    EXPECT_EQ(program.close(), 0);
}

TEST_F(Snapshot, AnotherBlockCountReplacesTheSessionWithAWarning)
{
    const Key key = track();
    Program program;
    begin(program, 4000);
    takeLog();
    EXPECT_EQ(program.snapshot(key), 0);
    EXPECT_EQ(takeLog(), (Lines{"<4>ioctlSnapShot: device resize detected, device has (4000) blocks and automap has "
                                "(0), resetting automap\n",
                                kFreezing}));
    EXPECT_EQ(stateOf(program), 4u);
    EXPECT_EQ(program.autoMapState().mapLen, 4000u);
    EXPECT_EQ(program.autoMapState().state, 1u);
    EXPECT_EQ(recordOf(program)->blockMap.map, nullptr);
    EXPECT_EQ(atomic_read(&curAllocAMPages), 1);
    EXPECT_EQ(program.close(), 0);
}

TEST_F(Snapshot, OfAWrongKeyAndAnotherBlockCountTheKeyIsWhatCounts)
{
    Key wrong = track();
    wrong[0] ^= 1;
    Program program;
    begin(program, 4000);
    takeLog();
    EXPECT_EQ(program.snapshot(wrong), 0);
    EXPECT_EQ(takeLog(), Lines{kMismatch});
    EXPECT_EQ(stateOf(program), 2u);
    EXPECT_EQ(session()->map.size, 4096u);
    EXPECT_EQ(program.close(), 0);
}

TEST_F(Snapshot, TheResizeWarningPrintsTheLowAndTheHighWordOfTheBlockCount)
{
    const Key key = track();
    Program program;
    begin(program);
    recordOf(program)->diskInfo.numBlocks = (7ull << 32) + 4096;
    takeLog();
    EXPECT_EQ(program.snapshot(key), 0);
    EXPECT_EQ(takeLog().front(), "<4>ioctlSnapShot: device resize detected, device has (4096) blocks and automap has "
                                 "(7), resetting automap\n");
    EXPECT_EQ(program.close(), 0);
}

TEST_F(Snapshot, WithoutMemoryForTheBackupsMapTheSessionStaysAsItWas)
{
    const Key key = track();
    EXPECT_EQ(sda().writeBlock(1, 5, 1), 0);
    Program program;
    begin(program);
    takeLog();
    hosted::faults::fail_allocation(1, unsigned(hosted::faults::Kind::page));
    EXPECT_EQ(program.snapshot(key), 5);
    EXPECT_EQ(takeLog(),
              (Lines{"<3>newBlockMap: failed allocating page number (0) for block map\n",
                     "<3>newBlockMap: Out of Memory Error.\n", "<3>ioctlSnapShot: failed to create new device map\n"}));
    EXPECT_EQ(stateOf(program), 2u);
    EXPECT_EQ(keyOf(session()), key);
    EXPECT_EQ(session()->state, 1u);
    EXPECT_EQ(membersOf(session()->map), Blocks{5});
    EXPECT_EQ(hookOf(sda()), qdrAMRF);
    EXPECT_EQ(atomic_read(&session()->users), 1);
    EXPECT_EQ(program.snapshot(key), 0) << "the same key still serves";
    EXPECT_EQ(membersOf(recordOf(program)->blockMap), Blocks{5});
    EXPECT_EQ(program.close(), 0);
}

TEST_F(Snapshot, WithoutMemoryForANewSessionTheDeviceHasNone)
{
    const Key key = track();
    set_mb(&session()->state, 0);
    Program program;
    begin(program);
    takeLog();
    hosted::faults::fail_allocation(1, unsigned(hosted::faults::Kind::kmalloc));
    EXPECT_EQ(program.snapshot(key), 5);
    EXPECT_EQ(takeLog(), (Lines{"<3>ioctlSnapShot: new automap failed\n"}));
    EXPECT_EQ(session(), nullptr) << "the old one is closed already";
    EXPECT_EQ(stateOf(program), 2u);
    EXPECT_TRUE(registryIsEmpty());
    EXPECT_EQ(program.snapshot(), 0);
    EXPECT_EQ(program.close(), 0);
}

TEST_F(Snapshot, WithoutMemoryForTheReplacementOfAResizedSessionTheDeviceHasNone)
{
    const Key key = track();
    Program program;
    begin(program, 4000);
    takeLog();
    hosted::faults::fail_allocation(1, unsigned(hosted::faults::Kind::kmalloc));
    EXPECT_EQ(program.snapshot(key), 5);
    EXPECT_EQ(takeLog(), (Lines{"<4>ioctlSnapShot: device resize detected, device has (4000) blocks and automap has "
                                "(0), resetting automap\n",
                                "<3>ioctlSnapShot: new automap failed\n"}));
    EXPECT_EQ(session(), nullptr);
    EXPECT_EQ(program.close(), 0);
}

TEST_F(Snapshot, ADeviceThatCannotBeHookedKeepsTheNewKeyAndTheOldState)
{
    const Key key = track();
    Program program;
    begin(program);
    sda().disk().unplug();
    takeLog();
    EXPECT_EQ(program.snapshot(key), 2);
    EXPECT_EQ(takeLog(), (Lines{"<3>ioctlSnapShot: device major=8 minor=1 not valid\n"}));
    EXPECT_EQ(stateOf(program), 2u);
    EXPECT_NE(keyOf(session()), key);
    EXPECT_EQ(session()->state, 1u);
    EXPECT_EQ(atomic_read(&session()->users), 1);
    EXPECT_NE(recordOf(program)->blockMap.map, nullptr) << "the backup's map stays allocated";
    EXPECT_EQ(program.close(), 0);
}

TEST_F(Snapshot, ADeviceWithoutAFileSystemKeepsTheNewKeyAndTheHook)
{
    const Key key = track();
    EXPECT_EQ(sda().writeBlock(1, 5, 1), 0);
    Program program;
    begin(program);
    hosted::unmount_file_system(sda().device(1));
    takeLog();
    EXPECT_EQ(program.snapshot(key), 2);
    EXPECT_EQ(takeLog(), (Lines{kFreezing, "<3>ioctlSnapShot: freeze_bdev could not freeze the device.\n"}));
    EXPECT_EQ(stateOf(program), 2u);
    EXPECT_NE(keyOf(session()), key);
    EXPECT_EQ(session()->state, 1u);
    EXPECT_EQ(membersOf(session()->map), Blocks{5}) << "nothing was handed over";
    EXPECT_EQ(atomic_read(&session()->users), 1);
    EXPECT_EQ(hookOf(sda()), qdrMRF);
    EXPECT_NE(recordOf(program)->blockMap.map, nullptr);
    EXPECT_EQ(program.close(), 0);
}

TEST_F(Snapshot, AFreezeThatFailsIsNotThawedAndCanBeTriedAgain)
{
    const Key key = track();
    EXPECT_EQ(sda().writeBlock(1, 5, 1), 0);
    auto fileSystem = watch();
    fileSystem->atFreeze = [] { return false; };
    Program program;
    begin(program);
    EXPECT_EQ(program.snapshot(key), 2);
    EXPECT_EQ(fileSystem->freezes, 1);
    EXPECT_EQ(fileSystem->thaws, 0);
    EXPECT_EQ(sda().writeBlock(1, 6, 1), 0);
    fileSystem->atFreeze = {};
    EXPECT_EQ(program.snapshot(program.key()), 0);
    EXPECT_EQ(stateOf(program), 4u);
    EXPECT_EQ(membersOf(recordOf(program)->blockMap), (Blocks{5, 6}));
    EXPECT_EQ(fileSystem->thaws, 1);
    EXPECT_EQ(program.close(), 0);
}

TEST_F(Snapshot, TheMapOfAFailedFreezeDoesNotPassForThatOfALaterSnapshot)
{
    for (u32 option : {QUENDREL_NO_START_AUTOMAP, QUENDREL_NO_LOAD_FROM_AUTOMAP}) {
        const Key key = track();
        EXPECT_EQ(sda().writeBlock(1, 5, 1), 0);
        Program program;
        begin(program);
        hosted::faults::fail_freeze(true);
        EXPECT_EQ(program.snapshot(key), 2);
        EXPECT_NE(recordOf(program)->blockMap.map, nullptr);
        hosted::faults::fail_freeze(false);
        EXPECT_EQ(program.command(option), 0);
        EXPECT_EQ(program.snapshot(key), 0);
        EXPECT_EQ(stateOf(program), 4u);
        takeLog();
        Bits bits(4096);
        EXPECT_EQ(program.autoMap(bits), 2) << "it would say that nothing has changed";
        EXPECT_EQ(takeLog(), (Lines{"<3>ioctlGetAutoMap: backup error automap is NULL \n"}));
        EXPECT_EQ(program.close(), 0);
    }
}

TEST_F(Snapshot, TheQueueIsHookedAndTheKeyReplacedBeforeTheFreezeAndAllElseIsDoneBeforeTheThaw)
{
    const Key key = track();
    EXPECT_EQ(sda().writeBlock(1, 5, 1), 0);
    auto fileSystem = watch();
    Program program;
    begin(program);
    bool frozen = false, thawed = false;
    fileSystem->atFreeze = [&] {
        EXPECT_EQ(hookOf(sda()), qdrMRF);
        EXPECT_NE(keyOf(session()), key);
        EXPECT_EQ(recordOf(program)->state, 2u);
        EXPECT_EQ(sda().writeBlock(1, 6, 1), 0); // what the file system flushes as it is frozen
        return frozen = true;
    };
    fileSystem->atThaw = [&] {
        EXPECT_EQ(recordOf(program)->state, 4u);
        EXPECT_EQ(down_trylock(&recordOf(program)->bSem), 1) << "the session stays taken until the thaw is over";
        EXPECT_EQ(membersOf(session()->map), Blocks{});
        thawed = true;
    };
    EXPECT_EQ(program.snapshot(key), 0);
    EXPECT_TRUE(frozen && thawed);
    EXPECT_EQ(membersOf(recordOf(program)->blockMap), (Blocks{5, 6}));
    EXPECT_EQ(program.close(), 0);
}

TEST_F(Snapshot, ASessionThatFellOutOfSyncBeforeTheFreezeStartsAfreshAndHandsOverNothing)
{
    const Key key = track();
    EXPECT_EQ(sda().writeBlock(1, 5, 1), 0);
    auto fileSystem = watch();
    Program program;
    begin(program);
    fileSystem->atFreeze = [&] {
        set_mb(&session()->state, 0);
        return true;
    };
    EXPECT_EQ(program.snapshot(key), 0);
    EXPECT_EQ(session()->state, 1u);
    EXPECT_EQ(membersOf(recordOf(program)->blockMap), Blocks{});
    EXPECT_EQ(membersOf(session()->map), Blocks{5}) << "nothing is exchanged";
    EXPECT_EQ(program.close(), 0);
}

// ---- Two files at work at once

namespace
{

// The places between a snapshot's choice of its session and the exchange of the maps at which something else may come.
enum class Place { newKey, beforeFreeze, freeze, beforeExchange };
const Place kPlaces[] = {Place::newKey, Place::beforeFreeze, Place::freeze, Place::beforeExchange};
std::string nameOf(Place place)
{
    return place == Place::newKey         ? "as the new key is made"
           : place == Place::beforeFreeze ? "between the hook and the freeze"
           : place == Place::freeze       ? "in the freeze"
                                          : "between the freeze and the exchange";
}

class TwoFiles : public Snapshot
{
  protected:
    void SetUp() override
    {
        Snapshot::SetUp();
        fileSystem = watch();
        ASSERT_EQ(other.open(), 0);
    }
    void TearDown() override
    {
        clearPlaces();
        if (other.isOpen()) {
            EXPECT_EQ(other.close(), 0);
        }
        Snapshot::TearDown();
    }
    void clearPlaces()
    {
        hosted::set_random_probe({});
        hosted::log_set_sink({});
        fileSystem->atFreeze = {};
    }

    // Takes `program`'s snapshot with `key`; at `place` another thread does `event`, once. It is over before the snapshot
    // goes on: it may wait for nothing that the snapshot holds. As the key is made, that is still the session; there the
    // event comes as far as it can: until the device's session is another one, or none, or has another key.
    int snapshotWith(Program& program, const Key& key, Place place, const std::function<void()>& event)
    {
        std::thread meanwhile;
        std::atomic<bool> come{false};
        std::atomic<bool> done{false};
        std::optional<Key> before;
        const auto once = [&] {
            if (come.exchange(true))
                return;
            before = keyInTable();
            meanwhile = std::thread([&] {
                event();
                done = true;
            });
            if (place == Place::newKey)
                eventually([&] { return keyInTable() != before; });
            else
                eventually([&] { return done.load(); });
        };
        int result = 0;
        std::atomic<bool> frozen{false};
        if (place == Place::newKey)
            hosted::set_random_probe(once);
        else if (place == Place::beforeFreeze)
            hosted::log_set_sink([&](std::string_view line) {
                if (line == kFreezing)
                    once();
            });
        else
            fileSystem->atFreeze = [&] {
                if (place == Place::freeze)
                    once();
                return frozen = true;
            };
        if (place == Place::beforeExchange) {
            Backup* b = recordOf(program);
            down_read(&b->writers); // as a request does between its decision and its hand-off
            std::thread snapshot([&] { result = program.snapshot(key); });
            eventually([&] { return frozen.load(); });
            std::this_thread::sleep_for(std::chrono::milliseconds(20)); // from the freeze to the wait for `writers`
            once();
            up_read(&b->writers);
            snapshot.join();
        } else {
            result = program.snapshot(key);
        }
        EXPECT_TRUE(come) << "nothing came";
        if (meanwhile.joinable())
            meanwhile.join();
        clearPlaces();
        return result;
    }

    // Of the device's session; nothing when it has none.
    std::optional<Key> keyInTable()
    {
        AutoMapSession* ams = getAMS(sda().device(1));
        if (!ams)
            return std::nullopt;
        Key key;
        {
            SpinGuard guard(&ams->usersLock);
            key = keyOf(ams);
        }
        putAMS(ams);
        return key;
    }

    // Makes the record of an open file one of a started backup, past the worker's count, which only one has.
    void beginBeside(Program& program)
    {
        ASSERT_EQ(program.open(), 0);
        Backup* b = recordOf(program);
        ASSERT_EQ(getDiskInfo(&b->diskInfo, sda().device(1)), 0);
        b->diskInfo.numBlocks = 4096;
        set_mb(&b->state, QUENDREL_STATE_STARTED);
    }

    // The backup stands at its snapshot and has no map of changes, which tells its program to copy everything.
    void expectNoMap(Program& program)
    {
        EXPECT_EQ(stateOf(program), 4u);
        EXPECT_EQ(recordOf(program)->blockMap.map, nullptr);
        EXPECT_EQ(atomic_read(&recordOf(program)->curAllocPages), 1) << "the cache map's page";
        Bits bits(4096);
        EXPECT_EQ(program.autoMap(bits), 2);
    }

    std::shared_ptr<WatchedFileSystem> fileSystem;
    Program other;
};

} // namespace

TEST_F(TwoFiles, AShutdownBetweenChoiceAndExchangeLeavesABackupWithoutAMap)
{
    for (const Place place : kPlaces) {
        SCOPED_TRACE(nameOf(place));
        const Key key = track();
        EXPECT_EQ(sda().writeBlock(1, 5, 1), 0);
        Program program;
        begin(program);
        EXPECT_EQ(snapshotWith(program, key, place,
                               [&] { EXPECT_EQ(other.command(QUENDREL_SHUTDOWN), 0); }),
                  0);
        expectNoMap(program);
        EXPECT_EQ(session(), nullptr);
        EXPECT_EQ(atomic_read(&curAllocAMPages), 0);
        EXPECT_EQ(program.autoMapState().state, 0u) << "nothing is tracked";
        EXPECT_EQ(program.close(), 0);
    }
}

TEST_F(TwoFiles, AShutdownBeforeTheFirstExchangeOfADeviceLeavesABackupWithoutTracking)
{
    for (const Place place : kPlaces) {
        SCOPED_TRACE(nameOf(place));
        Program program;
        begin(program);
        EXPECT_EQ(snapshotWith(program, Key{}, place,
                               [&] { EXPECT_EQ(other.command(QUENDREL_SHUTDOWN), 0); }),
                  0);
        expectNoMap(program);
        EXPECT_EQ(session(), nullptr);
        EXPECT_EQ(program.close(), 0);
    }
}

TEST_F(TwoFiles, AnotherSnapshotWithANewSessionInBetweenLeavesTheFirstOneWithoutAMap)
{
    for (const Place place : kPlaces) {
        SCOPED_TRACE(nameOf(place));
        const Key key = track();
        EXPECT_EQ(sda().writeBlock(1, 5, 1), 0);
        Program first, second;
        begin(first);
        beginBeside(second);
        EXPECT_EQ(second.noLoadFromAutoMap(), 0);
        EXPECT_EQ(snapshotWith(first, key, place, [&] { EXPECT_EQ(second.snapshot(), 0); }), 0);
        expectNoMap(first);
        ASSERT_NE(session(), nullptr);
        EXPECT_EQ(session()->state, 1u);
        EXPECT_EQ(membersOf(session()->map), Blocks{});
        EXPECT_EQ(stateOf(second), 4u);
        EXPECT_EQ(first.close(), 0);
        EXPECT_EQ(second.close(), 0);
    }
}

// Both find the key that they present. What was written since the last backup goes to one of them, whole.
TEST_F(TwoFiles, OfTwoSnapshotsWithOneKeyOneGetsTheWholeMapAndTheOtherNone)
{
    for (const Place place : kPlaces) {
        SCOPED_TRACE(nameOf(place));
        const Key key = track();
        EXPECT_EQ(sda().writeBlock(1, 5, 1), 0);
        Program first, second;
        begin(first);
        beginBeside(second);
        EXPECT_EQ(snapshotWith(first, key, place, [&] { EXPECT_EQ(second.snapshot(key), 0); }), 0);
        const bool secondHasIt = stateOf(second) == QUENDREL_STATE_SNAPSHOT;
        EXPECT_EQ(secondHasIt, place == Place::newKey) << "later, the first one's key is in place";
        if (secondHasIt) {
            expectNoMap(first);
            EXPECT_EQ(membersOf(recordOf(second)->blockMap), Blocks{5});
        } else {
            EXPECT_EQ(membersOf(recordOf(first)->blockMap), Blocks{5});
            EXPECT_EQ(stateOf(second), unsigned(QUENDREL_STATE_STARTED)) << "a wrong key";
        }
        EXPECT_EQ(membersOf(session()->map), Blocks{});
        EXPECT_EQ(atomic_read(&session()->users), 1);
        EXPECT_EQ(first.close(), 0);
        EXPECT_EQ(second.close(), 0);
    }
}

TEST_F(Snapshot, WritesUnderWayAreRecordedForOneOfTheTwoBackups)
{
    Key key = track();
    std::atomic<bool> stop{false};
    std::atomic<u32> written{0};
    std::thread writer([&] {
        for (u32 block = 0; block < 4096 && !stop; block++) {
            EXPECT_EQ(sda().writeBlock(1, block, 1), 0);
            written = block + 1;
        }
    });
    std::vector<bool> seen(4096);
    for (int round = 0; round < 5; round++) {
        const u32 before = written;
        Program program;
        begin(program);
        ASSERT_EQ(program.snapshot(key), 0);
        ASSERT_EQ(stateOf(program), 4u);
        key = program.key();
        Bits bits(4096);
        ASSERT_EQ(program.autoMap(bits), 0);
        for (u32 block : bits.members()) {
            EXPECT_FALSE(seen[block]) << "block " << block << " was handed over twice";
            seen[block] = true;
        }
        for (u32 block = 0; block < before; block++)
            EXPECT_TRUE(seen[block]) << "block " << block << " was written before the freeze of round " << round;
        ASSERT_EQ(program.close(), 0);
    }
    stop = true;
    writer.join();
    for (u32 block : membersOf(session()->map))
        seen[block] = true;
    for (u32 block = 0; block < written; block++)
        EXPECT_TRUE(seen[block]) << "block " << block << " is in no map";
}

TEST_F(Snapshot, TimesTheFreezeAndTheFrozenSpan)
{
    auto fileSystem = watch();
    Program program;
    begin(program);
    fileSystem->atFreeze = [] {
        std::this_thread::sleep_for(std::chrono::milliseconds(40));
        return true;
    };
    fileSystem->atThaw = [] { std::this_thread::sleep_for(std::chrono::milliseconds(40)); };
    EXPECT_EQ(program.snapshot(), 0);
    const auto nanoseconds = [](const kernel_timespec& t) { return s64(t.tv_sec) * 1000000000 + t.tv_nsec; };
    const s64 toFreeze = nanoseconds(recordOf(program)->eTimeToFreeze);
    const s64 inAll = nanoseconds(recordOf(program)->eTimeFrozen);
    // The clock's own grain may be that of a tick.
    EXPECT_GE(toFreeze, 25000000);
    EXPECT_GE(inAll, toFreeze + 25000000);
    EXPECT_LT(inAll, 5000000000);
    EXPECT_EQ(program.close(), 0);
}

TEST(SnapshotTimes, ADifferenceBorrowsASecondWhenItsNanosecondsFallBelowZero)
{
    const auto difference = [](kernel_timespec start, kernel_timespec end) {
        const kernel_timespec d = calcTimeDiff(&start, &end);
        return std::pair(d.tv_sec, d.tv_nsec);
    };
    EXPECT_EQ(difference(timeOf(3, 200), timeOf(5, 100)), std::pair(1, 999999900));
    EXPECT_EQ(difference(timeOf(3, 100), timeOf(5, 200)), std::pair(2, 100));
    EXPECT_EQ(difference(timeOf(3, 100), timeOf(3, 100)), std::pair(0, 0));
    EXPECT_EQ(difference(timeOf(5, 0), timeOf(3, 0)), std::pair(-2, 0)) << "nothing else is normalised";
}

// ---- The flush command

namespace
{

// A memory store that counts flushes.
class CountingStore final : public hosted::Store
{
  public:
    CountingStore(std::uint64_t bytes, std::atomic<int>& flushes)
        : memory_(hosted::make_memory_store(bytes)), flushes_(flushes)
    {
    }
    std::uint64_t size() const override { return memory_->size(); }
    void submit(hosted::StoreRequest* r) override
    {
        if (r->op == hosted::Op::flush)
            flushes_++;
        memory_->submit(r);
    }
    bool completes_inline() const override { return true; }

  private:
    std::unique_ptr<hosted::Store> memory_;
    std::atomic<int>& flushes_;
};

} // namespace

TEST_F(Snapshot, TheFlushCommandFlushesTheDeviceInAnyState)
{
    std::atomic<int> flushes{0};
    hosted::DiskConfig config;
    config.name = "sdb";
    config.first_minor = 16;
    config.store = std::make_unique<CountingStore>(1 << 20, flushes);
    config.partitions = {{1, 64, 1024}};
    auto disk = hosted::add_disk(std::move(config));
    hosted::mount_file_system(disk->device(1), 4096);
    Program program;
    ASSERT_EQ(program.open(), 0);
    EXPECT_EQ(program.command(QUENDREL_SYNC), 0) << "without a device there is nothing to flush";
    EXPECT_EQ(flushes, 0);
    ASSERT_EQ(program.start(disk->device(1), 128, 100), 0);
    EXPECT_EQ(program.command(QUENDREL_SYNC), 0);
    EXPECT_EQ(flushes, 1);
    ASSERT_EQ(down_trylock(&recordOf(program)->bSem), 0);
    EXPECT_EQ(program.command(QUENDREL_SYNC), 0) << "it takes no lock of the session";
    up(&recordOf(program)->bSem);
    EXPECT_EQ(flushes, 2);
    EXPECT_EQ(program.close(), 0);
    hosted::unmount_file_system(disk->device(1));
    EXPECT_EQ(hosted::unload_driver(), 0);
    hosted::remove_disk(disk);
}
