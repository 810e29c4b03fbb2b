// SPDX-License-Identifier: GPL-2.0-only
// A disk that gets another partition table while it is in use.
#include "block.h"
#include "hosted.h"
#include "test_driver.h"

#include <atomic>
#include <cerrno>
#include <gtest/gtest.h>
#include <stdexcept>
#include <thread>

using namespace hosted;
using test_driver::MemoryDisk;

namespace
{

constexpr std::uint64_t mebibyte = 1 << 20;

std::vector<std::byte> sector(char c) { return std::vector<std::byte>(512, std::byte(c)); }

TEST(Partitions, ANewTableIsWhatRequestsAndTheDriverFindFromThenOn)
{
    MemoryDisk rig(8 * mebibyte, {{1, 2048, 2048}, {2, 4096, 2048}});
    Disk& disk = *rig.disk;
    disk.set_partitions({{1, 2048, 4096}, {3, 8192, 1024}});
    EXPECT_EQ(disk.partitions(), (std::vector<PartitionSpec>{{1, 2048, 4096}, {3, 8192, 1024}}));
    EXPECT_EQ(disk.write(4095 * 512, sector('g'), 1), 0) << "it has grown";
    EXPECT_EQ(disk.write(0, sector('n'), 3), 0) << "it is new";
    EXPECT_EQ(disk.write(0, sector('x'), 2), -ENXIO) << "it is gone";
    const auto bytes = memory_store_bytes(disk.store());
    EXPECT_EQ(bytes[6143 * 512], std::byte('g'));
    EXPECT_EQ(bytes[8192 * 512], std::byte('n'));

    block_device* second = bdget(disk.device(2));
    gendisk* gd = bdev_disk(second);
    ASSERT_TRUE(gd) << "who holds the device of a partition that is gone still finds its disk";
    EXPECT_EQ(bdev_partition_sectors(second), 0u);
    sector_type start, sectors;
    bdev_lock_partitions(second);
    EXPECT_FALSE(disk_partition(gd, 2, &start, &sectors));
    EXPECT_TRUE(disk_partition(gd, 3, &start, &sectors));
    EXPECT_EQ(start, 8192u);
    bdev_unlock_partitions(second);
    EXPECT_EQ(disk_partition_slots(gd), 4u);
}

TEST(Partitions, ATableThatDoesNotFitTheDiskChangesNothing)
{
    MemoryDisk rig(8 * mebibyte, {{1, 2048, 2048}});
    EXPECT_THROW(rig.disk->set_partitions({{16, 2048, 2048}}), std::invalid_argument);
    EXPECT_THROW(rig.disk->set_partitions({{1, 2048, 2048}, {2, 16000, 1000}}), std::invalid_argument);
    EXPECT_EQ(rig.disk->partitions(), (std::vector<PartitionSpec>{{1, 2048, 2048}}));
}

TEST(Partitions, ARequestThatWasCutForAnEarlierTableIsOutdatedAndDoesNothing)
{
    MemoryDisk rig(8 * mebibyte);
    std::vector<std::byte> data = sector('o');
    GuestRequest r;
    r.op = Op::write;
    r.bytes = 512;
    r.data = data.data();
    r.edition = rig.disk->edition();
    rig.disk->new_edition();
    int result = 1;
    r.context = &result;
    r.done = [](GuestRequest* done, int error) { *static_cast<int*>(done->context) = error; };
    rig.disk->submit(&r);
    EXPECT_EQ(result, -ESTALE);
    EXPECT_TRUE(r.outdated);
    EXPECT_EQ(memory_store_bytes(rig.disk->store())[0], std::byte(0));
}

TEST(Partitions, OneThatStaysIsFoundAtEveryMomentWhileOthersMove)
{
    MemoryDisk rig(8 * mebibyte, {{1, 2048, 2048}, {2, 8192, 1024}});
    block_device* bdev = bdget(rig.disk->device(0));
    gendisk* gd = bdev_disk(bdev);
    std::atomic<bool> ends = false;
    std::thread mover([&] {
        for (int i = 0; i < 20000; ++i)
            rig.disk->set_partitions({{1, 2048, 2048}, {2, i % 2 ? 8192u : 6000u, i % 3 ? 1024u : 2000u}});
        ends = true;
    });
    std::size_t looks = 0, missed = 0;
    bdev_lock_partitions(bdev);
    while (!ends) {
        sector_type start, sectors;
        missed += !disk_partition(gd, 1, &start, &sectors) || start != 2048 || sectors != 2048;
        ++looks;
    }
    bdev_unlock_partitions(bdev);
    mover.join();
    EXPECT_EQ(missed, 0u) << "of " << looks;
}

TEST(Partitions, ALookAtOneThatMovesFindsItWholeAtEitherPlaceOrNotAtAll)
{
    PartitionSlot slot;
    std::atomic<bool> ends = false;
    std::thread mover([&] {
        for (int i = 0; i < 2000000; ++i)
            slot.set(i % 2 ? 8192 : 6000, i % 2 ? 1024 : 2000);
        ends = true;
    });
    std::size_t torn = 0;
    while (!ends) {
        sector_type start, sectors;
        if (slot.get(&start, &sectors))
            torn += (start == 8192) != (sectors == 1024);
    }
    mover.join();
    EXPECT_EQ(torn, 0u);
}

} // namespace
