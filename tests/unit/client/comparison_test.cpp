// SPDX-License-Identifier: GPL-2.0-only
#include "support.h"
#include "verify.h"

namespace
{

using namespace test;

// A device whose changes were not tracked, and its backups in a repository of images.
class Compared : public testing::Test
{
  protected:
    Compared()
    {
        machine.images = true;
        machine.backup();
    }
    // As after a restart: nothing is known of what was written.
    BackupReport afterLoss(Wanted wanted = Wanted::automatic)
    {
        machine.driver.forget();
        return machine.backup(wanted);
    }
    void expectRight(const StoredBackup& backup)
    {
        EXPECT_EQ(machine.restored(backup.path), machine.driver.contents());
        Progress progress{Progress::Style::none};
        for (const VerifyResult& result : verifyBackups(machine.repository(), progress, machine.stop))
            EXPECT_EQ(result.problem, "");
    }

    Machine machine;
};

TEST_F(Compared, OnlyWhatDiffersIsStoredWhenTrackingWasLost)
{
    machine.driver.write(5, 77);
    machine.driver.writeZeros(999); // held data
    const auto report = afterLoss();
    EXPECT_EQ(report.backup.manifest.mode, Mode::incremental);
    EXPECT_EQ(report.backup.manifest.compared, "changes since backup " + report.backup.manifest.parent +
                                                   " are not known: the driver was loaded anew or its tracking fell out of sync");
    EXPECT_EQ(report.backup.manifest.copiedBlocks, 8u);
    EXPECT_FALSE(report.fellBack);
    expectRight(report.backup);
}

TEST_F(Compared, ADeviceThatIsAsItWasGetsABackupWithoutBlocks)
{
    const auto report = afterLoss();
    EXPECT_EQ(report.backup.manifest.copiedBlocks, 0u);
    EXPECT_EQ(machine.driver.reads().empty(), false) << "all is read";
    expectRight(report.backup);
}

TEST_F(Compared, ARestartOfTheMachineCostsNoFullBackup)
{
    machine.instance = "boot 2";
    machine.driver.write(17, 3);
    const auto report = afterLoss();
    EXPECT_EQ(report.backup.manifest.mode, Mode::incremental);
    EXPECT_EQ(report.backup.manifest.copiedBlocks, 4u);
    expectRight(report.backup);
    // From then on changes are known again.
    machine.driver.write(33, 4);
    const auto next = machine.backup();
    EXPECT_EQ(next.backup.manifest.compared, "");
    EXPECT_EQ(next.backup.manifest.copiedBlocks, 4u);
    expectRight(next.backup);
}

TEST_F(Compared, AFullOneIsTakenWhenItIsAskedFor)
{
    EXPECT_EQ(afterLoss(Wanted::full).backup.manifest.mode, Mode::full);
}

TEST_F(Compared, AFullOneIsTakenWhenTheEarlierOneCannotBeComparedWith)
{
    damage(machine.repository() / (Repository{machine.repository()}.backups().back().manifest.id + ".sums"), 20);
    const auto report = afterLoss(Wanted::incremental);
    EXPECT_EQ(report.backup.manifest.mode, Mode::full);
    EXPECT_TRUE(report.fellBack);
    EXPECT_NE(report.backup.manifest.fullReason.find(".sums is damaged"), std::string::npos) << report.backup.manifest.fullReason;
}

// Chains of tracked and of compared backups, with zeros that come and go.
TEST_F(Compared, EveryBackupOfAMixedChainGivesTheDiskAtItsSnapshot)
{
    std::mt19937 random{11};
    std::vector<std::pair<fs::path, std::vector<std::byte>>> expected;
    unsigned compared = 0;
    for (int round = 0; round < 12; ++round) {
        for (unsigned i = random() % 50; i > 0; --i) {
            const std::uint32_t first = random() % Machine::blocks;
            const std::uint32_t last = std::min<std::uint32_t>(Machine::blocks, first + 1 + random() % 300);
            const unsigned kind = static_cast<unsigned>(random()) % 4;
            for (std::uint32_t block = first; block < last; ++block)
                kind == 0 ? machine.driver.writeZeros(block) : machine.driver.write(block, kind);
        }
        const auto report = random() % 2 == 0 ? afterLoss() : machine.backup();
        EXPECT_EQ(report.backup.manifest.mode, Mode::incremental);
        compared += report.backup.manifest.compared.empty() ? 0 : 1;
        expected.emplace_back(report.backup.path, machine.driver.contents());
    }
    EXPECT_GE(compared, 3u);
    for (const auto& [path, contents] : expected)
        ASSERT_EQ(machine.restored(path), contents) << path;
    expectRight(Repository{machine.repository()}.backups().back());
}

} // namespace
