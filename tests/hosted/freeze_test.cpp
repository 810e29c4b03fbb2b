// SPDX-License-Identifier: GPL-2.0-only
// Mounted file systems: their super blocks, and what a freeze holds and waits for.
#include "test_driver.h"

#include <atomic>
#include <gtest/gtest.h>
#include <thread>

using namespace hosted;
using test_driver::MemoryDisk;

namespace
{

constexpr std::uint64_t mebibyte = 1 << 20;

class Mounted
{
  public:
    explicit Mounted(kdev_t dev, std::shared_ptr<Freezer> freezer = {}) : dev_(dev)
    {
        mount_file_system(dev, 4096, std::move(freezer));
    }
    ~Mounted() { unmount_file_system(dev_); }

  private:
    kdev_t dev_;
};

struct Writer {
    std::atomic<bool> done{false};
    std::thread thread;
    Writer(Disk& disk, std::uint64_t offset, u32 partition)
        : thread([this, &disk, offset, partition] {
              std::byte sector[512] = {};
              EXPECT_EQ(disk.write(offset, sector, partition), 0);
              done = true;
          })
    {
    }
    ~Writer() { thread.join(); }
    bool done_soon()
    {
        for (int i = 0; i < 100 && !done; ++i)
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        return done;
    }
};

} // namespace

TEST(Freeze, BlocksLargerThanAPageAreThoseOfADeviceThatIsNotMounted)
{
    MemoryDisk d(4 * mebibyte, {{1, 2048, 2048}});
    block_device* bdev = bdget(d.disk->device(1));
    for (const u32 block_size : {8192u, 16384u, 65536u}) {
        mount_file_system(d.disk->device(1), block_size);
        EXPECT_EQ(get_super(bdev), nullptr) << block_size;
        EXPECT_EQ(freeze_bdev(bdev), nullptr) << block_size;
    }
    unmount_file_system(d.disk->device(1));
}

TEST(Freeze, SuperBlockAnswersOnlyWhileMounted)
{
    MemoryDisk d(4 * mebibyte, {{1, 2048, 2048}});
    block_device* bdev = bdget(d.disk->device(1));
    EXPECT_EQ(get_super(bdev), nullptr);
    mount_file_system(d.disk->device(1), 1024);
    super_block* sb = get_super(bdev);
    ASSERT_NE(sb, nullptr);
    EXPECT_EQ(super_block_size(sb), 1024u);
    EXPECT_EQ(live().supers, 1);
    unmount_file_system(d.disk->device(1));
    EXPECT_EQ(super_block_size(sb), 1024u) << "a reference outlives the mount";
    EXPECT_EQ(get_super(bdev), nullptr);
    drop_super(sb);
    EXPECT_EQ(live().supers, 0);
}

TEST(Freeze, HoldsWritesAtTheDoorUntilTheThaw)
{
    MemoryDisk d(4 * mebibyte, {{1, 2048, 2048}, {2, 4096, 2048}});
    Mounted fs(d.disk->device(1));
    block_device* bdev = bdget(d.disk->device(1));
    super_block* sb = freeze_bdev(bdev);
    ASSERT_NE(sb, nullptr);
    Writer to_partition(*d.disk, 0, 1);
    Writer through_the_whole_disk(*d.disk, 2049 * 512, 0);
    Writer to_the_other(*d.disk, 0, 2);
    Writer beside_it(*d.disk, 0, 0);
    EXPECT_TRUE(to_the_other.done_soon());
    EXPECT_TRUE(beside_it.done_soon());
    std::byte sector[512];
    EXPECT_EQ(d.disk->read(0, sector, 1), 0) << "reads go on";
    EXPECT_EQ(d.disk->flush(), 0);
    EXPECT_FALSE(to_partition.done);
    EXPECT_FALSE(through_the_whole_disk.done);
    thaw_bdev(bdev, sb);
    EXPECT_TRUE(to_partition.done_soon());
    EXPECT_TRUE(through_the_whole_disk.done_soon());
}

namespace
{

// A write that nobody waits for.
struct Sent {
    std::byte sector[512] = {};
    std::atomic<int> result{1};
    GuestRequest request;
    explicit Sent(Disk& disk, u32 partition, std::uint64_t offset = 0)
    {
        request.op = Op::write;
        request.offset = offset;
        request.bytes = sizeof sector;
        request.data = sector;
        request.context = this;
        request.done = [](GuestRequest* r, int error) { static_cast<Sent*>(r->context)->result = error; };
        disk.submit(&request, partition);
    }
    bool done_soon()
    {
        for (int i = 0; i < 1000 && result == 1; ++i)
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        return result != 1;
    }
};

} // namespace

