// SPDX-License-Identifier: GPL-2.0-only
// A target that stops answering in the midst of a backup, and what people see of a run.
#include "faulty_target.h"


namespace
{

using namespace faults;

class Hang : public FaultyTarget
{
};

// Whoever is held up by a target that does not answer, it is not who writes to the device: when the driver's cache is full,
// the backup fails and the write is done. A signal ends the run when the target answers again, and the next one is an
// increment on the one before.
TEST_F(Hang, OfTheTargetHoldsUpNoWriterAndTheSignalIsNotForgotten)
{
    ASSERT_EQ(command({"init", target}).code, 0);
    take();
    const std::string before = take();
    for (std::uint32_t block = 0; block < Machine::blocks; ++block)
        machine.driver.write(block, 7);
    directory->arm({.kinds = writing, .at = 12, .what = Fault::What::hang, .lasting = true});
    const pid_t child = spawn(backupWords());
    for (int i = 0; i < 2000 && !directory->struck(); ++i)
        std::this_thread::sleep_for(std::chrono::milliseconds{5});
    ASSERT_TRUE(directory->struck());
    for (std::uint32_t block = 0; block < Machine::blocks; ++block)
        machine.driver.write(block, 8);
    ::kill(child, SIGTERM);
    // It takes away what it has begun, for which the target has to answer.
    std::this_thread::sleep_for(std::chrono::milliseconds{500});
    directory->disarm();
    const Result result = finish(child);
    EXPECT_EQ(result.code, 128 + SIGTERM) << result.err;
    EXPECT_FALSE(machine.driver.isOpen());
    EXPECT_EQ(leftovers(), std::vector<std::string>{});
    const Result next = command(backupWords());
    ASSERT_EQ(next.code, 0) << next.err;
    EXPECT_EQ(next.document()["mode"], "inc");
    contents[next.document()["id"]] = machine.driver.contents();
    expectRestores(next.document()["id"]);
}

// SIGKILL ends it at once, with all that it has started.
TEST_F(Hang, OfTheTargetIsEndedByAKill)
{
    ASSERT_EQ(command({"init", target}).code, 0);
    take();
    writeToDevice();
    directory->arm({.at = 20, .what = Fault::What::hang, .lasting = true});
    const pid_t child = spawn(backupWords());
    for (int i = 0; i < 2000 && !directory->struck(); ++i)
        std::this_thread::sleep_for(std::chrono::milliseconds{5});
    ASSERT_TRUE(directory->struck());
    ::kill(child, SIGKILL);
    EXPECT_EQ(finish(child).code, 1000 + SIGKILL);
    for (int i = 0; i < 1000 && machine.driver.isOpen(); ++i)
        std::this_thread::sleep_for(std::chrono::milliseconds{5});
    EXPECT_FALSE(machine.driver.isOpen());
    insert(directory->disk());
    expectRestores(take());
    EXPECT_EQ(leftovers(), std::vector<std::string>{});
}

} // namespace
