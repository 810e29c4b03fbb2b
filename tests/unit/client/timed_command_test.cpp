// SPDX-License-Identifier: GPL-2.0-only
// Commands of the user's: how they are told to have ended, and that they end.
#include "support.h"
#include "timed_command.h"

#include <csignal>
#include <thread>

namespace
{

using namespace test;
using std::chrono::seconds;

std::optional<std::string> shell(const std::string& script, seconds most = seconds{20},
                                 const StopSignal* stop = nullptr)
{
    return TimedCommand{{"sh", "-c", script}, {{"QBACKUP_JOB", "nightly"}}}.wait(most, stop);
}

// Gone, or waiting for an ancestor to notice.
bool hasEnded(const fs::path& pid_file)
{
    for (int i = 0; i < 500; ++i) {
        std::string state;
        std::ifstream status{"/proc/" + readText(pid_file) + "/stat"};
        if (!(status >> state >> state >> state) || state == "Z")
            return true;
        std::this_thread::sleep_for(std::chrono::milliseconds{10});
    }
    return false;
}

TEST(TimedCommand, HowItEndedIsToldUnlessItDidWell)
{
    EXPECT_EQ(shell("exit 0"), std::nullopt);
    EXPECT_EQ(shell("exit 3"), "ended with exit code 3");
    EXPECT_EQ(shell("kill -SEGV $$"), "was ended by signal 11 (Segmentation fault)");
}

TEST(TimedCommand, ItIsRunWithItsArgumentsAsTheyAre)
{
    const Directory directory;
    const TimedCommand touched{{"touch", (directory / "a b $HOME;*").string()}, {}};
    for (int i = 0; i < 500 && namesIn(directory.path()).empty(); ++i)
        std::this_thread::sleep_for(std::chrono::milliseconds{10});
    EXPECT_EQ(namesIn(directory.path()), std::vector<std::string>{"a b $HOME;*"});
}

TEST(TimedCommand, ItsEnvironmentIsThisOneAndWhatIsAdded)
{
    ::setenv("QBACKUP_JOB", "another", 1);
    ::setenv("QBACKUP_TEST", "kept", 1);
    EXPECT_EQ(shell("[ $QBACKUP_JOB-$QBACKUP_TEST = nightly-kept ]"), std::nullopt);
    // Not twice: which of them counts would be up to the program.
    EXPECT_EQ(
        (TimedCommand{{"grep", "-zqx", "QBACKUP_JOB=another", "/proc/self/environ"}, {{"QBACKUP_JOB", "nightly"}}}.wait(
            seconds{20}, nullptr)),
        "ended with exit code 1");
    ::unsetenv("QBACKUP_JOB");
    ::unsetenv("QBACKUP_TEST");
}

TEST(TimedCommand, ACommandThatIsNotThereIsAFailure)
{
    try {
        TimedCommand{{"/nonexistent/command"}, {}};
        FAIL();
    } catch (const Failure& failure) {
        EXPECT_STREQ(failure.what(), "cannot start /nonexistent/command: No such file or directory");
    }
}

// What it started ignores being asked to end, and outlives it.
TEST(TimedCommand, TheLimitEndsItsWholeGroup)
{
    const Directory directory;
    const std::string child = directory / "child";
    EXPECT_EQ(shell("sh -c 'trap \"\" TERM; echo -n $$ >" + child + "; for i in $(seq 30); do sleep 1; done' & wait",
                    seconds{1}),
              "took longer than 1 s and was ended");
    EXPECT_TRUE(hasEnded(child));
}

TEST(TimedCommand, OneThatIgnoresBeingAskedToEndIsKilled)
{
    const Directory directory;
    const std::string own = directory / "own";
    EXPECT_EQ(shell("trap '' TERM; echo -n $$ >" + own + "; for i in $(seq 30); do sleep 1; done", seconds{1}),
              "took longer than 1 s and was ended");
    EXPECT_TRUE(hasEnded(own));
}

TEST(TimedCommand, AtTheLimitItHasTimeToTidyUp)
{
    const Directory directory;
    shell("trap 'sleep 0.5; touch " + (directory / "tidy").string() + "; exit 0' TERM; sleep 60 & wait", seconds{1});
    EXPECT_TRUE(fs::exists(directory / "tidy"));
}

TEST(TimedCommand, ASignalEndsTheWaitAndTheCommand)
{
    const Directory directory;
    StopSignal stop{0};
    std::thread later{[&] {
        std::this_thread::sleep_for(std::chrono::milliseconds{300});
        stop = SIGINT;
    }};
    EXPECT_THROW(shell("echo -n $$ >" + (directory / "own").string() + "; exec sleep 20", seconds{60}, &stop),
                 Interrupted);
    later.join();
    EXPECT_TRUE(hasEnded(directory / "own"));
}

} // namespace
