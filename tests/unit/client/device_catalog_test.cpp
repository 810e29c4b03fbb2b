// SPDX-License-Identifier: GPL-2.0-only
#include "device_catalog.h"
#include "fake_server.h"
#include "support.h"

#include <sys/stat.h>
#include <sys/sysmacros.h>

namespace
{

using namespace test;

constexpr const char* disks = R"({"version":1,"disks":[
  {"name":"sda","major":8,"minor":0,"bytes":1048576,"file":"FILE","nbd":"nbd+unix:///sda?socket=x",
   "partitions":[{"name":"sda1","major":8,"minor":1,"start":2048,"sectors":1000,"type":"ext4","blockSize":4096},
                 {"name":"sda2","major":8,"minor":2,"start":4096,"sectors":48}]},
  {"name":"sdb","major":8,"minor":16,"bytes":4096,"file":null,"nbd":"x","type":"xfs","blockSize":512}]})";

class Catalog : public testing::Test
{
  protected:
    Catalog() { std::ofstream{directory / "disks.json"} << disks; }
    DeviceCatalog catalog() { return DeviceCatalog{directory / "control.sock", HostBlocks{}}; }

    Directory directory;
    fake::Driver driver{{8, 1}, 4096, 10};
    fake::Server server{driver, directory / "control.sock"};
};

TEST_F(Catalog, PartitionIsFoundByNameNumberAndNode)
{
    for (const char* text : {"sda1", "8:1", "/dev/sda1"}) {
        const Device device = catalog().find(text);
        EXPECT_EQ(device.name, "sda1") << text;
        EXPECT_EQ(device.number, (quendrel::DeviceNumber{8, 1}));
        EXPECT_EQ(device.bytes, 512000u);
        EXPECT_EQ(device.type, "ext4");
        EXPECT_TRUE(device.partitions.empty());
    }
}

TEST_F(Catalog, WholeDiskKnowsItsPartitions)
{
    EXPECT_EQ(catalog().find("sda").partitions, (std::vector<std::string>{"sda1", "sda2"}));
    EXPECT_TRUE(catalog().find("sdb").partitions.empty());
    EXPECT_EQ(catalog().find("sdb").type, "xfs");
    EXPECT_EQ(catalog().find("sda2").type, "");
}

TEST_F(Catalog, UnknownDeviceIsRefusedWithTheKnownOnes)
{
    try {
        catalog().find("sdc1");
        FAIL();
    } catch (const Failure& failure) {
        EXPECT_EQ(failure.exitCode(), 3);
        EXPECT_NE(std::string{failure.what()}.find("sda, sda1, sda2, sdb"), std::string::npos) << failure.what();
    }
}

TEST_F(Catalog, ListsInOrderAndKnowsTheRunDirectory)
{
    EXPECT_EQ(catalog().listed().size(), 4u);
    EXPECT_EQ(catalog().runDirectory(), directory.path());
}

TEST_F(Catalog, TellsWhetherTheDaemonLetsAChildTakeOver)
{
    EXPECT_FALSE(catalog().offersTakeOver()) << "an older daemon ends the connection";
    std::ofstream{directory / "disks.json"} << R"({"version":1,"takeOver":true,"disks":[]})";
    EXPECT_TRUE(catalog().offersTakeOver());
    EXPECT_TRUE((DeviceCatalog{"/dev/null", HostBlocks{}}.offersTakeOver())) << "a node's";
}

TEST_F(Catalog, FileOfAnotherVersionOrNoneIsRefused)
{
    std::ofstream{directory / "disks.json"} << R"({"version":2,"disks":[]})";
    EXPECT_THROW(catalog(), Failure);
    std::ofstream{directory / "disks.json"} << "{";
    EXPECT_THROW(catalog(), Failure);
    fs::remove(directory / "disks.json");
    EXPECT_THROW(catalog(), Failure);
}

// ---- behind a device node: this host's own devices

