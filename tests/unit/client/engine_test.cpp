// SPDX-License-Identifier: GPL-2.0-only
// What the backup engine asks of the driver, when it falls back, and when it gives up.
#include "support.h"

namespace
{

using namespace test;
using Events = std::vector<std::string>;

std::size_t count(const Events& events, const std::string& name)
{
    return static_cast<std::size_t>(std::count(events.begin(), events.end(), name));
}

bool before(const Events& events, const std::string& a, const std::string& b)
{
    return std::find(events.begin(), events.end(), a) < std::find(events.begin(), events.end(), b);
}

// Runs a backup that has to fail and gives the message.
std::string failureOf(Machine& machine, Wanted wanted = Wanted::automatic, Exit code = Exit::failed)
{
    try {
        machine.backup(wanted);
    } catch (const Failure& failure) {
        EXPECT_EQ(failure.exitCode(), static_cast<int>(code)) << failure.what();
        return failure.what();
    }
    ADD_FAILURE() << "the backup did not fail";
    return {};
}

bool contains(const std::string& text, const std::string& part) { return text.find(part) != std::string::npos; }

// Calls `action` once, before the n-th command `number`.
void onCommand(Machine& machine, std::uint32_t number, int n, std::function<void()> action)
{
    machine.driver.before.set([=, seen = 0](std::uint32_t command) mutable {
        if (command == number && ++seen == n)
            action();
    });
}

TEST(Engine, FirstBackupIsFullAndSaysWhy)
{
    Machine machine;
    const auto report = machine.backup();
    EXPECT_EQ(report.backup.manifest.mode, Mode::full);
    EXPECT_TRUE(report.fellBack);
    EXPECT_TRUE(contains(report.backup.manifest.fullReason, "no earlier backup"));
    EXPECT_EQ(report.backup.manifest.copiedBlocks, Machine::blocks);
    EXPECT_EQ(machine.restored(report.backup.path), machine.driver.contents());
}

TEST(Engine, SecondBackupHoldsExactlyTheChangedBlocks)
{
    Machine machine;
    const auto first = machine.backup();
    for (const std::uint32_t block : {0u, 1u, 2u, 500u, 2998u})
        machine.driver.write(block, 9);
    const auto second = machine.backup();
    EXPECT_EQ(second.backup.manifest.mode, Mode::incremental);
    EXPECT_FALSE(second.fellBack);
    EXPECT_EQ(second.backup.manifest.parent, first.backup.manifest.id);
    EXPECT_EQ(second.backup.manifest.copiedBlocks, 5u);
    EXPECT_EQ(machine.driver.reads(), (std::vector<fake::Driver::Read>{{0, 3}, {500, 1}, {2998, 1}}));
    EXPECT_EQ(machine.restored(second.backup.path), machine.driver.contents());
}

TEST(Engine, BackupIsThePointInTimeWhateverIsWrittenMeanwhile)
{
    Machine machine;
    onCommand(machine, QUENDREL_READ_BLOCKS, 3, [&] {
        for (std::uint32_t block = 0; block < Machine::blocks; block += 2)
            machine.driver.write(block, 5);
    });
    const auto first = machine.backup();
    EXPECT_EQ(machine.restored(first.backup.path), machine.driver.frozen());
    EXPECT_NE(machine.driver.frozen(), machine.driver.contents());
    machine.driver.before.set({});
    const auto second = machine.backup();
    EXPECT_EQ(second.backup.manifest.copiedBlocks, (Machine::blocks + 1) / 2);
    EXPECT_EQ(machine.restored(second.backup.path), machine.driver.contents());
}

TEST(Engine, EveryBlockOfTheMapIsReadOnceInRunsOfAtMost256)
{
    Machine machine;
    machine.backup();
    std::vector<int> times(Machine::blocks);
    for (const auto& read : machine.driver.reads()) {
        EXPECT_LE(read.count, 256u);
        for (std::uint32_t i = 0; i < read.count; ++i)
            ++times[read.first + i];
    }
    EXPECT_EQ(times, std::vector<int>(Machine::blocks, 1));
}

TEST(Engine, AnEmptyTrackedMapIsNotTrustedAndTheBackupIsFull)
{
    Machine machine;
    const auto first = machine.backup();
    const auto second = machine.backup();
    EXPECT_EQ(second.backup.manifest.mode, Mode::full);
    EXPECT_TRUE(second.fellBack);
    EXPECT_EQ(second.backup.manifest.fullReason, "tracking names no changed block since backup " +
                                                     first.backup.manifest.id +
                                                     ", which cannot be told from tracking that was lost");
    machine.driver.write(7, 7);
    const auto third = machine.backup();
    EXPECT_EQ(third.backup.manifest.mode, Mode::incremental);
    EXPECT_EQ(third.backup.manifest.copiedBlocks, 1u);
    EXPECT_EQ(machine.restored(third.backup.path), machine.driver.contents());
}

TEST(Engine, ModeFullIsFullWithoutTheTrackedMap)
{
    Machine machine;
    machine.backup();
    const auto second = machine.backup(Wanted::full);
    EXPECT_EQ(second.backup.manifest.mode, Mode::full);
    EXPECT_FALSE(second.fellBack);
    EXPECT_EQ(count(machine.driver.events(), "NoLoadFromAutoMap"), 1u);
    machine.driver.write(1, 1);
    EXPECT_EQ(machine.backup().backup.manifest.parent, second.backup.manifest.id);
}

TEST(Engine, ModeIncWithoutAnEarlierBackupBecomesFull)
{
    Machine machine;
    const auto report = machine.backup(Wanted::incremental);
    EXPECT_EQ(report.backup.manifest.mode, Mode::full);
    EXPECT_TRUE(report.fellBack);
}

// The driver reports success for a key that does not match; only its state tells.
TEST(Engine, KeyThatDoesNotMatchGivesAFullBackup)
{
    Machine machine;
    const auto first = machine.backup();
    machine.driver.replaceKey();
    const auto second = machine.backup(Wanted::incremental);
    EXPECT_EQ(second.backup.manifest.mode, Mode::full);
    EXPECT_TRUE(second.fellBack);
    EXPECT_TRUE(contains(second.backup.manifest.fullReason, first.backup.manifest.id));
    const Events events = machine.driver.events();
    EXPECT_EQ(count(events, "SnapShot"), 2u);
    EXPECT_EQ(count(events, "NoLoadFromAutoMap"), 1u);
    machine.driver.write(3, 3);
    EXPECT_EQ(machine.backup().backup.manifest.copiedBlocks, 1u);
}

TEST(Engine, TrackingOutOfSyncGivesAFullBackup)
{
    Machine machine;
    machine.backup();
    machine.driver.loseTracking();
    machine.driver.write(11, 4); // not recorded
    const auto second = machine.backup();
    EXPECT_EQ(second.backup.manifest.mode, Mode::full);
    EXPECT_TRUE(second.fellBack);
    EXPECT_EQ(machine.restored(second.backup.path), machine.driver.contents());
}

TEST(Engine, DriverLoadedAnewGivesAFullBackup)
{
    Machine machine;
    machine.backup();
    machine.driver.forget();
    machine.driver.write(11, 4);
    const auto second = machine.backup();
    EXPECT_EQ(second.backup.manifest.mode, Mode::full);
    EXPECT_EQ(machine.restored(second.backup.path), machine.driver.contents());
}

TEST(Engine, ChainWithAMissingFileGivesAFullBackup)
{
    for (const char* missing : {"data", "map", "sums"}) {
        Machine machine;
        const auto first = machine.backup();
        fs::remove(first.backup.path / missing);
        const auto second = machine.backup();
        EXPECT_EQ(second.backup.manifest.mode, Mode::full) << missing;
        EXPECT_TRUE(contains(second.backup.manifest.fullReason, first.backup.manifest.id));
    }
}

TEST(Engine, ChainWithoutItsFullBackupGivesAFullBackup)
{
    Machine machine;
    const auto first = machine.backup();
    machine.backup();
    fs::remove_all(first.backup.path);
    EXPECT_EQ(machine.backup().backup.manifest.mode, Mode::full);
}

TEST(Engine, DeviceOfAnotherSizeGivesAFullBackup)
{
    Machine machine;
    machine.backup();
    const Repository repository = Repository::openForBackup(machine.directory.path(), "sda1");
    Device shorter = machine.sda1();
    shorter.bytes -= 10 * Machine::block_size;
    Progress progress{Progress::Style::none};
    EXPECT_THROW(runBackup({fake::connect(machine.driver), "memory"}, repository, {shorter, Wanted::automatic, 0},
                           progress, machine.stop),
                 Failure); // the fake driver's tracking keeps its own size: the mismatch is noticed, not used
    EXPECT_EQ(Repository{machine.repository()}.backups().size(), 1u);
}

// The driver's key knows nothing of it: it goes with the number.
TEST(Engine, DiskThatWasAwayGivesAFullBackup)
{
    Machine machine;
    machine.instance = "boot 1; 8:1 disk 3";
    machine.backup();
    machine.driver.write(7, 9);
    EXPECT_EQ(machine.backup().backup.manifest.mode, Mode::incremental);
    machine.driver.write(8, 9);
    machine.instance = "boot 1; 8:1 disk 4";
    const BackupReport report = machine.backup();
    EXPECT_EQ(report.backup.manifest.mode, Mode::full);
    EXPECT_TRUE(report.fellBack);
    EXPECT_NE(report.backup.manifest.fullReason.find("not there all the time"), std::string::npos);
    machine.driver.write(9, 9);
    EXPECT_EQ(machine.backup().backup.manifest.mode, Mode::incremental);
}

TEST(Engine, ChainThatDoesNotSayWhichDiskGivesAFullBackup)
{
    Machine machine;
    machine.backup();
    machine.driver.write(7, 9);
    machine.instance = "boot 1; 8:1 disk 3";
    EXPECT_EQ(machine.backup().backup.manifest.mode, Mode::full);
}

TEST(Engine, DiskReplacedDuringTheBackupFailsIt)
{
    Machine machine;
    machine.instance = "boot 1; 8:1 disk 3";
    onCommand(machine, QUENDREL_READ_BLOCKS, 2, [&] { machine.instance = "boot 1; 8:1 disk 4"; });
    EXPECT_THROW(machine.backup(), Failure);
    EXPECT_TRUE(namesIn(machine.repository()).empty());
}

TEST(Engine, ChangedMapIsFetchedBeforeAMapIsLoaded)
{
    Machine machine;
    machine.backup();
    machine.driver.write(1, 2);
    machine.backup();
    const Events events = machine.driver.events();
    EXPECT_TRUE(before(events, "GetAutoMap", "LoadBlockMap"));
    EXPECT_EQ(count(events, "map loaded over the snapshot's"), 0u);
}

TEST(Engine, OneStartOneOpenAndTheAreaGoneBeforeTheClose)
{
    Machine machine;
    machine.backup();
    const Events events = machine.driver.events();
    EXPECT_EQ(count(events, "StartBackup"), 1u);
    EXPECT_EQ(count(events, "map"), 1u);
    EXPECT_EQ(count(events, "unmap"), 1u);
    EXPECT_EQ(count(events, "close"), 1u);
    EXPECT_EQ(events.back(), "close");
}

TEST(Engine, DeviceIsClosedBeforeTheBackupIsMadeDurable)
{
    Machine machine;
    machine.backup(Wanted::full, [&](const char*) { EXPECT_FALSE(machine.driver.isOpen()); });
}

// ---- what the caller does around the snapshot

TEST(Engine, TheCallsStandRightBeforeAndRightBehindTheSnapshot)
{
    Machine machine;
    machine.backup();
    machine.driver.write(7, 2);
    machine.driver.clearEvents();
    BackupJob job = machine.job();
    Events before, after;
    job.beforeSnapshot = [&] { before = machine.driver.events(); };
    job.afterSnapshot = [&] { after = machine.driver.events(); };
    const auto report = machine.backup({fake::connect(machine.driver), "memory"}, job);
    EXPECT_EQ(report.backup.manifest.copiedBlocks, 1u);
    EXPECT_EQ(count(before, "StartBackup"), 1u);
    EXPECT_EQ(before.back(), "GetState");
    EXPECT_EQ(count(before, "SnapShot"), 0u);
    EXPECT_EQ(count(after, "SnapShot"), 1u);
    EXPECT_EQ(after[before.size()], "SnapShot");
    EXPECT_EQ(count(after, "LoadBlockMap") + count(after, "map"), 0u);
}

// Runs a backup with calls around its snapshot that has to fail; which of them were made, and whether there was a snapshot.
Events callsOf(Machine& machine, const std::function<void()>& before)
{
    Events calls;
    machine.driver.clearEvents();
    BackupJob job = machine.job();
    job.beforeSnapshot = [&] {
        calls.emplace_back("before");
        before();
    };
    job.afterSnapshot = [&] {
        for (std::size_t i = 0; i < count(machine.driver.events(), "SnapShot"); ++i)
            calls.emplace_back("snapshot");
        calls.emplace_back("after");
    };
    EXPECT_THROW(machine.backup({fake::connect(machine.driver), "memory"}, job), Failure);
    EXPECT_FALSE(machine.driver.isOpen());
    return calls;
}

TEST(Engine, AFailureOfTheFirstCallIsTheBackupsAndCostsTheNextOneNothing)
{
    Machine machine;
    machine.ledger = machine.directory / "ledger";
    machine.backup();
    machine.driver.write(7, 2);
    EXPECT_EQ(callsOf(machine, [] { throw Failure{Exit::failed, "not now"}; }), (Events{"before", "after"}));
    EXPECT_EQ(namesIn(machine.repository()).size(), 1u);
    EXPECT_EQ(machine.backup().backup.manifest.mode, Mode::incremental);
}

TEST(Engine, TheSecondCallIsMadeWhenTheSnapshotFails)
{
    Machine machine;
    onCommand(machine, QUENDREL_GET_STATE, 2, [&] { machine.driver.fail(QUENDREL_STATE_CACHE_EXHAUSTED); });
    EXPECT_EQ(callsOf(machine, [] {}), (Events{"before", "snapshot", "after"}));
}

TEST(Engine, ASignalDuringTheFirstCallEndsTheRunWithoutASnapshot)
{
    Machine machine;
    EXPECT_EQ(callsOf(machine, [&] { machine.stop = SIGTERM; }), (Events{"before", "after"}));
}

TEST(Engine, NoCallIsMadeWhenTheRunIsToEndAlready)
{
    Machine machine;
    onCommand(machine, QUENDREL_START_BACKUP, 1, [&] { machine.stop = SIGTERM; });
    EXPECT_EQ(callsOf(machine, [] {}), Events{});
}

TEST(Engine, NoCallIsMadeForABackupThatIsRefused)
{
    Machine machine;
    machine.driver.mounted = false;
    EXPECT_EQ(callsOf(machine, [] {}), Events{});
}

// ---- failures: nothing is kept, and the next backup is full and right

void expectFullNext(Machine& machine)
{
    machine.driver.before.set({});
    machine.driver.unreadable.reset();
    machine.driver.write(1234, 99);
    const auto next = machine.backup();
    EXPECT_EQ(next.backup.manifest.mode, Mode::full);
    EXPECT_EQ(machine.restored(next.backup.path), machine.driver.contents());
}

TEST(Engine, ARunThatWasKilledAndIsStillBeingClosedIsWaitedFor)
{
    Machine machine;
    machine.driver.busy_starts = 3;
    auto job = machine.job();
    job.reopen = [&] { return quendrel::ControlDevice{fake::connect(machine.driver), "memory"}; };
    const auto report = machine.backup(quendrel::ControlDevice{fake::connect(machine.driver), "memory"}, job);
    EXPECT_EQ(machine.restored(report.backup.path), machine.driver.contents());
    EXPECT_EQ(count(machine.driver.events(), "close"), 4u) << "each on a file of its own";
}

TEST(Engine, ABusyDriverIsAnErrorWhereNothingIsBeingClosed)
{
    Machine machine;
    machine.driver.busy_starts = 1;
    EXPECT_TRUE(contains(failureOf(machine, Wanted::automatic, Exit::busy), "another backup is running"));
    EXPECT_TRUE(namesIn(machine.repository()).empty());
}

TEST(Engine, FullCacheFailsTheBackupAndNamesTheRemedy)
{
    Machine machine;
    machine.backup();
    for (std::uint32_t block = 0; block < Machine::blocks; block += 2)
        machine.driver.write(block, 3);
    onCommand(machine, QUENDREL_READ_BLOCKS, 5, [&] { machine.driver.fail(QUENDREL_STATE_CACHE_EXHAUSTED); });
    EXPECT_TRUE(contains(failureOf(machine), "allow more cache blocks"));
    EXPECT_EQ(namesIn(machine.repository()).size(), 1u);
    const Events events = machine.driver.events();
    EXPECT_EQ(count(events, "unmap"), 1u);
    EXPECT_EQ(count(events, "close with areas mapped"), 0u);
    expectFullNext(machine);
}

TEST(Engine, ANewerBackupThatCannotBeReadIsNamedByTheOneThatBuildsOnAnOlderOne)
{
    Machine machine;
    machine.images = true;
    const auto first = machine.backup();
    machine.driver.write(3, 3);
    const auto second = machine.backup();
    machine.driver.write(4, 4);
    const fs::path manifest = machine.repository() / (second.backup.manifest.id + ".json");
    fs::remove(manifest);
    testing::internal::CaptureStderr();
    const auto third = machine.backup();
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "qbackup: warning: a backup that is newer than " + first.backup.manifest.id +
                                                          " cannot be read, and is not built on: " + manifest.string() + " is missing\n");
    EXPECT_EQ(third.backup.manifest.parent, first.backup.manifest.id);
    EXPECT_EQ(machine.restored(third.backup.path), machine.driver.contents());
}

