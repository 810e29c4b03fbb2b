// SPDX-License-Identifier: GPL-2.0-only
// SIGKILL for qbackup and for the daemon, in the middle of their work; and a power cut.
#include "backup_rig.h"
#include "lossy_file.h"
#include "nbd_writers.h"

#include <signal.h>

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <random>
#include <thread>

namespace
{

using namespace backup_rig;
using namespace serving;

struct KilledClient : BackupRig {
};

TEST_F(KilledClient, LeavesTheDaemonAndTheWriterUnharmedAndTheNextBackupIsAnIncrementAllTheSame)
{
    serve(128, 40);
    Writer writer(mnt + "/story", scratch / "writer.log");
    const Backup first = backup("full");
    ASSERT_EQ(first.status, 0) << first.err;
    {
        const auto program = stopped_in_the_middle("killed");
        EXPECT_TRUE(writer.goes_on(50)) << "so that the driver keeps old blocks of it";
        program->signal(SIGKILL);
        EXPECT_EQ(program->wait(), 128 + SIGKILL);
    }
    EXPECT_TRUE(writer.goes_on(50)) << "the writer came to grief: " << writer.program().err();
    const Outcome list = run_qbackup({"--json", "list", "--from", target});
    EXPECT_EQ(list.status, 0) << "half a backup is taken for one: " << list.out;
    EXPECT_EQ(std::count(list.out.begin(), list.out.end(), '\n'), 1);

    const Backup next = backup("inc");
    ASSERT_EQ(next.status, 0) << next.err;
    EXPECT_EQ(next.text("mode"), "inc");
    EXPECT_EQ(next.text("parent"), first.text("id"));
    EXPECT_EQ(stored(), (std::vector{first.text("id"), next.text("id")})) << "what the killed one left is still there";
    const Backup last = backup("inc");
    EXPECT_EQ(last.text("mode"), "inc") << last.report;
    EXPECT_TRUE(writer.unharmed());
    writer.stop();
    for (const Backup* made : {&first, &next, &last})
        prove(*made, writer.log());
}

TEST_F(KilledClient, AlsoBeforeTheFirstBackupWasCompleteLeavesNothingThatLooksLikeOne)
{
    serve(128, 40);
    {
        const auto program = stopped_in_the_middle("killed");
        program->signal(SIGKILL);
        program->wait();
    }
    const Outcome restored = run_qbackup({"restore", "--from", target + "/sda1", "--to", scratch / "out.img"});
    EXPECT_EQ(restored.status, 7);
    EXPECT_EQ(restored.err, "qbackup: there is no backup in " + target + "/sda1\n");
    EXPECT_FALSE(std::filesystem::exists(scratch / "out.img"));
    const Backup next = backup("auto");
    ASSERT_EQ(next.status, 0) << next.err;
    EXPECT_EQ(next.text("fullReason"), "there is no earlier backup in " + target + "/sda1");
    EXPECT_EQ(stored(), std::vector{next.text("id")});
}

TEST_F(KilledClient, EndedBySigtermLeavesNothingAndExitsWithTheSignal)
{
    serve(128, 40);
    const auto program = stopped_in_the_middle("ended");
    program->signal(SIGTERM);
    program->signal(SIGCONT);
    EXPECT_EQ(program->wait(), 128 + SIGTERM);
    EXPECT_NE(program->err().find("interrupted by signal 15 (Terminated); nothing was kept of this run"),
              std::string::npos)
        << program->err();
    EXPECT_EQ(stored(), std::vector<std::string>{});
}

struct KilledClientOfARawDisk : BackupRig {
    static constexpr std::uint64_t region = 128 * MiB; // of the image, written to by NBD: free blocks of the file system

