// SPDX-License-Identifier: GPL-2.0-only
#include "folder_hold.h"
#include "image_backup.h"
#include "image_layer.h"
#include "prune.h"
#include "support.h"
#include "verify.h"

#include <sys/resource.h>
#include <sys/wait.h>

#include <csignal>

#include <cstdlib>

namespace
{

using namespace test;

Progress quiet{Progress::Style::none};
const StopSignal never{0};

// ---- which ones

StoredBackup at(const std::string& time)
{
    StoredBackup backup;
    backup.manifest.id = time;
    backup.manifest.time = time;
    return backup;
}

// "2026-11-21T10:00:00Z last+daily" of each that is kept.
std::vector<std::string> kept(const std::vector<std::string>& times, const KeepRules& rules)
{
    std::vector<StoredBackup> backups;
    for (const std::string& time : times)
        backups.push_back(at(time));
    std::vector<std::string> result;
    for (const Choice& choice : chooseKept(backups, rules)) {
        std::string line = choice.backup.manifest.id;
        for (const std::string& reason : choice.reasons)
            line += (&reason == &choice.reasons[0] ? " " : "+") + reason;
        if (!choice.reasons.empty())
            result.push_back(line);
    }
    return result;
}

class Zone
{
  public:
    explicit Zone(const char* zone)
    {
        if (const char* before = std::getenv("TZ"))
            before_ = before;
        ::setenv("TZ", zone, 1);
        ::tzset();
    }
    ~Zone()
    {
        before_ ? ::setenv("TZ", before_->c_str(), 1) : ::unsetenv("TZ");
        ::tzset();
    }

  private:
    std::optional<std::string> before_;
};

TEST(KeepRules, LastKeepsTheNewest)
{
    EXPECT_EQ(kept({"2026-11-21T10:00:00Z", "2026-11-21T10:00:01Z", "2026-11-21T10:00:02Z"}, {.last = 2}),
              (std::vector<std::string>{"2026-11-21T10:00:01Z last", "2026-11-21T10:00:02Z last"}));
}

TEST(KeepRules, EachPeriodKeepsItsNewestAndPeriodsWithoutAnyDoNotCount)
{
    const Zone zone{"UTC"};
    EXPECT_EQ(kept({"2026-11-01T10:00:00Z", "2026-11-19T10:00:00Z", "2026-11-19T23:00:00Z", "2026-11-21T10:00:00Z", "2026-11-21T11:00:00Z"}, {.daily = 3}),
              (std::vector<std::string>{"2026-11-01T10:00:00Z daily", "2026-11-19T23:00:00Z daily", "2026-11-21T11:00:00Z daily"}));
    EXPECT_EQ(kept({"2025-12-31T10:00:00Z", "2026-01-01T10:00:00Z", "2026-01-04T10:00:00Z", "2026-01-05T10:00:00Z"}, {.weekly = 2}),
              (std::vector<std::string>{"2026-01-04T10:00:00Z weekly", "2026-01-05T10:00:00Z weekly"}))
        << "a week may have two years";
    EXPECT_EQ(kept({"2025-10-31T10:00:00Z", "2025-11-30T10:00:00Z", "2026-11-01T10:00:00Z"}, {.monthly = 2, .yearly = 2}),
              (std::vector<std::string>{"2025-11-30T10:00:00Z monthly+yearly", "2026-11-01T10:00:00Z monthly+yearly"}));
    EXPECT_EQ(kept({"2026-11-21T10:10:00Z", "2026-11-21T10:50:00Z", "2026-11-21T11:00:00Z"}, {.last = 1, .hourly = 2}),
              (std::vector<std::string>{"2026-11-21T10:50:00Z hourly", "2026-11-21T11:00:00Z last+hourly"}));
}

TEST(KeepRules, DaysAreThoseOfThisMachine)
{
    const Zone zone{"XYZ-2"};
    EXPECT_EQ(kept({"2026-11-20T21:30:00Z", "2026-11-20T22:30:00Z", "2026-11-21T21:30:00Z"}, {.daily = 5}),
              (std::vector<std::string>{"2026-11-20T21:30:00Z daily", "2026-11-21T21:30:00Z daily"}));
}

TEST(KeepRules, TheNewestIsKeptByEveryRule)
{
    for (const KeepRules& rules : {KeepRules{.last = 1}, KeepRules{.hourly = 1}, KeepRules{.daily = 1}, KeepRules{.weekly = 1}, KeepRules{.monthly = 1},
                                   KeepRules{.yearly = 1}}) {
        const auto result = kept({"2020-01-01T00:00:00Z", "2026-11-21T10:00:00Z"}, rules);
        ASSERT_EQ(result.size(), 1u);
        EXPECT_EQ(result[0].substr(0, 20), "2026-11-21T10:00:00Z");
    }
}

// ---- dropping them

class Prune : public testing::Test
{
  protected:
    Prune() { machine.images = true; }

