// SPDX-License-Identifier: GPL-2.0-only
#include "support.h"

#include <sys/wait.h>

namespace
{

using namespace test;

const std::vector<std::string> commit_steps{"data", "sums", "map", "manifest", "directory", "rename", "parent", "done"};

TEST(Repository, CommitGoesThroughItsStepsInOrder)
{
    Machine machine;
    std::vector<std::string> steps;
    machine.backup(Wanted::full, [&](const char* step) { steps.emplace_back(step); });
    EXPECT_EQ(steps, commit_steps);
}

TEST(Repository, BackupHasItsNameOnlyAfterEverythingIsWritten)
{
    Machine machine;
    machine.backup(Wanted::full, [&](const char* step) {
        const bool there = !Repository{machine.repository()}.backups().empty();
        EXPECT_EQ(there, std::string{step} == "parent" || std::string{step} == "done") << step;
    });
}

// Ends the process, without any clean-up, before each step of the commit in turn.
class KilledAt : public testing::TestWithParam<std::string>
{
};

TEST_P(KilledAt, BackupIsThereWholeOrNotAtAll)
{
    Machine machine;
    const auto first = machine.backup(Wanted::full).backup.manifest.id;
    machine.driver.write(5, 77);
    const pid_t child = ::fork();
    if (child == 0) {
        machine.backup(Wanted::automatic, [&](const char* step) {
            if (step == GetParam())
                ::_exit(42);
        });
        ::_exit(1);
    }
    int status = 0;
    ::waitpid(child, &status, 0);
    ASSERT_EQ(WEXITSTATUS(status), 42);

    std::vector<DamagedBackup> damaged;
    const auto backups = Repository{machine.repository()}.backups(&damaged);
    EXPECT_TRUE(damaged.empty());
    const bool renamed = GetParam() == "parent" || GetParam() == "done";
    ASSERT_EQ(backups.size(), renamed ? 2u : 1u);
    Progress progress{Progress::Style::none};
    const fs::path image = machine.directory / "image";
    EXPECT_NO_THROW(restoreBackup(machine.repository(), image, true, progress, machine.stop));

    // The next run removes what the dead one left, and builds a chain that restores. (The fake driver of this process
    // knows nothing of the child's snapshot.)
    const auto next = machine.backup();
    EXPECT_EQ(machine.restored(next.backup.path), machine.driver.frozen());
    for (const std::string& name : namesIn(machine.repository()))
        EXPECT_FALSE(name.starts_with(".")) << name;
    EXPECT_NE(next.backup.manifest.id, first);
}

INSTANTIATE_TEST_SUITE_P(EveryStep, KilledAt, testing::ValuesIn(commit_steps),
                         [](const auto& info) { return info.param; });

TEST(Repository, FailureWhileCommittingLeavesNothing)
{
    for (const std::string at : {"data", "sums", "map", "manifest", "directory", "rename"}) {
        Machine machine;
        EXPECT_THROW(machine.backup(Wanted::full,
                                    [&](const char* step) {
                                        if (step == at)
                                            throw Failure{Exit::failed, "full"};
                                    }),
                     Failure);
        EXPECT_TRUE(namesIn(machine.repository()).empty()) << at;
    }
}

TEST(Repository, LeftoversOfDeadRunsAreRemovedAndBackupsStay)
{
    Machine machine;
    machine.backup();
    fs::create_directory(machine.repository() / ".partial-20200101T000000Z-1");
    std::ofstream{machine.repository() / ".partial-20200101T000000Z-1" / "data"} << "half";
    Repository::openForBackup(machine.directory.path(), "sda1");
    EXPECT_EQ(namesIn(machine.repository()).size(), 1u);
}

TEST(Repository, SecondWriterIsToldOfTheFirst)
{
    Directory directory;
    const Repository first = Repository::openForBackup(directory.path(), "sda1");
    try {
        Repository::openForBackup(directory.path(), "sda1");
        FAIL();
    } catch (const Failure& failure) {
        EXPECT_EQ(failure.exitCode(), 4);
    }
    EXPECT_NO_THROW(Repository::openForBackup(directory.path(), "sda2"));
}

TEST(Repository, TargetThatIsNotThereIsRefused)
{
    Directory directory;
    try {
        Repository::openForBackup(directory / "missing", "sda1");
        FAIL();
    } catch (const Failure& failure) {
        EXPECT_EQ(failure.exitCode(), 3);
    }
    EXPECT_FALSE(fs::exists(directory / "missing"));
}

TEST(Repository, AFolderWithBackupsOfADeviceIsNoTarget)
{
    Machine machine;
    machine.backup();
    try {
        Repository::openForBackup(machine.repository(), "sda1");
        FAIL() << "it was taken for a target";
    } catch (const Failure& failure) {
        EXPECT_EQ(failure.exitCode(), 3);
        EXPECT_EQ(std::string{failure.what()}, machine.repository().string() + " holds the backups of one device; name the directory above it, " +
                                                   fs::canonical(machine.directory.path()).string());
    }
    EXPECT_EQ(namesIn(machine.repository()).size(), 1u);
}

TEST(Repository, AFolderThatGotNoBackupGoesAndOneThatHasSomeStays)
{
    Machine machine;
    Repository::openForBackup(machine.directory.path(), "sda1");
    EXPECT_FALSE(fs::exists(machine.repository()));
    machine.backup();
    Repository::openForBackup(machine.directory.path(), "sda1");
    EXPECT_EQ(namesIn(machine.repository()).size(), 1u);
}

TEST(Repository, SequenceGoesOnAfterADamagedBackup)
{
    Machine machine;
    machine.backup();
    const auto second = machine.backup();
    damage(second.backup.path / "manifest.json", 30);
    EXPECT_EQ(machine.backup().backup.manifest.sequence, 3u);
}

TEST(Repository, BackupUnderAnotherNameIsNotTaken)
{
    Machine machine;
    const auto first = machine.backup();
    fs::rename(first.backup.path, machine.repository() / "000009-other");
    std::vector<DamagedBackup> damaged;
    EXPECT_TRUE(Repository{machine.repository()}.backups(&damaged).empty());
    EXPECT_EQ(damaged.size(), 1u);
}

TEST(FindBackup, TakesABackupARepositoryLatestAndATarget)
{
    Machine machine;
    const auto first = machine.backup();
    const auto second = machine.backup();
    EXPECT_EQ(findBackup(first.backup.path).manifest.id, first.backup.manifest.id);
    for (const fs::path& from : {machine.repository(), machine.repository() / "latest", machine.directory.path(),
                                 machine.directory / "latest"})
        EXPECT_EQ(findBackup(from).manifest.id, second.backup.manifest.id) << from;
}

TEST(FindBackup, WhatElseLiesInATargetHidesNoBackups)
{
    Machine machine;
    const auto made = machine.backup();
    std::ofstream{machine.directory / ".lock"}.flush();
    fs::create_directory(machine.directory / "lost+found");
    EXPECT_EQ(findRepositories(machine.directory.path()), std::vector<fs::path>{machine.repository()});
    EXPECT_EQ(findBackup(machine.directory.path()).manifest.id, made.backup.manifest.id);
    fs::create_directory(machine.repository() / "lost+found");
    std::vector<DamagedBackup> damaged;
    EXPECT_EQ(Repository{machine.repository()}.backups(&damaged).size(), 1u);
    EXPECT_TRUE(damaged.empty());
}

TEST(FindBackup, SeveralDevicesHaveToBeNamed)
{
    Machine machine;
    machine.backup();
    fs::copy(machine.repository(), machine.directory / "sdb1", fs::copy_options::recursive);
    try {
        findBackup(machine.directory.path());
        FAIL();
    } catch (const Failure& failure) {
        EXPECT_NE(std::string{failure.what()}.find("sdb1"), std::string::npos);
    }
}

TEST(FindBackup, LatestIsNotAnOlderOneWhenTheNewestIsDamaged)
{
    Machine machine;
    const auto first = machine.backup();
    const auto second = machine.backup();
    damage(second.backup.path / "manifest.json", 30);
    try {
        findBackup(machine.repository());
        FAIL();
    } catch (const Failure& failure) {
        EXPECT_EQ(failure.exitCode(), 5);
        EXPECT_NE(std::string{failure.what()}.find(first.backup.manifest.id), std::string::npos);
    }
}

} // namespace
