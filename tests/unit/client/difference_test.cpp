// SPDX-License-Identifier: GPL-2.0-only
// Where two backups differ, and how that is drawn.
#include "difference.h"
#include "disk_picture.h"
#include "support.h"

namespace
{

using namespace test;

using Ranges = std::vector<std::pair<std::uint64_t, std::uint64_t>>;

// In blocks of a Machine.
struct Found {
    DifferenceReport report;
    Ranges ranges;
};

Found between(const StoredBackup& a, const StoredBackup& b)
{
    Found found;
    Progress progress{Progress::Style::none};
    const StopSignal stop{0};
    found.report = findDifferences(a, b, progress, stop, [&](std::uint64_t offset, std::uint64_t bytes) {
        EXPECT_EQ(offset % Machine::block_size, 0u);
        found.ranges.emplace_back(offset / Machine::block_size, bytes / Machine::block_size);
    });
    return found;
}

// Of both formats.
class Differences : public testing::TestWithParam<bool>
{
  protected:
    Differences() { machine.images = GetParam(); }
    Machine machine;
};

TEST_P(Differences, AreTheBlocksThatWereWrittenInBetween)
{
    const StoredBackup first = machine.backup().backup;
    machine.driver.write(17, 2);
    machine.driver.write(18, 2);
    machine.backup();
    machine.driver.write(2998, 3);
    const StoredBackup third = machine.backup().backup;
    const Found found = between(first, third);
    EXPECT_EQ(found.ranges, (Ranges{{17, 2}, {2998, 1}}));
    EXPECT_EQ(found.report.differing, 3u * Machine::block_size);
    EXPECT_EQ(found.report.ranges, 2u);
}

TEST_P(Differences, AreTheSameInEitherOrder)
{
    const StoredBackup first = machine.backup().backup;
    machine.driver.write(17, 2);
    const StoredBackup second = machine.backup().backup;
    EXPECT_EQ(between(second, first).ranges, (Ranges{{17, 1}}));
}

TEST_P(Differences, AreNotWhereABlockWasWrittenAgainWithWhatItHad)
{
    const StoredBackup first = machine.backup().backup;
    machine.driver.write(300, 1); // as it was at the start
    machine.driver.write(17, 2);
    const StoredBackup second = machine.backup().backup;
    EXPECT_EQ(second.manifest.mode, Mode::incremental);
    EXPECT_EQ(between(first, second).ranges, (Ranges{{17, 1}}));
}

TEST_P(Differences, AreNotWhereABlockWasChangedAndChangedBack)
{
    machine.driver.write(300, 1);
    const StoredBackup first = machine.backup().backup;
    machine.driver.write(300, 2);
    machine.backup();
    machine.driver.write(300, 1);
    const StoredBackup third = machine.backup().backup;
    EXPECT_EQ(between(first, third).ranges, Ranges{});
}

TEST_P(Differences, OfZerosAreFound)
{
    machine.driver.write(300, 1);
    const StoredBackup first = machine.backup().backup;
    machine.driver.writeZeros(300);
    const StoredBackup second = machine.backup().backup;
    EXPECT_EQ(between(first, second).ranges, (Ranges{{300, 1}}));
}

TEST_P(Differences, OfTwoFullBackupsAreFound)
{
    const StoredBackup first = machine.backup().backup;
    machine.driver.write(17, 2);
    machine.driver.write(2000, 2);
    machine.backup();
    machine.driver.write(17, 5);
    const StoredBackup third = machine.backup(Wanted::full).backup;
    EXPECT_EQ(between(first, third).ranges, (Ranges{{17, 1}, {2000, 1}}));
}

TEST_P(Differences, WithinAChainOnlyWhatItsLayersHoldIsRead)
{
    const StoredBackup first = machine.backup().backup;
    machine.driver.write(17, 2);
    const StoredBackup second = machine.backup().backup;
    const Found found = between(first, second);
    EXPECT_EQ(found.report.compared, machine.images ? 4096u : Machine::block_size);
}

INSTANTIATE_TEST_SUITE_P(Format, Differences, testing::Bool(),
                         [](const auto& info) { return info.param ? "Images" : "Folders"; });

// One cell of 128 KiB, by the hashes.
TEST(DifferencesOfImages, OfTwoFullBackupsAreReadOnlyWhereHashesDiffer)
{
    Machine machine;
    machine.images = true;
    const StoredBackup first = machine.backup().backup;
    EXPECT_EQ(between(first, machine.backup(Wanted::full).backup).report.compared, 0u);
    machine.driver.write(17, 2);
    EXPECT_EQ(between(first, machine.backup(Wanted::full).backup).report.compared, 128u << 10);
}

TEST(DifferencesOfFormats, AnImageAndAFolderOfTheSameDiskAreCompared)
{
    Machine machine;
    const StoredBackup folder = machine.backup().backup;
    fs::rename(machine.repository(), machine.directory / "folders");
    machine.images = true;
    machine.driver.write(17, 2);
    const StoredBackup image = machine.backup(Wanted::full).backup;
    EXPECT_EQ(between(readBackup(machine.directory / "folders" / folder.manifest.id), image).ranges, (Ranges{{17, 1}}));
}

TEST(DifferencesOfSizes, WhatOnlyTheLargerDeviceHasIsADifference)
{
    Machine machine;
    const StoredBackup small = machine.backup().backup;
    Machine other;
    other.driver.write(17, 2);
    StoredBackup large = other.backup().backup;
    large.manifest.deviceBytes += 5 * Machine::block_size; // as it would be shown: zeros behind the last block
    EXPECT_EQ(between(small, large).ranges, (Ranges{{17, 1}, {Machine::blocks, 5}}));
}

TEST(DiskPicture, ShowsByShadeHowMuchOfACellIsMarked)
{
    DiskPicture picture{8 * 4096, 1024, {20, false}};
    picture.mark(4096, 4096);
    picture.mark(2 * 4096, 1024);
    picture.mark(3 * 4096, 2048);
    picture.mark(4 * 4096, 3072);
    EXPECT_EQ(picture.text(), "       0 B  .#-+*...\n            each 4.0 KiB; . same -+*# a little to all of it\n");
}

TEST(DiskPicture, HasMoreRowsOnAWiderTerminalAndSaysWhereEachBegins)
{
    DiskPicture picture{48ull << 20, 4096, {36, true}};
    picture.mark(47ull << 20, 1 << 20);
    const std::string text = picture.text();
    EXPECT_NE(text.find("  24.0 MiB  "), std::string::npos) << text;
    EXPECT_NE(text.find("\u2588\n            each 1.0 MiB"), std::string::npos) << text;
}

TEST(DiskPicture, HasNoCellThatIsSmallerThanABlock)
{
    DiskPicture picture{3 * 4096, 4096, {80, false}};
    picture.mark(4096, 4096);
    EXPECT_EQ(picture.text().substr(0, 16), "       0 B  .#.\n");
}

} // namespace
