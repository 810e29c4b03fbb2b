// SPDX-License-Identifier: GPL-2.0-only
// Backups of file systems in use, and what comes back of them.
#include "backup_rig.h"

#include <signal.h>

#include <filesystem>
#include <fstream>

namespace
{

using namespace backup_rig;
using namespace serving;

struct Chain : BackupRig {
};

TEST_F(Chain, FullAndThreeIncrementalsOfABusyFileSystemRestoreEachToItsOwnMoment)
{
    serve();
    Writer writer(mnt + "/story", scratch / "writer.log");
    std::vector<Backup> made;
    for (const char* mode : {"full", "inc", "inc", "auto"}) {
        made.push_back(backup(mode));
        ASSERT_EQ(made.back().status, 0) << made.back().err;
        EXPECT_EQ(made.back().text("mode"), made.size() == 1 ? "full" : "inc") << made.back().report;
        EXPECT_TRUE(writer.goes_on(100)) << "the writer came to grief: " << writer.program().err();
    }
    writer.stop();
    for (std::size_t i = 1; i < made.size(); ++i) {
        EXPECT_EQ(made[i].text("parent"), made[i - 1].text("id"));
        EXPECT_LT(made[i].report["copiedBlocks"], made[0].report["copiedBlocks"].get<unsigned>() / 4);
    }
    for (const Backup& one : made)
        prove(one, writer.log());
    const Outcome verified = run_qbackup({"--quiet", "verify", "--from", target});
    EXPECT_EQ(verified.status, 0) << verified.out << verified.err;
}

// The same in a repository of images: dropping some of them leaves the others as they are, and the chain goes on.
TEST_F(Chain, ImagesOfABusyFileSystemRestoreEachToItsOwnMomentAlsoWhenOthersWereDropped)
{
    serve();
    std::filesystem::remove(target);
    ASSERT_EQ(run_qbackup({"init", target}).status, 0);
    Writer writer(mnt + "/story", scratch / "writer.log");
    std::vector<Backup> made;
    for (unsigned i = 0; i < 5; ++i) {
        made.push_back(backup("auto"));
        ASSERT_EQ(made.back().status, 0) << made.back().err;
        EXPECT_EQ(made.back().text("mode"), i == 0 ? "full" : "inc") << made.back().report;
        EXPECT_TRUE(writer.goes_on(100)) << "the writer came to grief: " << writer.program().err();
    }
    EXPECT_GT(made[0].report["unusedBlocks"], 1000u) << "of a file system that is held still what it uses is known";
    // From the full one on, and in the middle.
    const Outcome pruned = run_qbackup({"--quiet", "prune", "--from", target, "--keep-last", "4"});
    ASSERT_EQ(pruned.status, 0) << pruned.err;
    const Backup next = backup("inc");
    ASSERT_EQ(next.status, 0) << next.err;
    writer.stop();
    for (std::size_t i = 1; i < made.size(); ++i)
        prove(made[i], writer.log());
    prove(next, writer.log());
    const Outcome verified = run_qbackup({"--quiet", "verify", "--from", target});
    EXPECT_EQ(verified.status, 0) << verified.out << verified.err;
    EXPECT_NE(run_qbackup({"restore", "--from", made[0].text("path"), "--to", scratch / "gone.img"}).status, 0);
    // With QEMU's tools alone.
    const std::string raw = scratch / "raw.img";
    must_run({"qemu-img", "convert", "-O", "raw", next.text("path"), raw});
    const Outcome check = run({"e2fsck", "-fn", raw});
    EXPECT_EQ(check.status, 0) << check.out << check.err;
}

TEST_F(Chain, OnePartitionIsBackedUpWhileTwoAreWritten)
{
    serve(192, {{2048, 262144}, {264192, 128000}}, 32);
    const std::string second = scratch / "mnt2";
    serving->mount(loop + "p2", second);
    std::filesystem::create_directory(second + "/story");
    must_run({"sync", "-f", second});
    Writer one(mnt + "/story", scratch / "one.log"), two(second + "/story", scratch / "two.log");

    const Backup full = backup("full");
    ASSERT_EQ(full.status, 0) << full.err;
    EXPECT_TRUE(one.goes_on(50));
    EXPECT_TRUE(two.goes_on(50));
    const Backup next = backup("auto");
    ASSERT_EQ(next.status, 0) << next.err;
    EXPECT_TRUE(one.goes_on());
    EXPECT_TRUE(two.goes_on());
    const Backup other = backup("full", "sda2");
    ASSERT_EQ(other.status, 0) << other.err;
    EXPECT_TRUE(one.goes_on(50));
    // Whether changes of the first are still known after a backup of the second or not: what comes back is right.
    const Backup last = backup("auto");
    ASSERT_EQ(last.status, 0) << last.err;
    one.stop();
    two.stop();

    for (const Backup* made : {&full, &next, &last})
        prove(*made, one.log());
    prove(other, two.log(), "sda2");
    const auto end = now();
    judge(mnt + "/story", one.log(), end, end);
    judge(second + "/story", two.log(), end, end);
}

TEST_F(Chain, AWriterKilledDuringABackupDoesNotHarmTheBackup)
{
    serve(128, 40);
    Writer writer(mnt + "/story", scratch / "writer.log");
    const auto from = now();
    const auto program = stopped_in_the_middle("qbackup");
    EXPECT_TRUE(writer.goes_on(50)) << "the writer has to wait for the backup";
    writer.program().signal(SIGKILL);
    EXPECT_EQ(writer.program().wait(), 128 + SIGKILL);
    const Backup made = finish(*program, from);
    ASSERT_EQ(made.status, 0) << made.err;
    prove(made, writer.log());
}

TEST_F(Chain, BlocksDiscardedDuringABackupAreInItAndGoneFromTheNext)
{
    serve(192, 24);
    const std::string content(old_file.rbegin(), old_file.rend());
    for (const char* name : {"/gone1", "/gone2"})
        std::ofstream(mnt + name, std::ios::binary) << content;
    must_run({"sync", "-f", mnt});
    const auto image_bytes = [&] { return std::stoull(must_run({"stat", "-c", "%b", image})) * 512; };
    const auto before = image_bytes();
    const auto from = now();
    const auto program = stopped_in_the_middle("qbackup");
    for (const char* name : {"/gone1", "/gone2"})
        std::filesystem::remove(mnt + name);
    must_run({"sync", "-f", mnt});
    must_run({"fstrim", mnt});
    EXPECT_LT(image_bytes() + content.size(), before) << "the discards did not reach the image";
    const Backup full = finish(*program, from);
    ASSERT_EQ(full.status, 0) << full.err;
    const Backup next = backup("inc");
    ASSERT_EQ(next.status, 0) << next.err;
    EXPECT_EQ(next.text("mode"), "inc");

    const std::string first = restore(full), second = restore(next);
    for (const std::string& restored : {first, second}) {
        const Outcome check = run({"e2fsck", "-fn", restored});
        EXPECT_EQ(check.status, 0) << check.out << check.err;
        EXPECT_TRUE(file_in(restored, "/old") == old_file);
    }
    for (const char* name : {"/gone1", "/gone2"}) {
        EXPECT_TRUE(file_in(first, name) == content) << name << " is not what it was at the snapshot";
        EXPECT_EQ(file_in(second, name), "");
    }
}

} // namespace
