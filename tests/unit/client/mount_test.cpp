// SPDX-License-Identifier: GPL-2.0-only
// Backups that are mounted: the files in them, and that nothing is left whatever ends. Needs root, loop devices and
// FUSE.
#include "host_blocks.h"
#include "program.h"

#include <spawn.h>
#include <sys/stat.h>
#include <unistd.h>

#include <csignal>
#include <cstdlib>

extern char** environ;

namespace
{

using namespace test;

const std::string letter = "the letter, as it was at the snapshot\n";

class Mount : public Program
{
  protected:
    Mount()
    {
        fs::create_directory(directory);
        fs::create_directory(machine.directory / "files");
        std::ofstream{machine.directory / "files/letter"} << letter;
        EXPECT_EQ(call({"init", target}).code, 0);
        int ends[2];
        EXPECT_EQ(::pipe2(ends, O_CLOEXEC), 0);
        posix_spawn_file_actions_t actions;
        ::posix_spawn_file_actions_init(&actions);
        ::posix_spawn_file_actions_adddup2(&actions, ends[0], STDIN_FILENO);
        const std::string script = UNMOUNT_SCRIPT;
        const std::string dir = directory.string();
        const std::string where = place.string();
        const std::string seconds = "110";
        char* const words[] = {const_cast<char*>(script.c_str()), const_cast<char*>(dir.c_str()),
                               const_cast<char*>(where.c_str()), const_cast<char*>(seconds.c_str()), nullptr};
        EXPECT_EQ(::posix_spawn(&watchdog, script.c_str(), &actions, nullptr, words, environ), 0);
        ::posix_spawn_file_actions_destroy(&actions);
        ::close(ends[0]);
        alive = ends[1];
    }
    ~Mount() override
    {
        ::close(alive);
        int status = 0;
        ::waitpid(watchdog, &status, 0);
    }
    void SetUp() override
    {
        if (::geteuid() != 0 || ::access("/dev/fuse", R_OK | W_OK) != 0 ||
            ::access("/dev/loop-control", R_OK | W_OK) != 0)
            GTEST_SKIP() << "this takes root, /dev/fuse and /dev/loop-control";
    }

    // A command line that has to succeed.
    void must(const std::string& line) { ASSERT_EQ(std::system((line + " >/dev/null 2>&1").c_str()), 0) << line; }
    // An ext4 with the letter, on all of the device.
    fs::path fileSystem()
    {
        const fs::path image = machine.directory / "ext4";
        must("mkfs.ext4 -F -q -b 1024 -d '" + (machine.directory / "files").string() + "' '" + image.string() + "' " +
             std::to_string(Machine::blocks) + "k");
        return image;
    }
    json take(const fs::path& disk)
    {
        machine.driver.writeAt(0, readAll(disk));
        const Result taken = call({"backup", "sda1", "--to", target, "--host", "tern", "--json"});
        EXPECT_EQ(taken.code, 0) << taken.err;
        return taken.document();
    }
    Result mount(std::vector<std::string> more = {})
    {
        std::vector<std::string> words{"mount", target, directory};
        words.insert(words.end(), more.begin(), more.end());
        return call(words);
    }
    Result umount() { return call({"umount", directory}); }
    bool isMounted(const fs::path& point) const { return HostBlocks{}.isMountPoint(point); }
    pid_t stays() const { return std::stoi(readText(place / "lock")); }
    // Nothing of it is there any more, within the time that the process may take.
    void expectGone()
    {
        for (int i = 0; i < 200 && fs::exists(place); ++i)
            std::this_thread::sleep_for(std::chrono::milliseconds{50});
        EXPECT_FALSE(fs::exists(place));
        EXPECT_FALSE(isMounted(directory));
        EXPECT_FALSE(isMounted(place / "disk"));
        for (const auto& entry : fs::directory_iterator{"/sys/block"}) {
            std::error_code none;
            if (fs::exists(entry.path() / "loop/backing_file", none)) {
                std::string file;
                std::getline(std::ifstream{entry.path() / "loop/backing_file"}, file);
                EXPECT_FALSE(file.starts_with(place.string())) << file;
            }
        }
    }

