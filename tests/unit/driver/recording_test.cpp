// SPDX-License-Identifier: GPL-2.0-only
// Recording writes: which blocks of which device a request marks in the tracking map, and what a request past the
// map's end does.
#include "core_view.h"

#include <thread>

using namespace rig;

namespace
{

// A request that never reaches a queue: only its device, place and size are looked at.
class TestBio
{
  public:
    TestBio(TestDisk& disk, sector_type sector, u32 bytes) : page_(alloc_page(GFP_NOIO)), bio_(bio_alloc(GFP_NOIO, 1))
    {
        bio_set_bdev(bio_, bdget(disk.device(0)));
        bio_set_single_vector(bio_, page_, bytes, 0);
        bio_set_sector(bio_, sector);
    }
    ~TestBio()
    {
        bio_put(bio_);
        free_page_ref(page_);
    }
    TestBio(const TestBio&) = delete;
    TestBio& operator=(const TestBio&) = delete;
    bio* get() { return bio_; }

  private:
    page* page_;
    bio* bio_;
};

constexpr sector_type kStart = 2048; // of sda1
constexpr u32 kSectors = 4096 * 8;   // in sda1

class Recording : public DriverTest
{
  protected:
    // Device sda1, tracked in sync, with a map of `totalBlocks` blocks.
    AutoMapSession* track(u32 totalBlocks = 4096)
    {
        trackDevice(sda(), 1, totalBlocks);
        takeLog();
        return sessionOf(sda().device(1));
    }
    void record(sector_type sector, u32 bytes)
    {
        TestBio bio(sda(), sector, bytes);
        updateAM(bio.get(), 1);
    }
    int guest(hosted::Op op, u64 offset, u64 bytes, bool readAhead = false)
    {
        struct Waiter {
            std::atomic<int> done{1};
        } waiter;
        Bytes data(bytes, std::byte(0x5A));
        hosted::GuestRequest r;
        r.op = op;
        r.read_ahead = readAhead;
        r.offset = offset;
        r.bytes = bytes;
        r.data = data.data();
        r.context = &waiter;
        r.done = [](hosted::GuestRequest* request, int error) { static_cast<Waiter*>(request->context)->done = error; };
        sda().disk().submit(&r, 1);
        eventually([&] { return waiter.done <= 0; });
        return waiter.done;
    }
};

using Blocks = std::vector<u32>;

} // namespace

TEST_F(Recording, LeavesADeviceWithoutASessionAlone)
{
    AutoMapSession* ams = track();
    const sector_type inSecond = kStart + kSectors;
    TestBio bio(sda(), inSecond, 4096);
    updateAM(bio.get(), 2);
    EXPECT_EQ(atomic_read(&amListUsers), 1);
    EXPECT_EQ(atomic_read(&ams->users), 1);
    EXPECT_EQ(membersOf(ams->map), Blocks{});
    EXPECT_EQ(takeLog(), Lines{});
    EXPECT_EQ(sda().writeBlock(2, 3, 0x77), 0);
    EXPECT_EQ(sda().block(2, 3), Bytes(1024, std::byte(0x77)));
    EXPECT_EQ(membersOf(ams->map), Blocks{});
}

TEST_F(Recording, MarksEveryBlockThatAWriteTouches)
{
    AutoMapSession* ams = track();
    EXPECT_EQ(sda().writeSectors(1, 7, 2, 1), 0); // the last sector of block 0, the first of block 1
    EXPECT_EQ(sda().writeSectors(1, 40 * 8, 24, 1), 0);
    EXPECT_EQ(membersOf(ams->map), (Blocks{0, 1, 40, 41, 42}));
    EXPECT_EQ(atomic_read(&amListUsers), 1);
    EXPECT_EQ(atomic_read(&ams->users), 1);
}

TEST_F(Recording, CountsAWriteBeforeThePartitionFromItsFirstBlock)
{
    AutoMapSession* ams = track();
    record(kStart - 8, 16 * 512);
    EXPECT_EQ(membersOf(ams->map), (Blocks{0, 1})) << "the length is kept, only the start is moved";
}

TEST_F(Recording, ClampsAWriteThatRunsPastThePartitionToItsLastSector)
{
    AutoMapSession* ams = track();
    record(kStart + kSectors - 4, 64 * 512);
    EXPECT_EQ(membersOf(ams->map), Blocks{4095});
    EXPECT_EQ(ams->state, 1u);
    EXPECT_EQ(takeLog(), Lines{});
}

