// SPDX-License-Identifier: GPL-2.0-only
// Refusals before a backup starts, on a host made of files.
#include "preflight.h"
#include "support.h"

#include <sys/stat.h>
#include <sys/sysmacros.h>

namespace
{

using namespace test;

// A sysfs and a mountinfo of its own; the real directory `place` lies on the device that this host says it does.
class Host
{
  public:
    Host()
    {
        fs::create_directories(sys / "block");
        fs::create_directories(sys / "dev" / "block");
    }

    static std::string number(dev_t device)
    {
        return std::to_string(major(device)) + ":" + std::to_string(minor(device));
    }
    void write(const fs::path& path, const std::string& text)
    {
        fs::create_directories(path.parent_path());
        std::ofstream{path} << text << "\n";
    }
    void disk(const std::string& name, dev_t device, const std::string& backing = "")
    {
        write(sys / "block" / name / "dev", number(device));
        write(sys / "block" / name / "size", "2048");
        write(sys / "block" / name / "diskseq", std::to_string(++disks));
        if (!backing.empty())
            write(sys / "block" / name / "loop" / "backing_file", backing);
        fs::create_directory_symlink(sys / "block" / name, sys / "dev" / "block" / number(device));
    }
    void partition(const std::string& disk, const std::string& name, dev_t device, const std::string& start)
    {
        const fs::path directory = sys / "block" / disk / name;
        write(directory / "dev", number(device));
        write(directory / "start", start);
        write(directory / "partition", "1");
        fs::create_directory_symlink(directory, sys / "dev" / "block" / number(device));
    }
    void madeOf(const std::string& upper, const fs::path& lower)
    {
        fs::create_directories(sys / "block" / upper / "slaves");
        fs::create_directories(lower / "holders");
        fs::create_directory_symlink(lower, sys / "block" / upper / "slaves" / lower.filename());
        fs::create_directory_symlink(sys / "block" / upper, lower / "holders" / upper);
    }
    HostBlocks blocks() const { return HostBlocks{sys, root / "mountinfo", root / "boot_id"}; }
    // What the real directory lies on.
    dev_t real() const
    {
        struct stat st {
        };
        ::stat(root.path().c_str(), &st);
        return st.st_dev;
    }

