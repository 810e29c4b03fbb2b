// SPDX-License-Identifier: GPL-2.0-only
// Backups of a disk whose writes take long, so that each snapshot meets some under way.
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

struct SlowDisk : BackupRig {
    std::optional<LossyFile> store;
    ~SlowDisk() override { serving.reset(); } // before the file that it serves
};

// One that was let in before the snapshot and arrives after its block was copied would be in no backup at all: its mark
// is in the map that the snapshot took.
TEST_F(SlowDisk, AWriteThatIsUnderWayAtASnapshotIsInThatBackupOrInTheNext)
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
