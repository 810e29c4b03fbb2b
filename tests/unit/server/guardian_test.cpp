// SPDX-License-Identifier: GPL-2.0-only
// Freezing through the guardian, on a file system that is mounted here through a loop device.
#include "guardian.h"

#include "host_mounts.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <linux/fs.h>
#include <stdlib.h>
#include <sys/ioctl.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/wait.h>

#include <cerrno>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <future>
#include <thread>

namespace
{

using namespace quendreld;

struct GuardianTest : testing::Test {
    std::string scratch, point, image;
    bool mounted = false;

    void SetUp() override
    {
        if (::geteuid() != 0 || ::access("/dev/loop-control", R_OK | W_OK) != 0)
            GTEST_SKIP() << "needs root and loop devices";
        std::string name = "/var/tmp/guardian-XXXXXX";
        scratch = ::mkdtemp(name.data());
        point = scratch + "/mnt";
        image = scratch + "/image";
        std::filesystem::create_directory(point);
        std::ofstream(image).close();
        std::filesystem::resize_file(image, 16 << 20);
        mounted =
            std::system(("timeout 30 mkfs.ext4 -q -F " + image + " && timeout 30 mount -o loop " + image + " " + point)
                            .c_str()) == 0;
        if (!mounted)
            GTEST_SKIP() << "cannot mount a loop device here";
    }
    void TearDown() override
    {
        if (mounted) {
            const int fd = ::open(point.c_str(), O_RDONLY);
            ::ioctl(fd, FITHAW, 0);
            ::close(fd);
            // A guardian that is just ending may still hold the mount point.
            for (int i = 0; i < 500 && ::umount2(point.c_str(), 0) != 0; ++i)
                std::this_thread::sleep_for(std::chrono::milliseconds(10));
        }
        if (!scratch.empty())
            std::filesystem::remove_all(scratch);
    }
    int freeze(Guardian& guardian, unsigned& id) const
    {
        const base::Descriptor directory(::open(point.c_str(), O_RDONLY | O_DIRECTORY));
        return guardian.freeze(directory.get(), id);
    }
    // FITHAW of a file system that is not frozen is an error.
    bool thaw_by_hand() const
    {
        const int fd = ::open(point.c_str(), O_RDONLY);
        const bool was_frozen = ::ioctl(fd, FITHAW, 0) == 0;
        ::close(fd);
        return was_frozen;
    }
};

TEST_F(GuardianTest, FreezesAndThaws)
{
    Guardian guardian(start_guardian());
    unsigned id = 0;
    ASSERT_EQ(freeze(guardian, id), 0);
    EXPECT_EQ(guardian.thaw(id), 0);
    EXPECT_FALSE(thaw_by_hand());
    ASSERT_EQ(freeze(guardian, id), 0);
    EXPECT_TRUE(thaw_by_hand());
}

TEST_F(GuardianTest, AForeignFreezeIsBusyAndIsLeftAsItIs)
{
    const int fd = ::open(point.c_str(), O_RDONLY);
    ASSERT_EQ(::ioctl(fd, FIFREEZE, 0), 0);
    {
        Guardian guardian(start_guardian());
        unsigned id = 0;
        EXPECT_EQ(freeze(guardian, id), -EBUSY);
        EXPECT_EQ(guardian.thaw(id), -EINVAL);
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(200));
    EXPECT_EQ(::ioctl(fd, FITHAW, 0), 0) << "somebody else thawed it";
    ::close(fd);
}

TEST_F(GuardianTest, ThawsWhenItsDaemonIsKilledWhileFrozen)
{
    int pipe[2];
    ASSERT_EQ(::pipe(pipe), 0);
    const pid_t daemon = ::fork();
    if (daemon == 0) {
        Guardian guardian(start_guardian());
        unsigned id = 0;
        const char result = freeze(guardian, id) == 0 ? 'f' : 'x';
        [[maybe_unused]] const auto written = ::write(pipe[1], &result, 1);
        ::pause();
        ::_exit(0);
    }
    char result = 0;
    ASSERT_EQ(::read(pipe[0], &result, 1), 1);
    ASSERT_EQ(result, 'f');
    ::kill(daemon, SIGKILL);
    ::waitpid(daemon, nullptr, 0);
    // Opening a file for writing waits for as long as the file system is frozen.
    const auto begin = std::chrono::steady_clock::now();
    std::ofstream(point + "/file") << "x";
    EXPECT_LT(std::chrono::steady_clock::now() - begin, std::chrono::seconds(10));
    EXPECT_FALSE(thaw_by_hand());
    // The guardian held nothing else open: the pipe ends with the daemon.
    ::close(pipe[1]);
    EXPECT_EQ(::read(pipe[0], &result, 1), 0);
    ::close(pipe[0]);
}

TEST_F(GuardianTest, OutlivesTheSignalThatEndsItsDaemonsWholeGroup)
{
    int pipe[2];
    ASSERT_EQ(::pipe(pipe), 0);
    const pid_t daemon = ::fork();
    if (daemon == 0) {
        ::setpgid(0, 0);
        Guardian guardian(start_guardian());
        unsigned id = 0;
        const char result = freeze(guardian, id) == 0 ? 'f' : 'x';
        [[maybe_unused]] const auto written = ::write(pipe[1], &result, 1);
        ::pause();
        ::_exit(0);
    }
    char result = 0;
    ASSERT_EQ(::read(pipe[0], &result, 1), 1);
    ASSERT_EQ(result, 'f');
    // What a service manager sends to a service that does not answer; then it waits for the whole group to end.
    ::kill(-daemon, SIGABRT);
    ::waitpid(daemon, nullptr, 0);
    // Opening a file for writing waits for as long as the file system is frozen.
    auto written = std::async(std::launch::async, [this] { std::ofstream(point + "/file") << "x"; });
    const bool thawed = written.wait_for(std::chrono::seconds(10)) == std::future_status::ready;
    EXPECT_TRUE(thawed);
    EXPECT_EQ(thaw_by_hand(), !thawed);
    ::close(pipe[0]);
    ::close(pipe[1]);
}

TEST(HostMounts, AFileWithoutLoopDeviceHasNoMount)
{
    EXPECT_TRUE(loops_over("/no/such/file").empty());
    EXPECT_FALSE(mount_point_at("/no/such/file", 0));
}

TEST_F(GuardianTest, TheMountPointOfALoopMountedImageIsFoundByItsStart)
{
    EXPECT_EQ(mount_point_at(image, 0), point);
    EXPECT_FALSE(mount_point_at(image, 2048));
}

} // namespace