    void change(unsigned ranges)
    {
        for (unsigned i = random() % ranges; i > 0; --i) {
            const std::uint32_t first = random() % Machine::blocks;
            const std::uint32_t last = std::min<std::uint32_t>(Machine::blocks, first + 1 + random() % 30);
            for (std::uint32_t block = first; block < last; ++block)
                random() % 4 == 0 ? machine.driver.writeZeros(block) : machine.driver.write(block, static_cast<unsigned>(random()));
        }
    }
    void backup(Wanted wanted = Wanted::automatic)
    {
        const auto report = machine.backup(wanted);
        backups.push_back(report.backup);
        expected[report.backup.manifest.id] = machine.driver.contents();
        change(40);
    }
    std::string problems() const
    {
        std::string all;
        for (const VerifyResult& result : verifyBackups(machine.repository(), quiet, never))
            all += result.problem;
        return all;
    }
    std::vector<std::string> there() const
    {
        std::vector<std::string> ids;
        for (const StoredBackup& backup : Repository{machine.repository()}.backups())
            ids.push_back(backup.manifest.id);
        return ids;
    }
    // All that is there is right, here and to QEMU, and nothing else is.
    void expectRight()
    {
        EXPECT_EQ(problems(), "");
        for (const std::string& id : there()) {
            const fs::path image = machine.repository() / (id + ".qcow2");
            const fs::path raw = machine.directory / "raw";
            ASSERT_EQ(machine.restored(image), expected[id]) << id;
            ASSERT_EQ(std::system(("qemu-img convert -O raw '" + image.string() + "' '" + raw.string() + "'").c_str()), 0);
            ASSERT_EQ(readAll(raw), expected[id]) << id;
            EXPECT_EQ(std::system(("qemu-img check -q '" + image.string() + "'").c_str()), 0);
        }
        std::vector<std::string> names = namesIn(machine.repository());
        EXPECT_EQ(names.size(), 3 * there().size()) << testing::PrintToString(names);
    }
    void merge(std::size_t first, std::size_t count, const MergeWatcher& watcher = {})
    {
        const Repository writer = Repository::openImages(machine.repository());
        const auto hold = holdForChanging(machine.repository(), {});
        const auto all = writer.backups();
        mergeBackups(machine.repository(), {all.begin() + static_cast<std::ptrdiff_t>(first), all.begin() + static_cast<std::ptrdiff_t>(first + count)}, quiet,
                     never, watcher);
    }

    // A merge whose process ends, without any clean-up, before that step. `then` is done first.
    void cutOff(std::size_t first, std::size_t count, const std::string& at, const std::function<void()>& then = {})
    {
        const pid_t child = ::fork();
        if (child == 0) {
            merge(first, count, [&](const char* step) {
                if (step != at)
                    return;
                if (then)
                    then();
                ::_exit(42);
            });
            ::_exit(1);
        }
        int status = 0;
        ::waitpid(child, &status, 0);
        ASSERT_EQ(WEXITSTATUS(status), 42);
    }