// A newer program may keep things there that this one does not know of.
TEST(Engine, NothingIsBackedUpBesideABackupOfANewerFormat)
{
    for (const Wanted wanted : {Wanted::automatic, Wanted::full, Wanted::incremental}) {
        Machine machine;
        machine.images = true;
        machine.backup();
        machine.driver.write(3, 3);
        const auto second = machine.backup();
        const fs::path manifest = machine.repository() / (second.backup.manifest.id + ".json");
        std::string text = readText(manifest);
        text.replace(text.find("\"format\": 2"), 11, "\"format\": 3");
        std::ofstream{manifest} << text;
        const auto before = namesIn(machine.repository());
        try {
            machine.backup(wanted);
            FAIL();
        } catch (const Failure& failure) {
            EXPECT_EQ(failure.exitCode(), 3);
            EXPECT_EQ(failure.what(), manifest.string() + " is of format version 3, which this program does not know; use a newer qbackup. Nothing was backed up");
        }
        EXPECT_EQ(count(machine.driver.events(), "StartBackup"), 0u);
        EXPECT_EQ(namesIn(machine.repository()), before);
    }
}

TEST(Engine, ACacheThatIsFullBeforeTheMapIsLoadedNamesTheRemedy)
{
    Machine machine;
    machine.backup();
    machine.driver.write(3, 3);
    onCommand(machine, QUENDREL_LOAD_BLOCK_MAP, 1, [&] { machine.driver.fail(QUENDREL_STATE_CACHE_EXHAUSTED); });
    const std::string message = failureOf(machine);
    EXPECT_TRUE(contains(message, "allow more cache blocks")) << message;
    EXPECT_EQ(namesIn(machine.repository()).size(), 1u);
    expectFullNext(machine);
}

