// SPDX-License-Identifier: GPL-2.0-only
// The transfer mappings: which are accepted, what a touched page shows, and what is freed when.
#include "guest_io.h"

#include <cerrno>

using namespace rig;
using hosted::faults::Kind;

namespace
{

constexpr u32 kBlock = 4096; // of sda1

class TransferMapping : public CopyOnWriteTest
{
  protected:
    // A started backup without mappings.
    Backup* begin(TestDisk& disk, u32 partition)
    {
        EXPECT_EQ(program.open(), 0);
        EXPECT_EQ(program.start(disk.device(partition), disk.blocks(partition), 100), 0);
        takeLog();
        return recordOf(program);
    }
    Backup* begin() { return begin(sda(), 1); }

    void expectFree(const BackupVMA& area)
    {
        EXPECT_EQ(area.vma, nullptr);
        EXPECT_EQ(area.vmPages, 0);
        for (page* p : area.mmPages)
            EXPECT_EQ(p, nullptr);
    }
    static bool canBeTaken(semaphore* sem)
    {
        if (down_trylock(sem))
            return false;
        up(sem);
        return true;
    }
};

} // namespace

// ---- What is accepted

TEST_F(TransferMapping, TakesAreas0And1AndRefusesAThird)
{
    Backup* b = begin();
    EXPECT_EQ(program.map(0, 3), 0);
    EXPECT_EQ(b->vmAreas[0].vmPages, 3);
    EXPECT_NE(b->vmAreas[0].vma, nullptr);
    expectFree(b->vmAreas[1]);
    EXPECT_EQ(program.map(1, 5), 0);
    EXPECT_EQ(b->vmAreas[1].vmPages, 5);
    const hosted::Live before = hosted::live();
    EXPECT_EQ(program.map(2, 1), 2);
    EXPECT_EQ(hosted::live(), before);
    EXPECT_TRUE(canBeTaken(&b->bSem));
    EXPECT_EQ(takeLog(), Lines{});
}

TEST_F(TransferMapping, AcceptsAsManyPagesAs256BlocksFillAndNoMore)
{
    TestDisk& first = sda();
    TestDisk& sdb = addDisk("sdb", 16, 8192, {{1, 0, 8192, 512}});
    struct Case {
        TestDisk& disk;
        u32 partition, pages;
    };
    for (const Case& c : {Case{first, 1, 256}, Case{first, 2, 64}, Case{sdb, 1, 32}}) {
        SCOPED_TRACE(c.pages);
        Backup* b = begin(c.disk, c.partition);
        EXPECT_EQ(program.map(0, c.pages + 1), 2);
        expectFree(b->vmAreas[0]);
        EXPECT_TRUE(canBeTaken(&b->bSem));
        EXPECT_EQ(program.map(0, c.pages), 0);
        EXPECT_EQ(b->vmAreas[0].vmPages, int(c.pages));
        EXPECT_EQ(program.close(), 0);
    }
}

TEST_F(TransferMapping, TakesOnePage)
{
    Backup* b = begin();
    EXPECT_EQ(program.map(0, 1), 0);
    EXPECT_EQ(b->vmAreas[0].vmPages, 1);
    EXPECT_NE(program.area(0)->fault(0), nullptr);
}

TEST_F(TransferMapping, NeverSeesAnEmptyMapping)
{
    Backup* b = begin();
    EXPECT_EQ(program.map(0, 0), -EINVAL); // the kernel's own answer
    expectFree(b->vmAreas[0]);
}

TEST_F(TransferMapping, IsPrivateAndReadOnly)
{
    Backup* b = begin();
    for (unsigned long flags :
         {0ul, VM_WRITE, VM_SHARED, VM_READ | VM_WRITE, VM_READ | VM_SHARED, VM_READ | VM_WRITE | VM_SHARED}) {
        SCOPED_TRACE(flags);
        EXPECT_EQ(program.map(0, 1, flags), 2);
        expectFree(b->vmAreas[0]);
    }
    EXPECT_TRUE(canBeTaken(&b->bSem));
    EXPECT_EQ(takeLog(), Lines{});
    constexpr unsigned long mayExecute = 4; // other bits do not matter
    EXPECT_EQ(program.map(0, 1, VM_READ | mayExecute), 0);
}

