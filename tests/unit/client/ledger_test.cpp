// SPDX-License-Identifier: GPL-2.0-only
// What the ledger keeps between backups, and which backups it makes increments.
#include "ledger.h"
#include "support.h"

#include <sys/stat.h>

#include <csignal>
#include <utility>

namespace
{

using namespace test;
using quendrel::Bitmap;
using quendrel::SessionKey;

constexpr std::uint32_t blocks = 100000;

SessionKey key(std::uint8_t n)
{
    SessionKey result{};
    result.fill(n);
    return result;
}

Bitmap only(std::initializer_list<std::uint32_t> set)
{
    Bitmap map{blocks};
    for (const std::uint32_t block : set)
        map.set(block);
    return map;
}

std::vector<std::uint32_t> blocksOf(const std::optional<Bitmap>& map)
{
    std::vector<std::uint32_t> found;
    if (map)
        for (auto block = map->nextSet(0); block; block = map->nextSet(*block + 1))
            found.push_back(*block);
    return found;
}

struct Kept : testing::Test {
    Ledger open(const std::string& identity = "disk 1", std::uint32_t of = blocks) const
    {
        return Ledger{directory / "8:1", identity, 4096, of};
    }
    Directory directory;
};

TEST_F(Kept, NothingIsKnownAtFirst)
{
    const Ledger ledger = open();
    EXPECT_FALSE(ledger.newest());
    EXPECT_FALSE(ledger.since(key(1)));
    EXPECT_FALSE(fs::exists(directory / "8:1"));
}

TEST_F(Kept, WhatIsAskedForIsTheUnionOfAllThatFollows)
{
    {
        Ledger ledger = open();
        ledger.begin(key(1));
        ledger.add(key(2), only({5, 70000}));
        ledger.add(key(3), only({5, 6}));
    }
    const Ledger ledger = open();
    EXPECT_EQ(ledger.newest(), key(3));
    EXPECT_EQ(blocksOf(ledger.since(key(1))), (std::vector<std::uint32_t>{5, 6, 70000}));
    EXPECT_EQ(blocksOf(ledger.since(key(2))), (std::vector<std::uint32_t>{5, 6}));
    ASSERT_TRUE(ledger.since(key(3)));
    EXPECT_EQ(ledger.since(key(3))->count(), 0u);
    EXPECT_FALSE(ledger.since(key(4)));
}

TEST_F(Kept, EachEntryTellsFromWhichKeyToWhichItGoesAndWhen)
{
    Ledger ledger = open();
    ledger.begin(key(1));
    ledger.add(key(2), only({5, 70000}));
    ledger.add(key(3), only({6}));
    const auto entries = Ledger::at(directory / "8:1").value().entries();
    ASSERT_EQ(entries.size(), 2u);
    EXPECT_EQ(entries[0].from, key(1));
    EXPECT_EQ(entries[0].to, key(2));
    EXPECT_EQ(entries[0].changed, 2u);
    EXPECT_EQ(entries[1].to, key(3));
    EXPECT_EQ(entries[1].time.size(), 20u);
    EXPECT_EQ(Ledger::at(directory / "8:1")->time(), entries[1].time);
}

TEST_F(Kept, AnEntryOfSeveralThatWereUnitedGoesFromTheFirstToTheLastOfThem)
{
    Ledger ledger = open();
    ledger.begin(key(1));
    for (std::uint8_t n = 0; n < Ledger::most_links + 2; ++n)
        ledger.add(key(static_cast<std::uint8_t>(n + 2)), only({n}));
    const auto entries = ledger.entries();
    ASSERT_EQ(entries.size(), Ledger::most_links);
    EXPECT_EQ(entries[0].from, key(1));
    EXPECT_EQ(entries[0].to, key(4));
    EXPECT_EQ(entries[0].snapshots, 3u);
    EXPECT_EQ(entries[0].changed, 3u);
    EXPECT_EQ(entries[0].time.size(), 20u);
}

TEST_F(Kept, AnEntryWhoseMapIsDamagedSaysSo)
{
    Ledger ledger = open();
    ledger.begin(key(1));
    ledger.add(key(2), only({5}));
    damage(directory / "8:1/1.map", 0);
    EXPECT_FALSE(ledger.entries().at(0).changed);
}

TEST_F(Kept, WhereThereIsNoLedgerNoneIsFound)
{
    EXPECT_FALSE(Ledger::at(directory / "8:1"));
}

TEST_F(Kept, ASnapshotOfWhichNothingIsKnownForgetsAllBeforeIt)
{
    Ledger ledger = open();
    ledger.begin(key(1));
    ledger.add(key(2), only({5}));
    ledger.begin(key(3));
    EXPECT_FALSE(ledger.since(key(1)));
    EXPECT_FALSE(ledger.since(key(2)));
    EXPECT_EQ(namesIn(directory / "8:1"), std::vector<std::string>{"ledger.json"});
}

TEST_F(Kept, AnotherDiskOrSizeHasNothing)
{
    Ledger ledger = open();
    ledger.begin(key(1));
    EXPECT_TRUE(open().newest());
    EXPECT_FALSE(open("disk 2").newest());
    EXPECT_FALSE(open("disk 1", blocks + 1).newest());
    const Ledger other_blocks{directory / "8:1", "disk 1", 1024, blocks};
    EXPECT_FALSE(other_blocks.newest());
}

TEST_F(Kept, OldSnapshotsAreUnitedAndAskingFromOneOfThemLosesNothing)
{
    Ledger ledger = open();
    ledger.begin(key(0));
    for (std::uint32_t n = 1; n <= 100; ++n)
        ledger.add(key(static_cast<std::uint8_t>(n)), only({n * 10}));
    EXPECT_EQ(namesIn(directory / "8:1").size(), Ledger::most_links + 1);
    const Ledger again = open();
    for (std::uint32_t n = 0; n < 100; ++n) {
        const auto found = again.since(key(static_cast<std::uint8_t>(n)));
        ASSERT_TRUE(found) << n;
        for (std::uint32_t later = n + 1; later <= 100; ++later)
            ASSERT_TRUE(found->test(later * 10)) << n << " " << later;
    }
    EXPECT_EQ(again.since(key(0))->count(), 100u);
    EXPECT_EQ(again.since(key(99))->count(), 1u);
}

TEST_F(Kept, MapsTakeNoMoreThanTheyMayHowEverFewTheyAre)
{
    Bitmap scattered{blocks};
    for (std::uint32_t block = 0; block < blocks; block += 8192)
        scattered.set(block);
    Ledger ledger{directory / "8:1", "disk 1", 4096, blocks, 100 << 10};
    ledger.begin(key(0));
    for (std::uint8_t n = 1; n <= 20; ++n)
        ledger.add(key(n), scattered);
    EXPECT_LE(namesIn(directory / "8:1").size(), 8u);
    EXPECT_GE(namesIn(directory / "8:1").size(), 4u);
    ASSERT_TRUE(open().since(key(0)));
    EXPECT_EQ(open().since(key(0))->count(), scattered.count());
}

TEST_F(Kept, NobodyElseMayLookIn)
{
    const mode_t before = ::umask(0);
    Ledger ledger{directory / "ledger" / "8:1", "disk 1", 4096, blocks};
    ledger.begin(key(1));
    ::umask(before);
    EXPECT_EQ(fs::status(directory / "ledger").permissions(), fs::perms{0700});
    EXPECT_EQ(fs::status(directory / "ledger" / "8:1").permissions(), fs::perms{0700});
}

TEST_F(Kept, DamageIsNotKnowing)
{
    Ledger ledger = open();
    ledger.begin(key(1));
    ledger.add(key(2), only({5}));
    ledger.add(key(3), only({6}));
    damage(directory / "8:1" / "1.map", 4000);
    EXPECT_FALSE(open().since(key(1)));
    EXPECT_EQ(blocksOf(open().since(key(2))), std::vector<std::uint32_t>{6});
    fs::resize_file(directory / "8:1" / "2.map", 100);
    EXPECT_FALSE(open().since(key(2)));
    fs::resize_file(directory / "8:1" / "ledger.json", 20);
    EXPECT_FALSE(open().newest());
}

TEST_F(Kept, WhatARunThatDiedHasLeftIsTakenAwayAndNotTakenForAMap)
{
    Ledger ledger = open();
    ledger.begin(key(1));
    std::ofstream{directory / "8:1" / "1.map"} << "half";
    std::ofstream{directory / "8:1" / "7.map"} << "old";
    Ledger again = open();
    again.add(key(2), only({5}));
    EXPECT_EQ(namesIn(directory / "8:1"), (std::vector<std::string>{"1.map", "ledger.json"}));
    EXPECT_EQ(blocksOf(open().since(key(1))), std::vector<std::uint32_t>{5});
}

TEST_F(Kept, AMapOfFewBlocksTakesLittleSpaceWhateverTheDevice)
{
    constexpr std::uint32_t many = 1u << 28; // 1 TiB
    Ledger ledger{directory / "8:1", "disk", 4096, many};
    ledger.begin(key(1));
    Bitmap map{many};
    map.set(1u << 27);
    ledger.add(key(2), map);
    struct stat st {
    };
    ASSERT_EQ(::stat((directory / "8:1" / "1.map").c_str(), &st), 0);
    EXPECT_EQ(st.st_size, many / 8);
    EXPECT_LE(st.st_blocks * 512, 64 * 1024);
}

// ---- backups

struct WithLedger : testing::Test {
    WithLedger() { machine.ledger = machine.directory / "ledger"; }
    // A backup that is ended in the middle.
    void interrupt(Wanted wanted = Wanted::automatic)
    {
        machine.driver.before.set([this](std::uint32_t command) {
            if (command == QUENDREL_READ_BLOCKS)
                machine.stop = SIGTERM;
        });
        EXPECT_THROW(machine.backup(wanted), Interrupted);
        machine.driver.before.set({});
        machine.stop = 0;
    }
    // A backup: of that mode, with so many blocks, and right.
    void expectBackup(Mode mode, std::uint32_t copied)
    {
        const auto report = machine.backup();
        EXPECT_EQ(report.backup.manifest.mode, mode) << report.backup.manifest.fullReason;
        EXPECT_EQ(report.backup.manifest.copiedBlocks, copied);
        EXPECT_EQ(machine.restored(report.backup.path), machine.driver.contents());
    }
    Machine machine;
};

TEST_F(WithLedger, ABackupThatWasEndedCostsTheNextOneNothing)
{
    machine.backup();
    machine.driver.write(10, 2);
    interrupt();
    machine.driver.write(20, 2);
    interrupt();
    machine.driver.write(30, 2);
    expectBackup(Mode::incremental, 3);
    machine.driver.write(40, 2);
    expectBackup(Mode::incremental, 1);
}

TEST_F(WithLedger, AFullBackupThatWasEndedCostsTheNextIncrementNothing)
{
    machine.backup();
    machine.driver.write(10, 2);
    interrupt(Wanted::full);
    machine.driver.write(20, 2);
    expectBackup(Mode::incremental, 2);
}

TEST_F(WithLedger, OneThatCouldNotReadSaysNoMoreThanThat)
{
    machine.backup();
    machine.driver.write(10, 2);
    machine.driver.unreadable = 10;
    try {
        machine.backup();
        ADD_FAILURE() << "the backup did not fail";
    } catch (const Failure& failure) {
        EXPECT_TRUE(std::string{failure.what()}.ends_with(". Nothing was kept")) << failure.what();
    }
    machine.driver.unreadable.reset();
    machine.driver.write(20, 2);
    expectBackup(Mode::incremental, 2);
}

TEST_F(WithLedger, OneWhoseOldBlocksCouldNotBeSavedHasLostTrackingToo)
{
    machine.backup();
    machine.driver.write(10, 2);
    machine.driver.before.set([this](std::uint32_t command) {
        if (command == QUENDREL_READ_BLOCKS)
            machine.driver.fail(QUENDREL_STATE_CACHE_EXHAUSTED);
    });
    try {
        machine.backup();
        ADD_FAILURE() << "the backup did not fail";
    } catch (const Failure& failure) {
        EXPECT_TRUE(std::string{failure.what()}.ends_with(". Nothing was kept; the next backup will be a full one")) << failure.what();
    }
    machine.driver.before.set({});
    machine.driver.write(20, 2);
    expectBackup(Mode::full, Machine::blocks);
}

TEST_F(WithLedger, EachOfTwoTargetsGetsItsOwnIncrements)
{
    const Directory other;
    machine.backup();
    machine.driver.write(10, 2);
    machine.target = other.path();
    expectBackup(Mode::full, Machine::blocks);
    machine.driver.write(20, 2);
    machine.target.clear();
    expectBackup(Mode::incremental, 2);
    machine.driver.write(30, 2);
    machine.target = other.path();
    expectBackup(Mode::incremental, 2);
}

TEST_F(WithLedger, WhenTrackingWasLostEverythingIsReadOnceForEachTarget)
{
    const Directory other;
    machine.backup();
    machine.target = other.path();
    machine.driver.write(1, 2);
    machine.backup();
    machine.driver.loseTracking();
    machine.driver.write(2, 2);
    expectBackup(Mode::full, Machine::blocks);
    machine.driver.write(3, 2);
    expectBackup(Mode::incremental, 1);
    machine.target.clear();
    machine.driver.write(4, 2);
    expectBackup(Mode::full, Machine::blocks);
    machine.driver.write(5, 2);
    expectBackup(Mode::incremental, 1);
}

TEST_F(WithLedger, ADriverThatWasLoadedAnewIsNotBelieved)
{
    machine.backup();
    machine.driver.write(1, 2);
    machine.backup();
    machine.driver.forget();
    machine.driver.write(2, 2);
    expectBackup(Mode::full, Machine::blocks);
}

TEST_F(WithLedger, ASnapshotOfAnotherProgramIsNotBelieved)
{
    machine.backup();
    machine.driver.write(1, 2);
    machine.backup();
    machine.driver.write(2, 2);
    machine.driver.replaceKey();
    machine.driver.write(3, 2);
    expectBackup(Mode::full, Machine::blocks);
}

// It has come in between the snapshot and the question for the key, and what was written between the two is in no map.
TEST_F(WithLedger, ASnapshotThatAnotherProgramTookBehindOursIsNotBelieved)
{
    machine.driver.closes = 7;
    machine.backup();
    machine.driver.write(1, 2);
    machine.driver.before.set([this, once = true](std::uint32_t command) mutable {
        if (command != QUENDREL_GET_AUTOMAP || !std::exchange(once, false))
            return;
        machine.driver.write(2, 2);
        machine.driver.replaceKey();
        machine.driver.closes = 8;
    });
    EXPECT_THROW(machine.backup(), Failure);
    machine.driver.before.set({});
    machine.driver.closes = 8;
    machine.driver.write(3, 2);
    expectBackup(Mode::full, Machine::blocks);
}

TEST_F(WithLedger, AnEmptyMapEndsWhatIsKnown)
{
    machine.backup();
    machine.driver.write(1, 2);
    interrupt();
    expectBackup(Mode::full, Machine::blocks);
    machine.driver.write(2, 2);
    expectBackup(Mode::incremental, 1);
}

struct Counted : WithLedger {
    Counted()
    {
        machine.written = [this] { return counted; };
        machine.backup();
    }
    std::optional<std::string> counted = "7";
};

TEST_F(Counted, AnIdleDeviceGetsAnEmptyIncrement)
{
    expectBackup(Mode::incremental, 0);
    expectBackup(Mode::incremental, 0);
    machine.driver.write(1, 2);
    counted = "8";
    expectBackup(Mode::incremental, 1);
    expectBackup(Mode::incremental, 0);
}

TEST_F(Counted, AnIdleDeviceGetsAnImageWithoutBlocks)
{
    machine.images = true;
    fs::remove_all(machine.repository());
    machine.backup();
    expectBackup(Mode::incremental, 0);
    machine.driver.write(1, 2);
    counted = "8";
    expectBackup(Mode::incremental, 4); // what an image keeps together
}

TEST_F(Counted, AnIdleDeviceCostsAnotherTargetNothing)
{
    machine.driver.write(1, 2);
    counted = "8";
    machine.target = machine.directory / "two";
    fs::create_directory(machine.target);
    machine.backup();
    machine.backup();
    machine.target.clear();
    expectBackup(Mode::incremental, 1);
}

TEST_F(Counted, AnEmptyMapOfADeviceThatWasWrittenToIsNotBelieved)
{
    counted = "8";
    expectBackup(Mode::full, Machine::blocks);
}

TEST_F(Counted, AnEmptyMapIsNotBelievedWithoutAnAccountOfNow)
{
    counted.reset();
    expectBackup(Mode::full, Machine::blocks);
}

TEST_F(Counted, AnEmptyMapIsNotBelievedWithoutAnAccountOfThen)
{
    counted.reset();
    machine.driver.write(1, 2);
    expectBackup(Mode::incremental, 1);
    counted = "7";
    expectBackup(Mode::full, Machine::blocks);
}

TEST_F(Counted, AnEmptyMapIsNotBelievedWithoutTheSnapshotBefore)
{
    fs::remove_all(machine.ledger);
    expectBackup(Mode::full, Machine::blocks);
}

TEST_F(Counted, AnAccountOfAnotherSnapshotIsNone)
{
    // The newest that the ledger knows is not the driver's: that is the one before, which the stored backup has.
    Ledger{machine.ledger, "", Machine::block_size, Machine::blocks}.begin(key(1), "7");
    expectBackup(Mode::full, Machine::blocks);
}

// What came between the account and the snapshot is in the snapshot, or behind it.
TEST_F(Counted, AWriteThatCameWithTheSnapshotBeforeMakesTheNextEmptyMapDoubtful)
{
    machine.driver.write(1, 2);
    machine.driver.before.set([this](std::uint32_t command) {
        if (command == QUENDREL_SNAPSHOT)
            counted = "8";
    });
    expectBackup(Mode::incremental, 1);
    machine.driver.before.set({});
    expectBackup(Mode::full, Machine::blocks);
}

TEST_F(Counted, AWriteThatCameWithTheSnapshotItselfMakesItsEmptyMapDoubtful)
{
    machine.driver.before.set([this](std::uint32_t command) {
        if (command == QUENDREL_SNAPSHOT)
            counted = "8";
    });
    expectBackup(Mode::full, Machine::blocks);
}

TEST_F(Counted, AWriteThatHadWaitedInAQueueMakesAnEmptyMapDoubtful)
{
    machine.written = [this, calls = 0]() mutable { return ++calls == 3 ? "8" : counted; };
    expectBackup(Mode::full, Machine::blocks);
}

TEST_F(WithLedger, AnotherDiskIsNotBelieved)
{
    machine.instance = "one";
    machine.backup();
    machine.driver.write(1, 2);
    interrupt();
    machine.instance = "two";
    machine.driver.write(2, 2);
    expectBackup(Mode::full, Machine::blocks);
}

TEST_F(WithLedger, OneThatIsLostCostsNoMoreThanItDidWithout)
{
    machine.backup();
    machine.driver.write(1, 2);
    fs::remove_all(machine.ledger);
    expectBackup(Mode::incremental, 1);
    machine.driver.write(2, 2);
    interrupt();
    fs::remove_all(machine.ledger);
    machine.driver.write(3, 2);
    expectBackup(Mode::full, Machine::blocks);
}

TEST_F(WithLedger, ABackupWhoseLedgerCannotBeWrittenIsTakenAllTheSame)
{
    machine.backup();
    machine.driver.write(1, 2);
    fs::remove_all(machine.ledger);
    std::ofstream{machine.ledger} << "no directory";
    expectBackup(Mode::incremental, 1);
    machine.driver.write(2, 2);
    expectBackup(Mode::incremental, 1);
}

// Random writes, failures and targets: whatever happens, each backup is the disk.
TEST_F(WithLedger, WhateverHappensEachBackupIsTheDisk)
{
    for (unsigned seed = 1; seed <= 20; ++seed) {
        Machine one;
        const Directory other;
        one.ledger = one.directory / "ledger";
        std::mt19937 random{seed};
        for (int round = 0; round < 12; ++round) {
            for (unsigned i = random() % 20; i > 0; --i)
                one.driver.write(random() % Machine::blocks, static_cast<unsigned>(random()));
            one.target = random() % 2 == 0 ? fs::path{} : other.path();
            switch (random() % 6) {
            case 0: one.driver.loseTracking(); break;
            case 1: one.driver.replaceKey(); break;
            case 2: fs::remove_all(one.ledger); break;
            default: break;
            }
            const bool fails = random() % 3 == 0;
            one.driver.before.set([&](std::uint32_t command) {
                if (fails && command == QUENDREL_READ_BLOCKS)
                    one.driver.fail(QUENDREL_STATE_CACHE_EXHAUSTED);
            });
            try {
                const auto report = one.backup(random() % 5 == 0 ? Wanted::full : Wanted::automatic);
                one.driver.before.set({});
                ASSERT_EQ(one.restored(report.backup.path), one.driver.contents()) << "seed " << seed << " round " << round;
            } catch (const Failure&) {
                one.driver.before.set({});
                ASSERT_TRUE(fails) << "seed " << seed << " round " << round;
            }
        }
    }
}

} // namespace