TEST(Engine, UnreadableBlockFailsTheBackupAndNamesTheDevice)
{
    Machine machine;
    machine.driver.unreadable = 700;
    const std::string message = failureOf(machine);
    EXPECT_TRUE(contains(message, "8:1")) << message;
    EXPECT_TRUE(contains(message, "check the device")) << message;
    EXPECT_TRUE(namesIn(machine.repository()).empty());
    expectFullNext(machine);
}

TEST(Engine, StateLostAfterTheLastReadFailsTheBackup)
{
    Machine machine;
    machine.backup();
    machine.driver.write(5, 5);
    // The state is asked for after start, snapshot, map and last block.
    onCommand(machine, QUENDREL_GET_STATE, 5, [&] { machine.driver.fail(QUENDREL_STATE_READ_FAILED); });
    EXPECT_TRUE(contains(failureOf(machine), "state is 8"));
    EXPECT_EQ(namesIn(machine.repository()).size(), 1u);
    expectFullNext(machine);
}

TEST(Engine, TrackingLostDuringTheBackupFailsIt)
{
    Machine machine;
    onCommand(machine, QUENDREL_READ_BLOCKS, 2, [&] { machine.driver.loseTracking(); });
    EXPECT_TRUE(contains(failureOf(machine), "out of sync"));
    EXPECT_TRUE(namesIn(machine.repository()).empty());
    expectFullNext(machine);
}

