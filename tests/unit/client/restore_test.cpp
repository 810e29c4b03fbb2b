// SPDX-License-Identifier: GPL-2.0-only
#include "destination.h"
#include "support.h"
#include "verify.h"

#include "base/image_lock.h"

#include <fcntl.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>

#include <csignal>

namespace
{

using namespace test;

std::vector<VerifyResult> verify(const fs::path& from)
{
    Progress progress{Progress::Style::none};
    const StopSignal stop{0};
    return verifyBackups(from, progress, stop);
}

RestoreReport restore(const fs::path& from, const fs::path& to, bool force = false)
{
    Progress progress{Progress::Style::none};
    const StopSignal stop{0};
    return restoreBackup(from, to, force, progress, stop);
}

int exitOf(const std::function<void()>& action, std::string* text = nullptr)
{
    try {
        action();
    } catch (const Failure& failure) {
        if (text != nullptr)
            *text = failure.what();
        return failure.exitCode();
    }
    return 0;
}

// Random writes, zeroed blocks among them, between the backups of a chain with full ones in it.
TEST(Restore, EveryBackupOfAChainGivesTheDiskAtItsSnapshot)
{
    for (unsigned seed = 1; seed <= 5; ++seed) {
        Machine machine;
        std::mt19937 random{seed};
        std::vector<std::pair<fs::path, std::vector<std::byte>>> expected;
        for (int round = 0; round < 7; ++round) {
            const auto report = machine.backup(random() % 5 == 0 ? Wanted::full : Wanted::automatic);
            expected.emplace_back(report.backup.path, machine.driver.contents());
            for (unsigned i = random() % 200; i > 0; --i) {
                const std::uint32_t first = random() % Machine::blocks;
                const std::uint32_t last = std::min<std::uint32_t>(Machine::blocks, first + 1 + random() % 30);
                for (std::uint32_t block = first; block < last; ++block)
                    random() % 4 == 0 ? machine.driver.writeZeros(block)
                                      : machine.driver.write(block, static_cast<unsigned>(random()));
            }
        }
        for (const auto& [directory, contents] : expected)
            ASSERT_EQ(machine.restored(directory), contents) << "seed " << seed << " " << directory;
        for (const auto& result : verify(machine.directory.path()))
            EXPECT_EQ(result.problem, "");
    }
}

TEST(Restore, ImageHasExactlyTheBytesOfTheDevice)
{
    Machine machine;
    const Repository repository = Repository::openForBackup(machine.directory.path(), "sda1");
    Device device = machine.sda1();
    device.bytes += 512; // half a block more than the file system has
    Progress progress{Progress::Style::none};
    runBackup({fake::connect(machine.driver), "memory"}, repository, {device, Wanted::full, 0}, progress, machine.stop);
    restore(machine.directory.path(), machine.directory / "image");
    EXPECT_EQ(fs::file_size(machine.directory / "image"), device.bytes);
}

TEST(Restore, FileThatIsNotEmptyIsReplacedOnlyWhenForced)
{
    Machine machine;
    machine.backup();
    const fs::path image = machine.directory / "image";
    std::ofstream{image} << "precious";
    EXPECT_EQ(exitOf([&] { restore(machine.directory.path(), image); }), 3);
    EXPECT_EQ(fs::file_size(image), 8u);
    restore(machine.directory.path(), image, true);
    EXPECT_EQ(readAll(image), machine.driver.contents());
}

TEST(Restore, EmptyFileIsFilled)
{
    Machine machine;
    machine.backup();
    const fs::path image = machine.directory / "image";
    std::ofstream{image}.flush();
    restore(machine.directory.path(), image);
    EXPECT_EQ(readAll(image), machine.driver.contents());
}

TEST(Restore, DirectoryIsNoPlaceForAnImage)
{
    Machine machine;
    machine.backup();
    EXPECT_EQ(exitOf([&] { restore(machine.directory.path(), machine.directory.path()); }), 3);
}

// The file that is damaged, at a byte in its middle, in the full backup or in the incremental one.
TEST(Restore, DamageIsFoundAndLeavesNoImage)
{
    for (const char* file : {"data", "map", "sums", "manifest.json"})
        for (const bool in_full : {true, false}) {
            Machine machine;
            const auto full = machine.backup();
            for (std::uint32_t block = 100; block < 400; ++block)
                machine.driver.write(block, 8);
            const auto inc = machine.backup();
            const fs::path damaged = (in_full ? full : inc).backup.path / file;
            damage(damaged, fs::file_size(damaged) / 2);
            const fs::path image = machine.directory / "image";
            std::string text;
            EXPECT_EQ(exitOf([&] { restore(inc.backup.path, image); }, &text), 5) << damaged;
            EXPECT_NE(text.find(file), std::string::npos) << text;
            EXPECT_EQ(namesIn(machine.directory.path()), std::vector<std::string>{"sda1"});

            std::size_t problems = 0;
            for (const auto& result : verify(machine.directory.path()))
                problems += result.problem.empty() ? 0 : 1;
            EXPECT_EQ(problems, in_full ? 2u : 1u) << damaged;
        }
}

TEST(Restore, MissingLinkOfTheChainIsNamed)
{
    Machine machine;
    const auto first = machine.backup();
    machine.driver.write(1, 1);
    machine.backup();
    machine.driver.write(2, 2);
    const auto third = machine.backup();
    fs::remove_all(first.backup.path);
    std::string text;
    EXPECT_EQ(exitOf([&] { restore(third.backup.path, machine.directory / "image"); }, &text), 5);
    EXPECT_NE(text.find(first.backup.manifest.id), std::string::npos);
}

TEST(Restore, SignalLeavesNoImage)
{
    Machine machine;
    machine.backup();
    machine.stop = SIGINT;
    Progress progress{Progress::Style::none};
    EXPECT_THROW(restoreBackup(machine.directory.path(), machine.directory / "image", false, progress, machine.stop),
                 Interrupted);
    EXPECT_EQ(namesIn(machine.directory.path()), std::vector<std::string>{"sda1"});
}

TEST(Verify, OneBackupIsCheckedWithWhatItBuildsOn)
{
    Machine machine;
    const auto first = machine.backup();
    machine.driver.write(1, 1);
    const auto second = machine.backup();
    machine.backup(Wanted::full);
    const auto results = verify(second.backup.path);
    ASSERT_EQ(results.size(), 2u);
    EXPECT_EQ(results[0].id, first.backup.manifest.id);
    EXPECT_EQ(results[1].id, second.backup.manifest.id);
}

TEST(Verify, NothingToVerifyIsAnExitCodeOfItsOwn)
{
    const Directory empty;
    EXPECT_EQ(exitOf([&] { verify(empty.path()); }), 7);
    EXPECT_EQ(exitOf([&] { verify(empty / "missing"); }), 7);
}

TEST(Verify, ADirectoryThatMayNotBeReadIsNoPermissionAndNoDamage)
{
    Machine machine;
    machine.backup();
    fs::permissions(machine.directory.path(), fs::perms{0755});
    fs::permissions(machine.repository(), fs::perms::none);
    // Root may read everything.
    const uid_t me = ::geteuid();
    ASSERT_EQ(me == 0 ? ::seteuid(65534) : 0, 0);
    std::string text;
    const int exit = exitOf([&] { verify(machine.directory.path()); }, &text);
    ASSERT_EQ(::seteuid(me), 0);
    fs::permissions(machine.repository(), fs::perms::owner_all);
    EXPECT_EQ(exit, 8);
    EXPECT_EQ(text, "cannot read the directory " + machine.repository().string() + ": Permission denied");
}

TEST(Verify, ABackupWithoutItsManifestIsDamaged)
{
    Machine machine;
    const auto made = machine.backup();
    fs::remove(made.backup.path / "manifest.json");
    std::string text;
    EXPECT_EQ(exitOf([&] { verify(made.backup.path); }, &text), 5);
    EXPECT_EQ(text, (made.backup.path / "manifest.json").string() + " is missing");
    EXPECT_EQ(verify(machine.directory.path()).at(0).problem, text);
    EXPECT_EQ(exitOf([&] { restore(made.backup.path, machine.directory / "image"); }), 5);
}

TEST(Verify, DamageIsNamedInEachBackupThatBuildsOnIt)
{
    Machine machine;
    const auto full = machine.backup();
    for (std::uint32_t round = 0; round < 3; ++round) {
        machine.driver.write(round, 7);
        machine.backup();
    }
    damage(full.backup.path / "data", 0);
    const auto results = verify(machine.directory.path());
    ASSERT_EQ(results.size(), 4u);
    for (std::size_t i = 1; i < results.size(); ++i)
        EXPECT_EQ(results[i].problem, "builds on backup " + full.backup.manifest.id + ", which is damaged: " + results[0].problem);
}

TEST(Restore, AFileGetsTheModeThatTheUmaskLeaves)
{
    Machine machine;
    machine.backup();
    const mode_t before = ::umask(027);
    restore(machine.directory.path(), machine.directory / "image");
    ::umask(before);
    EXPECT_EQ(fs::status(machine.directory / "image").permissions(), fs::perms{0640});
    ::umask(0);
    restore(machine.directory.path(), machine.directory / "open");
    ::umask(before);
    EXPECT_EQ(fs::status(machine.directory / "open").permissions(), fs::perms{0666});
}

TEST(Restore, AReplacedFileKeepsItsMode)
{
    Machine machine;
    machine.backup();
    const fs::path image = machine.directory / "image";
    std::ofstream{image} << "precious";
    fs::permissions(image, fs::perms{0604});
    restore(machine.directory.path(), image, true);
    EXPECT_EQ(fs::status(image).permissions(), fs::perms{0604});
}

TEST(Restore, AnImageForWhichThereIsNoSpaceLeavesNothing)
{
    Machine machine;
    const auto report = machine.backup();
    const fs::path place = machine.directory / "place";
    fs::create_directory(place);
    const pid_t child = ::fork();
    if (child == 0) {
        std::signal(SIGXFSZ, SIG_IGN);
        const rlimit limit{1 << 20, 1 << 20};
        ::setrlimit(RLIMIT_FSIZE, &limit);
        Progress progress{Progress::Style::none};
        try {
            restoreBackup(report.backup.path, place / "image", false, progress, machine.stop);
        } catch (const Failure&) {
            ::_exit(42);
        }
        ::_exit(1);
    }
    int status = 0;
    ::waitpid(child, &status, 0);
    EXPECT_EQ(WEXITSTATUS(status), 42);
    EXPECT_EQ(namesIn(place), std::vector<std::string>{});
}

TEST(Restore, AFileThatIsOneHoleIsReplacedUnforced)
{
    Machine machine;
    machine.backup();
    const fs::path image = machine.directory / "image";
    std::ofstream{image}.flush();
    fs::resize_file(image, 1 << 20);
    restore(machine.directory.path(), image);
    EXPECT_EQ(readAll(image), machine.driver.contents());
}

TEST(Restore, WhatALinkPointsToIsReplacedAndNotTheLink)
{
    Machine machine;
    machine.backup();
    const fs::path image = machine.directory / "image";
    std::ofstream{image} << "precious";
    fs::create_symlink("image", machine.directory / "link");
    restore(machine.directory.path(), machine.directory / "link", true);
    EXPECT_TRUE(fs::is_symlink(machine.directory / "link"));
    EXPECT_EQ(readAll(image), machine.driver.contents());
}

TEST(Restore, AFileThatAppearsMeanwhileIsNotReplaced)
{
    Machine machine;
    machine.backup();
    const fs::path image = machine.directory / "image";
    Destination destination{image, 4096, false};
    std::ofstream{image} << "precious";
    std::string text;
    EXPECT_EQ(exitOf([&] { destination.finish(); }, &text), 3);
    EXPECT_EQ(text, image.string() + " has appeared meanwhile; name another file, or restore again with --force to replace it");
    EXPECT_EQ(fs::file_size(image), 8u);
}

TEST(Restore, NobodyCanServeAnImageThatIsBeingReplaced)
{
    const Directory directory;
    const fs::path image = directory / "image";
    std::ofstream{image} << "old";
    Destination destination{image, 4096, true};
    const File served{image, O_RDWR};
    EXPECT_NE(base::lock_image(served.fd(), false), "");
    destination.finish();
    EXPECT_EQ(fs::file_size(image), 4096u);
}

TEST(Restore, AnImageThatIsServedIsRefusedWhateverIsForced)
{
    Machine machine;
    machine.backup();
    const fs::path image = machine.directory / "image";
    std::ofstream{image} << "served";
    const File served{image, O_RDWR};
    ASSERT_EQ(base::lock_image(served.fd(), false), "");
    std::string text;
    EXPECT_EQ(exitOf([&] { restore(machine.directory.path(), image, true); }, &text), 3);
    EXPECT_EQ(text, image.string() + " is in use: another program (a second daemon?) serves it already; stop that one first");
    EXPECT_EQ(fs::file_size(image), 6u);
    EXPECT_EQ(namesIn(machine.directory.path()), (std::vector<std::string>{"image", "sda1"}));
}

// An increment's zeros over a full's data.
TEST(Restore, ZerosOverDataTakeNoSpaceInTheImage)
{
    Machine machine;
    machine.backup();
    for (std::uint32_t block = 512; block < 2560; ++block)
        machine.driver.writeZeros(block);
    const auto inc = machine.backup();
    const fs::path image = machine.directory / "image";
    restore(inc.backup.path, image);
    EXPECT_EQ(readAll(image), machine.driver.contents());
    struct stat st {
    };
    ASSERT_EQ(::stat(image.c_str(), &st), 0);
    EXPECT_LT(st.st_blocks * 512, 1500 * 1024);
}

} // namespace
