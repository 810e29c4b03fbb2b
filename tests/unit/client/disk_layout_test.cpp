// SPDX-License-Identifier: GPL-2.0-only
#include "disk_layout.h"
#include "support.h"

#include <cstdlib>

namespace
{

using namespace test;

// A disk of 8 MiB with two partitions, as a daemon shows it.
class Layout : public testing::Test
{
  protected:
    Layout()
    {
        std::ofstream{disk}.flush();
        fs::resize_file(disk, 8 << 20);
        partition("label: gpt\n- 2M\n- -\n");
        device.name = "vm1p1";
        device.contents = {disk, 1 << 20};
        device.bytes = 2 << 20;
    }
    void partition(const std::string& table) const
    {
        const std::string command = "printf '" + table + "' | sfdisk --quiet '" + disk.string() + "'";
        if (std::system(command.c_str()) != 0)
            throw std::runtime_error{"no partition table"};
    }

    Directory directory;
    fs::path disk = directory / "vm1";
    Device device;
};

TEST_F(Layout, TheTableOfAPartitionsDiskMakesAnotherDiskTheSame)
{
    const auto layout = layoutOf(device);
    ASSERT_TRUE(layout);
    EXPECT_EQ(layout->disk, "vm1");
    ASSERT_TRUE(keepLayout(directory.path(), *layout));
    const auto names = namesIn(directory / "layout");
    ASSERT_EQ(names.size(), 1u);
    const fs::path other = directory / "other";
    std::ofstream{other}.flush();
    fs::resize_file(other, 8 << 20);
    const std::string command = "sfdisk --quiet '" + other.string() + "' < '" + (directory / "layout" / names[0]).string() + "'";
    ASSERT_EQ(std::system(command.c_str()), 0);
    EXPECT_EQ(readAll(other), readAll(disk));
}

TEST_F(Layout, ItIsKeptAgainWhenItHasChanged)
{
    EXPECT_TRUE(keepLayout(directory.path(), *layoutOf(device)));
    EXPECT_FALSE(keepLayout(directory.path(), *layoutOf(device)));
    fs::rename(directory / "layout" / namesIn(directory / "layout").at(0), directory / "layout/vm1-20200101T000000Z.sfdisk");
    EXPECT_FALSE(keepLayout(directory.path(), *layoutOf(device)));
    partition("label: gpt\n- 3M\n- -\n");
    EXPECT_TRUE(keepLayout(directory.path(), *layoutOf(device)));
    EXPECT_EQ(namesIn(directory / "layout").size(), 2u);
    EXPECT_FALSE(keepLayout(directory.path(), *layoutOf(device)));
}

TEST_F(Layout, WhatADeadRunLeftOfItGoes)
{
    fs::create_directory(directory / "layout");
    std::ofstream{directory / "layout/.partial-vm1-20200101T000000Z.sfdisk"} << "half";
    EXPECT_TRUE(keepLayout(directory.path(), *layoutOf(device)));
    EXPECT_EQ(namesIn(directory / "layout").size(), 1u);
}

TEST_F(Layout, OfADiskWithoutPartitionsThereIsNone)
{
    device.contents.start = 0;
    EXPECT_FALSE(layoutOf(device));
    device.contents = {directory / "missing", 1 << 20};
    EXPECT_FALSE(layoutOf(device));
}

} // namespace
