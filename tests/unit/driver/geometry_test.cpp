// SPDX-License-Identifier: GPL-2.0-only
// Device geometry: what a device number is turned into, the GetBlockSize command, and the whole disk's minor.
#include "driver_rig.h"
#include "qdrlib.h"

using rig::Program;
using Lines = std::vector<std::string>;

namespace
{

// A disk of any size without memory behind it; nothing is ever read from it.
class HollowStore final : public hosted::Store
{
  public:
    explicit HollowStore(std::uint64_t bytes) : bytes_(bytes) {}
    std::uint64_t size() const override { return bytes_; }
    void submit(hosted::StoreRequest* r) override { r->done(r, 0); }

  private:
    std::uint64_t bytes_;
};

class HollowDisk
{
  public:
    HollowDisk(u32 major, u32 firstMinor, std::uint64_t sectors, std::vector<hosted::PartitionSpec> partitions = {})
    {
        hosted::DiskConfig config;
        config.name = "hollow";
        config.major = major;
        config.first_minor = firstMinor;
        config.store = std::make_unique<HollowStore>(sectors * 512);
        config.partitions = std::move(partitions);
        disk_ = hosted::add_disk(std::move(config));
    }
    ~HollowDisk() { hosted::remove_disk(disk_); }
    HollowDisk(const HollowDisk&) = delete;
    HollowDisk& operator=(const HollowDisk&) = delete;
    hosted::Disk& disk() { return *disk_; }

  private:
    std::shared_ptr<hosted::Disk> disk_;
};

class Mounted
{
  public:
    Mounted(kdev_t dev, u32 blockSize) : dev_(dev) { hosted::mount_file_system(dev, blockSize); }
    ~Mounted() { hosted::unmount_file_system(dev_); }
    Mounted(const Mounted&) = delete;
    Mounted& operator=(const Mounted&) = delete;

