// SPDX-License-Identifier: GPL-2.0-only
#include "fake_server.h"
#include "run_lock.h"
#include "support.h"

#include <sys/stat.h>
#include <sys/wait.h>

namespace
{

using namespace test;

TEST(RunLock, SecondIsToldWhoHoldsIt)
{
    const Directory directory;
    const fs::path file = directory / "lock";
    const RunLock first{file, "backup of sda1"};
    try {
        const RunLock second{file, "backup of sdb1"};
        FAIL();
    } catch (const Failure& failure) {
        EXPECT_EQ(failure.exitCode(), 4);
        const std::string text = failure.what();
        EXPECT_NE(text.find("backup of sda1"), std::string::npos) << text;
        EXPECT_NE(text.find("process " + std::to_string(::getpid())), std::string::npos) << text;
    }
    EXPECT_NE(RunLock::holder(file)->find("backup of sda1"), std::string::npos);
}

TEST(RunLock, GoesWithItsHolder)
{
    const Directory directory;
    const fs::path file = directory / "lock";
    {
        const RunLock lock{file, "one"};
    }
    EXPECT_EQ(RunLock::holder(file), std::nullopt);
    EXPECT_NO_THROW(RunLock(file, "two"));
}

TEST(RunLock, TheLineOfALongerHolderBeforeLeavesNoTail)
{
    const Directory directory;
    const fs::path file = directory / "lock";
    {
        const RunLock lock{file, "backup of a device with a long name to a directory with a long name"};
    }
    const RunLock lock{file, "short"};
    const std::string text = RunLock::holder(file).value();
    EXPECT_NE(text.find(", short, since "), std::string::npos) << text;
    EXPECT_EQ(text.find('\n'), std::string::npos) << text;
    EXPECT_EQ(text.find("long name"), std::string::npos) << text;
    EXPECT_EQ(text.back(), 'Z') << text;
}

TEST(RunLock, KilledHolderHoldsNothing)
{
    const Directory directory;
    const fs::path file = directory / "lock";
    const pid_t child = ::fork();
    if (child == 0) {
        const RunLock lock{file, "one"};
        ::raise(SIGKILL);
    }
    ::waitpid(child, nullptr, 0);
    EXPECT_EQ(RunLock::holder(file), std::nullopt);
}

TEST(RunLock, WhatAKilledHolderHasLeftIsWaitedFor)
{
    const Directory directory;
    const fs::path file = directory / "lock";
    const pid_t holder = ::fork();
    if (holder == 0) {
        const RunLock lock{file, "one"};
        if (::fork() == 0) {
            ::usleep(700000); // longer than the patience with a holder that lives
            ::_exit(0);
        }
        ::raise(SIGKILL);
    }
    ::waitpid(holder, nullptr, 0);
    EXPECT_TRUE(RunLock::holder(file));
    EXPECT_NO_THROW((RunLock{file, "two"}));
}

TEST(RunLock, WhoWaitsForWhatAKilledHolderHasLeftCanBeEnded)
{
    const Directory directory;
    const fs::path file = directory / "lock";
    int ends[2];
    ASSERT_EQ(::pipe(ends), 0);
    const pid_t holder = ::fork();
    if (holder == 0) {
        const RunLock lock{file, "one"};
        ::close(ends[1]);
        char byte;
        if (::fork() == 0)
            ::_exit(::read(ends[0], &byte, 1) == 0 ? 0 : 1); // until the test ends
        ::raise(SIGKILL);
    }
    ::waitpid(holder, nullptr, 0);
    const StopSignal stop{SIGTERM};
    EXPECT_THROW((RunLock{file, "two", {}, {std::chrono::seconds{0}, &stop}}), Interrupted);
    ::close(ends[0]);
    ::close(ends[1]);
}

TEST(RunLock, GroupOfTheControlDeviceMayUseIt)
{
    const Directory directory;
    std::ofstream{directory / "control"}.flush();
    const gid_t group = ::geteuid() == 0 ? 12345 : ::getegid();
    ASSERT_EQ(::chown((directory / "control").c_str(), static_cast<uid_t>(-1), group), 0);
    const RunLock lock{directory / "lock", "one", directory / "control"};
    struct stat st {
    };
    ASSERT_EQ(::stat((directory / "lock").c_str(), &st), 0);
    EXPECT_EQ(st.st_gid, group);
    EXPECT_EQ(st.st_mode & 0777, 0660u);
}

TEST(RunLock, LookingDoesNotTakeIt)
{
    const Directory directory;
    const fs::path file = directory / "lock";
    EXPECT_EQ(RunLock::holder(file), std::nullopt);
    EXPECT_FALSE(fs::exists(file));
}

TEST(RunLock, IsRefusedWhereEverybodyCouldMakeAndHoldIt)
{
    const Directory directory;
    fs::create_directory(directory / "open");
    ASSERT_EQ(::chmod((directory / "open").c_str(), 01777), 0);
    try {
        const RunLock lock{directory / "open" / "lock", "one"};
        FAIL();
    } catch (const Failure& failure) {
        EXPECT_EQ(failure.exitCode(), 3);
        EXPECT_EQ(failure.what(), (directory / "open").string() + ", where the lock " +
                                      (directory / "open" / "lock").string() +
                                      " stands, may be written by everybody; take that permission away (chmod o-w)");
    }
    EXPECT_FALSE(fs::exists(directory / "open" / "lock"));
}

TEST(RunLock, MakesItsDirectoryForItsOwnerAlone)
{
    const Directory directory;
    const mode_t before = ::umask(0);
    const RunLock lock{directory / "new" / "lock", "one"};
    ::umask(before);
    struct stat st {
    };
    ASSERT_EQ(::stat((directory / "new").c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 0777, 0755u);
}

TEST(RunLock, WhoMayNotMakeItsDirectoryIsToldSo)
{
    const Directory directory;
    fs::permissions(directory.path(), fs::perms{0555});
    // Root may write everywhere.
    const uid_t me = ::geteuid();
    ASSERT_EQ(me == 0 ? ::seteuid(65534) : 0, 0);
    int exit = 0;
    try {
        const RunLock lock{directory / "new" / "lock", "one"};
    } catch (const Failure& failure) {
        exit = failure.exitCode();
    }
    ASSERT_EQ(::seteuid(me), 0);
    EXPECT_EQ(exit, 8);
}

TEST(RunLock, StandsBesideASocketAndInRunQuendrelForANode)
{
    const Directory directory;
    fake::Driver driver{{8, 1}, 4096, 10};
    const fake::Server server{driver, directory / "control.sock"};
    EXPECT_EQ(RunLock::placeFor(directory / "control.sock"), directory / "qbackup.lock");
    EXPECT_EQ(RunLock::placeFor("/dev/quendrel"), "/run/quendrel/qbackup.lock");
    EXPECT_EQ(RunLock::placeFor("/dev/another-name-of-it"), "/run/quendrel/qbackup.lock");
}

} // namespace
