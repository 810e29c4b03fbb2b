// SPDX-License-Identifier: GPL-2.0-only
// What is refused, what runs out of space, and who comes second: each a message, an exit code, and nothing half done.
#include "backup_rig.h"

#include <signal.h>
#include <sys/mount.h>

#include <filesystem>
#include <fstream>

namespace
{

using namespace backup_rig;
using namespace serving;

struct Refusal : testing::Test {
    ScratchDir scratch;
    std::string run_dir = scratch / "run", image = scratch / "disk.img", target = scratch / "backups";

    Refusal() { std::filesystem::create_directory(target); }
    Outcome start(const std::string& path) const
    {
        return run({Serving::program(), path, "--run-dir", run_dir, "--no-fuse"});
    }
    Outcome back_up(const std::string& device) const
    {
        return run({QBACKUP_PROGRAM, "--control", run_dir + "/control.sock", "--quiet", "backup", "--device", device,
                    "--to", target});
    }
    std::string entries() const
    {
        std::string names;
        for (const auto& entry : std::filesystem::recursive_directory_iterator(target))
            if (entry.is_regular_file() && entry.path().filename() != ".lock")
                names += entry.path().string() + "\n";
        return names;
    }
};

TEST_F(Refusal, AnImageThatIsNoDiskIsNotServed)
{
    std::ofstream(image) << "not a whole number of sectors";
    const Outcome outcome = start(image);
    EXPECT_EQ(outcome.status, 1);
    EXPECT_EQ(outcome.err,
              "quendreld: " + image +
                  ": its size, 29 bytes, is no multiple of 512; is it a disk image? (truncate -s makes it one)\n");
    EXPECT_FALSE(std::filesystem::exists(run_dir + "/control.sock"));
}

TEST_F(Refusal, ADiskOfRandomBytesIsServedAsAWholeButHasNothingToBackUp)
{
    must_run({"dd", "if=/dev/urandom", "of=" + image, "bs=1M", "count=8", "status=none"});
    Serving serving({image}, run_dir, {"--no-fuse"});
    const Outcome outcome = back_up("sda");
    EXPECT_EQ(outcome.status, 3);
    EXPECT_EQ(outcome.err, "qbackup: GetBlockSize on device 8:0 through " + run_dir +
                               "/control.sock failed with code 8: no mounted file system on the device: mount it, or "
                               "name the partition that holds the file system\n");
    EXPECT_EQ(entries(), "");
}

TEST_F(Refusal, APartitionWithoutAFileSystem)
{
    make_image(image, 16 * MiB, {{2048, 16384}});
    Serving serving({image}, run_dir, {"--no-fuse"});
    const Outcome outcome = back_up("sda1");
    EXPECT_EQ(outcome.status, 3);
    EXPECT_EQ(outcome.err, "qbackup: GetBlockSize on device 8:1 through " + run_dir +
                               "/control.sock failed with code 8: no mounted file system on the device: mount it, or "
                               "name the partition that holds the file system\n");
    EXPECT_EQ(entries(), "");
}

TEST_F(Refusal, AFileSystemWithBlocksLargerThanAPageIsNamedAsThat)
{
    for (const std::string size : {"16384", "65536"}) {
        std::filesystem::remove(image);
        make_image(image, 64 * MiB, {});
        must_run({"mke2fs", "-q", "-t", "ext4", "-F", "-b", size, image});
        Serving serving({image}, run_dir, {"--no-fuse"});
        const std::string reason = "sda has a file system with blocks of " + size +
                                   " bytes; the driver handles blocks of 512 to 4096 bytes\n";
        const Outcome outcome = back_up("sda");
        EXPECT_EQ(outcome.status, 3);
        EXPECT_EQ(outcome.err, "qbackup: " + reason);
        const Outcome status = run({QBACKUP_PROGRAM, "--control", run_dir + "/control.sock", "status"});
        EXPECT_EQ(status.status, 0);
        EXPECT_NE(status.out.find(": cannot be backed up: " + reason), std::string::npos) << status.out;
        EXPECT_EQ(entries(), "");
    }
}

TEST_F(Refusal, AWholeDiskThatHasPartitions)
{
    make_image(image, 16 * MiB, {{2048, 8192}, {10240, 8192}});
    Serving serving({image}, run_dir, {"--no-fuse"});
    const Outcome outcome = back_up("sda");
    EXPECT_EQ(outcome.status, 3);
    EXPECT_EQ(outcome.err, "qbackup: sda is a whole disk with partitions, and its writes belong to them; back up its "
                           "partitions one by one: sda1, sda2\n");
    EXPECT_EQ(entries(), "");
}

TEST_F(Refusal, ADeviceThatIsNotServed)
{
    make_image(image, 16 * MiB, {{2048, 8192}});
    Serving serving({image}, run_dir, {"--no-fuse"});
    const Outcome outcome = back_up("sda7");
    EXPECT_EQ(outcome.status, 3);
    EXPECT_EQ(outcome.err, "qbackup: the daemon serves no device sda7; it has sda, sda1\n");
}

TEST_F(Refusal, NoDaemon)
{
    const Outcome outcome = back_up("sda1");
    EXPECT_EQ(outcome.status, 3);
    EXPECT_EQ(outcome.err, "qbackup: there is no control device at " + run_dir +
                               "/control.sock: load the driver (modprobe quendrel) or start the daemon, and name its "
                               "socket with --control or QUENDREL_CONTROL\n");
}

struct Second : BackupRig {
};

TEST_F(Second, ASecondBackupAtOnceIsTurnedAwayAndDoesNotDisturbTheFirst)
{
    serve(128, 40);
    Writer writer(mnt + "/story", scratch / "writer.log");
    const auto from = now();
    const auto first = stopped_in_the_middle("first");
    std::filesystem::create_directory(scratch / "elsewhere");
    const Outcome second = run_qbackup({"backup", "--device", "sda1", "--to", scratch / "elsewhere"});
    EXPECT_EQ(second.status, 4);
    EXPECT_EQ(second.err.find("qbackup: another qbackup is running: process " + std::to_string(first->pid()) +
                              ", backup of sda1 to " + target + ", since "),
              0u)
        << second.err;
    EXPECT_TRUE(std::filesystem::is_empty(scratch / "elsewhere"));
    const Outcome status = run_qbackup({"status"});
    EXPECT_EQ(status.status, 0);
    EXPECT_EQ(status.out.find("running: process " + std::to_string(first->pid()) + ", backup of sda1"), 0u)
        << status.out;
    EXPECT_TRUE(writer.goes_on());
    const Backup made = finish(*first, from);
    ASSERT_EQ(made.status, 0) << made.err;
    EXPECT_EQ(backup("inc").text("mode"), "inc") << "tracking was disturbed";
    writer.stop();
    prove(made, writer.log());
}

TEST_F(Second, ATargetOnTheFileSystemBeingBackedUpIsRefused)
{
    serve(64, 4);
    const Outcome outcome = run_qbackup({"backup", "--device", "sda1", "--to", mnt});
    EXPECT_EQ(outcome.status, 3);
    EXPECT_EQ(
        outcome.err,
        "qbackup: the target directory " + mnt +
            " lies on sda1, the device to be backed up: writing there would change what is being copied, and would "
            "wait for ever while its file system is frozen. Choose a place on another device\n");
}

TEST_F(Second, ARestoreOverWhatTheDaemonServesIsRefusedWhateverIsForced)
{
    serve(64, 4);
    const Backup made = backup("full");
    ASSERT_EQ(made.status, 0) << made.err;
    const Outcome over_image = run_qbackup({"restore", "--force", "--from", target + "/sda1", "--to", image});
    EXPECT_EQ(over_image.status, 3);
    EXPECT_EQ(over_image.err, "qbackup: " + image + " is in use: another program (a second daemon?) serves it already; stop "
                                                    "that one first\n");
    const std::string disk = run_dir + "/disks/sda";
    const Outcome over_disk = run_qbackup({"restore", "--force", "--from", target + "/sda1", "--to", disk});
    EXPECT_EQ(over_disk.status, 3);
    EXPECT_EQ(over_disk.err, "qbackup: " + disk + " is a disk that quendreld serves; restore to a file or a device, and have "
                                                  "the daemon serve that\n");
}

struct FullTarget : BackupRig {
    // A file system of its own for the backups.
    void limit_target(const char* size, unsigned long flags = 0)
    {
        ASSERT_EQ(::mount("tmpfs", target.c_str(), "tmpfs", flags, (std::string("size=") + size).c_str()), 0);
    }
    ~FullTarget() override { ::umount2(target.c_str(), MNT_DETACH); }
};

TEST_F(FullTarget, ATargetTooSmallForTheFilesIsRefusedAtOnce)
{
    serve(128, 40);
    limit_target("24m");
    const Backup made = backup("full");
    EXPECT_EQ(made.status, 3);
    EXPECT_NE(made.err.find("qbackup: a full backup of sda1 does not fit: its file system has "), std::string::npos)
        << made.err;
    EXPECT_EQ(stored(), std::vector<std::string>{});
}

TEST_F(FullTarget, ATargetThatFillsUpMidwayFailsTheBackupAndLeavesNothingAndAFullOneFollows)
{
    serve(128, 8);
    // Bytes of deleted files are copied too, and nobody can know how many there are before they are read.
    std::ofstream(mnt + "/deleted", std::ios::binary) << [&] {
        std::string much;
        for (int i = 0; i < 6; ++i)
            much += old_file;
        return much;
    }();
    must_run({"sync", "-f", mnt});
    std::filesystem::remove(mnt + "/deleted");
    must_run({"sync", "-f", mnt});
    limit_target("32m");
    Writer writer(mnt + "/story", scratch / "writer.log");
    const Backup failed = backup("full");
    EXPECT_EQ(failed.status, 1);
    EXPECT_NE(failed.err.find("No space left on device"), std::string::npos) << failed.err;
    EXPECT_EQ(failed.report["exit"], 1);
    EXPECT_EQ(stored(), std::vector<std::string>{});
    EXPECT_TRUE(writer.goes_on()) << "the writer came to grief: " << writer.program().err();

    limit_target("200m", MS_REMOUNT);
    const Backup next = backup("auto");
    ASSERT_EQ(next.status, 0) << next.err;
    EXPECT_EQ(next.text("mode"), "full");
    writer.stop();
    prove(next, writer.log());
}

} // namespace