    Directory root;
    fs::path sys = root / "sys";
    int disks = 0;
};

Device on(std::set<dev_t> nodes)
{
    Device device;
    device.name = "sda1";
    device.number = {8, 1};
    device.hostDevices = std::move(nodes);
    return device;
}

std::string refusalOf(const std::function<void()>& action)
{
    try {
        action();
    } catch (const Failure& failure) {
        EXPECT_EQ(failure.exitCode(), 3);
        return failure.what();
    }
    return "";
}

TEST(Preflight, SwapSpaceAndOtherThingsThatAreNoFileSystemAreRefusedForWhatTheyAre)
{
    const auto refusal = [](const char* holds) {
        Device device;
        device.name = "sda2";
        device.holds = holds;
        try {
            refuseUnfitDevice(device);
        } catch (const Failure& failure) {
            EXPECT_EQ(failure.exitCode(), 3);
            return std::string{failure.what()};
        }
        return std::string{"taken"};
    };
    EXPECT_EQ(refusal("swap"), "sda2 is swap space: there is nothing in it to back up");
    EXPECT_EQ(refusal("LVM2_member"), "sda2 holds no file system but LVM2_member, which the driver cannot freeze; back "
                                      "up what lies on it where it is in use");
    EXPECT_EQ(refusal(""), "taken");
}

TEST(Preflight, TargetOnTheDeviceItselfIsRefused)
{
    const Host host;
    const std::string text =
        refusalOf([&] { refuseOnDevice(on({host.real()}), host.blocks(), host.root.path(), "the target directory"); });
    EXPECT_NE(text.find("the target directory"), std::string::npos);
    EXPECT_NE(text.find("sda1"), std::string::npos);
}

TEST(Preflight, TargetOnAnotherDeviceIsTaken)
{
    const Host host;
    EXPECT_EQ(refusalOf([&] {
                  refuseOnDevice(on({makedev(7, 250)}), host.blocks(), host.root.path(), "the target directory");
              }),
              "");
}

TEST(Preflight, TargetThatIsNotThereYetCountsAsItsParent)
{
    const Host host;
    EXPECT_NE(refusalOf([&] { refuseOnDevice(on({host.real()}), host.blocks(), host.root / "a/b/c", "the log"); }), "");
}

// The target's file system is in an image file that lies on the device.
TEST(Preflight, TargetInAnImageOnTheDeviceIsRefused)
{
    if (major(Host{}.real()) == 0)
        GTEST_SKIP() << "temporary directory is on no block device";
    Host host;
    const dev_t below = makedev(7, 251);
    host.disk("loop251", below);
    host.disk("over", host.real());
    fs::create_directories(host.sys / "block" / "over" / "slaves");
    fs::create_directory_symlink(host.sys / "block" / "loop251", host.sys / "block" / "over" / "slaves" / "loop251");
    EXPECT_NE(refusalOf([&] { refuseOnDevice(on({below}), host.blocks(), host.root.path(), "the target"); }), "");
    EXPECT_TRUE(host.blocks().underlying(host.root.path()).contains(host.real()));
}

TEST(HostBlocks, LoopDevicesOverAServedDiskAreFoundByItsFile)
{
    Host host;
    host.disk("loop3", makedev(7, 3), "/run/quendrel/disks/sda");
    host.partition("loop3", "loop3p1", makedev(259, 4), "2048");
    host.partition("loop3", "loop3p2", makedev(259, 5), "4096");
    host.disk("loop4", makedev(7, 4), "/elsewhere");
    const HostBlocks blocks = host.blocks();
    EXPECT_EQ(blocks.loopsOver("/run/quendrel/disks/sda", 0), std::set<dev_t>{makedev(7, 3)});
    EXPECT_EQ(blocks.loopsOver("/run/quendrel/disks/sda", 4096), std::set<dev_t>{makedev(259, 5)});
    EXPECT_TRUE(blocks.loopsOver("/run/quendrel/disks/sdb", 0).empty());
}

TEST(HostBlocks, FileUnderALoopDeviceCountsToo)
{
    Host host;
    if (major(host.real()) == 0)
        GTEST_SKIP() << "temporary directory is on no block device";
    const Directory elsewhere;
    host.disk("loop9", host.real(), (elsewhere / "image").string());
    EXPECT_EQ(host.blocks().underlying(host.root.path()), std::set<dev_t>{host.real()});
}

TEST(HostBlocks, MountPointIsFoundWithEscapedBlanks)
{
    Host host;
    host.write(host.root / "mountinfo", "36 27 7:3 / /mnt/with\\040blank rw - ext4 /dev/loop3 rw\n"
                                        "37 27 0:40 / /proc rw - proc proc rw");
    const auto mounts = host.blocks().mountsOf(makedev(7, 3));
    ASSERT_EQ(mounts.size(), 1u);
    EXPECT_EQ(mounts[0].point, fs::path{"/mnt/with blank"});
    EXPECT_EQ(mounts[0].type, "ext4");
    EXPECT_TRUE(host.blocks().mountsOf(makedev(7, 4)).empty());
    EXPECT_EQ(host.blocks().mounted(), std::set<dev_t>{makedev(7, 3)});
}

// A container's root, or a live system's: what is written there is written to the upper directory.
TEST(HostBlocks, TargetOnAnOverlayLiesWhereItsUpperDirectoryLies)
{
    Host host;
    struct stat proc {
    };
    ASSERT_EQ(::stat("/proc", &proc), 0); // plays the overlay: a real directory on no block device
    host.write(host.root / "mountinfo", "36 27 " + Host::number(proc.st_dev) +
                                            " / /proc rw - overlay overlay rw,lowerdir=/a:/b,upperdir=" +
                                            (host.root / "upper").string() + ",workdir=/proc/nothing\n" + "37 27 " +
                                            Host::number(host.real()) + " / / rw - ext4 x rw");
    const auto before = host.blocks().underlying("/proc");
    EXPECT_TRUE(before.empty()) << "the upper directory is not there";
    fs::create_directory(host.root / "upper");
    const std::set<dev_t> found = host.blocks().underlying("/proc");
    EXPECT_EQ(found, host.blocks().underlying(host.root.path()));
    if (major(host.real()) != 0) {
        EXPECT_TRUE(found.contains(host.real()));
    }
}

TEST(HostBlocks, OverlayWhoseUpperDirectoryLiesOnItselfEndsTheSearch)
{
    Host host;
    host.write(host.root / "mountinfo", "36 27 " + Host::number(host.real()) + " / / rw - overlay overlay rw,upperdir=" +
                                            host.root.path().string());
    host.blocks().underlying(host.root.path());
}

TEST(HostBlocks, WholeDiskWithPartitionsIsKnown)
{
    Host host;
    host.disk("sda", makedev(8, 0));
    host.partition("sda", "sda1", makedev(8, 1), "2048");
    host.disk("sdb", makedev(8, 16));
    EXPECT_EQ(host.blocks().node(makedev(8, 0))->partitions, std::vector<std::string>{"sda1"});
    EXPECT_TRUE(host.blocks().node(makedev(8, 1))->partitions.empty());
    EXPECT_TRUE(host.blocks().node(makedev(8, 16))->partitions.empty());
    EXPECT_EQ(host.blocks().node(makedev(8, 16))->bytes, 2048u * 512);
    EXPECT_EQ(host.blocks().node(makedev(8, 32)), std::nullopt);
}

TEST(HostBlocks, LogicalVolumeHasItsGivenNameAndItsPartKnowsIt)
{
    Host host;
    host.disk("nvme0n1", makedev(259, 0));
    host.partition("nvme0n1", "nvme0n1p3", makedev(259, 3), "4096");
    host.disk("dm-0", makedev(254, 0));
    host.write(host.sys / "block/dm-0/dm/name", "vg0-root");
    host.madeOf("dm-0", host.sys / "block/nvme0n1/nvme0n1p3");
    EXPECT_EQ(host.blocks().node(makedev(254, 0))->name, "vg0-root");
    EXPECT_EQ(host.blocks().node(makedev(259, 3))->holders, std::vector<std::string>{"vg0-root"});
    EXPECT_EQ(host.blocks().node(makedev(259, 0))->partitions, std::vector<std::string>{"nvme0n1p3"});
    host.write(host.sys / "block/dm-0/dm/name", "../../etc");
    EXPECT_EQ(host.blocks().node(makedev(254, 0))->name, "dm-0");
}

TEST(HostBlocks, WhatIsWrittenAndDiscardedIsCountedAndNothingElse)
{
    Host host;
    host.disk("vdb", makedev(8, 16));
    host.write(host.sys / "block" / "vdb" / "queue" / "iostats", "1");
    std::vector<std::uint64_t> counts{1, 2, 3, 4, 5, 6, 7, 8, 0, 10, 11, 12, 13, 14, 15, 16, 17};
    const auto written = [&] {
        std::string line;
        for (const std::uint64_t count : counts)
            line += "  " + std::to_string(count);
        host.write(host.sys / "block" / "vdb" / "stat", line);
        return host.blocks().written(makedev(8, 16));
    };
    const auto before = written();
    ASSERT_TRUE(before);
    for (std::size_t i = 0; i < counts.size(); ++i) {
        const bool counted = (i >= 4 && i <= 6) || (i >= 11 && i <= 13);
        ++counts[i];
        if (i != 8) {
            EXPECT_EQ(written() != before, counted) << "field " << i;
        }
        --counts[i];
    }
    counts[8] = 1;
    EXPECT_FALSE(written()) << "something is under way";
    counts[8] = 0;
    counts[4] = 0;
    EXPECT_FALSE(written()) << "a device that counts nothing";
    counts[4] = 5;
    counts.resize(11);
    EXPECT_TRUE(written()) << "an older kernel";
    counts.resize(4);
    EXPECT_FALSE(written());
}

TEST(HostBlocks, WithoutCountingThereIsNoAccount)
{
    Host host;
    host.disk("vdb", makedev(8, 16));
    host.write(host.sys / "block" / "vdb" / "stat", "1 2 3 4 5 6 7 8 0 10 11");
    EXPECT_FALSE(host.blocks().written(makedev(8, 16)));
    host.write(host.sys / "block" / "vdb" / "queue" / "iostats", "0");
    EXPECT_FALSE(host.blocks().written(makedev(8, 16)));
    EXPECT_FALSE(host.blocks().written(makedev(8, 99)));
}

TEST(HostBlocks, APartitionHasItsOwnAccountUnderItsDisksSwitch)
{
    Host host;
    host.disk("vdb", makedev(8, 16));
    host.partition("vdb", "vdb1", makedev(8, 17), "2048");
    host.write(host.sys / "block" / "vdb" / "queue" / "iostats", "1");
    host.write(host.sys / "block" / "vdb" / "stat", "1 2 3 4 50 60 70 8 1 10 11");
    host.write(host.sys / "block" / "vdb" / "vdb1" / "stat", "1 2 3 4 5 6 7 8 0 10 11");
    EXPECT_EQ(host.blocks().written(makedev(8, 17)), "5 6 7 0 0 0");
    host.write(host.sys / "block" / "vdb" / "queue" / "iostats", "0");
    EXPECT_FALSE(host.blocks().written(makedev(8, 17)));
}

// A stick that was unplugged and comes back has its old number, name, size and serial number, and may have been written
// to elsewhere.
TEST(Instance, DiskThatWasAwayIsAnotherOne)
{
    Host host;
    host.disk("sdb", makedev(8, 16));
    host.partition("sdb", "sdb1", makedev(8, 17), "2048");
    host.write(host.root / "boot_id", "11111111-2222");
    const std::string before = host.blocks().instance(makedev(8, 17));
    EXPECT_EQ(host.blocks().instance(makedev(8, 17)), before);
    host.write(host.sys / "block/sdb/diskseq", "77");
    EXPECT_NE(host.blocks().instance(makedev(8, 17)), before);
    fs::remove_all(host.sys / "dev/block/8:17");
    EXPECT_NE(host.blocks().instance(makedev(8, 17)).find("gone"), std::string::npos);
}

TEST(Instance, StartAndBootAndLayoutCount)
{
    Host host;
    host.disk("sdb", makedev(8, 16));
    host.partition("sdb", "sdb1", makedev(8, 17), "2048");
    host.write(host.root / "boot_id", "11111111-2222");
    std::set<std::string> seen{host.blocks().instance(makedev(8, 17))};
    host.write(host.sys / "block/sdb/sdb1/start", "4096");
    seen.insert(host.blocks().instance(makedev(8, 17)));
    host.write(host.root / "boot_id", "11111111-3333");
    seen.insert(host.blocks().instance(makedev(8, 17)));
    host.write(host.sys / "block/sdb/serial", "another stick");
    seen.insert(host.blocks().instance(makedev(8, 17)));
    EXPECT_EQ(seen.size(), 4u);
}

TEST(Instance, WithoutASequenceNumberTheDirectoryIsTheDisk)
{
    Host host;
    host.disk("sdb", makedev(8, 16));
    fs::remove(host.sys / "block/sdb/diskseq");
    const std::string before = host.blocks().instance(makedev(8, 16));
    fs::rename(host.sys / "block/sdb", host.sys / "block/old");
    fs::create_directory(host.sys / "block/sdb");
    EXPECT_NE(host.blocks().instance(makedev(8, 16)), before);
}

TEST(Instance, OfALogicalVolumeGoesDownToItsDisks)
{
    Host host;
    host.disk("sda", makedev(8, 0));
    host.partition("sda", "sda3", makedev(8, 3), "4096");
    host.disk("sdb", makedev(8, 16));
    host.disk("dm-0", makedev(254, 0));
    host.write(host.sys / "block/dm-0/dm/uuid", "LVM-abc");
    host.madeOf("dm-0", host.sys / "block/sda/sda3");
    const std::string before = host.blocks().instance(makedev(254, 0));
    EXPECT_NE(before.find("8:3 from sector 4096 disk 1"), std::string::npos) << before;
    host.madeOf("dm-0", host.sys / "block/sdb");
    EXPECT_NE(host.blocks().instance(makedev(254, 0)), before);
}

// Its paths come and go.
TEST(Instance, OfAMultipathDeviceIsItsOwn)
{
    Host host;
    host.disk("sda", makedev(8, 0));
    host.disk("sdb", makedev(8, 16));
    host.disk("dm-0", makedev(254, 0));
    host.write(host.sys / "block/dm-0/dm/uuid", "mpath-36001");
    host.madeOf("dm-0", host.sys / "block/sda");
    const std::string before = host.blocks().instance(makedev(254, 0));
    host.madeOf("dm-0", host.sys / "block/sdb");
    EXPECT_EQ(host.blocks().instance(makedev(254, 0)), before);
}

TEST(Preflight, DeviceNumberIsTheDriversBusiness)
{
    Device device;
    device.name = "nvme0n1p1";
    device.number = {259, 1};
    EXPECT_EQ(refusalOf([&] { refuseUnfitDevice(device); }), "");
    device.number = {8, 256};
    EXPECT_EQ(refusalOf([&] { refuseUnfitDevice(device); }), "");
}

TEST(Preflight, PartOfAnotherDeviceIsRefusedAndThatOneIsNamed)
{
    Device device = on({});
    device.holders = {"vg0-root", "vg0-home"};
    EXPECT_NE(refusalOf([&] { refuseUnfitDevice(device); }).find("vg0-root, vg0-home"), std::string::npos);
    device.type = "ext4"; // mounted all the same
    EXPECT_EQ(refusalOf([&] { refuseUnfitDevice(device); }), "");
}

TEST(Preflight, FileSystemThatIsNotFrozenThroughItsDeviceIsRefused)
{
    Device device = on({});
    for (const char* type : {"ext2", "ext3", "ext4", "xfs", "vfat", ""}) {
        device.type = type;
        EXPECT_EQ(refusalOf([&] { refuseUnfitFileSystem(device); }), "") << type;
    }
    device.type = "btrfs";
    EXPECT_NE(refusalOf([&] { refuseUnfitFileSystem(device); }).find("btrfs"), std::string::npos);
}

TEST(Preflight, WholeDiskWithPartitionsIsRefusedAndTheyAreNamed)
{
    Device device;
    device.name = "sda";
    device.number = {8, 0};
    device.partitions = {"sda1", "sda2"};
    EXPECT_NE(refusalOf([&] { refuseUnfitDevice(device); }).find("sda1, sda2"), std::string::npos);
}

TEST(Preflight, DeviceLargerThanTheFreeSpaceIsWarnedOf)
{
    const Host host;
    Device device = on({});
    device.bytes = 1;
    EXPECT_EQ(checkSpace(device, host.blocks(), host.root.path()), std::nullopt);
    device.bytes = 1ULL << 60;
    EXPECT_NE(checkSpace(device, host.blocks(), host.root.path()), std::nullopt);
}

// A file system with more in use than the target has free: any real one against /proc, which has nothing free.
TEST(Preflight, FullBackupThatCannotFitIsRefused)
{
    Host host;
    const auto mountedHere = [&](dev_t device) {
        host.write(host.root / "mountinfo",
                   "36 27 " + Host::number(device) + " / " + host.root.path().string() + " rw - ext4 x rw");
        return refusalOf([&] { checkSpace(on({device}), host.blocks(), "/proc"); });
    };
    EXPECT_NE(mountedHere(host.real()).find("does not fit"), std::string::npos);
    // Something else was mounted over it, and says nothing about it.
    EXPECT_EQ(mountedHere(makedev(7, 3)), "");
}

} // namespace