TEST(Engine, KeyChangedDuringTheBackupFailsIt)
{
    Machine machine;
    machine.backup();
    machine.driver.write(5, 5);
    onCommand(machine, QUENDREL_READ_BLOCKS, 1, [&] { machine.driver.replaceKey(); });
    EXPECT_TRUE(contains(failureOf(machine), "another program took a snapshot"));
    EXPECT_EQ(namesIn(machine.repository()).size(), 1u);
    expectFullNext(machine);
}

TEST(Engine, AnotherFilesCloseDuringTheBackupFailsIt)
{
    Machine machine;
    machine.driver.closes = 7;
    onCommand(machine, QUENDREL_READ_BLOCKS, 1, [&] { machine.driver.closes = 8; });
    EXPECT_TRUE(contains(failureOf(machine), "another program closed the control device"));
    EXPECT_TRUE(namesIn(machine.repository()).empty());
    expectFullNext(machine);
}

TEST(Engine, DeviceWithoutAMountedFileSystemIsRefused)
{
    Machine machine;
    machine.driver.mounted = false;
    EXPECT_TRUE(contains(failureOf(machine, Wanted::automatic, Exit::refused), "no mounted file system"));
    EXPECT_TRUE(namesIn(machine.repository()).empty());
}

TEST(Engine, SignalEndsTheRunCleanly)
{
    Machine machine;
    onCommand(machine, QUENDREL_READ_BLOCKS, 2, [&] { machine.stop = SIGTERM; });
    try {
        machine.backup();
        FAIL();
    } catch (const Interrupted& interrupted) {
        EXPECT_EQ(interrupted.exitCode(), 128 + SIGTERM);
    }
    EXPECT_TRUE(namesIn(machine.repository()).empty());
    EXPECT_FALSE(machine.driver.isOpen());
    EXPECT_EQ(count(machine.driver.events(), "close with areas mapped"), 0u);
    machine.stop = 0;
    expectFullNext(machine);
}

TEST(Engine, CommandThatFailsLeavesNothingWhicheverItIs)
{
    for (const std::uint32_t number :
         {QUENDREL_GET_BLOCK_SIZE, QUENDREL_START_BACKUP, QUENDREL_SNAPSHOT, QUENDREL_GET_STATE,
          QUENDREL_GET_AUTOMAP_STATE, QUENDREL_LOAD_BLOCK_MAP, QUENDREL_READ_BLOCKS}) {
        Machine machine;
        onCommand(machine, number, 1, [] { throw quendrel::Error{"command", "8:1", "memory", QUENDREL_NO_MEMORY}; });
        EXPECT_THROW(machine.backup(), Failure) << std::hex << number;
        EXPECT_TRUE(namesIn(machine.repository()).empty()) << std::hex << number;
        EXPECT_FALSE(machine.driver.isOpen());
        expectFullNext(machine);
    }
}

} // namespace