class HostCatalog : public testing::Test
{
  protected:
    HostCatalog()
    {
        device("nvme0n1", {}, "259:0", 4000);
        device("nvme0n1", "nvme0n1p1", "259:1", 1000);
        device("nvme0n1", "nvme0n1p2", "259:2", 2000);
        device("dm-0", {}, "254:0", 1500);
        write(sys() / "block/dm-0/dm/name", "vg0-root");
        fs::create_directory(sys() / "block/nvme0n1/nvme0n1p2/holders");
        fs::create_directory_symlink(sys() / "block/dm-0", sys() / "block/nvme0n1/nvme0n1p2/holders/dm-0");
        write(directory / "mountinfo", "21 1 254:0 / / rw - ext4 /dev/mapper/vg0-root rw\n"
                                       "22 1 0:5 / /proc rw - proc proc rw\n"
                                       "23 1 259:1 / /boot rw - xfs /dev/nvme0n1p1 rw\n"
                                       "24 1 259:1 /sub /srv/sub rw - xfs /dev/nvme0n1p1 rw");
    }
    static void write(const fs::path& path, const std::string& text)
    {
        fs::create_directories(path.parent_path());
        std::ofstream{path} << text << "\n";
    }
    void device(const std::string& disk, const std::string& part, const std::string& number, int sectors)
    {
        const fs::path place = part.empty() ? sys() / "block" / disk : sys() / "block" / disk / part;
        write(place / "size", std::to_string(sectors));
        write(place / "dev", number);
        if (!part.empty())
            write(place / "partition", "1");
        fs::create_directories(sys() / "dev/block");
        fs::create_directory_symlink(place, sys() / "dev/block" / number);
    }
    fs::path sys() const { return directory / "sys"; }
    DeviceCatalog catalog() const
    {
        return DeviceCatalog{"/dev/quendrel", HostBlocks{sys(), directory / "mountinfo", directory / "boot_id"}};
    }

    Directory directory;
};

TEST_F(HostCatalog, DeviceIsFoundByItsRealNumberWhateverThatIs)
{
    const Device device = catalog().find("259:1");
    EXPECT_EQ(device.name, "nvme0n1p1");
    EXPECT_EQ(device.number, (quendrel::DeviceNumber{259, 1}));
    EXPECT_EQ(device.bytes, 512000u);
    EXPECT_EQ(device.type, "xfs");
    EXPECT_EQ(catalog().find("254:0").name, "vg0-root");
    EXPECT_EQ(catalog().find("259:2").holders, std::vector<std::string>{"vg0-root"});
    EXPECT_EQ(catalog().find("259:0").partitions, (std::vector<std::string>{"nvme0n1p1", "nvme0n1p2"}));
    EXPECT_TRUE(catalog().runDirectory().empty());
}

TEST_F(HostCatalog, DeviceIsFoundByAnyPathToItsNode)
{
    const fs::path node = directory / "nvme0n1p1";
    if (::mknod(node.c_str(), S_IFBLK | 0600, makedev(259, 1)) != 0)
        GTEST_SKIP() << "only root makes device nodes";
    fs::create_directories(directory / "disk/by-uuid");
    fs::create_symlink("../../nvme0n1p1", directory / "disk/by-uuid/0123-4567");
    EXPECT_EQ(catalog().find(node).name, "nvme0n1p1");
    EXPECT_EQ(catalog().find(directory / "disk/by-uuid/0123-4567").number, (quendrel::DeviceNumber{259, 1}));
}

TEST_F(HostCatalog, WhatIsNoDeviceIsRefused)
{
    write(directory / "file", "");
    for (const std::string& text : {std::string{"nosuchdevice"}, (directory / "file").string(), std::string{"8:200"}})
        try {
            catalog().find(text);
            FAIL() << text;
        } catch (const Failure& failure) {
            EXPECT_EQ(failure.exitCode(), 3) << text;
        }
}

TEST_F(HostCatalog, MountedDevicesAreListedOnce)
{
    const DeviceCatalog all = catalog();
    std::vector<std::string> names;
    for (const Device& device : all.listed())
        names.push_back(device.name);
    EXPECT_EQ(names, (std::vector<std::string>{"vg0-root", "nvme0n1p1"}));
}

} // namespace