    Machine machine;
    std::mt19937 random{1};
    std::vector<StoredBackup> backups;
    std::map<std::string, std::vector<std::byte>> expected;
};

TEST_F(Prune, WhateverIsDroppedTheOthersStayAsTheyWere)
{
    for (unsigned seed = 1; seed <= 4; ++seed) {
        random.seed(seed);
        fs::remove_all(machine.repository());
        backups.clear();
        expected.clear();
        for (int round = 0; round < 8; ++round)
            backup(round == 4 && seed % 2 == 0 ? Wanted::full : Wanted::automatic);
        for (int round = 0; round < 3; ++round) {
            const auto all = there();
            if (all.size() < 2)
                break;
            const std::size_t first = random() % (all.size() - 1);
            const std::size_t count = 2 + random() % std::min<std::size_t>(3, all.size() - first - 1);
            const auto stored = Repository{machine.repository()}.backups();
            bool one_chain = true;
            for (std::size_t i = first + 1; i < first + count && i < all.size(); ++i)
                one_chain = one_chain && stored[i].manifest.mode == Mode::incremental;
            if (!one_chain || first + count > all.size())
                continue;
            merge(first, count);
            EXPECT_EQ(there().size(), all.size() - count + 1);
            expectRight();
        }
        // The chain goes on.
        const auto next = machine.backup();
        EXPECT_EQ(next.backup.manifest.mode, Mode::incremental);
        EXPECT_EQ(machine.restored(next.backup.path), machine.driver.contents());
    }
}

TEST_F(Prune, RulesAreCarriedOut)
{
    for (int round = 0; round < 6; ++round)
        backup(round == 3 ? Wanted::full : Wanted::automatic);
    const auto choices = pruneBackups(machine.repository(), {.last = 2}, false, {}, quiet, never);
    EXPECT_EQ(choices.size(), 6u);
    EXPECT_EQ(there(), (std::vector<std::string>{backups[4].manifest.id, backups[5].manifest.id}));
    EXPECT_EQ(Repository{machine.repository()}.backups()[0].manifest.mode, Mode::full);
    expectRight();
}

TEST_F(Prune, ALongRunGoesInPieces)
{
    for (int round = 0; round < 20; ++round)
        backup();
    pruneBackups(machine.repository(), {.last = 1}, false, {}, quiet, never);
    EXPECT_EQ(there(), std::vector<std::string>{backups[19].manifest.id});
    expectRight();
}

// A block that is written into a compressed image takes a whole cluster without compression.
TEST_F(Prune, NothingIsWrittenIntoACompressedFullOneAndWhatTakesItsPlaceIsCompressed)
{
    machine.compress = true;
    for (int round = 0; round < 4; ++round)
        backup();
    const fs::path full = backups[0].path;
    const std::vector<std::byte> before = readAll(full);
    merge(0, 3, [&](const char* step) {
        if (std::string{step} == "files") {
            EXPECT_EQ(readAll(full), before);
        }
    });
    const auto left = Repository{machine.repository()}.backups();
    ASSERT_EQ(left.size(), 2u);
    EXPECT_EQ(left[0].manifest.mode, Mode::full);
    EXPECT_TRUE(left[0].manifest.compressed);
    EXPECT_EQ(left[0].manifest.copiedBlocks, Machine::blocks);
    EXPECT_FALSE(left[1].manifest.compressed);
    EXPECT_EQ(std::system(("qemu-img check '" + left[0].path.string() + "' | grep -q '100.00% compressed'").c_str()), 0);
    expectRight();
}

// It is not even read until the others are one.
TEST_F(Prune, ACompressedFullOneIsWrittenAnewLastInALongRun)
{
    machine.compress = true;
    for (int round = 0; round < 24; ++round)
        backup();
    const fs::path full = backups[0].path;
    const fs::path kept = machine.directory / "kept";
    fs::copy_file(full, kept);
    for (std::uint64_t at = fs::file_size(full) / 2; at < fs::file_size(full); at += 1000)
        damage(full, at);
    EXPECT_THROW(pruneBackups(machine.repository(), {.last = 1}, false, {}, quiet, never), Failure);
    EXPECT_LE(there().size(), 24u - 14u);
    EXPECT_EQ(there()[0], backups[0].manifest.id);
    fs::rename(kept, full);
    expectRight();
    pruneBackups(machine.repository(), {.last = 1}, false, {}, quiet, never);
    EXPECT_EQ(there(), std::vector<std::string>{backups[23].manifest.id});
    expectRight();
}

TEST_F(Prune, ADryRunChangesNothing)
{
    for (int round = 0; round < 3; ++round)
        backup();
    const auto before = namesIn(machine.repository());
    const auto choices = pruneBackups(machine.repository(), {.last = 1}, true, {}, quiet, never);
    EXPECT_TRUE(choices[0].reasons.empty());
    EXPECT_EQ(choices[2].reasons, std::vector<std::string>{"last"});
    EXPECT_EQ(namesIn(machine.repository()), before);
    expectRight();
}

// The next one builds on an older backup when the newest ones cannot be read.
TEST_F(Prune, WhatTwoBuildOnStaysAndIsTakenUpWhenOneOfThemGoes)
{
    const auto backupWithout = [&](std::initializer_list<std::size_t> unreadable) {
        const auto move = [&](const char* from, const char* to) {
            for (const std::size_t i : unreadable)
                fs::rename(machine.repository() / (backups[i].manifest.id + from), machine.repository() / (backups[i].manifest.id + to));
        };
        move(".json", ".away");
        backup();
        move(".away", ".json");
    };
    for (int round = 0; round < 3; ++round)
        backup();
    backupWithout({2});
    backup();
    backupWithout({3, 4});
    const auto parentOf = [&](std::size_t i) { return backups[i].manifest.parent; };
    ASSERT_EQ(parentOf(3), backups[1].manifest.id);
    ASSERT_EQ(parentOf(4), backups[3].manifest.id);
    ASSERT_EQ(parentOf(5), backups[2].manifest.id);
    expectRight();

    const auto choices = pruneBackups(machine.repository(), {.last = 2}, false, {}, quiet, never);
    EXPECT_EQ(choices[1].reasons, std::vector<std::string>{"shared"});
    EXPECT_EQ(there(), (std::vector<std::string>{backups[1].manifest.id, backups[4].manifest.id, backups[5].manifest.id}));
    expectRight();

    pruneBackups(machine.repository(), {.last = 1}, false, {}, quiet, never);
    EXPECT_EQ(there(), std::vector<std::string>{backups[5].manifest.id});
    expectRight();
}

TEST_F(Prune, DamageStopsItBeforeAnythingChanges)
{
    for (int round = 0; round < 3; ++round)
        backup();
    for (const char* end : {".json", ".sums"}) {
        for (const StoredBackup& backup : backups) {
            const fs::path file = machine.repository() / (backup.manifest.id + end);
            const auto kept = readAll(file);
            damage(file, 40);
            const auto before = namesIn(machine.repository());
            try {
                pruneBackups(machine.repository(), {.last = 1}, false, {}, quiet, never);
                ADD_FAILURE() << file << " is damaged";
            } catch (const Failure& failure) {
                EXPECT_EQ(failure.exitCode(), 5) << failure.what();
            }
            EXPECT_EQ(namesIn(machine.repository()), before);
            std::ofstream{file, std::ios::binary}.write(reinterpret_cast<const char*>(kept.data()), static_cast<std::streamsize>(kept.size()));
        }
    }
    expectRight();
}

// As from an ailing disk.
TEST_F(Prune, AManifestThatCannotBeReadStopsItAndIsNoDamage)
{
    backup();
    backup();
    const fs::path manifest = machine.repository() / (backups[1].manifest.id + ".json");
    fs::remove(manifest);
    fs::create_symlink(std::string(300, 'x'), manifest); // an error for whoever looks
    const auto codeOf = [](const auto& action) {
        try {
            action();
        } catch (const Failure& failure) {
            EXPECT_NE(std::string{failure.what()}.find("File name too long"), std::string::npos) << failure.what();
            return failure.exitCode();
        }
        return 0;
    };
    const auto before = namesIn(machine.repository());
    EXPECT_EQ(codeOf([&] { pruneBackups(machine.repository(), {.last = 1}, false, {}, quiet, never); }), 1);
    EXPECT_EQ(codeOf([&] { findBackup(machine.repository()); }), 1);
    EXPECT_EQ(codeOf([&] { findBackup(machine.repository(), backups[1].manifest.id); }), 1);
    EXPECT_EQ(namesIn(machine.repository()), before);
}

TEST_F(Prune, WaitsForThoseWhoReadAndTheyForIt)
{
    backup();
    backup();
    {
        const auto reader = holdForReading(machine.repository());
        try {
            pruneBackups(machine.repository(), {.last = 1}, false, {}, quiet, never);
            ADD_FAILURE() << "somebody reads";
        } catch (const Failure& failure) {
            EXPECT_EQ(failure.exitCode(), 4);
            EXPECT_EQ(std::string{failure.what()}, "a backup in " + machine.repository().string() +
                                                       " is being read: restored, verified, compared, served or mounted. Wait for that to end, or give --wait");
        }
    }
    const auto writer = holdForChanging(machine.repository(), {});
    try {
        machine.restored(machine.repository());
        ADD_FAILURE() << "backups are being dropped";
    } catch (const Failure& failure) {
        EXPECT_EQ(failure.exitCode(), 4);
    }
}

TEST_F(Prune, OfFoldersIsRefusedAndLeavesNothingThere)
{
    machine.images = false;
    backup();
    const auto before = entriesOf(machine.repository());
    try {
        pruneBackups(machine.repository(), {.last = 1}, false, {}, quiet, never);
        ADD_FAILURE() << "they are folders";
    } catch (const Failure& failure) {
        EXPECT_EQ(failure.exitCode(), 3);
        EXPECT_EQ(std::string{failure.what()}, machine.repository().string() + " has folders; only from images can backups be dropped. "
                                                                               "'qbackup import' makes images of them");
    }
    EXPECT_EQ(entriesOf(machine.repository()), before);
}

TEST_F(Prune, AnImageThatQemuHasOpenIsNotWrittenInto)
{
    backup();
    backup();
    const OpenImage reader{backups[1].path, OpenImage::For::reading, std::array{backups[0].path}};
    const auto before = namesIn(machine.repository());
    EXPECT_THROW(merge(0, 2), Failure);
    EXPECT_EQ(namesIn(machine.repository()), before);
}

TEST_F(Prune, FailureBeforeTheJournalChangesNothing)
{
    for (int round = 0; round < 4; ++round)
        backup();
    for (const std::size_t first : {0u, 1u}) {
        EXPECT_THROW(merge(first, 2, [](const char* step) {
                         if (std::string{step} == "prepared")
                             throw Failure{Exit::failed, "full"};
                     }),
                     Failure);
        EXPECT_EQ(there().size(), 4u);
        expectRight();
    }
}

// What is done with the oldest one: what a full one holds is written into, others and compressed ones are written anew.
enum class Oldest { full, compressed, increment };

// Ends the process, without any clean-up, before each step in turn; and again while that is being finished.
class PruneKilledAt : public Prune, public testing::WithParamInterface<std::tuple<std::string, Oldest>>
{
};

TEST_P(PruneKilledAt, IsFinishedByTheNextCommandOrNotBegun)
{
    const auto& [at, oldest] = GetParam();
    machine.compress = oldest == Oldest::compressed;
    const std::size_t first = oldest == Oldest::increment ? 1 : 0;
    for (int round = 0; round < 5; ++round)
        backup();
    const auto killed = [&](const std::function<void(const MergeWatcher&)>& action) {
        const pid_t child = ::fork();
        if (child == 0) {
            action([&](const char* step) {
                if (step == std::get<0>(GetParam()))
                    ::_exit(42);
            });
            ::_exit(1);
        }
        int status = 0;
        ::waitpid(child, &status, 0);
        return WEXITSTATUS(status);
    };
    ASSERT_EQ(killed([&](const MergeWatcher& watcher) { merge(first, 3, watcher); }), 42);
    const bool begun = at != "prepared";
    EXPECT_EQ(isMergeUnfinished(machine.repository()), begun && at != "done");
    if (begun && at != "done")
        killed([&](const MergeWatcher& watcher) { finishMerge(machine.repository(), watcher); });
    const StoredBackup newest = findBackup(machine.repository());
    EXPECT_EQ(newest.manifest.id, backups[4].manifest.id);
    EXPECT_EQ(there().size(), begun ? 3u : 5u);
    if (!begun)
        Repository::openImages(machine.repository());
    expectRight();
}

INSTANTIATE_TEST_SUITE_P(EveryStep, PruneKilledAt,
                         testing::ValuesIn([] {
                             std::vector<std::tuple<std::string, Oldest>> all{{"data", Oldest::full}};
                             for (const char* step : {"prepared", "manifests", "image", "sums", "manifest", "files", "journal", "done"})
                                 for (const Oldest oldest : {Oldest::full, Oldest::compressed, Oldest::increment})
                                     all.emplace_back(step, oldest);
                             return all;
                         }()),
                         [](const auto& info) {
                             const Oldest oldest = std::get<1>(info.param);
                             return std::get<0>(info.param) +
                                    (oldest == Oldest::full ? "_full" : oldest == Oldest::compressed ? "_compressed" : "_increment");
                         });

// What a power cut or a kill in the midst of writing leaves of a full image is written over.
TEST_F(Prune, AFullImageThatWasHalfWrittenIntoIsFinished)
{
    for (int round = 0; round < 3; ++round)
        backup();
    cutOff(0, 3, "data");
    {
        OpenImage image{backups[0].path, OpenImage::For::writing};
        const std::vector<std::byte> other(4096, std::byte{0xee});
        const auto layers = readImageBackup(backups[2].path);
        ImageLayer layer{layers.path, besides(layers, sums_end), layers.manifest.sumsHash, layers.manifest.deviceBytes};
        const auto piece = layer.next();
        ASSERT_TRUE(piece);
        image.wait(image.write(piece->offset, other));
        image.flush();
        image.finish();
    }
    EXPECT_EQ(findBackup(machine.repository()).manifest.id, backups[2].manifest.id);
    EXPECT_EQ(there().size(), 1u);
    expectRight();
}

TEST_F(Prune, WithoutTheSpaceForItNothingChanges)
{
    for (int round = 0; round < 3; ++round)
        backup();
    const auto before = namesIn(machine.repository());
    const pid_t child = ::fork();
    if (child == 0) {
        std::signal(SIGXFSZ, SIG_IGN);
        const rlimit limit{1 << 20, 1 << 20};
        ::setrlimit(RLIMIT_FSIZE, &limit);
        try {
            merge(0, 3);
        } catch (const Failure& failure) {
            ::_exit(std::string{failure.what()}.find("cannot drop backups from " + machine.repository().string() + ": ") == 0 ? 42 : 2);
        }
        ::_exit(1);
    }
    int status = 0;
    ::waitpid(child, &status, 0);
    EXPECT_EQ(WEXITSTATUS(status), 42);
    EXPECT_EQ(namesIn(machine.repository()), before);
    EXPECT_FALSE(isMergeUnfinished(machine.repository()));
    expectRight();
}

// A copy of a folder that was made during a prune, and then again: its journal is about what is not there.
TEST_F(Prune, AJournalWithoutItsWorkGoesAndChangesNothing)
{
    for (int round = 0; round < 4; ++round)
        backup();
    for (const std::size_t first : {1u, 0u}) {
        const fs::path kept = machine.directory / "kept.json";
        cutOff(first, 2, "manifests", [&] { fs::copy_file(machine.repository() / ".merge.json", kept); });
        for (const auto& entry : fs::directory_iterator{machine.repository()})
            if (const std::string name = entry.path().filename(); name == ".merge.json" || name.starts_with(".partial-"))
                fs::remove(entry.path());
        ASSERT_EQ(there().size(), 4u);
        fs::rename(kept, machine.repository() / ".merge.json");
        settle(machine.repository());
        EXPECT_FALSE(isMergeUnfinished(machine.repository()));
        EXPECT_EQ(there().size(), 4u);
        expectRight();
    }
}

// The same of one that has some of it: the manifest, which is small, and not yet the rest.
TEST_F(Prune, AJournalWithAPartOfItsWorkGoesAndChangesNothing)
{
    for (int round = 0; round < 4; ++round)
        backup();
    for (const bool full : {false, true}) {
        for (const char* end : {".qcow2", ".sums"}) {
            cutOff(full ? 0 : 1, 2, "manifests");
            if (!fs::remove(machine.repository() / (std::string{".partial-merge"} + end)))
                fs::remove(machine.repository() / ".partial-merge.sums");
            settle(machine.repository());
            EXPECT_FALSE(isMergeUnfinished(machine.repository()));
            EXPECT_EQ(there().size(), 4u);
            expectRight();
        }
    }
}

TEST_F(Prune, WhatAMergeHasMadeIsLookedAtBeforeItTakesItsPlace)
{
    for (int round = 0; round < 4; ++round)
        backup();
    cutOff(1, 2, "image");
    damage(machine.repository() / ".partial-merge.sums", 20);
    try {
        settle(machine.repository());
        ADD_FAILURE() << "what was made is damaged";
    } catch (const Failure& failure) {
        EXPECT_EQ(failure.exitCode(), 5) << failure.what();
        EXPECT_EQ(std::string{failure.what()}.find("a prune of " + machine.repository().string() + " was cut off, and has to be finished first: "), 0u) << failure.what();
    }
    damage(machine.repository() / ".partial-merge.sums", 20);
    settle(machine.repository());
    EXPECT_EQ(there().size(), 3u);
    expectRight();
}

TEST_F(Prune, DroppingTheEndOfAChainLeavesTheRest)
{
    for (int round = 0; round < 3; ++round)
        backup();
    const Repository writer = Repository::openImages(machine.repository());
    dropBackups(machine.repository(), {backups[1], backups[2]});
    EXPECT_EQ(there(), std::vector<std::string>{backups[0].manifest.id});
    expectRight();
}

} // namespace
