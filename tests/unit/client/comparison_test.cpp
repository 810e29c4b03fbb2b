// SPDX-License-Identifier: GPL-2.0-only
#include "comparison.h"
#include "image_backup.h"
#include "layer_sums.h"
#include "support.h"
#include "verify.h"

#include <map>

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

TEST_F(Compared, WhatIsAsItWasInAnOlderBackupButNotInTheNewestIsStored)
{
    machine.driver.write(3, 77);
    machine.backup();
    machine.driver.write(3, 1); // as at first
    const auto report = afterLoss();
    EXPECT_EQ(report.backup.manifest.copiedBlocks, 4u);
    expectRight(report.backup);
}

TEST_F(Compared, ABlockThatWasReadAheadIsStoredWithTheZerosBesideIt)
{
    for (std::uint32_t block = 8; block < 24; ++block)
        machine.driver.writeZeros(block);
    machine.backup();
    machine.driver.write(9, 5);
    const auto before = machine.driver.contents();
    bool written = false;
    machine.driver.before.set([&](std::uint32_t command) {
        if (command == QUENDREL_GET_DIRTY_BLOCK && !std::exchange(written, true))
            machine.driver.write(9, 6);
    });
    const auto report = afterLoss();
    machine.driver.before.set({});
    ASSERT_TRUE(written);
    EXPECT_NE(report.backup.manifest.compared, "");
    EXPECT_EQ(report.backup.manifest.copiedBlocks, 4u);
    EXPECT_EQ(machine.restored(report.backup.path), before);
    Progress progress{Progress::Style::none};
    for (const VerifyResult& result : verifyBackups(machine.repository(), progress, machine.stop))
        EXPECT_EQ(result.problem, "");
}

// Such images were written before.
TEST_F(Compared, AnEarlierOneMayTellOfZerosBesideDataInAGranule)
{
    machine.driver.writeZeros(8);
    for (const std::uint32_t block : {9, 10, 11})
        machine.driver.write(block, block);
    StoredBackup earlier = machine.backup().backup;
    const std::vector<std::byte> then = machine.driver.contents();
    // The same image with other sums: block 8 as zeros.
    const fs::path sums = besides(earlier, ".sums");
    std::vector<LayerPiece> pieces;
    SumsReader reader{sums, earlier.manifest.sumsHash};
    while (const auto piece = reader.next())
        pieces.push_back(*piece);
    fs::remove(sums);
    SumsWriter writer{sums};
    const auto data = [&](std::uint64_t from, std::uint64_t to) {
        if (from < to)
            addPieces(writer, from, std::span{then}.subspan(from, to - from));
    };
    unsigned split = 0;
    for (const LayerPiece& piece : pieces) {
        const std::uint64_t end = piece.offset + piece.bytes;
        if (piece.zeros || piece.offset > 8192 || end < 12288) {
            writer.add(piece);
            continue;
        }
        ++split;
        data(piece.offset, 8192);
        LayerPiece zeros;
        zeros.offset = 8192;
        zeros.bytes = 1024;
        zeros.zeros = true;
        writer.add(zeros);
        data(9216, end);
    }
    ASSERT_EQ(split, 1u);
    earlier.manifest.sumsHash = writer.finish();
    const fs::path manifest = besides(earlier, ".json");
    fs::remove(manifest);
    writeDurably(manifest, asBytes(encode(earlier.manifest)));

    machine.driver.write(8, 5);
    const auto report = afterLoss();
    EXPECT_NE(report.backup.manifest.compared, "");
    EXPECT_EQ(report.backup.manifest.copiedBlocks, 4u);
    expectRight(report.backup);
    // To QEMU, too, which goes by granules.
    const fs::path raw = machine.directory / "raw";
    ASSERT_EQ(std::system(("qemu-img convert -O raw '" + report.backup.path.string() + "' '" + raw.string() + "'").c_str()), 0);
    EXPECT_EQ(readAll(raw), machine.driver.contents());
}

// However the blocks come, in whatever portions.
TEST_F(Compared, BlocksMayComeOneByOne)
{
    struct : BlockSink {
        void put(std::uint32_t first, std::span<const std::byte> blocks, const Hold&) override
        {
            for (std::size_t i = 0; i < blocks.size() / Machine::block_size; ++i) {
                const auto block = blocks.subspan(i * Machine::block_size, Machine::block_size);
                stored[first + static_cast<std::uint32_t>(i)].assign(block.begin(), block.end());
            }
        }
        std::map<std::uint32_t, std::vector<std::byte>> stored;
    } sink;
    const auto before = machine.driver.contents();
    for (const std::uint32_t block : {5u, 127u, 128u, 700u, 2998u})
        machine.driver.write(block, 9);
    const auto now = machine.driver.contents();
    const Repository repository = Repository::openImages(machine.repository());
    Comparison comparison{repository, repository.backups().back()};
    comparison.sendTo(sink);
    for (std::uint32_t block = 0; block < Machine::blocks; ++block)
        comparison.put(block, std::span{now}.subspan(std::size_t{block} * Machine::block_size, Machine::block_size), nullptr);
    EXPECT_EQ(comparison.finish().count(), sink.stored.size());
    std::vector<std::byte> result = before;
    for (const auto& [block, data] : sink.stored)
        std::copy(data.begin(), data.end(), result.begin() + static_cast<std::ptrdiff_t>(std::size_t{block} * Machine::block_size));
    EXPECT_EQ(result, now);
    EXPECT_EQ(sink.stored.size(), 4u + 4 + 4 + 4 + 3) << "in units of 4 KiB, the last of which is cut off by the device's end";
}

TEST_F(Compared, AFullOneIsTakenWhenTheEarlierOneCannotBeOpened)
{
    fs::resize_file(Repository{machine.repository()}.backups().back().path, 100);
    const auto report = afterLoss();
    EXPECT_EQ(report.backup.manifest.mode, Mode::full);
    EXPECT_EQ(machine.restored(report.backup.path), machine.driver.contents());
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
