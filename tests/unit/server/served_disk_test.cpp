// SPDX-License-Identifier: GPL-2.0-only
// A disk as the fronts see it: ranges, borders of partitions, results.
#include "served_disk.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <mutex>

namespace
{

using namespace quendreld;
using hosted::Op;

constexpr std::uint64_t MiB = 1 << 20;

struct ServedDiskTest : testing::Test {
    std::shared_ptr<hosted::Disk> disk = [] {
        hosted::DiskConfig config;
        config.name = "sda";
        config.store = hosted::make_memory_store(8 * MiB);
        config.partitions = {{1, 2048, 2048}, {2, 8192, 4096}}; // [1, 2) MiB and [4, 6) MiB
        return hosted::add_disk(std::move(config));
    }();
    std::mutex mutex;
    std::vector<std::pair<sector_type, u32>> writes; // sector, bytes

    ServedDiskTest()
    {
        hosted::set_disk_probe([this](const hosted::BioView& bio) {
            std::lock_guard lock(mutex);
            if (bio.write)
                writes.emplace_back(bio.sector, bio.bytes);
        });
    }
    ~ServedDiskTest() override
    {
        hosted::set_disk_probe(nullptr);
        hosted::remove_disk(disk);
    }
    std::span<std::byte> bytes() { return hosted::memory_store_bytes(disk->store()); }
};

TEST_F(ServedDiskTest, AWriteOverBordersEntersTheQueueCutThere)
{
    ServedDisk served(disk);
    std::vector<std::byte> data(6 * MiB, std::byte{0x5a});
    ASSERT_EQ(served.run(Op::write, MiB / 2, 6 * MiB, data.data()), 0);
    ASSERT_FALSE(writes.empty());
    for (const sector_type border : {2048u, 4096u, 8192u, 12288u}) {
        for (const auto& [sector, size] : writes)
            EXPECT_FALSE(sector < border && sector + size / 512 > border)
                << "a bio of " << size << " bytes at " << sector << " reaches over " << border;
        EXPECT_TRUE(std::any_of(writes.begin(), writes.end(), [&](const auto& w) { return w.first == border; }));
    }
    EXPECT_EQ(std::memcmp(bytes().data() + MiB / 2, data.data(), data.size()), 0);
    EXPECT_EQ(bytes()[MiB / 2 - 1], std::byte{0});
    EXPECT_EQ(bytes()[MiB / 2 + 6 * MiB], std::byte{0});
}

TEST_F(ServedDiskTest, AReadOverBordersReturnsTheBytesInPlace)
{
    ServedDisk served(disk);
    for (std::size_t i = 0; i < bytes().size(); ++i)
        bytes()[i] = std::byte(i * 31 >> 9);
    std::vector<std::byte> data(7 * MiB);
    ASSERT_EQ(served.run(Op::read, 512, data.size(), data.data()), 0);
    EXPECT_EQ(std::memcmp(bytes().data() + 512, data.data(), data.size()), 0);
}

TEST_F(ServedDiskTest, DiscardsAndZeroesCountAsWritesAndReadAsZeros)
{
    ServedDisk served(disk);
    std::memset(bytes().data(), 0xff, bytes().size());
    ASSERT_EQ(served.run(Op::write_zeroes, MiB, 4096), 0);
    ASSERT_EQ(served.run(Op::discard, 2 * MiB, 4096), 0);
    EXPECT_EQ(writes.size(), 2u);
    EXPECT_EQ(bytes()[MiB], std::byte{0});
    EXPECT_EQ(bytes()[MiB + 4095], std::byte{0});
    EXPECT_EQ(bytes()[MiB + 4096], std::byte{0xff});
}

TEST_F(ServedDiskTest, RangesOffTheGridOrTheDiskAreRefusedAndDoNotReachIt)
{
    ServedDisk served(disk);
    std::byte data[1024];
    EXPECT_EQ(served.run(Op::write, 1, 512, data), -EINVAL);
    EXPECT_EQ(served.run(Op::write, 0, 100, data), -EINVAL);
    EXPECT_EQ(served.run(Op::write, 8 * MiB, 512, data), -EINVAL);
    EXPECT_EQ(served.run(Op::write, 8 * MiB - 512, 1024, data), -EINVAL);
    EXPECT_EQ(served.run(Op::write, ~std::uint64_t(511), 1024, data), -EINVAL);
    EXPECT_TRUE(writes.empty());
}

TEST_F(ServedDiskTest, AnErrorOfOnePartIsTheErrorOfTheWhole)
{
    ServedDisk served(disk);
    std::vector<std::byte> data(4 * MiB);
    hosted::faults::fail_write(2);
    EXPECT_EQ(served.run(Op::write, MiB / 2, data.size(), data.data()), -EIO);
    hosted::faults::clear();
}

TEST_F(ServedDiskTest, AReadOnlyDiskRefusesChangesOnly)
{
    ServedDisk served(disk, true);
    std::byte data[512];
    EXPECT_EQ(served.run(Op::write, 0, 512, data), -EROFS);
    EXPECT_EQ(served.run(Op::discard, 0, 512), -EROFS);
    EXPECT_EQ(served.run(Op::write_zeroes, 0, 512), -EROFS);
    EXPECT_EQ(served.run(Op::read, 0, 512, data), 0);
    EXPECT_EQ(served.run(Op::flush, 0, 0), 0);
    EXPECT_TRUE(writes.empty());
}

TEST_F(ServedDiskTest, ChangesOfTablesAndSuperBlocksAreCountedBeforeTheyAreAnswered)
{
    ServedDisk served(disk);
    unsigned told = 0;
    served.set_watcher([&] { ++told; });
    std::vector<std::byte> data(4 * MiB);
    const auto counts = [&](std::uint64_t offset, std::uint64_t bytes, Op op = Op::write) {
        const auto before = served.descriptions();
        EXPECT_EQ(served.run(op, offset, bytes, data.data()), 0);
        return served.descriptions() != before;
    };
    EXPECT_TRUE(counts(0, 512)) << "the first sector";
    EXPECT_TRUE(counts(8 * MiB - 512, 512)) << "the last one";
    EXPECT_TRUE(counts(4 * MiB + 65536, 512)) << "a super block in a partition";
    EXPECT_TRUE(counts(2 * MiB, 512)) << "behind a partition, where extended boot records stand";
    EXPECT_TRUE(counts(3 * MiB, 2 * MiB)) << "over the start of one";
    EXPECT_TRUE(counts(0, 4096, Op::write_zeroes));
    EXPECT_TRUE(counts(0, 4096, Op::discard));
    EXPECT_EQ(told, 7u);
    EXPECT_FALSE(counts(0, 512, Op::read));
    EXPECT_FALSE(counts(5 * MiB, 512)) << "the middle of a partition";
    EXPECT_FALSE(counts(3 * MiB, 512)) << "the middle of nothing";
    EXPECT_EQ(told, 7u);
}

TEST_F(ServedDiskTest, WithAnotherTableWritesAreCutAtItsBorders)
{
    ServedDisk served(disk);
    served.set_table({{{1, 4096, 2048}}, {}, {}});
    std::vector<std::byte> data(6 * MiB);
    ASSERT_EQ(served.run(Op::write, MiB / 2, 6 * MiB, data.data()), 0);
    const auto begins_at = [&](sector_type sector) {
        return std::any_of(writes.begin(), writes.end(), [&](const auto& w) { return w.first == sector; });
    };
    EXPECT_TRUE(begins_at(4096));
    EXPECT_TRUE(begins_at(6144));
    EXPECT_EQ(disk->partitions(), (std::vector<hosted::PartitionSpec>{{1, 4096, 2048}}));
}

// Of a write that waits at the disk's door while the table changes. The probe sees it only behind the door.
struct WaitingAtTheDoor : ServedDiskTest {
    void write_over_a_new_border(std::uint64_t offset, std::uint64_t size, sector_type border)
    {
        ServedDisk served(disk);
        std::vector<std::byte> data(size, std::byte{0x5a});
        struct Done : IoRequest {
            std::atomic<bool> ended = false;
            int result = 1;
        } r;
        r.op = Op::write;
        r.offset = offset;
        r.bytes = size;
        r.data = data.data();
        r.done = [](IoRequest* done, int error) {
            auto* one = static_cast<Done*>(done);
            one->result = error;
            one->ended.store(true);
            one->ended.notify_one();
        };
        {
            const hosted::ClosedDoors closed;
            served.submit(&r);
            served.set_table({{{1, border, 512}}, {}, {}});
            ASSERT_TRUE(writes.empty());
        }
        r.ended.wait(false);
        EXPECT_EQ(r.result, 0);
        for (const auto& [sector, written] : writes)
            EXPECT_FALSE(sector < border && sector + written / 512 > border)
                << "a bio of " << written << " bytes at " << sector << " reaches over " << border;
        EXPECT_EQ(std::memcmp(bytes().data() + offset, data.data(), size), 0);
        EXPECT_EQ(bytes()[offset - 1], std::byte{0});
        EXPECT_EQ(bytes()[offset + size], std::byte{0});
    }
};

TEST_F(WaitingAtTheDoor, AWriteIsCutAtTheBordersThatAreThereWhenItGoesOn)
{
    write_over_a_new_border(6 * MiB + 4096, 65536, 6 * 2048 + 16);
}

TEST_F(WaitingAtTheDoor, TheRestOfAWriteThatWasCutBeforeIsToo)
{
    write_over_a_new_border(6 * MiB - 4096, 65536, 6 * 2048 + 16);
}

} // namespace
