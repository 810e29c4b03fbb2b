// SPDX-License-Identifier: GPL-2.0-only
// Freezing through the guardian, on a file system that is mounted here through a loop device.
#include "guardian.h"

#include "host_freezer.h"
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
    // Opening a file for writing waits for as long as the file system is frozen.
    bool writable_soon() const
    {
        auto written = std::async(std::launch::async, [this] { std::ofstream(point + "/file") << "x"; });
        const bool soon = written.wait_for(std::chrono::seconds(10)) == std::future_status::ready;
        EXPECT_EQ(thaw_by_hand(), !soon);
        return soon;
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

// A process of its own, at the head of its group, that has a guardian freeze the file system and then waits.
class FreezingDaemon
{
  public:
    explicit FreezingDaemon(const GuardianTest& test)
    {
        int pipe[2];
        if (::pipe(pipe) != 0)
            return;
        pipe_ = base::Descriptor(pipe[0]);
        base::Descriptor other_end(pipe[1]);
        process_ = ::fork();
        if (process_ == 0) {
            ::setpgid(0, 0);
            Guardian guardian(start_guardian());
            unsigned id = 0;
            const char result = test.freeze(guardian, id) == 0 ? 'f' : 'x';
            [[maybe_unused]] const auto written = ::write(other_end.get(), &result, 1);
            ::pause();
            ::_exit(0);
        }
        other_end.reset();
        char result = 0;
        frozen_ = ::read(pipe_.get(), &result, 1) == 1 && result == 'f';
    }
    bool frozen() const { return frozen_; }
    void end_group(int signal) { end(-process_, signal); }
    void end_alone(int signal) { end(process_, signal); }
    // Of the pipe that it inherited nothing is left, in whatever process.
    bool holds_nothing() const
    {
        char result;
        return ::read(pipe_.get(), &result, 1) == 0;
    }

  private:
    void end(pid_t whom, int signal)
    {
        ::kill(whom, signal);
        ::waitpid(process_, nullptr, 0);
    }
    base::Descriptor pipe_;
    pid_t process_ = -1;
    bool frozen_ = false;
};

TEST_F(GuardianTest, ThawsWhenItsDaemonIsKilledWhileFrozen)
{
    FreezingDaemon daemon(*this);
    ASSERT_TRUE(daemon.frozen());
    daemon.end_alone(SIGKILL);
    EXPECT_TRUE(writable_soon());
    EXPECT_TRUE(daemon.holds_nothing());
}

// What a service manager sends to a service that does not answer; then it waits for the whole group to end.
TEST_F(GuardianTest, OutlivesTheSignalThatEndsItsDaemonsWholeGroup)
{
    FreezingDaemon daemon(*this);
    ASSERT_TRUE(daemon.frozen());
    daemon.end_group(SIGABRT);
    EXPECT_TRUE(writable_soon());
}

TEST_F(GuardianTest, IsNotNeededToThawWhatItFroze)
{
    auto guardian = std::make_shared<Guardian>(start_guardian());
    std::string log;
    HostFreezer freezer(guardian, image, 0, [&](std::string_view line) { log += std::string(line) + "\n"; });
    ASSERT_TRUE(freezer.freeze()) << log;
    std::ifstream children("/proc/thread-self/children");
    pid_t process = 0;
    while (children >> process) // the last is the newest
        ;
    ASSERT_GT(process, 0);
    // It thaws when its socket ends, but not when it is killed.
    ::kill(process, SIGKILL);
    ::waitpid(process, nullptr, 0);
    freezer.thaw();
    EXPECT_TRUE(writable_soon());
    EXPECT_EQ(log.find("thaw: " + point + ": the guardian process is gone; thawed without it; restart the daemon\n" + point +
                       ": frozen for "),
              0u)
        << log;
    log.clear();
    EXPECT_FALSE(freezer.freeze());
    EXPECT_EQ(log, "freeze: " + point + ": the guardian process is gone; restart the daemon\n");
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