TEST_F(Recording, KeepsAnEndThatEqualsThePartitionsLength)
{
    AutoMapSession* ams = track();
    record(kStart + kSectors - 8, 9 * 512);
    EXPECT_EQ(membersOf(ams->map), Blocks{4095});
    EXPECT_EQ(ams->state, 0u);
    EXPECT_EQ(takeLog(), (Lines{"<4>updateAM: device resize detected (block 4096 in size 4096) in automap update, "
                                "automap not in sync\n"}));
}

TEST_F(Recording, AnEmptyPartitionClampsToItsFirstBlock)
{
    AutoMapSession* ams = track();
    ams->diskInfo.partitionLen = 0;
    record(kStart, 64 * 512);
    EXPECT_EQ(membersOf(ams->map), Blocks{0});
    EXPECT_EQ(ams->state, 1u);
}

TEST_F(Recording, AnEmptyWriteAtTheFirstSectorMarksBlockZero)
{
    AutoMapSession* ams = track();
    record(kStart, 0);
    EXPECT_EQ(membersOf(ams->map), Blocks{0});
}

TEST_F(Recording, AnEmptyWriteMarksItsBlockOnlyInsideABlock)
{
    AutoMapSession* ams = track();
    record(kStart + 5 * 8, 0);
    EXPECT_EQ(membersOf(ams->map), Blocks{}) << "it ends before its own block";
    record(kStart + 5 * 8 + 1, 0);
    EXPECT_EQ(membersOf(ams->map), Blocks{5});
}

TEST_F(Recording, APartialLastSectorReachesOneSectorFurther)
{
    AutoMapSession* ams = track();
    record(kStart + 16, 4096);
    EXPECT_EQ(membersOf(ams->map), Blocks{2});
    record(kStart + 80, 4096 + 100);
    EXPECT_EQ(membersOf(ams->map), (Blocks{2, 10, 11}));
}

TEST_F(Recording, RecordsNothingForASessionOutOfSync)
{
    AutoMapSession* ams = track();
    set_mb(&ams->state, 0);
    EXPECT_EQ(sda().writeBlock(1, 9, 0x31), 0);
    EXPECT_EQ(membersOf(ams->map), Blocks{});
    EXPECT_EQ(ams->state, 0u);
    EXPECT_EQ(atomic_read(&ams->users), 1);
    EXPECT_EQ(sda().block(1, 9), Bytes(4096, std::byte(0x31)));
    EXPECT_EQ(takeLog(), Lines{});
}

TEST_F(Recording, AWriteAcrossTheMapsEndIsRecordedToItAndPutsTheSessionOutOfSync)
{
    AutoMapSession* ams = track(100);
    EXPECT_EQ(sda().writeSectors(1, 99 * 8, 4 * 8, 0x42), 0);
    EXPECT_EQ(membersOf(ams->map), Blocks{99});
    EXPECT_EQ(ams->state, 0u);
    EXPECT_EQ(takeLog(), (Lines{"<4>updateAM: device resize detected (block 100 in size 100) in automap update, "
                                "automap not in sync\n",
                                "<4>updateAM: device resize detected (block 101 in size 100) in automap update, "
                                "automap not in sync\n",
                                "<4>updateAM: device resize detected (block 102 in size 100) in automap update, "
                                "automap not in sync\n"}));
    for (u32 block = 99; block <= 102; block++)
        EXPECT_EQ(sda().block(1, block), Bytes(4096, std::byte(0x42))) << "the write itself goes through";
    EXPECT_EQ(hookOf(sda()), qdrAMRF);
}

TEST_F(Recording, AWritePastTheMapsEndDuringABackupPutsTheSessionOutOfSync)
{
    Program program;
    ASSERT_EQ(program.open(), 0);
    ASSERT_EQ(program.start(sda().device(1), 100, 1000), 0);
    ASSERT_EQ(program.snapshot(), 0);
    takeLog();
    EXPECT_EQ(sda().writeBlock(1, 100, 0x43), 0);
    EXPECT_EQ(sda().block(1, 100), Bytes(4096, std::byte(0x43)));
    EXPECT_EQ(linesOf(takeLog(), "updateAM"), (Lines{"<4>updateAM: device resize detected (block 100 in size 100) in "
                                                     "automap update, automap not in sync\n"}));
    EXPECT_EQ(program.autoMapState().state, 0u);
    EXPECT_EQ(program.close(), 0);
}