  private:
    kdev_t dev_;
};

class Geometry : public rig::DriverTest
{
  protected:
    // Every byte set, so that whatever is not written shows.
    static DiskInfo dirty()
    {
        DiskInfo info;
        std::memset(static_cast<void*>(&info), 0xA5, sizeof info);
        return info;
    }
};

struct BlockArithmetic {
    u32 blockSize;
    u32 blocksPerPage;
    s32 sectorsPerBlock;
    s32 shift;
};

TEST_F(Geometry, BlockArithmeticFollowsTheBlockSize)
{
    HollowDisk disk(9, 0, 100000);
    for (const BlockArithmetic& expected : {BlockArithmetic{4096, 1, 8, 3}, BlockArithmetic{2048, 2, 4, 2},
                                            BlockArithmetic{1024, 4, 2, 1}, BlockArithmetic{512, 8, 1, 0},
                                            // not a power of two: the lowest set bit, and a remainder left out
                                            BlockArithmetic{1536, 2, 3, 0}, BlockArithmetic{3072, 1, 6, 1}}) {
        Mounted fs(disk.disk().device(), expected.blockSize);
        DiskInfo info = dirty();
        EXPECT_EQ(getDiskInfo(&info, disk.disk().device()), 0);
        EXPECT_EQ(info.blockSize, s32(expected.blockSize));
        EXPECT_EQ(info.blocksPerPage, expected.blocksPerPage);
        EXPECT_EQ(info.sectorsPerBlock, expected.sectorsPerBlock);
        EXPECT_EQ(info.sectorsPerBlockShift, expected.shift);
    }
    EXPECT_EQ(takeLog(), Lines{});
}

TEST_F(Geometry, DescribesAPartition)
{
    DiskInfo info = dirty();
    EXPECT_EQ(getDiskInfo(&info, sda().device(2)), 0);
    EXPECT_EQ(info.kdev, (8u << 20) | 2u);
    EXPECT_EQ(info.partitionStart, 2048u + 4096 * 8);
    EXPECT_EQ(info.partitionLen, 4096u * 2);
    EXPECT_EQ(info.partitionSizeKB, 4096u);
    EXPECT_EQ(info.superBlock, nullptr);
    EXPECT_EQ(info.bdev, bdget(sda().device(2)));
}

TEST_F(Geometry, LeavesTheFieldsOfTheCallerAlone)
{
    DiskInfo info{};
    info.numBlocks = 77;
    info.realMRF = qdrAMRF;
    EXPECT_EQ(getDiskInfo(&info, sda().device(1)), 0);
    EXPECT_EQ(info.numBlocks, 77u);
    EXPECT_EQ(info.realMRF, qdrAMRF);
}

TEST_F(Geometry, PartitionOf2097152SectorsHas1048576KB)
{
    HollowDisk disk(9, 0, 3000000, {{1, 63, 2097152}});
    Mounted fs(disk.disk().device(1), 4096);
    DiskInfo info{};
    EXPECT_EQ(getDiskInfo(&info, disk.disk().device(1)), 0);
    EXPECT_EQ(info.partitionSizeKB, 1048576u);
    EXPECT_EQ(info.partitionStart, 63u);
}

TEST_F(Geometry, OddSectorCountLosesItsHalfKB)
{
    HollowDisk disk(9, 0, 3000, {{1, 8, 2001}});
    Mounted fs(disk.disk().device(1), 1024);
    DiskInfo info{};
    EXPECT_EQ(getDiskInfo(&info, disk.disk().device(1)), 0);
    EXPECT_EQ(info.partitionLen, 2001u);
    EXPECT_EQ(info.partitionSizeKB, 1000u);
}

TEST_F(Geometry, WholeDiskTakesTheDisksCapacity)
{
    HollowDisk disk(9, 0, 123456);
    Mounted fs(disk.disk().device(), 4096);
    DiskInfo info = dirty();
    EXPECT_EQ(getDiskInfo(&info, disk.disk().device()), 0);
    EXPECT_EQ(info.partitionStart, 0u);
    EXPECT_EQ(info.partitionLen, 123456u);
    EXPECT_EQ(info.partitionSizeKB, 61728u);
    EXPECT_EQ(takeLog(), Lines{});
}

TEST_F(Geometry, DeviceWithoutDiskOrPartitionKeepsItsLengthWithAWarning)
{
    const kdev_t dev = kdev_make(9, 5);
    Mounted fs(dev, 4096);
    DiskInfo info{};
    info.partitionLen = 4242;
    EXPECT_EQ(getDiskInfo(&info, dev), 0);
    EXPECT_EQ(takeLog(), (Lines{"<4>getDiskInfo: can't detect device 900005 size.\n"}));
    EXPECT_EQ(info.partitionLen, 4242u);
    EXPECT_EQ(info.partitionSizeKB, 2121u);
    EXPECT_EQ(info.partitionStart, 0u);
    EXPECT_EQ(info.blockSize, 4096);
}

TEST_F(Geometry, UnmountedDeviceIsNotFound)
{
    HollowDisk disk(9, 0, 100000, {{3, 8, 800}});
    DiskInfo info = dirty();
    EXPECT_EQ(getDiskInfo(&info, disk.disk().device(3)), 8);
    EXPECT_EQ(takeLog(), (Lines{"<3>getDiskInfo: device major=9 minor=3 not found, getting super block failed\n"}));
    EXPECT_EQ(info.superBlock, nullptr);
    EXPECT_EQ(info.kdev, kdev_make(9, 3));
}

TEST_F(Geometry, NumberWithoutADeviceIsNotFound)
{
    DiskInfo info{};
    EXPECT_EQ(getDiskInfo(&info, kdev_make(200, 0xFFFFF)), 8);
    EXPECT_EQ(takeLog(),
              (Lines{"<3>getDiskInfo: device major=200 minor=1048575 not found, getting super block failed\n"}));
}

TEST_F(Geometry, BlockSizeBelowASectorIsRefused)
{
    HollowDisk disk(9, 16, 100000);
    for (u32 blockSize : {511u, 256u, 1u, 0u}) {
        Mounted fs(disk.disk().device(), blockSize);
        DiskInfo info{};
        EXPECT_EQ(getDiskInfo(&info, disk.disk().device()), 3);
        EXPECT_EQ(takeLog(),
                  (Lines{"<4>getDiskInfo: device 900010 has bad block size " + std::to_string(blockSize) + "\n"}));
        EXPECT_EQ(hosted::live().supers, 0) << "the super block was not released";
    }
}

TEST_F(Geometry, ReleasesTheSuperBlockAndKeepsTheBlockDevice)
{
    sda();
    const hosted::Live before = hosted::live();
    DiskInfo info{};
    ASSERT_EQ(getDiskInfo(&info, sda().device(1)), 0);
    ASSERT_EQ(getDiskInfo(&info, sda().device(1)), 0);
    EXPECT_EQ(hosted::live().supers, before.supers);
    EXPECT_EQ(hosted::live().block_devices, before.block_devices + 1);
}

TEST_F(Geometry, CloseDropsAHeldSuperBlockOnce)
{
    DiskInfo info{};
    ASSERT_EQ(getDiskInfo(&info, sda().device(1)), 0);
    info.superBlock = get_super(info.bdev);
    ASSERT_NE(info.superBlock, nullptr);
    ASSERT_EQ(hosted::live().supers, 1);
    closeDiskInfo(&info);
    EXPECT_EQ(info.superBlock, nullptr);
    EXPECT_EQ(hosted::live().supers, 0);
    closeDiskInfo(&info);
    EXPECT_EQ(hosted::live().supers, 0);
}

TEST_F(Geometry, FindsTheRequestQueueThroughTheDisk)
{
    DiskInfo info{};
    ASSERT_EQ(getDiskInfo(&info, sda().device(1)), 0);
    EXPECT_EQ(getRequestQueue(&info), sda().disk().queue());
    const DiskInfo empty{};
    info = empty;
    EXPECT_EQ(getRequestQueue(&info), nullptr);
    Mounted fs(kdev_make(9, 5), 4096);
    ASSERT_EQ(getDiskInfo(&info, kdev_make(9, 5)), 0);
    EXPECT_EQ(getRequestQueue(&info), nullptr);
}

class DiskMinor : public Geometry
{
};

TEST_F(DiskMinor, IsThatOfTheWholeDisk)
{
    rig::TestDisk& disk = addDisk("sdb", 16, 10000, {{1, 8, 800, 512}, {5, 1000, 800, 512}});
    EXPECT_EQ(getDiskMinor(disk.device(5)), 16);
    EXPECT_EQ(getDiskMinor(disk.device(1)), 16);
    EXPECT_EQ(getDiskMinor(disk.device(0)), 16);
    EXPECT_EQ(takeLog(), Lines{});
}

TEST_F(DiskMinor, OfADeviceWithoutAWholeDiskIsMinusOne)
{
    EXPECT_EQ(getDiskMinor(kdev_make(11, 7)), -1);
    // The minor number stands where the major is announced.
    EXPECT_EQ(takeLog(), (Lines{"<3>getDiskMinor: Parent block device not valid for MAJOR=7, MINOR=0\n"}));
}

class BlockSizeCommand : public Geometry
{
  protected:
    void SetUp() override
    {
        Geometry::SetUp();
        ASSERT_EQ(program.open(), 0);
    }
    void TearDown() override
    {
        if (program.isOpen())
            program.close();
        Geometry::TearDown();
    }
    // Sixty-four bytes of 0xEE in user memory, the answer's place.
    u32 answerPlace()
    {
        std::array<unsigned char, 64> filler;
        filler.fill(0xEE);
        return program.put(filler);
    }
    std::vector<u32> words(u32 at, u32 count)
    {
        std::vector<u32> list;
        for (u32 i = 0; i < count; i++)
            list.push_back(program.get<u32>(at + 4 * i));
        return list;
    }
    int ask(kdev_t dev, u32 at, u32 length)
    {
        return program.command(QUENDREL_GET_BLOCK_SIZE,
                               program.put(GetBlockSize{kdev_major(dev), kdev_minor(dev), at, length}));
    }
    Program program;
    static constexpr u32 untouched = 0xEEEEEEEE;
};

TEST_F(BlockSizeCommand, AnswersWithoutABackup)
{
    const u32 at = answerPlace();
    EXPECT_EQ(ask(sda().device(1), at, 16), 0);
    EXPECT_EQ(words(at, 5), (std::vector<u32>{8, 1, 4096, 16384, untouched}));
    EXPECT_EQ(takeLog(), Lines{});
    EXPECT_EQ(hosted::live().supers, 0);
}

TEST_F(BlockSizeCommand, AnswersDuringABackupOfAnotherDevice)
{
    ASSERT_EQ(program.start(sda().device(1), sda().blocks(1), 10), 0);
    const u32 at = answerPlace();
    EXPECT_EQ(ask(sda().device(2), at, 16), 0);
    EXPECT_EQ(words(at, 4), (std::vector<u32>{8, 2, 1024, 4096}));
    EXPECT_EQ(program.state().blockSize, 4096) << "the backup's own geometry was changed";
}

TEST_F(BlockSizeCommand, WithLengthEightCopiesOnlyTheDeviceNumber)
{
    const u32 at = answerPlace();
    EXPECT_EQ(ask(sda().device(1), at, 8), 0);
    EXPECT_EQ(words(at, 4), (std::vector<u32>{8, 1, untouched, untouched}));
}

TEST_F(BlockSizeCommand, WithLengthSixtyFourCopiesSixteenBytes)
{
    const u32 at = answerPlace();
    EXPECT_EQ(ask(sda().device(1), at, 64), 0);
    EXPECT_EQ(words(at, 5), (std::vector<u32>{8, 1, 4096, 16384, untouched}));
    // The caller's buffer may end right there.
    const u32 exact = program.memory().allocate(16, true, true);
    EXPECT_EQ(ask(sda().device(1), exact, 0xFFFFFFFF), 0);
}

TEST_F(BlockSizeCommand, WithLengthZeroWritesNothingAndSucceeds)
{
    EXPECT_EQ(ask(sda().device(1), 0x10, 0), 0);
    EXPECT_EQ(takeLog(), Lines{});
}

TEST_F(BlockSizeCommand, OnAnUnmountedDeviceReturnsEightAndWritesNothing)
{
    const u32 at = answerPlace();
    EXPECT_EQ(ask(sda().device(0), at, 16), 8);
    EXPECT_EQ(words(at, 4), (std::vector<u32>(4, untouched)));
    EXPECT_EQ(takeLog(), (Lines{"<3>getDiskInfo: device major=8 minor=0 not found, getting super block failed\n"}));
}

TEST_F(BlockSizeCommand, OnABlockSizeBelowASectorReturnsThreeAndWritesNothing)
{
    HollowDisk disk(9, 0, 100000);
    Mounted fs(disk.disk().device(), 128);
    const u32 at = answerPlace();
    EXPECT_EQ(ask(disk.disk().device(), at, 16), 3);
    EXPECT_EQ(words(at, 4), (std::vector<u32>(4, untouched)));
    EXPECT_EQ(takeLog(), (Lines{"<4>getDiskInfo: device 900000 has bad block size 128\n"}));
}

TEST_F(BlockSizeCommand, ToAnUnwritablePlaceLogsAndReturnsSeven)
{
    const u32 readOnly = program.memory().allocate(16, false);
    EXPECT_EQ(ask(sda().device(1), readOnly, 16), 7);
    EXPECT_EQ(takeLog(), (Lines{"<3>ioctlGetBlockSize: copy to user space failed\n"}));
    const u32 partly = program.memory().allocate(15, true, true);
    EXPECT_EQ(ask(sda().device(1), partly, 16), 7);
    EXPECT_EQ(takeLog(), (Lines{"<3>ioctlGetBlockSize: copy to user space failed\n"}));
    EXPECT_EQ(hosted::live().supers, 0);
}

TEST_F(BlockSizeCommand, OfADeviceWithoutASizeAnswersZeroKB)
{
    Mounted fs(kdev_make(9, 5), 2048);
    const u32 at = answerPlace();
    EXPECT_EQ(ask(kdev_make(9, 5), at, 16), 0);
    EXPECT_EQ(words(at, 4), (std::vector<u32>{9, 5, 2048, 0}));
    EXPECT_EQ(takeLog(), (Lines{"<4>getDiskInfo: can't detect device 900005 size.\n"}));
}

TEST_F(BlockSizeCommand, AnswersTheLowWordOfAVeryLargeSize)
{
    HollowDisk disk(9, 0, (1ull << 33) + 6);
    Mounted fs(disk.disk().device(), 4096);
    const u32 at = answerPlace();
    EXPECT_EQ(ask(disk.disk().device(), at, 16), 0);
    EXPECT_EQ(words(at, 4), (std::vector<u32>{9, 0, 4096, 3}));
}

} // namespace
