// SPDX-License-Identifier: GPL-2.0-only
// Restoring to a block device: a loop device over a file, where this machine lets the test have one.
#include "support.h"

#include <fcntl.h>
#include <linux/loop.h>
#include <sys/ioctl.h>

#include <optional>

namespace
{

using namespace test;

class LoopDevice
{
  public:
    explicit LoopDevice(const fs::path& image)
    {
        const int control = ::open("/dev/loop-control", O_RDWR | O_CLOEXEC);
        const int number = control < 0 ? -1 : ::ioctl(control, LOOP_CTL_GET_FREE);
        if (control >= 0)
            ::close(control);
        if (number < 0)
            return;
        const fs::path path = "/dev/loop" + std::to_string(number);
        device_ = ::open(path.c_str(), O_RDWR | O_CLOEXEC);
        const int file = ::open(image.c_str(), O_RDWR | O_CLOEXEC);
        if (device_ >= 0 && ::ioctl(device_, LOOP_SET_FD, file) == 0)
            path_ = path;
        ::close(file);
    }
    ~LoopDevice()
    {
        if (path_)
            ::ioctl(device_, LOOP_CLR_FD, 0);
        if (device_ >= 0)
            ::close(device_);
    }
    LoopDevice(const LoopDevice&) = delete;
    LoopDevice& operator=(const LoopDevice&) = delete;
    const std::optional<fs::path>& path() const { return path_; }

  private:
    int device_ = -1;
    std::optional<fs::path> path_;
};

class RestoreToDevice : public testing::Test
{
  protected:
    // A loop device of `bytes`, full of something else or of nothing.
    void make(std::uint64_t bytes, std::byte content = std::byte{0xee})
    {
        const File image{directory / "image", O_RDWR | O_CREAT};
        image.writeAt(0, std::vector<std::byte>(bytes, content));
        loop.emplace(directory / "image");
        if (!loop->path())
            GTEST_SKIP() << "no loop device to be had";
    }
    int restore(bool force = true)
    try {
        Progress progress{Progress::Style::none};
        restoreBackup(machine.directory.path(), *loop->path(), force, progress, machine.stop);
        return 0;
    } catch (const Failure& failure) {
        return failure.exitCode();
    }

    Machine machine;
    Directory directory;
    std::optional<LoopDevice> loop;
};

TEST_F(RestoreToDevice, WhatIsZeroInTheBackupIsZeroThere)
{
    ASSERT_NO_FATAL_FAILURE(make(machine.driver.bytes()));
    if (IsSkipped())
        return;
    for (std::uint32_t block = 100; block < 900; ++block)
        machine.driver.writeZeros(block);
    machine.backup();
    ASSERT_EQ(restore(), 0);
    EXPECT_EQ(readAll(directory / "image"), machine.driver.contents());
}

TEST_F(RestoreToDevice, OneThatHoldsDataIsOverwrittenOnlyWhenForced)
{
    ASSERT_NO_FATAL_FAILURE(make(machine.driver.bytes()));
    if (IsSkipped())
        return;
    machine.backup();
    const auto before = readAll(directory / "image");
    EXPECT_EQ(restore(false), 3);
    EXPECT_EQ(readAll(directory / "image"), before);
}

TEST_F(RestoreToDevice, OneThatHoldsNothingIsTakenUnforced)
{
    ASSERT_NO_FATAL_FAILURE(make(machine.driver.bytes(), std::byte{0}));
    if (IsSkipped())
        return;
    machine.backup();
    EXPECT_EQ(restore(false), 0);
    EXPECT_EQ(readAll(directory / "image"), machine.driver.contents());
}

TEST_F(RestoreToDevice, OneWithALoopDeviceOverItIsRefusedWhateverIsForced)
{
    ASSERT_NO_FATAL_FAILURE(make(machine.driver.bytes()));
    if (IsSkipped())
        return;
    machine.backup();
    const LoopDevice over{*loop->path()};
    if (!over.path())
        GTEST_SKIP() << "no second loop device to be had";
    const auto before = readAll(directory / "image");
    EXPECT_EQ(restore(), 3);
    EXPECT_EQ(readAll(directory / "image"), before);
}

TEST_F(RestoreToDevice, TheFileBehindALoopDeviceIsRefusedWhateverIsForced)
{
    ASSERT_NO_FATAL_FAILURE(make(machine.driver.bytes()));
    if (IsSkipped())
        return;
    machine.backup();
    Progress progress{Progress::Style::none};
    try {
        restoreBackup(machine.directory.path(), directory / "image", true, progress, machine.stop);
        FAIL() << "it was replaced";
    } catch (const Failure& failure) {
        EXPECT_EQ(failure.exitCode(), 3);
        EXPECT_EQ(std::string{failure.what()}, "a loop device stands over " + (directory / "image").string() +
                                                   "; take it away first (losetup -d)");
    }
}

TEST_F(RestoreToDevice, DeviceInUseIsRefusedAndUntouched)
{
    ASSERT_NO_FATAL_FAILURE(make(machine.driver.bytes()));
    if (IsSkipped())
        return;
    machine.backup();
    const auto before = readAll(directory / "image");
    const File user{*loop->path(), O_RDONLY | O_EXCL}; // as a mount claims it
    EXPECT_EQ(restore(), 3);
    EXPECT_EQ(readAll(directory / "image"), before);
}

TEST_F(RestoreToDevice, DeviceThatIsTooSmallIsRefused)
{
    ASSERT_NO_FATAL_FAILURE(make(machine.driver.bytes() / 2 / 512 * 512));
    if (IsSkipped())
        return;
    machine.backup();
    EXPECT_EQ(restore(), 3);
}

} // namespace
