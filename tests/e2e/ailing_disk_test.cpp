// SPDX-License-Identifier: GPL-2.0-only
// A disk whose answers take long, do not come, or are errors.
#include "backup_rig.h"
#include "lossy_file.h"
#include "nbd_writers.h"

#include <chrono>
#include <fstream>
#include <optional>
#include <thread>

namespace
{

using namespace backup_rig;
using namespace serving;

struct AilingDisk : BackupRig {
    std::optional<LossyFile> store;
    ~AilingDisk() override
    {
        if (store)
            store->let_go();
        serving.reset(); // before the file that it serves
    }
};

TEST_F(AilingDisk, OneThatHangsKeepsNoClientOfAnotherWaiting)
{
    LossyFile& file = store.emplace(scratch / "store", 16 * MiB);
    make_image(image, 64 * MiB, {{2048, 64 * 2048 - 2048}});
    must_run({"mkfs.ext4", "-q", "-b", "4096", "-E", "offset=1048576,nodiscard", image, "16000"});
    serving = std::make_unique<Serving>(std::vector{file.path(), image}, run_dir, std::vector<std::string>{"--no-fuse"});
    file.hang();
    const Backup first = backup("full", "sdb1");
    EXPECT_EQ(first.status, 0) << first.err;
    NbdWriters(serving->nbd("sdb"), 32 * MiB, 64, 1).goes_on(1);
    const Backup second = backup("inc", "sdb1");
    EXPECT_EQ(second.status, 0) << second.err;
    EXPECT_EQ(second.text("mode"), "inc");
    const std::string line = "sda: does not answer; what it holds is told as it was last seen\n", log = serving->log();
    EXPECT_NE(log.find(line), std::string::npos) << log;
    EXPECT_EQ(log.find(line), log.rfind(line)) << "one client finds that out";
    file.let_go();
}

// Its partitions are not gone because nobody can read where they are.
TEST_F(AilingDisk, OneWhoseTableCannotBeReadKeepsThePartitionsThatItHad)
{
    LossyFile& file = store.emplace(scratch / "store", 16 * MiB);
    const DosTable table = dos_table({{2048, 8192}});
    std::ofstream(file.path(), std::ios::binary | std::ios::in)
        .write(reinterpret_cast<const char*>(table.data()), table.size());
    serving = std::make_unique<Serving>(std::vector{file.path()}, run_dir, std::vector<std::string>{"--no-fuse"});
    const auto partitions = [&] {
        const auto disks = nlohmann::json::parse(read_text(run_dir + "/disks.json"))["disks"];
        return disks[0]["partitions"];
    };
    const auto before = partitions();
    ASSERT_EQ(before.size(), 1u);
    file.fail_reads(4096);
    // Whole pages, so that writing them takes no reading.
    must_run({"qemu-io", "-f", "raw", "-c", "write -P 0 0 4k", serving->nbd()});
    const auto told = [&] { return serving->log().find("sda: its partition table cannot be read: ") != std::string::npos; };
    for (int wait = 0; wait < 500 && !told(); ++wait)
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    EXPECT_TRUE(told()) << serving->log();
    EXPECT_EQ(partitions(), before);
    file.fail_reads(0);
    must_run({"qemu-io", "-f", "raw", "-c", "write -P 0 0 4k", serving->nbd()});
    for (int wait = 0; wait < 500 && !partitions().empty(); ++wait)
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    EXPECT_EQ(partitions().size(), 0u) << "now it is known that there are none";
}

// One that was let in before the snapshot and arrives after its block was copied would be in no backup at all: its mark
// is in the map that the snapshot took.
TEST_F(AilingDisk, AWriteThatIsUnderWayAtASnapshotIsInThatBackupOrInTheNext)
{
    constexpr std::uint64_t bytes = 64 * MiB;
    LossyFile& file = store.emplace(scratch / "store", bytes);
    const DosTable table = dos_table({{2048, bytes / 512 - 2048}});
    std::ofstream(file.path(), std::ios::binary | std::ios::in)
        .write(reinterpret_cast<const char*>(table.data()), table.size());
    must_run({"mkfs.ext4", "-q", "-b", "4096", "-E", "offset=1048576,nodiscard", file.path(), "16000"});
    serving = std::make_unique<Serving>(std::vector{file.path()}, run_dir, std::vector<std::string>{"--no-fuse"});
    ASSERT_EQ(backup("full").status, 0);

    file.make_slow(std::chrono::milliseconds(100));
    // So many blocks that hardly one is written twice, which would bring it into a later backup.
    NbdWriters writers(serving->nbd(), 32 * MiB, 6144, 4);
    // More than were under way at the last snapshot.
    const auto wait_for_more = [&] {
        const auto wanted = writers.answered() + 8;
        for (int wait = 0; wait < 1000 && writers.answered() < wanted; ++wait)
            std::this_thread::sleep_for(std::chrono::milliseconds(10));
        return writers.answered() >= wanted;
    };
    for (int i = 0; i < 4; ++i) {
        ASSERT_TRUE(wait_for_more());
        const Backup made = backup("inc");
        ASSERT_EQ(made.status, 0) << made.err;
        EXPECT_EQ(made.text("mode"), "inc") << made.report;
    }
    ASSERT_TRUE(wait_for_more());
    file.make_slow({});
    writers.stop();

    const Backup last = backup("inc");
    ASSERT_EQ(last.status, 0) << last.err;
    EXPECT_EQ(last.text("mode"), "inc") << last.report;
    const Outcome same =
        run({"cmp", "-n", std::to_string(bytes - MiB), restore(last), file.path(), "0", std::to_string(MiB)});
    EXPECT_EQ(same.status, 0) << same.out << same.err;
}

} // namespace
