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
    HostBlocks blocks() const { return HostBlocks{sys, root / "mountinfo"}; }
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
    host.write(host.root / "mountinfo", "36 27 7:3 / /mnt/with\\040blank rw - ext4 /dev/loop3 rw");
    EXPECT_EQ(host.blocks().mountPoint(makedev(7, 3)), fs::path{"/mnt/with blank"});
    EXPECT_EQ(host.blocks().mountPoint(makedev(7, 4)), std::nullopt);
}

TEST(HostBlocks, WholeDiskWithPartitionsIsKnown)
{
    Host host;
    host.disk("sda", makedev(8, 0));
    host.partition("sda", "sda1", makedev(8, 1), "2048");
    host.disk("sdb", makedev(8, 16));
    EXPECT_TRUE(host.blocks().node(makedev(8, 0))->partitioned);
    EXPECT_FALSE(host.blocks().node(makedev(8, 1))->partitioned);
    EXPECT_FALSE(host.blocks().node(makedev(8, 16))->partitioned);
    EXPECT_EQ(host.blocks().node(makedev(8, 16))->bytes, 2048u * 512);
    EXPECT_EQ(host.blocks().node(makedev(8, 32)), std::nullopt);
}

TEST(Preflight, DeviceNumberAbove255IsRefusedAndNvmeSaidPlainly)
{
    Device device;
    device.name = "nvme0n1p1";
    device.number = {259, 1};
    EXPECT_NE(refusalOf([&] { refuseUnfitDevice(device); }).find("NVMe"), std::string::npos);
    device.number = {8, 256};
    EXPECT_NE(refusalOf([&] { refuseUnfitDevice(device); }).find("8:256"), std::string::npos);
    device.number = {255, 255};
    EXPECT_EQ(refusalOf([&] { refuseUnfitDevice(device); }), "");
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
    host.write(host.root / "mountinfo", "36 27 7:3 / / rw - ext4 /dev/loop3 rw");
    const std::string text = refusalOf([&] { checkSpace(on({makedev(7, 3)}), host.blocks(), "/proc"); });
    EXPECT_NE(text.find("does not fit"), std::string::npos);
}

} // namespace