TEST_F(TransferMapping, StartsAtTheDevicesFirstPage)
{
    Backup* b = begin();
    EXPECT_EQ(program.map(0, 1, VM_READ, 1), 2);
    expectFree(b->vmAreas[0]);
    EXPECT_TRUE(canBeTaken(&b->bSem));
    EXPECT_EQ(takeLog(), Lines{});
}

TEST_F(TransferMapping, NeedsAStartedBackup)
{
    ASSERT_EQ(program.open(), 0);
    EXPECT_EQ(program.map(0, 1), 2);
    EXPECT_TRUE(canBeTaken(&recordOf(program)->bSem));
    ASSERT_EQ(program.close(), 0);

    Backup* b = begin();
    set_mb(&b->state, QUENDREL_STATE_STARTING);
    EXPECT_EQ(program.map(0, 1), 2);
    expectFree(b->vmAreas[0]);
    EXPECT_TRUE(canBeTaken(&b->bSem));
    set_mb(&b->state, QUENDREL_STATE_STARTED);
    EXPECT_EQ(program.map(0, 1), 0);
    EXPECT_EQ(linesOf(takeLog(), "qdrMMAP"), Lines{});
}

TEST_F(TransferMapping, NeedsAFileWithARecord)
{
    Backup* b = begin();
    file_set_private(program.file().raw(), nullptr);
    EXPECT_EQ(program.map(0, 1), 2);
    file_set_private(program.file().raw(), b);
    expectFree(b->vmAreas[0]);
    EXPECT_EQ(takeLog(), Lines{});
}

TEST_F(TransferMapping, WaitsForTheSessionCommandUnderWay)
{
    Backup* b = begin();
    down(&b->bSem);
    std::atomic<bool> mapped{false};
    std::thread mapper([&] {
        EXPECT_EQ(program.map(0, 1), 0);
        mapped = true;
    });
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
    EXPECT_FALSE(mapped);
    up(&b->bSem);
    mapper.join();
}

// ---- Memory

TEST_F(TransferMapping, CountsItsPages)
{
    Backup* b = begin();
    const int total = atomic_read(&b->totalAllocPages);
    const int now = atomic_read(&b->curAllocPages);
    const long live = hosted::live().pages;
    EXPECT_EQ(getVMAPageCount(b), 0);
    ASSERT_EQ(program.map(0, 3), 0);
    ASSERT_EQ(program.map(1, 5), 0);
    EXPECT_EQ(getVMAPageCount(b), 8);
    EXPECT_EQ(atomic_read(&b->totalAllocPages), total + 8);
    EXPECT_EQ(atomic_read(&b->curAllocPages), now + 8);
    EXPECT_EQ(hosted::live().pages, live + 8);
    program.unmap(0);
    EXPECT_EQ(getVMAPageCount(b), 5);
    EXPECT_EQ(atomic_read(&b->totalAllocPages), total + 8);
    EXPECT_EQ(atomic_read(&b->curAllocPages), now + 5);
    EXPECT_EQ(hosted::live().pages, live + 5);
}

