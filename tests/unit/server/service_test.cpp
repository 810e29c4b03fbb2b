// SPDX-License-Identifier: GPL-2.0-only
// The program under a service manager (which a socket of the test's stands in for), from a configuration file, and how
// it is kept alive when memory is short.
#include "program.h"
#include "run_dir.h"
#include "serving.h"
#include "base/descriptor.h"

#include <gtest/gtest.h>
#include <poll.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <thread>

namespace
{

using namespace serving;
using namespace std::chrono_literals;
using base::Descriptor;

constexpr std::uint64_t MiB = 1 << 20;

struct Service : testing::Test {
    ScratchDir scratch;
    std::string image = scratch / "disk.img";
    std::string run_dir = scratch / "run";
    std::string manager = scratch / "notify";
    base::Descriptor socket{::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0)};
    std::string told; // all that the manager has heard

    void SetUp() override
    {
        make_image(image, 4 * MiB, {});
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        manager.copy(address.sun_path, sizeof address.sun_path - 1);
        ASSERT_EQ(::bind(socket.get(), reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
    }

    std::vector<std::string> words(std::vector<std::string> more, const std::string& watchdog = {}) const
    {
        std::vector<std::string> all{"env", "NOTIFY_SOCKET=" + manager};
        if (!watchdog.empty())
            all.push_back("WATCHDOG_USEC=" + watchdog);
        all.insert(all.end(), {Serving::program(), "--foreground"});
        all.insert(all.end(), more.begin(), more.end());
        return all;
    }
    // Listens until it hears `text`, after what it heard before; or until the time is over.
    bool hears(const std::string& text, std::chrono::milliseconds limit = 30s)
    {
        const auto until = std::chrono::steady_clock::now() + limit;
        const std::size_t from = told.size();
        while (told.find(text, from) == std::string::npos) {
            const auto left =
                std::chrono::duration_cast<std::chrono::milliseconds>(until - std::chrono::steady_clock::now());
            pollfd ready{socket.get(), POLLIN, 0};
            if (::poll(&ready, 1, std::max(0, int(left.count()))) <= 0)
                return false;
            char part[4096];
            const ssize_t got = ::recv(socket.get(), part, sizeof part, 0);
            told.append(part, std::size_t(std::max<ssize_t>(got, 0))) += '\n';
        }
        return true;
    }
    std::string log() const { return read_text(run_dir + "/log"); }
};

TEST_F(Service, IsReadyWhenClientsCanComeAndTellsWhatItServesAndThatItEnds)
{
    Program daemon(words({image, "--run-dir", run_dir, "--no-fuse"}), scratch / "out");
    ASSERT_TRUE(hears("READY=1")) << daemon.err();
    EXPECT_EQ(run({"nbdinfo", "--size", "nbd+unix:///sda?socket=" + run_dir + "/nbd.sock"}).out, "4194304\n");
    EXPECT_NE(told.find("STATUS=Serving sda\n"), std::string::npos) << told;
    EXPECT_EQ(told.find("WATCHDOG"), std::string::npos) << "nobody watches: " << told;
    EXPECT_EQ(told.find("STOPPING"), std::string::npos) << told;
    daemon.signal(SIGTERM);
    EXPECT_TRUE(hears("STOPPING=1"));
    EXPECT_EQ(daemon.wait(), 0);
}

TEST_F(Service, IsNotReadyWhenItCannotServe)
{
    Program daemon(words({scratch / "none", "--run-dir", run_dir}), scratch / "out");
    EXPECT_EQ(daemon.wait(), 1);
    EXPECT_FALSE(hears("READY", 0s)) << told;
}

TEST_F(Service, FeedsItsWatchdogSeveralTimesWithinThePatience)
{
    Program daemon(words({image, "--run-dir", run_dir, "--no-fuse"}, "2000000"), scratch / "out");
    ASSERT_TRUE(hears("READY=1")) << daemon.err();
    for (int i = 0; i < 4; ++i)
        EXPECT_TRUE(hears("WATCHDOG=1", 2s));
}

TEST_F(Service, DoesNotFeedItsWatchdogWhileADiskDoesNotAnswer)
{
    if (const std::string reason = no_loop_reason(); !reason.empty())
        GTEST_SKIP() << reason;
    // The disk is a file of another daemon's, which is stopped.
    Serving below({image}, scratch / "below");
    Program daemon(words({below.file(), "--run-dir", run_dir, "--no-fuse"}, "400000"), scratch / "out");
    ASSERT_TRUE(hears("READY=1")) << daemon.err();
    ASSERT_TRUE(hears("WATCHDOG=1"));
    ::kill(below.pid(), SIGSTOP);
    std::this_thread::sleep_for(500ms);
    while (hears("\n", 0s)) { // those that were on their way
    }
    EXPECT_FALSE(hears("WATCHDOG=1", 2s));
    ::kill(below.pid(), SIGCONT);
    EXPECT_TRUE(hears("WATCHDOG=1"));
    EXPECT_NE(log().find("sda: has not answered a read"), std::string::npos) << log();
    daemon.signal(SIGTERM);
    EXPECT_EQ(daemon.wait(), 0);
}

// ---- the configuration file
// ------------------------------------------------------------------------------------------

struct Configured : testing::Test {
    ScratchDir scratch;
    std::string file = scratch / "test.conf";
    std::string run_dir = scratch / "run";

    void SetUp() override
    {
        for (const char* name : {"a.img", "b.img"})
            make_image(scratch / name, MiB, {});
    }
    // What should have been refused does not stay behind.
    void TearDown() override { run({Serving::program(), "stop", "--force", "--run-dir", run_dir}); }
    Outcome start(const std::string& text, std::vector<std::string> more = {})
    {
        std::ofstream(file) << text;
        more.insert(more.begin(), {Serving::program(), "--config", file});
        return run(more);
    }
    std::string refusal(const std::string& text)
    {
        const Outcome outcome = start(text, {"--run-dir", run_dir});
        EXPECT_EQ(outcome.status, 2);
        return outcome.err;
    }
    // In the order and form in which people read it.
    std::string whole() const
    {
        return "# what is served\ndisk = " + scratch / "a.img" + "\ndisk = \"" + scratch / "b.img" +
               "\"\n\nread-only = true\nno-fuse = true\n";
    }
};

TEST_F(Configured, AFileSaysWhatTheCommandLineWould)
{
    const Outcome outcome = start(whole() + "run-dir = " + run_dir + "\n");
    EXPECT_EQ(outcome.status, 0) << outcome.err;
    EXPECT_EQ(run({"nbdinfo", "--can", "write", "nbd+unix:///sdb?socket=" + run_dir + "/nbd.sock"}).status, 2);
    EXPECT_EQ(quendreld::disks_from_json(quendreld::read_file(run_dir + "/disks.json")).size(), 2u);
    must_run({Serving::program(), "stop", "--run-dir", run_dir});
}

TEST_F(Configured, TheCommandLineGoesBeforeTheFile)
{
    const Outcome outcome = start(whole() + "run-dir = /nonexistent/run\n", {"--run-dir", run_dir});
    EXPECT_EQ(outcome.status, 0) << outcome.err;
    must_run({Serving::program(), "stop", "--run-dir", run_dir});
}

TEST_F(Configured, AKeyThatIsUnknownIsNamed)
{
    EXPECT_EQ(refusal(whole() + "readonly = true\n"),
              "quendreld: " + file + ": readonly: unknown key; see quendreld(8)\n");
    EXPECT_EQ(refusal(whole() + "config = x\n").find("quendreld: " + file + ": config: "), 0u);
}

TEST_F(Configured, AKeyThatComesAgainFurtherDownIsRefusedAndNotLeftOut)
{
    EXPECT_EQ(refusal("disk = " + scratch / "a.img" + "\nread-only = true\ndisk = " + scratch / "b.img" + "\n"),
              "quendreld: " + file +
                  ": disk: stands here twice, with others between; put the lines together; see quendreld(8)\n");
}

TEST_F(Configured, AValueThatIsNoneIsNamed)
{
    EXPECT_NE(refusal(whole() + "direct = maybe\n").find("direct"), std::string::npos);
    EXPECT_NE(refusal(whole() + "format = qcow2\n").find("format: qcow2"), std::string::npos);
}

TEST_F(Configured, AFileWithoutADiskIsRefused)
{
    EXPECT_EQ(refusal("# disk = /srv/a.img\n"), "quendreld: " + file + ": DISK is required; see quendreld(8)\n");
}

TEST_F(Configured, AFileThatIsNotThereIsNamed)
{
    const Outcome outcome = run({Serving::program(), "--config", scratch / "none.conf", "--run-dir", run_dir});
    EXPECT_EQ(outcome.status, 2);
    EXPECT_EQ(outcome.err, "quendreld: " + scratch / "none.conf" + ": cannot be read: No such file or directory\n");
}

// ---- when memory is short
// --------------------------------------------------------------------------------------------

struct ShortMemory : testing::Test {
    ScratchDir scratch;
    std::string image = scratch / "disk.img";
    std::string run_dir = scratch / "run";
    static constexpr unsigned long no_io = 0x00080000; // PF_MEMALLOC_NOIO

    void SetUp() override
    {
        if (::geteuid() != 0)
            GTEST_SKIP() << "not root";
        make_image(image, MiB, {});
    }
    static bool may_set_it() // CAP_SYS_RESOURCE
    {
        const std::string status = read_text("/proc/self/status");
        return std::strtoull(status.c_str() + status.find("CapEff:") + 7, nullptr, 16) >> 24 & 1;
    }
    static unsigned long flags_of(const std::filesystem::path& task)
    {
        std::string text = read_text(task / "stat");
        std::istringstream rest(text.substr(text.rfind(')') + 1)); // the name may hold anything
        std::string word;
        for (int i = 3; i <= 9 && rest >> word; ++i) {
        }
        return std::strtoul(word.c_str(), nullptr, 10);
    }
    std::string lines_of_log(const std::string& text, std::size_t wanted)
    {
        std::string lines;
        for (int i = 0; i < 200; ++i) {
            std::istringstream all(read_text(run_dir + "/log"));
            lines.clear();
            std::size_t found = 0;
            for (std::string line; std::getline(all, line);)
                if (line.find(text) != std::string::npos)
                    lines += line + "\n", ++found;
            if (found >= wanted && read_text(run_dir + "/log").find("serves " + image) != std::string::npos)
                return lines;
            std::this_thread::sleep_for(10ms);
        }
        return lines;
    }
};

TEST_F(ShortMemory, NoThreadOfTheDaemonsWaitsForDisksToGetMemory)
{
    if (!may_set_it())
        GTEST_SKIP() << "without CAP_SYS_RESOURCE";
    Serving serving({image}, run_dir);
    unsigned threads = 0;
    for (const auto& task : std::filesystem::directory_iterator("/proc/" + std::to_string(serving.pid()) + "/task")) {
        EXPECT_TRUE(flags_of(task) & no_io) << read_text(task.path() / "comm");
        ++threads;
    }
    EXPECT_GE(threads, 4u);
    EXPECT_FALSE(flags_of("/proc/self") & no_io) << "the flag is not one that everybody has";
}

TEST_F(ShortMemory, TheDaemonAndItsGuardianAreAmongTheLastToBeKilled)
{
    if (!may_set_it())
        GTEST_SKIP() << "without CAP_SYS_RESOURCE";
    Serving serving({image}, run_dir, {"--no-fuse"});
    const std::string pid = std::to_string(serving.pid());
    EXPECT_EQ(read_text("/proc/" + pid + "/oom_score_adj"), "-900\n");
    std::string guardian = read_text("/proc/" + pid + "/task/" + pid + "/children");
    ASSERT_FALSE(guardian.empty());
    EXPECT_EQ(read_text("/proc/" + std::to_string(std::stoi(guardian)) + "/oom_score_adj"), "-900\n");
}

TEST_F(ShortMemory, WhatWasChosenForItIsKept)
{
    Program daemon(
        {"choom", "-n", "100", "--", Serving::program(), image, "--run-dir", run_dir, "--no-fuse", "--foreground"},
        scratch / "out");
    lines_of_log("serves", 1);
    EXPECT_EQ(read_text("/proc/" + std::to_string(daemon.pid()) + "/oom_score_adj"), "100\n");
}

TEST_F(ShortMemory, WhatTheHostRefusesIsSaidOnceAndTheDaemonServes)
{
    Program daemon({"setpriv", "--bounding-set=-sys_resource", Serving::program(), image, "--run-dir", run_dir,
                    "--no-fuse", "--foreground"},
                   scratch / "out");
    const std::string flusher = lines_of_log("PR_SET_IO_FLUSHER", 1), oom = lines_of_log("oom_score_adj", 1);
    EXPECT_EQ(std::count(flusher.begin(), flusher.end(), '\n'), 1) << flusher;
    EXPECT_EQ(std::count(oom.begin(), oom.end(), '\n'), 1) << oom;
    EXPECT_EQ(run({"nbdinfo", "--size", "nbd+unix:///sda?socket=" + run_dir + "/nbd.sock"}).status, 0);
    daemon.signal(SIGTERM);
    EXPECT_EQ(daemon.wait(), 0);
}

} // namespace
