// SPDX-License-Identifier: GPL-2.0-only
// What the driver leaves behind deliberately: for each entry of the list, that it is exactly this and no more.
//
// DriverTest compares what is alive after the unload with what a test expects to be left, all but the block devices,
// which nearly every test looks at; they have a test that counts them itself.
#include "core_view.h"
#include "left_behind.h"

#include <algorithm>

using namespace rig;
using hosted::faults::Kind;

namespace
{

class LeftBehind : public DriverTest
{
  protected:
    void expectItem(const left_behind::Item& item)
    {
        EXPECT_EQ(item.shownBy,
                  std::string("LeftBehind.") + ::testing::UnitTest::GetInstance()->current_test_info()->name());
        expectLeft(item.left);
    }
};

} // namespace

TEST(LeftBehindList, EveryEntryIsShownByATestOfThisProgram)
{
    const auto& program = *::testing::UnitTest::GetInstance();
    for (const left_behind::Item& item : left_behind::items) {
        bool found = false;
        for (int s = 0; s < program.total_test_suite_count(); s++) {
            const auto& suite = *program.GetTestSuite(s);
            for (int t = 0; t < suite.total_test_count(); t++)
                found |= std::string(suite.name()) + "." + suite.GetTestInfo(t)->name() == item.shownBy;
        }
        EXPECT_TRUE(found) << item.what << " is said to be shown by " << item.shownBy;
    }
}

TEST_F(LeftBehind, ATrackingRecordWhoseMapCouldNotBeMade)
{
    expectItem(left_behind::trackingRecord);
    Program program;
    ASSERT_EQ(program.open(), 0);
    ASSERT_EQ(program.start(sda().device(1), 4096, 100), 0);
    takeLog();
    hosted::faults::fail_allocation(1, unsigned(Kind::page));
    EXPECT_EQ(program.snapshot(), 5);
    EXPECT_EQ(takeLog(),
              (Lines{"<3>newBlockMap: failed allocating page number (0) for block map\n",
                     "<3>newBlockMap: Out of Memory Error.\n", "<3>newAMS: failed to create new device map\n",
                     "<3>ioctlSnapShot: new automap failed\n"}));
    EXPECT_EQ(sessionOf(sda().device(1)), nullptr) << "it is not published";
    EXPECT_EQ(atomic_read(&curAllocAMPages), 0);
    EXPECT_EQ(program.state().state, 2u);
    EXPECT_EQ(program.snapshot(), 0) << "and in nobody's way";
    EXPECT_EQ(program.close(), 0);
}

// The same with the page array missing, and with the result of the operation itself.
TEST_F(LeftBehind, ATrackingRecordWhoseMapHasNoPageArray)
{
    expectLeft(left_behind::trackingRecord.left);
    LooseBackup b(sda(), 1);
    AutoMapSession* ams = nullptr;
    hosted::faults::fail_allocation(1, unsigned(Kind::vmalloc));
    EXPECT_EQ(newAMS(b.get(), &ams), 5);
    EXPECT_EQ(ams, nullptr) << "the caller's pointer is not written";
    EXPECT_EQ(takeLog(), (Lines{"<3>newBlockMap: failed allocating (4) bytes of memory for block map page array\n",
                                "<3>newAMS: failed to create new device map\n"}));
}

TEST_F(LeftBehind, ATrackingRecordWhoseSizeIsRefused)
{
    expectLeft(left_behind::trackingRecord.left);
    LooseBackup b(sda(), 1);
    b->diskInfo.numBlocks = 0;
    AutoMapSession* ams = nullptr;
    EXPECT_EQ(newAMS(b.get(), &ams), 2) << "the code of the map is handed on";
    EXPECT_EQ(ams, nullptr);
    EXPECT_EQ(takeLog(),
              (Lines{"<3>newBlockMap: block size size=0 invalid\n", "<3>newAMS: failed to create new device map\n"}));
}

TEST_F(LeftBehind, TheRecordOfAnOpenThatFoundTheModuleGoingAway)
{
    expectItem(left_behind::openRecord);
    hosted::faults::module_going(true);
    Program program;
    EXPECT_EQ(program.open(), 3);
    EXPECT_FALSE(program.isOpen());
    hosted::faults::module_going(false);
    EXPECT_EQ(hosted::driver_references(), 0);
}