TEST_F(TransferMapping, IsRefusedWholeWhenAnyOfItsPagesCannotBeHad)
{
    Backup* b = begin();
    const int now = atomic_read(&b->curAllocPages);
    const hosted::Live before = hosted::live();
    for (unsigned n = 1; n <= 5; n++) {
        SCOPED_TRACE(n);
        const int total = atomic_read(&b->totalAllocPages);
        hosted::faults::fail_allocation(n, unsigned(Kind::page));
        EXPECT_EQ(program.map(0, 5), 5);
        expectFree(b->vmAreas[0]);
        EXPECT_EQ(hosted::live(), before);
        EXPECT_EQ(atomic_read(&b->curAllocPages), now);
        EXPECT_EQ(atomic_read(&b->totalAllocPages), total + int(n) - 1);
        EXPECT_TRUE(canBeTaken(&b->bSem));
    }
    hosted::faults::clear();
    EXPECT_EQ(takeLog(), Lines{});
    EXPECT_EQ(program.map(0, 5), 0);
}

TEST_F(TransferMapping, AllocatesNothingOnATouch)
{
    begin();
    ASSERT_EQ(program.map(0, 5), 0);
    hosted::faults::fail_allocation(1);
    for (u32 i = 0; i < 5; i++)
        EXPECT_NE(program.area(0)->fault(i), nullptr);
    EXPECT_EQ(hosted::faults::allocations_seen(), 0u);
}

TEST_F(TransferMapping, KeepsATouchedPageUntilTheUserLetsItGo)
{
    Backup* b = begin();
    const long live = hosted::live().pages;
    ASSERT_EQ(program.map(0, 3), 0);
    const std::byte* touched = program.area(0)->fault(1);
    ASSERT_NE(touched, nullptr);
    std::memset(mmPageAddr(b, 1, &b->vmAreas[0]), 0x77, kBlock);
    freeMMPages(b, &b->vmAreas[0]);
    EXPECT_EQ(b->vmAreas[0].vmPages, 0);
    EXPECT_EQ(hosted::live().pages, live + 1);
    EXPECT_EQ(touched[17], std::byte(0x77));
    program.unmap(0);
    EXPECT_EQ(hosted::live().pages, live);
}

TEST_F(TransferMapping, FreesBothAreasWhenTheSessionEnds)
{
    Backup* b = begin();
    const long live = hosted::live().pages;
    ASSERT_EQ(program.map(0, 3), 0);
    ASSERT_EQ(program.map(1, 5), 0);
    freeAllMMPages(b);
    EXPECT_EQ(hosted::live().pages, live);
    EXPECT_EQ(b->vmAreas[0].vmPages, 0);
    EXPECT_EQ(b->vmAreas[1].vmPages, 0);
}

// ---- Touching pages

TEST_F(TransferMapping, EndsWithItsLastPage)
{
    Backup* b = begin();
    ASSERT_EQ(program.map(0, 4), 0);
    EXPECT_EQ(program.area(0)->fault(3), page_address(b->vmAreas[0].mmPages[3]));
    vm_area_struct* vma = b->vmAreas[0].vma;
    EXPECT_EQ(vma_end(vma) - vma_start(vma), 4 * PAGE_BYTES);
    EXPECT_EQ(qdrVMnopage(vma, vma_end(vma), nullptr), nullptr);
    EXPECT_EQ(takeLog(), (Lines{"<4>qdrVMnopage: Bad vm address\n"}));
    EXPECT_EQ(qdrVMnopage(vma, vma_start(vma) - 1, nullptr), nullptr); // the difference wraps
    EXPECT_EQ(takeLog(), (Lines{"<4>qdrVMnopage: Bad vm address\n"}));
}

TEST_F(TransferMapping, AddsOneReferenceToATouchedPage)
{
    Backup* b = begin();
    const long live = hosted::live().pages;
    ASSERT_EQ(program.map(0, 2), 0);
    vm_area_struct* vma = b->vmAreas[0].vma;
    page* p = qdrVMnopage(vma, vma_start(vma) + PAGE_BYTES + 17, nullptr);
    EXPECT_EQ(p, b->vmAreas[0].mmPages[1]);
    program.unmap(0);
    EXPECT_EQ(hosted::live().pages, live + 1);
    free_page_ref(p);
    EXPECT_EQ(hosted::live().pages, live);
}