    void serve_raw()
    {
        make_image(image, 192 * MiB, {{2048, 192 * 2048 - 2048}});
        must_run({"mkfs.ext4", "-q", "-b", "4096", "-E", "offset=1048576,nodiscard", image, "48000"});
        serving = std::make_unique<Serving>(std::vector{image}, run_dir, std::vector<std::string>{"--no-fuse"});
    }
};

// KILLED_RUNS: how many (default: those of 20 seconds).
TEST_F(KilledClientOfARawDisk, AtWhateverMomentTheNextBackupIsAnIncrement)
{
    serve_raw();
    ASSERT_EQ(backup("full").status, 0);
    NbdWriters writers(serving->nbd(), region, 2048, 2);
    const char* named = std::getenv("KILLED_RUNS");
    const unsigned most = named ? unsigned(std::stoul(named)) : 0;
    const auto until = std::chrono::steady_clock::now() + std::chrono::seconds(20);
    std::mt19937 random(most + 1);
    std::chrono::nanoseconds whole = std::chrono::milliseconds(100);
    unsigned runs = 0, killed = 0;
    for (; most ? runs < most : std::chrono::steady_clock::now() < until; ++runs) {
        SCOPED_TRACE("run " + std::to_string(runs));
        ASSERT_TRUE(writers.goes_on(1));
        {
            Program program(qbackup({"backup", "--device", "sda1", "--to", target}), scratch / "killed");
            std::this_thread::sleep_for(whole * (random() % 1000) / 1000);
            program.signal(SIGKILL);
            killed += program.wait() == 128 + SIGKILL;
        }
        ASSERT_TRUE(writers.goes_on(1));
        const auto begun = std::chrono::steady_clock::now();
        const Backup next = backup("inc");
        whole = std::chrono::steady_clock::now() - begun;
        ASSERT_EQ(next.status, 0) << next.err;
        ASSERT_EQ(next.text("mode"), "inc") << next.report;
    }
    EXPECT_GT(killed, runs / 2);
    RecordProperty("runs", int(runs));
    writers.stop();
    const Backup last = backup("auto");
    ASSERT_EQ(last.status, 0) << last.err;
    must_run({"cmp", "-n", std::to_string(192 * MiB - MiB), restore(last), image, "0", std::to_string(MiB)});
}

struct KilledDaemon : testing::TestWithParam<std::vector<std::string>> {
    static constexpr unsigned blocks = 4096; // 16 MiB
    ScratchDir scratch;
    std::string image = scratch / "disk.img";
};

// Needs neither root nor a loop device: the daemon serves NBD only.
TEST_P(KilledDaemon, TheImageHoldsEveryAcknowledgedAndFlushedWrite)
{
    make_image(image, 64 * MiB, {{2048, 65536}});
    Serving serving({image}, scratch / "run", GetParam());
    for (int round = 0; round < 3; ++round) {
        NbdWriters writers(serving.nbd(), MiB, blocks, 4);
        ASSERT_TRUE(writers.goes_on(20));
        serving.kill_it();
        writers.stop();
        EXPECT_GT(writers.promised(), 300u);
        ASSERT_EQ(writers.complaint(image), "");
        must_run([&] {
            std::vector<std::string> words{Serving::program(), image, "--run-dir", scratch / "run"};
            words.insert(words.end(), GetParam().begin(), GetParam().end());
            return words;
        }());
    }
}

// A killed daemon leaves what it wrote to the page cache; a power cut does not.
TEST_P(KilledDaemon, WithTheMachinesPowerCutTheImageStillHoldsEveryFlushedWrite)
{
    if (const std::string reason = no_loop_reason(); !reason.empty())
        GTEST_SKIP() << reason;
    LossyFile file(scratch / "store", 64 * MiB);
    Serving serving({file.path()}, scratch / "run", GetParam());
    // A round in which every write happened to be durable when the daemon was killed shows nothing.
    unsigned telling_rounds = 0;
    for (unsigned round = 0; telling_rounds < 3; ++round) {
        ASSERT_LT(round, 20u) << "nothing is ever lost, so nothing is shown";
        NbdWriters writers(serving.nbd(), MiB, blocks, 4);
        ASSERT_TRUE(writers.goes_on(20));
        serving.kill_it();
        writers.stop();
        EXPECT_GT(writers.promised(), 300u);
        if (file.cut_power(round) > 0)
            ++telling_rounds;
        ASSERT_EQ(writers.complaint(file.path()), "");
        std::vector<std::string> words{Serving::program(), file.path(), "--run-dir", scratch / "run"};
        words.insert(words.end(), GetParam().begin(), GetParam().end());
        must_run(words);
    }
}

INSTANTIATE_TEST_SUITE_P(Daemon, KilledDaemon,
                         testing::Values(std::vector<std::string>{"--no-fuse"},
                                         std::vector<std::string>{"--no-fuse", "--direct"}),
                         [](const auto& info) { return info.param.size() > 1 ? "PastThePageCache" : "Cached"; });

struct KilledDaemonInABackup : BackupRig {
};

TEST_F(KilledDaemonInABackup, TheImageHoldsEveryFlushedWriteAndTheBackupFailsCleanly)
{
    // A file system without files, random bytes in its free blocks, and writers that speak NBD on a region of those:
    // what they overwrite the driver has to keep for the backup.
    make_image(image, 192 * MiB, {{2048, 192 * 2048 - 2048}});
    const std::uint64_t region = 128 * MiB;
    must_run({"mkfs.ext4", "-q", "-b", "4096", "-E", "offset=1048576,nodiscard", image, "48000"});
    must_run({"dd", "if=/dev/urandom", "of=" + image, "bs=1M", "seek=100", "count=80", "conv=notrunc", "status=none"});
    serving = std::make_unique<Serving>(std::vector{image}, run_dir, std::vector<std::string>{"--no-fuse"});

    const Backup before = backup("full");
    ASSERT_EQ(before.status, 0) << before.err;
    NbdWriters writers(serving->nbd(), region, 8192, 4);
    ASSERT_TRUE(writers.goes_on());
    const auto program = stopped_in_the_middle("qbackup", "sda1", 16 * MiB);
    const auto answered = writers.answered();
    ASSERT_TRUE(writers.goes_on(20)) << "first writes to blocks are held and kept";
    EXPECT_GT(writers.answered(), answered);
    serving->kill_it();
    writers.stop();
    EXPECT_EQ(writers.complaint(image), "");
    program->signal(SIGCONT);
    EXPECT_EQ(program->wait(), 1);
    // Which request it was depends on the moment: the next block that was overwritten is asked for between the reads.
    for (const char* text :
         {"qbackup: the backup of sda1 failed: ", " on device 8:1 through ",
          "the daemon ended the connection; see its log", "Nothing was kept; the next backup will be a full one"})
        EXPECT_NE(program->err().find(text), std::string::npos) << program->err();
    EXPECT_EQ(stored(), std::vector{before.text("id")});

    must_run({Serving::program(), image, "--run-dir", run_dir, "--no-fuse"});
    NbdWriters again(serving->nbd(), region, 8192, 4);
    EXPECT_TRUE(again.goes_on());
    const Backup next = backup("inc");
    ASSERT_EQ(next.status, 6) << next.err;
    EXPECT_EQ(next.text("mode"), "full");
    EXPECT_NE(next.text("fullReason"), "");
    again.stop();
    EXPECT_EQ(again.complaint(image), "");
    // Now that nothing is written, a backup holds what the image holds.
    const Backup last = backup("inc");
    ASSERT_EQ(last.status, 0) << last.err;
    const std::string restored = restore(last);
    must_run({"cmp", "-n", std::to_string(192 * MiB - MiB), restored, image, "0", std::to_string(MiB)});
}

} // namespace
