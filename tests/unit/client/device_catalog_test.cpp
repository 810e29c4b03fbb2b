#include "device_catalog.h"
#include "fake_server.h"
#include "support.h"

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

TEST_F(Catalog, FileOfAnotherVersionOrNoneIsRefused)
{
    std::ofstream{directory / "disks.json"} << R"({"version":2,"disks":[]})";
    EXPECT_THROW(catalog(), Failure);
    std::ofstream{directory / "disks.json"} << "{";
    EXPECT_THROW(catalog(), Failure);
    fs::remove(directory / "disks.json");
    EXPECT_THROW(catalog(), Failure);
}

} // namespace