TEST_F(TransferMapping, ServesACopyOfAMappingFromArea0)
{
    Backup* b = begin();
    ASSERT_EQ(program.map(0, 2), 0);
    ASSERT_EQ(program.map(1, 5), 0);
    auto copy = program.area(1)->duplicate();
    EXPECT_EQ(copy->fault(0), page_address(b->vmAreas[0].mmPages[0]));
    EXPECT_EQ(copy->fault(1), page_address(b->vmAreas[0].mmPages[1]));
    EXPECT_EQ(program.area(1)->fault(1), page_address(b->vmAreas[1].mmPages[1]));
    EXPECT_EQ(takeLog(), Lines{});
}

TEST_F(TransferMapping, HasNoPageForACopyBeyondArea0sPages)
{
    begin();
    ASSERT_EQ(program.map(0, 2), 0);
    ASSERT_EQ(program.map(1, 5), 0);
    auto copy = program.area(1)->duplicate();
    EXPECT_EQ(copy->fault(2), nullptr);
    EXPECT_EQ(takeLog(), (Lines{"<4>qdrVMnopage: Bad vm address\n"}));
}

TEST_F(TransferMapping, HasNoPageForACopyWhileArea0IsFree)
{
    begin();
    ASSERT_EQ(program.map(0, 2), 0);
    ASSERT_EQ(program.map(1, 5), 0);
    auto copy = program.area(1)->duplicate();
    program.unmap(0);
    EXPECT_EQ(copy->fault(0), nullptr);
    EXPECT_EQ(takeLog(), (Lines{"<3>qdrVMnopage: vma is not found in associated backup\n"}));
}

TEST_F(TransferMapping, HasNoPageForAMappingWithoutAFile)
{
    Backup* b = begin();
    ASSERT_EQ(program.map(0, 2), 0);
    program.area(0)->lose_file();
    EXPECT_EQ(program.area(0)->fault(0), nullptr);
    EXPECT_EQ(takeLog(), (Lines{"<4>qdrVMnopage: vma does not have associated backup\n"}));
    // Its end is not noticed either: the area is taken until the session ends.
    program.unmap(0);
    EXPECT_EQ(b->vmAreas[0].vmPages, 2);
    EXPECT_NE(b->vmAreas[0].vma, nullptr);
    EXPECT_EQ(takeLog(), Lines{});
}

// ---- The end of a mapping

TEST_F(TransferMapping, LeavesTheOtherAreaAloneAndIsTakenAgain)
{
    program.beginFullBackup(sda(), 1);
    Backup* b = recordOf(program);
    ASSERT_EQ(program.map(1, 8), 0);
    program.unmap(0);
    expectFree(b->vmAreas[0]);
    EXPECT_EQ(program.readBlocks(20, 8, 1), 0);
    EXPECT_EQ(program.blockInArea(1, 7, kBlock), sda().block(1, 27));

    ASSERT_EQ(program.map(2, 4), 0);
    EXPECT_EQ(b->vmAreas[0].vmPages, 4);
    EXPECT_EQ(vma_start(b->vmAreas[0].vma), program.area(2)->start());
    EXPECT_EQ(program.readBlocks(40, 4, 2), 0);
    EXPECT_EQ(program.blockInArea(2, 3, kBlock), sda().block(1, 43));
    EXPECT_EQ(program.blockInArea(1, 7, kBlock), sda().block(1, 27));
}

TEST_F(TransferMapping, SurvivesTheEndOfACopy)
{
    Backup* b = begin();
    ASSERT_EQ(program.map(0, 2), 0);
    auto copy = program.area(0)->duplicate();
    copy.reset();
    EXPECT_EQ(b->vmAreas[0].vmPages, 2);
    EXPECT_NE(program.area(0)->fault(1), nullptr);
    EXPECT_EQ(takeLog(), Lines{});
}

// ---- Looking areas up

