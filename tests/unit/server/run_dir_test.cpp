// SPDX-License-Identifier: GPL-2.0-only
// The run directory: its lock and the description of the disks.
#include "run_dir.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <stdlib.h>
#include <sys/file.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <thread>

namespace
{

using namespace quendreld;

struct RunDirTest : testing::Test {
    std::string scratch = [] {
        std::string name = testing::TempDir() + "run-dir-XXXXXX";
        return std::string(::mkdtemp(name.data()));
    }();
    ~RunDirTest() override { std::filesystem::remove_all(scratch); }
};

TEST(DisksJson, IsExactlyTheDocumentedText)
{
    DiskRecord disk{"sda", 8, 0, 1048576, "/run/q/disks/sda", "nbd+unix:///sda?socket=/run/q/nbd.sock", {}, {}, {}, {}, "x-3", 4096};
    disk.partitions.push_back({"sda1", 8, 1, 2048, 100, FileSystemRecord{"ext4", 4096}, "x-1"});
    disk.partitions.push_back({"sda2", 8, 2, 2148, 50, std::nullopt, "x-2"});
    EXPECT_EQ(disks_to_json({disk}),
              R"({"version":1,"takeOver":true,"disks":[{"name":"sda","major":8,"minor":0,"bytes":1048576,"file":"/run/q/disks/sda",)"
              R"("nbd":"nbd+unix:///sda?socket=/run/q/nbd.sock","sectorBytes":4096,"instance":"x-3","partitions":[)"
              R"({"name":"sda1","major":8,"minor":1,"start":2048,"sectors":100,"instance":"x-1","type":"ext4",)"
              R"("blockSize":4096},{"name":"sda2","major":8,"minor":2,"start":2148,"sectors":50,"instance":"x-2"}]}]})"
              "\n");
}

TEST(DisksJson, AFailedFlushStandsOnItsDisk)
{
    const DiskRecord disk{"sda", 8, 0, 4096, "/f", "n", "Input/output error", {}, {}};
    const std::string text = disks_to_json({disk});
    EXPECT_NE(text.find(R"("nbd":"n","flushError":"Input/output error",)"), std::string::npos) << text;
    EXPECT_EQ(disks_from_json(text), std::vector<DiskRecord>{disk});
}

TEST(DisksJson, AFileSystemWithoutPartitionTableStandsOnTheDisk)
{
    const DiskRecord disk{"sdb", 8, 16, 4096, "/f", "n", {}, FileSystemRecord{"xfs", 1024}, {}};
    EXPECT_NE(disks_to_json({disk}).find(R"("type":"xfs","blockSize":1024,"partitions":[])"), std::string::npos);
    EXPECT_EQ(disks_from_json(disks_to_json({disk})), std::vector<DiskRecord>{disk});
}

TEST(DisksJson, WhatIsNoFileSystemStandsOnItsPartition)
{
    DiskRecord disk{"sda", 8, 0, 4096, "/f", "n", {}, {}, {}};
    disk.partitions.push_back({"sda1", 8, 1, 1, 2, std::nullopt, "x-1", "swap"});
    const std::string text = disks_to_json({disk});
    EXPECT_NE(text.find(R"("instance":"x-1","holds":"swap"})"), std::string::npos) << text;
    EXPECT_EQ(disks_from_json(text), std::vector<DiskRecord>{disk});
}

TEST(DisksJson, AnotherVersionIsRefused)
{
    EXPECT_ANY_THROW(disks_from_json(R"({"version":2,"disks":[]})"));
    EXPECT_ANY_THROW(disks_from_json("{"));
}

TEST_F(RunDirTest, ASecondOwnerIsToldWhoTheFirstIs)
{
    const RunDir run(scratch + "/run", RunDir::Missing::is_made);
    const base::Descriptor lock = run.take();
    write_file_whole(run.pid(), "4711\n");
    EXPECT_TRUE(run.taken());
    try {
        run.take();
        FAIL() << "taken twice";
    } catch (const std::runtime_error& error) {
        EXPECT_NE(std::string(error.what()).find("process 4711"), std::string::npos);
        EXPECT_NE(std::string(error.what()).find("quendreld stop --run-dir"), std::string::npos);
    }
}

TEST_F(RunDirTest, IsFreeAgainWhenTheLockIsGone)
{
    const RunDir run(scratch + "/run", RunDir::Missing::is_made);
    run.take();
    EXPECT_FALSE(run.taken());
    EXPECT_NO_THROW(run.take());
}

TEST_F(RunDirTest, WhoeverJustAsksWhetherItIsTakenIsWaitedFor)
{
    const RunDir run(scratch + "/run", RunDir::Missing::is_made);
    run.take();
    base::Descriptor asking(::open(run.lock().c_str(), O_RDONLY));
    ASSERT_EQ(::flock(asking.get(), LOCK_SH), 0);
    std::thread soon_done([&] {
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
        asking.reset();
    });
    EXPECT_NO_THROW(run.take());
    soon_done.join();
}

TEST_F(RunDirTest, WhoMayNotOpenItsLockLearnsFromTheDaemonsProcessWhetherItIsTaken)
{
    if (::geteuid() != 0)
        GTEST_SKIP() << "needs root, to be somebody else";
    ASSERT_EQ(::chmod(scratch.c_str(), 0755), 0);
    const RunDir run(scratch + "/run", RunDir::Missing::is_made);
    const auto as_somebody_else = [&] {
        const pid_t child = ::fork();
        if (child == 0) {
            if (::setgid(65534) != 0 || ::setuid(65534) != 0 || ::open(run.lock().c_str(), O_RDONLY) >= 0)
                ::_exit(2);
            ::_exit(RunDir(run.path()).taken() ? 1 : 0);
        }
        int status = 0;
        ::waitpid(child, &status, 0);
        return WEXITSTATUS(status);
    };
    const base::Descriptor lock = run.take();
    EXPECT_EQ(as_somebody_else(), 0) << "nothing tells who has it";
    char before[16];
    ASSERT_EQ(::prctl(PR_GET_NAME, before), 0);
    ASSERT_EQ(::prctl(PR_SET_NAME, "quendreld"), 0);
    run.write(run.pid(), std::to_string(::getpid()) + "\n");
    EXPECT_EQ(as_somebody_else(), 1);
    ASSERT_EQ(::prctl(PR_SET_NAME, "another"), 0);
    EXPECT_EQ(as_somebody_else(), 0) << "the number went to another program";
    ::prctl(PR_SET_NAME, before);
}

TEST_F(RunDirTest, StaleSocketsAndDescriptionAreRemoved)
{
    const RunDir run(scratch);
    for (const std::string& path : {run.control_socket(), run.nbd_socket(), run.disks_json(), run.pid()})
        write_file_whole(path, "x");
    run.remove_stale();
    struct stat status;
    for (const std::string& path : {run.control_socket(), run.nbd_socket(), run.disks_json(), run.pid()})
        EXPECT_NE(::stat(path.c_str(), &status), 0) << path;
}

TEST_F(RunDirTest, IsRefusedWhereSomebodyElseCouldPutThings)
{
    const auto refusal = [](const std::string& path) {
        try {
            RunDir run(path);
        } catch (const std::runtime_error& error) {
            return std::string(error.what());
        }
        return std::string("taken");
    };
    const std::string link = scratch + "/link", open = scratch + "/open", file = scratch + "/file";
    std::filesystem::create_directory_symlink(scratch, link);
    EXPECT_EQ(refusal(link), link + ": is no directory, or a symbolic link to one; name the directory itself");
    write_file_whole(file, "");
    EXPECT_EQ(refusal(file), file + ": is no directory, or a symbolic link to one; name the directory itself");
    std::filesystem::create_directory(open);
    ASSERT_EQ(::chmod(open.c_str(), 01777), 0);
    EXPECT_EQ(refusal(open), open + ": everybody may write there; use a directory of your own (chmod o-w)");
    if (::geteuid() != 0)
        return;
    ASSERT_EQ(::chown(open.c_str(), 0, 4711), 0);
    ASSERT_EQ(::chmod(open.c_str(), 0775), 0);
    EXPECT_EQ(refusal(open), open + ": group 4711 may write there; use a directory of your own (chmod g-w)");
    ASSERT_EQ(::chown(open.c_str(), 4711, gid_t(-1)), 0);
    EXPECT_EQ(refusal(open), open + ": belongs to user 4711, who could put anything there; use a directory of your own");
}

TEST_F(RunDirTest, IsTheSameDirectoryWhateverBecomesOfItsName)
{
    const RunDir run(scratch + "/run", RunDir::Missing::is_made);
    const base::Descriptor lock = run.take();
    std::filesystem::rename(scratch + "/run", scratch + "/away");
    std::filesystem::create_directory(scratch + "/run");
    run.write(run.pid(), "1\n");
    EXPECT_EQ(read_file(scratch + "/away/pid"), "1\n");
    EXPECT_EQ(run.read(run.pid()), "1\n");
    EXPECT_EQ(run.owner(), 1);
    EXPECT_TRUE(run.taken());
    run.remove_stale();
    EXPECT_FALSE(std::filesystem::exists(scratch + "/away/pid"));
    EXPECT_TRUE(std::filesystem::is_empty(scratch + "/run"));
}

} // namespace
