// SPDX-License-Identifier: GPL-2.0-only
// ./run itself, with a small image: the whole story, mounted and over NBD.
#include "program.h"
#include "serving.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <thread>

namespace
{

using namespace serving;
using namespace std::chrono_literals;

struct Run : testing::Test {
    ScratchDir scratch;
    std::string work = scratch / "run";

    std::vector<std::string> words(bool mounted) const
    {
        std::vector<std::string> line{"env",          "BUILD_DIR=" QUENDREL_BUILD_DIR, "REBUILD=no",
                                      "IMAGE_MB=256", "FILES=/usr/include/linux",      "RUN_DIR=" + work};
        if (!mounted)
            line.push_back("NO_MOUNT=1");
        line.push_back(QUENDREL_SOURCE_DIR "/run");
        return line;
    }
    // It did what it says, and took everything away again.
    void expect_proved(const std::string& out)
    {
        EXPECT_NE(out.find("\n-- the next one is incremental all the same"), std::string::npos) << out;
        EXPECT_NE(out.find("\ndropped    " + work + "/backups/here/sda1/000001-"), std::string::npos) << out;
        EXPECT_NE(out.find("\n-- both are one moment of the disk: e2fsck clean, "), std::string::npos) << out;
        EXPECT_NE(out.find("\n-- done in "), std::string::npos) << out;
        EXPECT_FALSE(std::filesystem::exists(work));
    }
};

TEST_F(Run, ProvesTheBackupsOfAMountedDisk)
{
    if (const std::string reason = no_loop_reason(); !reason.empty())
        GTEST_SKIP() << reason;
    const Outcome outcome = run(words(true), 170s);
    ASSERT_EQ(outcome.status, 0) << outcome.out << outcome.err;
    EXPECT_NE(outcome.out.find("\n-- mounted from /dev/loop"), std::string::npos) << outcome.out;
    EXPECT_NE(outcome.out.find(" is mounted on " + work + "/seen, for reading"), std::string::npos) << outcome.out;
    expect_proved(outcome.out);
}

TEST_F(Run, ProvesTheBackupsOverNbdAndASecondRunOnTopIsRefused)
{
    Program first(words(false), scratch / "first");
    while (first.running() && first.out().find("a writer speaks NBD") == std::string::npos)
        std::this_thread::sleep_for(20ms);
    const Outcome second = run(words(false));
    EXPECT_EQ(second.status, 2);
    EXPECT_EQ(second.err, "run: another ./run uses " + work + ": wait for it, or set RUN_DIR to another directory\n");
    EXPECT_EQ(first.wait(170s), 0) << first.out() << first.err();
    EXPECT_NE(first.out().find("-- mounting is impossible here (NO_MOUNT is set): a writer speaks NBD to the daemon"),
              std::string::npos)
        << first.out();
    expect_proved(first.out());
}

} // namespace