    fs::path target = machine.directory / "repository";
    fs::path directory = fs::canonical(machine.directory.path()) / "mounted";
    fs::path place = "/run/quendrel/mounts/" + hashText(asBytes(directory.string())).substr(0, 16);
    pid_t watchdog = -1;
    int alive = -1; // the watchdog's standard input
};

TEST_F(Mount, ShowsTheFilesAsTheyWereAndUmountLeavesNothing)
{
    const json taken = take(fileSystem());
    const Result mounted = mount({"--json"});
    ASSERT_EQ(mounted.code, 0) << mounted.err;
    EXPECT_EQ(mounted.document()["id"], taken["id"]);
    EXPECT_EQ(readText(directory / "letter"), letter);
    EXPECT_NE(std::system(("touch '" + (directory / "new").string() + "' 2>/dev/null").c_str()), 0);
    const Result ended = umount();
    EXPECT_EQ(ended.code, 0) << ended.err;
    expectGone();
}

TEST_F(Mount, WithoutALoopDeviceShowsTheSame)
{
    take(fileSystem());
    const Result mounted = mount({"--fuse"});
    ASSERT_EQ(mounted.code, 0) << mounted.err;
    EXPECT_EQ(readText(directory / "letter"), letter);
    EXPECT_EQ(umount().code, 0);
    expectGone();
}

TEST_F(Mount, OfAnOlderBackupShowsThatOne)
{
    const json first = take(fileSystem());
    std::ofstream{machine.directory / "files/letter"} << "a later one\n";
    take(fileSystem());
    ASSERT_EQ(mount({"--at", first["id"]}).code, 0);
    EXPECT_EQ(readText(directory / "letter"), letter);
    EXPECT_EQ(umount().code, 0);
}

TEST_F(Mount, EndsWhenTheDirectoryIsUnmountedByWhomever)
{
    take(fileSystem());
    ASSERT_EQ(mount().code, 0);
    must("umount '" + directory.string() + "'");
    expectGone();
}

TEST_F(Mount, KeepsTheBackupsFromBeingDropped)
{
    const json first = take(fileSystem());
    machine.driver.write(2000, 7);
    ASSERT_EQ(call({"backup", "sda1", "--to", target, "--host", "tern"}).code, 0);
    ASSERT_EQ(mount().code, 0);
    EXPECT_EQ(call({"prune", "--from", target, "--keep-last", "1"}).code, 4);
    // QEMU's own locks do, too.
    fs::remove(target / "tern/sda1/.hold");
    EXPECT_NE(call({"prune", "--from", target, "--keep-last", "1"}).code, 0);
    EXPECT_EQ(readText(directory / "letter"), letter);
    EXPECT_EQ(umount().code, 0);
    EXPECT_EQ(call({"prune", "--from", target, "--keep-last", "1"}).code, 0);
    EXPECT_EQ(call({"list", "--from", target, "--json"}).lines().size(), 1u);
}

TEST_F(Mount, WhoseProcessIsKilledLetsNobodyWaitAndUmountTakesAwayTheRest)
{
    take(fileSystem());
    ASSERT_EQ(mount().code, 0);
    ::kill(stays(), SIGKILL);
    must("timeout 20 cat '" + (directory / "letter").string() + "'; [ $? -ne 124 ]");
    EXPECT_EQ(umount().code, 0);
    expectGone();
}

TEST_F(Mount, WhoseProcessIsKilledCanBeMadeAnew)
{
    take(fileSystem());
    ASSERT_EQ(mount().code, 0);
    ::kill(stays(), SIGKILL);
    Result again = mount();
    for (int i = 0; i < 40 && again.code == 3; ++i) { // until it has ended
        std::this_thread::sleep_for(std::chrono::milliseconds{50});
        again = mount();
    }
    ASSERT_EQ(again.code, 0) << again.err;
    EXPECT_EQ(readText(directory / "letter"), letter);
    EXPECT_EQ(umount().code, 0);
    expectGone();
}

TEST_F(Mount, WhoseServerIsKilledEndsByItself)
{
    take(fileSystem());
    ASSERT_EQ(mount().code, 0);
    must("pkill -KILL -P " + std::to_string(stays()) + " qemu-nbd");
    expectGone();
}

TEST_F(Mount, ThatIsAskedToEndUnmountsFirst)
{
    take(fileSystem());
    ASSERT_EQ(mount().code, 0);
    ::kill(stays(), SIGTERM);
    expectGone();
}

TEST_F(Mount, OfADirectoryThatHasOneIsRefused)
{
    take(fileSystem());
    ASSERT_EQ(mount().code, 0);
    const Result second = mount();
    EXPECT_EQ(second.code, 3);
    EXPECT_NE(second.err.find("already"), std::string::npos) << second.err;
    EXPECT_EQ(readText(directory / "letter"), letter);
    EXPECT_EQ(umount().code, 0);
}

TEST_F(Mount, ThatIsInUseStaysAndSaysSo)
{
    take(fileSystem());
    ASSERT_EQ(mount().code, 0);
    {
        const std::ifstream open{directory / "letter"};
        const Result refused = umount();
        EXPECT_EQ(refused.code, 3);
        EXPECT_NE(refused.err.find("fuser -vm"), std::string::npos) << refused.err;
        EXPECT_TRUE(isMounted(directory));
    }
    EXPECT_EQ(umount().code, 0);
}

TEST_F(Mount, OfNothingCannotBeUnmounted) { EXPECT_EQ(umount().code, 7); }

TEST_F(Mount, OfAFileSystemWhoseJournalIsNotCleanShowsItAsItIs)
{
    const fs::path image = fileSystem();
    must("debugfs -w -R 'feature needs_recovery' '" + image.string() + "'");
    take(image);
    const Result mounted = mount();
    ASSERT_EQ(mounted.code, 0) << mounted.err;
    EXPECT_EQ(readText(directory / "letter"), letter);
    EXPECT_EQ(umount().code, 0);
}

TEST_F(Mount, OfAWholeDiskTakesThePartition)
{
    const fs::path disk = machine.directory / "disk";
    must("truncate -s " + std::to_string(Machine::blocks) + "K '" + disk.string() + "'");
    must("echo 'start=2048, type=83' | sfdisk --no-tell-kernel -q '" + disk.string() + "'");
    must("mkfs.ext4 -F -q -b 1024 -d '" + (machine.directory / "files").string() + "' -E offset=1048576 '" +
         disk.string() + "' 1900k");
    take(disk);
    const Result none = mount();
    EXPECT_EQ(none.code, 3);
    EXPECT_NE(none.err.find("--partition"), std::string::npos) << none.err;
    const Result other = mount({"--partition", "2"});
    EXPECT_EQ(other.code, 3);
    EXPECT_NE(other.err.find("no partition 2; it has 1"), std::string::npos) << other.err;
    expectGone();
    const Result mounted = mount({"--partition", "1"});
    ASSERT_EQ(mounted.code, 0) << mounted.err;
    EXPECT_EQ(readText(directory / "letter"), letter);
    EXPECT_EQ(umount().code, 0);
    expectGone();
}

TEST_F(Mount, OfAFolderIsRefusedAndSaysWhatHelps)
{
    ASSERT_EQ(backup().code, 0);
    const Result refused = call({"mount", machine.repository(), directory});
    EXPECT_EQ(refused.code, 3);
    EXPECT_NE(refused.err.find("qbackup import"), std::string::npos) << refused.err;
    expectGone();
}

} // namespace
