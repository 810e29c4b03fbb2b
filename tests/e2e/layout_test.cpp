// SPDX-License-Identifier: GPL-2.0-only
// Backups of a disk whose partitions are changed by whoever uses it.
#include "backup_rig.h"

#include <fcntl.h>
#include <signal.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>

namespace
{

using namespace backup_rig;
using namespace serving;

struct Layout : BackupRig {
    // As a guest does it: in the first sector of the disk, whatever is mounted.
    void repartition(const std::vector<Part>& parts) const
    {
        const DosTable table = dos_table(parts);
        const int fd = ::open(serving->file().c_str(), O_WRONLY | O_CLOEXEC);
        ASSERT_GE(fd, 0);
        EXPECT_EQ(::pwrite(fd, table.data(), table.size(), 0), ssize_t(table.size()));
        EXPECT_EQ(::fsync(fd), 0);
        ::close(fd);
    }
};

TEST_F(Layout, APartitionThatGrewIsBackedUpInFullAndWhole)
{
    serve(192, {{2048, 131072}}, 8);
    const Backup before = backup("full");
    ASSERT_EQ(before.status, 0) << before.err;
    repartition({{2048, 262144}});
    const Backup after = backup("auto");
    ASSERT_EQ(after.status, 0) << after.err;
    EXPECT_EQ(after.text("mode"), "full");
    EXPECT_EQ(after.text("fullReason"),
              "the device is not of the size and number it had at backup " + before.text("id"));
    EXPECT_EQ(std::filesystem::file_size(restore(after)), 262144u * 512);
}

TEST_F(Layout, APartitionThatMovedIsBackedUpInFullWithThatReason)
{
    serve(192, {{2048, 131072}, {200704, 131072}}, 8);
    const Backup before = backup("full");
    ASSERT_EQ(before.status, 0) << before.err;
    serving->unmount(mnt);
    must_run({"mkfs.ext4", "-q", "-b", "4096", loop + "p2"});
    repartition({{200704, 131072}});
    const Backup after = backup("auto");
    ASSERT_EQ(after.status, 0) << after.err;
    EXPECT_EQ(after.text("mode"), "full");
    EXPECT_EQ(
        after.text("fullReason"),
        "the device was not there all the time since backup " + before.text("id") +
            ": the machine or the daemon was started anew, or the disk was taken away, laid out anew or replaced");
    EXPECT_EQ(must_run({"cmp", "--bytes=67108864", "--ignore-initial=0:102760448", restore(after), image}), "");
}

TEST_F(Layout, ABackupWhosePartitionGrowsMeanwhileFailsAtItsEnd)
{
    serve(192, {{2048, 131072}}, 40);
    const auto from = now();
    const auto program = stopped_in_the_middle("qbackup");
    repartition({{2048, 262144}});
    const Backup made = finish(*program, from);
    EXPECT_EQ(made.status, 1) << made.report;
    EXPECT_EQ(made.text("error"),
              "the backup of sda1 failed: the disk was taken away, laid out anew or replaced during the "
              "backup. Nothing was kept; the next backup will be a full one");
    EXPECT_TRUE(stored().empty());
    const Backup next = backup("full");
    ASSERT_EQ(next.status, 0) << next.err;
    EXPECT_EQ(std::filesystem::file_size(restore(next)), 262144u * 512);
}

TEST_F(Layout, APartitionBesideTheOneThatChangedKeepsItsIncrements)
{
    serve(192, {{2048, 131072}, {200704, 131072}}, 8);
    const Backup before = backup("full");
    ASSERT_EQ(before.status, 0) << before.err;
    repartition({{2048, 131072}, {200704, 65536}, {300000, 2048}});
    std::ofstream(mnt + "/more") << "more";
    must_run({"sync", "-f", mnt});
    const Backup after = backup("auto");
    ASSERT_EQ(after.status, 0) << after.err;
    EXPECT_EQ(after.text("mode"), "inc") << after.report;
    EXPECT_EQ(file_in(restore(after), "/more"), "more");
}

} // namespace