TEST_F(TransferMapping, IsFoundByItsFirstAddressOnly)
{
    Backup* b = begin();
    ASSERT_EQ(program.map(0, 2), 0);
    ASSERT_EQ(program.map(1, 2), 0);
    const u32 start0 = program.area(0)->start();
    const u32 start1 = program.area(1)->start();
    BackupVMA* found = nullptr;
    EXPECT_EQ(checkVMA(b, user_addr(start0), &found), 1);
    EXPECT_EQ(found, &b->vmAreas[0]);
    EXPECT_EQ(checkVMA(b, user_addr(start1), &found), 1);
    EXPECT_EQ(found, &b->vmAreas[1]);
    for (u32 address : {0u, start0 - PAGE_BYTES, start0 + 1, start0 + PAGE_BYTES})
        EXPECT_EQ(checkVMA(b, user_addr(address), &found), 0) << address;
    program.unmap(0);
    EXPECT_EQ(checkVMA(b, user_addr(start0), &found), 0);
}

TEST_F(TransferMapping, IsFoundByItsMapping)
{
    Backup* b = begin();
    ASSERT_EQ(program.map(0, 2), 0);
    ASSERT_EQ(program.map(1, 2), 0);
    BackupVMA* found = nullptr;
    vm_area_struct* first = b->vmAreas[0].vma;
    EXPECT_EQ(findVMA(b, first, &found), 1);
    EXPECT_EQ(found, &b->vmAreas[0]);
    EXPECT_EQ(findVMA(b, b->vmAreas[1].vma, &found), 1);
    EXPECT_EQ(found, &b->vmAreas[1]);
    b->vmAreas[0].vma = nullptr;
    EXPECT_EQ(findVMA(b, first, &found), 0);
    b->vmAreas[0].vma = first;
}

TEST_F(TransferMapping, NamesTheFirstFreeArea)
{
    Backup* b = begin();
    BackupVMA* area = nullptr;
    EXPECT_EQ(maxBVMAs(b, &area), 0);
    EXPECT_EQ(area, &b->vmAreas[0]);
    ASSERT_EQ(program.map(0, 1), 0);
    EXPECT_EQ(maxBVMAs(b, &area), 0);
    EXPECT_EQ(area, &b->vmAreas[1]);
    ASSERT_EQ(program.map(1, 1), 0);
    EXPECT_EQ(maxBVMAs(b, &area), 1);
    EXPECT_EQ(area, nullptr);
    program.unmap(0);
    EXPECT_EQ(maxBVMAs(b, &area), 0);
    EXPECT_EQ(area, &b->vmAreas[0]);
}

// ---- Where a block lies

TEST_F(TransferMapping, LaysBlocksOfAPageOutAPageEach)
{
    Backup* b = begin();
    ASSERT_EQ(program.map(0, 8), 0);
    for (int i = 0; i < 8; i++)
        EXPECT_EQ(mmPageAddr(b, i, &b->vmAreas[0]), page_address(b->vmAreas[0].mmPages[i]));
}

TEST_F(TransferMapping, LaysSmallBlocksOutOneBehindTheOther)
{
    program.beginFullBackup(sda(), 2);
    Backup* b = recordOf(program);
    ASSERT_EQ(program.readBlocks(10, 8), 0);
    const std::byte* page1 = program.area(0)->fault(1);
    ASSERT_NE(page1, nullptr);
    const Bytes fifth(page1 + 1024, page1 + 2048); // at 5120 from the start
    EXPECT_EQ(fifth, sda().block(2, 15));
    EXPECT_EQ(mmPageAddr(b, 5, &b->vmAreas[0]), static_cast<char*>(page_address(b->vmAreas[0].mmPages[1])) + 1024);
    for (u32 i = 0; i < 8; i++)
        EXPECT_EQ(program.blockInArea(0, i, 1024), sda().block(2, 10 + i));
}
