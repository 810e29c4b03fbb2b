// SPDX-License-Identifier: GPL-2.0-only
// What the platform and the driver owe a disk when the driver goes: its own request function back, whatever happened
// to the device meanwhile.
#include "driver_rig.h"

#include "qdrlib.h"

namespace {

using rig::Program;

class UnloadDefence : public rig::DriverTest
{
  protected:
    // A full backup of sda1, closed: its tracking stays and keeps the queue hooked.
    void backUpAndTrack()
    {
        Program program;
        ASSERT_NO_FATAL_FAILURE(program.beginFullBackup(sda(), 1));
        ASSERT_EQ(program.close(), 0);
        ASSERT_EQ(queue_make_request_fn(sda().disk().queue()), qdrAMRF);
    }
};

TEST_F(UnloadDefence, ADeviceUnmountedWhileTrackedTakesWritesAfterTheUnloadAndAFreshMount)
{
    make_request_fn* const own = queue_make_request_fn(sda().disk().queue());
    ASSERT_NO_FATAL_FAILURE(backUpAndTrack());
    hosted::unmount_file_system(sda().device(1));
    ASSERT_EQ(hosted::unload_driver(), 0);
    EXPECT_EQ(queue_make_request_fn(sda().disk().queue()), own);
    hosted::mount_file_system(sda().device(1), 4096);
    ASSERT_EQ(sda().writeBlock(1, 3, 0x5A), 0);
    EXPECT_EQ(sda().block(1, 3), rig::Bytes(4096, std::byte(0x5A)));
}

TEST_F(UnloadDefence, ADiskUnpluggedWhileTrackedHasItsOwnFunctionBackAfterTheUnload)
{
    make_request_fn* const own = queue_make_request_fn(sda().disk().queue());
    ASSERT_NO_FATAL_FAILURE(backUpAndTrack());
    sda().disk().unplug();
    ASSERT_EQ(hosted::unload_driver(), 0);
    EXPECT_EQ(queue_make_request_fn(sda().disk().queue()), own);
}

} // namespace