TEST(Freeze, WhoeverSubmitsAHeldWriteGoesOnWithOthers)
{
    MemoryDisk d(4 * mebibyte, {{1, 2048, 2048}});
    Mounted fs(d.disk->device(1));
    block_device* bdev = bdget(d.disk->device(1));
    super_block* sb = freeze_bdev(bdev);
    ASSERT_NE(sb, nullptr);
    Sent held(*d.disk, 1), also_held(*d.disk, 1, 4096), beside_it(*d.disk, 0);
    EXPECT_EQ(beside_it.result, 0);
    EXPECT_EQ(held.result, 1);
    EXPECT_EQ(also_held.result, 1);
    thaw_bdev(bdev, sb);
    EXPECT_TRUE(held.done_soon());
    EXPECT_TRUE(also_held.done_soon());
    EXPECT_EQ(held.result + also_held.result, 0);
}

TEST(Freeze, AThawLetsInOnlyWhatNoOtherFreezeHolds)
{
    MemoryDisk d(4 * mebibyte, {{1, 2048, 2048}, {2, 4096, 2048}});
    Mounted first(d.disk->device(1)), second(d.disk->device(2));
    block_device* bdevs[] = {bdget(d.disk->device(1)), bdget(d.disk->device(2))};
    super_block* supers[] = {freeze_bdev(bdevs[0]), freeze_bdev(bdevs[1])};
    ASSERT_TRUE(supers[0] && supers[1]);
    Sent one(*d.disk, 1), two(*d.disk, 2), one_more(*d.disk, 1, 512);
    thaw_bdev(bdevs[0], supers[0]);
    EXPECT_TRUE(one.done_soon());
    EXPECT_TRUE(one_more.done_soon());
    EXPECT_EQ(two.result, 1);
    thaw_bdev(bdevs[1], supers[1]);
    EXPECT_TRUE(two.done_soon());
}

TEST(Freeze, WaitsForWritesInFlight)
{
    MemoryDisk d(4 * mebibyte);
    Mounted fs(d.disk->device());
    block_device* bdev = bdget(d.disk->device());
    std::atomic<int> step{0};
    set_disk_probe([&](const BioView&) {
        step = 1;
        while (step != 2)
            std::this_thread::yield();
    });
    std::atomic<bool> frozen{false};
    super_block* sb = nullptr;
    {
        Writer writer(*d.disk, 0, 0);
        while (step != 1)
            std::this_thread::yield();
        std::thread freezer([&] {
            sb = freeze_bdev(bdev);
            frozen = true;
        });
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
        EXPECT_FALSE(frozen);
        step = 2;
        freezer.join();
        EXPECT_TRUE(writer.done_soon());
    }
    set_disk_probe(nullptr);
    ASSERT_NE(sb, nullptr);
    thaw_bdev(bdev, sb);
}

TEST(Freeze, ThousandsOfFreezesUnderWritersLoseNone)
{
    MemoryDisk d(4 * mebibyte);
    Mounted fs(d.disk->device());
    block_device* bdev = bdget(d.disk->device());
    std::atomic<bool> stop{false};
    // The bytes may only change while nothing is frozen.
    std::vector<std::thread> writers;
    for (unsigned t = 0; t < 2; ++t) {
        writers.emplace_back([&, t] {
            std::byte sector[512];
            for (unsigned i = 0; !stop; ++i) {
                std::fill(std::begin(sector), std::end(sector), std::byte(i));
                ASSERT_EQ(d.disk->write(t * 512, sector), 0);
            }
        });
    }
    for (int i = 0; i < 1000; ++i) {
        super_block* sb = freeze_bdev(bdev);
        ASSERT_NE(sb, nullptr);
        std::byte before[1024], after[1024];
        d.disk->read(0, before);
        std::this_thread::yield();
        d.disk->read(0, after);
        thaw_bdev(bdev, sb);
        ASSERT_EQ(std::vector(before, before + 1024), std::vector(after, after + 1024));
    }
    stop = true;
    for (auto& w : writers)
        w.join();
}

TEST(Freeze, CallsTheFreezerOfAMountedFileSystem)
{
    struct Counting final : Freezer {
        bool freeze() override
        {
            ++freezes;
            return works;
        }
        void thaw() override { ++thaws; }
        int freezes = 0, thaws = 0;
        bool works = true;
    };
    auto counting = std::make_shared<Counting>();
    MemoryDisk d(4 * mebibyte);
    Mounted fs(d.disk->device(), counting);
    block_device* bdev = bdget(d.disk->device());
    super_block* sb = freeze_bdev(bdev);
    ASSERT_NE(sb, nullptr);
    std::byte sector[512] = {};
    EXPECT_EQ(d.disk->write(0, sector), 0) << "the file system itself holds its writers";
    thaw_bdev(bdev, sb);
    EXPECT_EQ(counting->freezes, 1);
    EXPECT_EQ(counting->thaws, 1);
    counting->works = false;
    EXPECT_EQ(freeze_bdev(bdev), nullptr);
    thaw_bdev(bdev, nullptr);
    EXPECT_EQ(counting->thaws, 1) << "a failed freeze thaws nobody else's";
    counting->works = true;
    faults::fail_freeze(true);
    EXPECT_EQ(freeze_bdev(bdev), nullptr);
    faults::clear();
    EXPECT_EQ(live().supers, 0);
}