TEST_F(Recording, BlockZeroOfAnEmptyMapIsNotSeenAsAResize)
{
    AutoMapSession* ams = track();
    ams->map.size = 0;
    record(kStart, 4096);
    EXPECT_EQ(ams->state, 1u);
    EXPECT_EQ(takeLog(), Lines{});
    record(kStart + 8, 4096);
    EXPECT_EQ(ams->state, 0u) << "block 1 is";
    ams->map.size = 4096; // its pages are counted by it when they are freed
    EXPECT_EQ(takeLog(), (Lines{"<4>updateAM: device resize detected (block 1 in size 0) in automap update, automap "
                                "not in sync\n"}));
    EXPECT_EQ(membersOf(ams->map), Blocks{});
}

TEST_F(Recording, OnlyRequestsThatChangeDataAreRecorded)
{
    AutoMapSession* ams = track();
    EXPECT_EQ(guest(hosted::Op::read, 4096 * 1, 4096), 0);
    EXPECT_EQ(guest(hosted::Op::read, 4096 * 2, 4096, true), 0);
    EXPECT_EQ(sda().disk().flush(), 0);
    EXPECT_EQ(membersOf(ams->map), Blocks{});
    EXPECT_EQ(guest(hosted::Op::write, 4096 * 3, 4096), 0);
    EXPECT_EQ(guest(hosted::Op::discard, 4096 * 5, 4096), 0);
    EXPECT_EQ(guest(hosted::Op::write_zeroes, 4096 * 7, 8192), 0);
    EXPECT_EQ(membersOf(ams->map), (Blocks{3, 5, 7, 8}));
}

TEST_F(Recording, AWriteToTheWholeDiskIsRecordedForThePartitionItFallsIn)
{
    AutoMapSession* ams = track();
    const Bytes data(4096, std::byte(0x66));
    EXPECT_EQ(sda().disk().write((kStart + 6 * 8) * 512, data, 0), 0);
    EXPECT_EQ(membersOf(ams->map), Blocks{6});
}

TEST_F(Recording, WhileOnlyTrackingRunsAWriteIsRecordedBeforeItReachesTheDisk)
{
    AutoMapSession* ams = track();
    DiskGate gate([](const hosted::BioView& b) { return b.write; });
    std::thread writer([&] { EXPECT_EQ(sda().writeBlock(1, 12, 1), 0); });
    gate.waitUntilStopped();
    EXPECT_EQ(membersOf(ams->map), Blocks{12});
    gate.open();
    writer.join();
}

TEST_F(Recording, AHeldWriteIsRecordedBeforeItReachesTheDisk)
{
    Program program;
    ASSERT_NO_FATAL_FAILURE(program.beginFullBackup(sda(), 1));
    AutoMapSession* ams = sessionOf(sda().device(1));
    DiskGate gate([](const hosted::BioView& b) { return !b.write; }); // the read of the old block
    std::thread writer([&] { EXPECT_EQ(sda().writeBlock(1, 12, 1), 0); });
    gate.waitUntilStopped();
    EXPECT_EQ(membersOf(ams->map), Blocks{12});
    gate.open();
    writer.join();
    EXPECT_EQ(program.close(), 0);
}

TEST_F(Recording, DuringABackupAWriteToAnotherPartitionIsRecordedForItsOwnSession)
{
    ASSERT_NO_FATAL_FAILURE(trackDevice(sda(), 2));
    Program program;
    ASSERT_NO_FATAL_FAILURE(program.beginFullBackup(sda(), 1));
    EXPECT_EQ(sda().writeBlock(2, 30, 1), 0);
    EXPECT_EQ(membersOf(sessionOf(sda().device(2))->map), Blocks{30});
    EXPECT_EQ(membersOf(sessionOf(sda().device(1))->map), Blocks{});
    EXPECT_EQ(program.close(), 0);
}

TEST_F(Recording, WritersAtOnceLoseNoBlock)
{
    AutoMapSession* ams = track();
    std::vector<std::thread> writers;
    for (u32 t = 0; t < 4; t++)
        writers.emplace_back([this, t] {
            for (u32 block = t; block < 512; block += 4)
                EXPECT_EQ(sda().writeBlock(1, block, 1), 0);
        });
    for (std::thread& writer : writers)
        writer.join();
    EXPECT_EQ(membersOf(ams->map).size(), 512u);
    EXPECT_EQ(atomic_read(&ams->users), 1);
}
