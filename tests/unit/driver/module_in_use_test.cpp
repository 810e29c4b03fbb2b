// SPDX-License-Identifier: GPL-2.0-only
// Unloading and shutting down where the platform says that the module is in use, which the platforms of today never do:
// the linker puts this file's answer in place of theirs.
#include "core_view.h"

using namespace rig;

namespace
{

int answer = 0;

class ModuleInUse : public DriverTest
{
  protected:
    void TearDown() override
    {
        answer = 0;
        DriverTest::TearDown();
    }
};

} // namespace

int inUse() __asm__("__wrap__Z14qdrCheckModUsev");
int inUse() { return answer; }

TEST_F(ModuleInUse, AnUnloadDoesNothingAndSaysMinusOne)
{
    ASSERT_NO_FATAL_FAILURE(trackDevice(sda(), 1));
    takeLog();
    answer = 1;
    EXPECT_EQ(qdrUnload(), -1);
    EXPECT_NE(sessionOf(sda().device(1)), nullptr);
    EXPECT_EQ(hookOf(sda()), qdrAMRF);
    EXPECT_FALSE(registryIsEmpty());
    EXPECT_EQ(takeLog(), Lines{});
    Program program;
    EXPECT_EQ(program.open(), 0) << "the device has gone";
}

TEST_F(ModuleInUse, AShutdownDoesNothingAndSaysMinusOne)
{
    ASSERT_NO_FATAL_FAILURE(trackDevice(sda(), 1));
    answer = 1;
    EXPECT_EQ(qdrShutdown(), -1);
    EXPECT_NE(sessionOf(sda().device(1)), nullptr);
    EXPECT_EQ(hookOf(sda()), qdrAMRF);
}
