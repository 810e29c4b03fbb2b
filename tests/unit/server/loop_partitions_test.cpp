// SPDX-License-Identifier: GPL-2.0-only
// The partitions of a loop device of this host, without a daemon.
#include "loop_partitions.h"

#include "serving.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <linux/blkpg.h>
#include <sys/ioctl.h>

#include <chrono>
#include <thread>

namespace
{

using namespace serving;
using namespace std::chrono_literals;
using base::Descriptor;
using quendreld::DiskRecord;

constexpr std::uint64_t MiB = 1 << 20;

struct LoopPartitions : testing::Test {
    ScratchDir scratch;
    DiskRecord disk{"sda", 8, 0, 16 * MiB, scratch / "disk.img", {}, {}, {}, {}};
    std::string loop;
    Descriptor fd;

    void SetUp() override
    {
        if (const std::string reason = no_loop_reason(); !reason.empty())
            GTEST_SKIP() << reason;
        make_image(disk.file, disk.bytes, {});
        loop = must_run({"losetup", "--find", "--show", disk.file});
        loop.pop_back(); // the line's end
        fd = Descriptor(::open(loop.c_str(), O_RDONLY | O_CLOEXEC));
    }
    void TearDown() override
    {
        fd.reset();
        if (!loop.empty())
            run({"sh", "-c", "delpart " + loop + " 1; losetup -d " + loop});
    }
    void disk_has(unsigned number, std::uint64_t start, std::uint64_t sectors)
    {
        disk.partitions.push_back({"sda" + std::to_string(number), 8, number, start, sectors, {}, {}});
    }
    void host_has(int number, std::uint64_t start, std::uint64_t sectors) const
    {
        blkpg_partition part{};
        part.pno = number;
        part.start = static_cast<long long>(start * 512);
        part.length = static_cast<long long>(sectors * 512);
        blkpg_ioctl_arg argument{BLKPG_ADD_PARTITION, 0, sizeof part, &part};
        ASSERT_EQ(::ioctl(fd.get(), BLKPG, &argument), 0) << errno;
    }
    std::string found() const
    {
        std::string all;
        const auto loops = quendreld::loops_over(disk.file);
        for (const auto& device : loops.at(0).devices)
            if (device.partition)
                all += std::to_string(device.partition) + "@" + std::to_string(device.start) + "+" +
                       std::to_string(device.sectors) + " ";
        return all;
    }
};

TEST_F(LoopPartitions, OneThatIsThereAlreadyIsAsGoodAsAdded)
{
    disk_has(1, 2048, 4096);
    host_has(1, 2048, 4096);
    quendreld::add_partitions(fd.get(), loop, disk);
    EXPECT_EQ(found(), "1@2048+4096 ");
}

TEST_F(LoopPartitions, OneThatAnEarlierUseOfTheDeviceHasLeftMakesRoom)
{
    disk_has(1, 2048, 4096);
    host_has(1, 8192, 1024);
    quendreld::add_partitions(fd.get(), loop, disk);
    EXPECT_EQ(found(), "1@2048+4096 ");
}

TEST_F(LoopPartitions, OneThatWasLeftAndIsStillInUseIsWaitedFor)
{
    disk_has(1, 2048, 4096);
    host_has(1, 8192, 1024);
    Descriptor user(::open((loop + "p1").c_str(), O_RDONLY | O_CLOEXEC));
    ASSERT_TRUE(user) << errno;
    std::thread soon_done([&] {
        std::this_thread::sleep_for(300ms);
        user.reset();
    });
    EXPECT_NO_THROW(quendreld::add_partitions(fd.get(), loop, disk));
    soon_done.join();
    EXPECT_EQ(found(), "1@2048+4096 ");
}

TEST_F(LoopPartitions, OneInUseThatHasMovedStaysAndIsTold)
{
    disk_has(1, 2048, 4096);
    host_has(1, 8192, 1024);
    const Descriptor user(::open((loop + "p1").c_str(), O_RDONLY | O_CLOEXEC));
    ASSERT_TRUE(user) << errno;
    EXPECT_EQ(quendreld::follow_table(disk),
              std::vector{loop + "p1 does not follow the partition table: it is in use; detach the disk and attach it "
                                 "again when it is not"});
    EXPECT_EQ(found(), "1@8192+1024 ");
}

TEST_F(LoopPartitions, OneInUseIsNotTakenAway)
{
    host_has(1, 8192, 1024);
    const Descriptor user(::open((loop + "p1").c_str(), O_RDONLY | O_CLOEXEC));
    ASSERT_TRUE(user) << errno;
    try {
        quendreld::remove_partitions(fd.get(), quendreld::loops_over(disk.file).at(0), "sda");
        FAIL() << "taken away";
    } catch (const std::runtime_error& error) {
        EXPECT_EQ(error.what(), "sda: " + loop + "p1 is in use (open, or mounted in another mount namespace)");
    }
    EXPECT_EQ(found(), "1@8192+1024 ");
}

} // namespace