TEST_F(LeftBehind, TheMapOfASnapshotThatALoadedOneOverwrites)
{
    expectItem(left_behind::overwrittenMap);
    trackDevice(sda(), 1);
    Program program;
    ASSERT_EQ(program.open(), 0);
    ASSERT_EQ(program.start(sda().device(1), 4096, 100), 0);
    ASSERT_EQ(program.snapshot(keyOf(sessionOf(sda().device(1)))), 0);
    EXPECT_EQ(program.loadMap(Bits(4096, true)), 0);
    EXPECT_EQ(program.close(), 0);
}

TEST_F(LeftBehind, TheMapOfASnapshotIsGivenBackWhenItIsFetchedFirst)
{
    trackDevice(sda(), 1);
    Program program;
    ASSERT_EQ(program.open(), 0);
    ASSERT_EQ(program.start(sda().device(1), 4096, 100), 0);
    ASSERT_EQ(program.snapshot(keyOf(sessionOf(sda().device(1)))), 0);
    Bits changed(4096);
    EXPECT_EQ(program.autoMap(changed), 0);
    EXPECT_EQ(program.loadMap(Bits(4096, true)), 0);
    EXPECT_EQ(program.close(), 0);
}

TEST_F(LeftBehind, TheDataCacheWhoseTwinCouldNotBeMade)
{
    expectItem(left_behind::dataCache);
    Program program;
    ASSERT_EQ(program.open(), 0);
    hosted::faults::fail_allocation(2, unsigned(Kind::slab_cache)); // the first is the one for the buckets
    EXPECT_EQ(program.start(sda().device(1), 4096, 100), 5);
    EXPECT_EQ(program.close(), 0);
}

TEST_F(LeftBehind, TheEntryCacheWhoseTwinCouldNotBeMadeIsGivenBack)
{
    Program program;
    ASSERT_EQ(program.open(), 0);
    hosted::faults::fail_allocation(3, unsigned(Kind::slab_cache));
    EXPECT_EQ(program.start(sda().device(1), 4096, 100), 5);
    EXPECT_EQ(program.close(), 0);
}

TEST_F(LeftBehind, OneReferenceOnEachBlockDeviceThatWasLookedAt)
{
    expectItem(left_behind::blockDevice);
    TestDisk& disk = addDisk("sdy", 240, 1024, {{1, 64, 512, 4096}, {2, 576, 64, 4096}});
    const hosted::Live before = hosted::live();
    Program program;
    ASSERT_EQ(program.open(), 0);
    BlockSize answer{};
    for (int i = 0; i < 3; i++)
        EXPECT_EQ(program.blockSize(disk.device(1), answer), 0);
    EXPECT_EQ(program.start(disk.device(1), 64, 10), 0);
    EXPECT_EQ(program.close(), 0);
    hosted::Live expected = before;
    expected.block_devices += left_behind::blockDevice.left.block_devices;
    EXPECT_EQ(hosted::live(), expected) << hosted::describe(hosted::live());
    ASSERT_EQ(program.open(), 0);
    EXPECT_EQ(program.blockSize(disk.device(2), answer), 0);
    EXPECT_EQ(program.close(), 0);
    expected.block_devices += left_behind::blockDevice.left.block_devices;
    EXPECT_EQ(hosted::live(), expected) << hosted::describe(hosted::live());
}

TEST_F(LeftBehind, TheCacheLockOfAnIdleFile)
{
    expectItem(left_behind::heldLock);
    // closeCache as the close of an idle file calls it, on a record that can be looked at afterwards.
    LooseBackup b(sda(), 1);
    init_rwsem(&b->cacheUsers);
    closeCache(b.get());
    rw_semaphore held = b->cacheUsers;
    rw_semaphore free;
    init_rwsem(&free);
    EXPECT_NE(std::memcmp(&held, &free, sizeof held), 0) << "held for writing";
    up_write(&b->cacheUsers); // a lock that is not held would end the process here
}

TEST_F(LeftBehind, TheRegistrysCountAfterANullQueue)
{
    expectItem(left_behind::registryCount);
    takeLog();
    EXPECT_EQ(getRealMRF(nullptr), nullptr);
    EXPECT_EQ(takeLog(), (Lines{"<4>getRealMRF: Can't get MRF on NULL queue.\n"}));
    EXPECT_EQ(atomic_read(&queueListUsers), 0);
    atomic_set(&queueListUsers, 1); // or the unload would wait for ever
}
