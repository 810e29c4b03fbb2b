// SPDX-License-Identifier: GPL-2.0-only
// kbackupd: the order in which held requests are saved, passed on and marked, and what it does when saving fails.
#include "guest_io.h"

#include <filesystem>
#include <fstream>

using namespace rig;
using hosted::Op;
using hosted::faults::Kind;

namespace
{

constexpr u32 kBlock = 4096; // of sda1

using Blocks = std::vector<u32>;

class Worker : public CopyOnWriteTest
{
  protected:
    // Starts a full backup of sda1 and forgets what that logged.
    Backup* begin(u32 maxCacheBlocks = 100000)
    {
        program.beginFullBackup(sda(), 1, maxCacheBlocks);
        takeLog();
        return recordOf(program);
    }
    AutoMapSession* tracking() { return sessionOf(sda().device(1)); }
    u32 state() { return program.state().state; }
};

// A record with a queue and nothing else, for calling the queue's operations directly.
struct QueueRecord {
    std::unique_ptr<Backup> record{new Backup};
    QueueRecord()
    {
        std::memset(static_cast<void*>(record.get()), 0, sizeof(Backup));
        spin_lock_init(&record->mrLock);
    }
    Backup* operator->() { return record.get(); }
    Backup* get() { return record.get(); }
};

} // namespace

// ---- The thread

TEST_F(Worker, SaysWhenItStartsAndWhenItExits)
{
    ASSERT_EQ(program.open(), 0);
    ASSERT_EQ(program.start(sda().device(1), sda().blocks(1), 10), 0);
    EXPECT_EQ(linesOf(takeLog(), "backup_cache"), (Lines{"<6>backup_cache: kbackupd thread started\n"}));
    EXPECT_GT(load_acquire(&backup_cachePID), 0);
    EXPECT_EQ(hosted::live().threads, 1);
    EXPECT_EQ(program.close(), 0);
    EXPECT_EQ(linesOf(takeLog(), "backup_cache"), (Lines{"<6>backup_cache: backupd thread exiting\n"}));
    EXPECT_EQ(load_acquire(&backup_cachePID), 0);
    EXPECT_EQ(hosted::live().threads, 0);
}

TEST_F(Worker, IsCalledKbackupd)
{
    ASSERT_EQ(program.open(), 0);
    ASSERT_EQ(program.start(sda().device(1), sda().blocks(1), 10), 0);
    int found = 0;
    for (const auto& task : std::filesystem::directory_iterator("/proc/self/task")) {
        std::string name;
        std::getline(std::ifstream(task.path() / "comm"), name);
        found += name == "kbackupd";
    }
    EXPECT_EQ(found, 1);
}

TEST_F(Worker, GivesBackTheCountThatItsStartTook)
{
    // A start waits for the count.
    for (int round = 0; round < 3; round++)
        trackDevice(sda(), 1);
    // A worker that is told to stop before it first waits leaves the count of that call as well.
    EXPECT_EQ(down_trylock(&signalThread), 0);
    up(&signalThread);
}

TEST_F(Worker, LeavesTheQueueAloneUntilTheSnapshot)
{
    ASSERT_EQ(program.open(), 0);
    ASSERT_EQ(program.start(sda().device(1), sda().blocks(1), 10), 0);
    Backup* b = recordOf(program);
    RawBio bio(sda().device(0), Op::write, 2048, kBlock);
    ASSERT_EQ(newMR(b, sda().disk().queue(), bio.get(), 0, 0), 0);
    // Its count was taken once it can be taken no more.
    eventually([] {
        if (down_trylock(&signalThread))
            return true;
        up(&signalThread);
        return false;
    });
    MakeRequest* mr = getTopMR(b);
    ASSERT_NE(mr, nullptr);
    EXPECT_EQ(mr->bio, bio.get());
    EXPECT_EQ(bio.ends(), 0);
    closeMR(mr);
    atomic_dec(&b->mrInQueue);
}

// ---- The queue

TEST_F(Worker, QueueIsFirstInFirstOut)
{
    QueueRecord b;
    RawBio bio(sda().device(0), Op::read, 2048, kBlock);
    for (u32 i = 0; i < 3; i++)
        ASSERT_EQ(newMR(b.get(), sda().disk().queue(), bio.get(), i, i + 10), 0);
    EXPECT_EQ(atomic_read(&b->mrInQueue), 3);
    for (u32 i = 0; i < 3; i++) {
        MakeRequest* mr = getTopMR(b.get());
        ASSERT_NE(mr, nullptr);
        EXPECT_EQ(mr->q, sda().disk().queue());
        EXPECT_EQ(mr->bio, bio.get());
        EXPECT_EQ(mr->startBN, i);
        EXPECT_EQ(mr->endBN, i + 10);
        EXPECT_EQ(mr->next, nullptr);
        closeMR(mr);
        EXPECT_EQ(down_trylock(&signalThread), 0); // one count a request
    }
    EXPECT_EQ(getTopMR(b.get()), nullptr);
    EXPECT_EQ(b->mrHead, nullptr);
    EXPECT_EQ(b->mrTail, nullptr);
    EXPECT_EQ(atomic_read(&b->mrInQueue), 3); // only processing takes a request off the count
}

TEST_F(Worker, QueueTakesARequestBehindOneThatIsLeft)
{
    QueueRecord b;
    MakeRequest first{}, second{}, third{};
    addMRToQueue(b.get(), &first);
    addMRToQueue(b.get(), &second);
    EXPECT_EQ(getTopMR(b.get()), &first);
    addMRToQueue(b.get(), &third);
    EXPECT_EQ(getTopMR(b.get()), &second);
    EXPECT_EQ(getTopMR(b.get()), &third);
    EXPECT_EQ(getTopMR(b.get()), nullptr);
    for (int i = 0; i < 3; i++)
        EXPECT_EQ(down_trylock(&signalThread), 0);
}

TEST_F(Worker, QueueTakesRequestsAgainAfterItRanEmpty)
{
    QueueRecord b;
    RawBio bio(sda().device(0), Op::read, 2048, kBlock);
    for (u32 i = 0; i < 2; i++) {
        ASSERT_EQ(newMR(b.get(), sda().disk().queue(), bio.get(), i, i), 0);
        EXPECT_EQ(b->mrHead, b->mrTail);
        MakeRequest* mr = getTopMR(b.get());
        ASSERT_NE(mr, nullptr);
        EXPECT_EQ(mr->startBN, i);
        closeMR(mr);
        EXPECT_EQ(down_trylock(&signalThread), 0);
    }
}

// ---- Processing

class WorkerOnASlowDisk : public SlowDiskTest
{
};

TEST_F(WorkerOnASlowDisk, SavesABlockWhenItsReadHasEnded)
{
    SlowStore& slow = beginOnSlowDisk(7, 8, 100);
    Backup* b = recordOf(program);
    const Bytes fresh = filled(kBlock, 0xAA);
    std::thread writer([&] { EXPECT_EQ(slowDisk_->write(7 * kBlock, fresh, 0), 0); });
    EXPECT_TRUE(eventually([&] { return slow.keptBytes() == kBlock; }));
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
    EXPECT_EQ(held(b), 1);
    EXPECT_EQ(entryOf(b, 7), nullptr);
    slow.serve();
    writer.join();
    settle(b);
    ASSERT_NE(entryOf(b, 7), nullptr);
    EXPECT_EQ(std::memcmp(entryOf(b, 7)->data, filled(kBlock, 8).data(), kBlock), 0);
}

TEST_F(Worker, SavesTheContentsFromBeforeTheFirstOfTwoHeldWrites)
{
    Backup* b = begin();
    const Bytes old = sda().block(1, 5);
    hosted::faults::fail_read(0);
    DiskGate gate(firstRead(sda(), 1, 5));
    GuestIo first(sda(), 1, Op::write, 5 * kBlock, kBlock, 0xAA);
    gate.waitUntilStopped();
    GuestIo second(sda(), 1, Op::write, 5 * kBlock, kBlock, 0xBB);
    EXPECT_EQ(held(b), 2);
    gate.open();
    EXPECT_EQ(first.wait() | second.wait(), 0);
    settle(b);

    EXPECT_EQ(hosted::faults::reads_seen(), 1u);
    EXPECT_EQ(atomic_read(&b->totalCBs), 1);
    EXPECT_EQ(sda().block(1, 5), filled(kBlock, 0xBB));
    Bytes read;
    EXPECT_EQ(program.readOne(5, kBlock, read), 0);
    EXPECT_EQ(read, old);
}

TEST_F(Worker, PassesAHeldReadOnAfterEveryRequestBeforeIt)
{
    Backup* b = begin();
    DiskGate gate(firstRead(sda(), 1, 5));
    GuestIo first(sda(), 1, Op::write, 5 * kBlock, kBlock, 0xAA);
    gate.waitUntilStopped();
    GuestIo second(sda(), 1, Op::write, 6 * kBlock, kBlock, 0xBB);
    GuestIo read(sda(), 1, Op::read, 6 * kBlock, kBlock);
    GuestIo third(sda(), 1, Op::write, 6 * kBlock, kBlock, 0xCC);
    EXPECT_EQ(held(b), 4);
    gate.open();
    EXPECT_EQ(read.wait(), 0);
    EXPECT_EQ(read.data(), filled(kBlock, 0xBB));
    EXPECT_EQ(third.wait(), 0);
    EXPECT_EQ(sda().block(1, 6), filled(kBlock, 0xCC));
    settle(b);
}

TEST_F(Worker, SavesAndMarksNothingForAHeldRead)
{
    Backup* b = begin();
    DiskGate gate(firstRead(sda(), 1, 5));
    GuestIo read(sda(), 1, Op::read, 5 * kBlock, kBlock);
    gate.waitUntilStopped(); // in the worker: the submitting thread is here
    EXPECT_EQ(held(b), 1);
    EXPECT_FALSE(read.done());
    gate.open();
    EXPECT_EQ(read.wait(), 0);
    EXPECT_EQ(read.data(), sda().block(1, 5));
    settle(b);
    EXPECT_EQ(atomic_read(&b->totalCBs), 0);
    EXPECT_EQ(membersOf(b->cacheMap), Blocks{});
}

TEST_F(Worker, SavesOnlyTheBlocksOfAWriteThatNeedItAndPassesItOnOnce)
{
    Backup* b = begin();
    write(b, 1, 6, 0x11);
    const Bytes old5 = sda().block(1, 5);
    const Bytes old7 = sda().block(1, 7);
    hosted::faults::fail_read(0);
    hosted::faults::fail_write(0);
    GuestIo across(sda(), 1, Op::write, 5 * kBlock, 3 * kBlock, 0x22);
    EXPECT_EQ(across.wait(), 0);
    settle(b);
    EXPECT_EQ(hosted::faults::reads_seen(), 2u);
    EXPECT_EQ(hosted::faults::writes_seen(), 1u);
    EXPECT_EQ(membersOf(b->cacheMap), (Blocks{5, 6, 7}));
    EXPECT_EQ(atomic_read(&b->totalCBs), 3);
    EXPECT_EQ(std::memcmp(entryOf(b, 5)->data, old5.data(), kBlock), 0);
    EXPECT_EQ(std::memcmp(entryOf(b, 7)->data, old7.data(), kBlock), 0);
}

TEST_F(Worker, SavesTheWholeBlockOfAPartialWrite)
{
    Backup* b = begin();
    const Bytes old = sda().block(1, 5);
    ASSERT_EQ(sda().writeSectors(1, 5 * 8 + 3, 1, 0x77), 0);
    settle(b);
    EXPECT_EQ(std::memcmp(entryOf(b, 5)->data, old.data(), kBlock), 0);
}

TEST_F(Worker, MarksABlockOnlyAfterTheWriteWasPassedOn)
{
    Backup* b = begin();
    DiskGate gate([](const hosted::BioView& bio) { return bio.write; });
    GuestIo write(sda(), 1, Op::write, 5 * kBlock, kBlock, 0xAA);
    gate.waitUntilStopped(); // the write itself, at the disk
    EXPECT_EQ(atomic_read(&b->curCBs), 1);
    EXPECT_EQ(membersOf(b->cacheMap), Blocks{});
    EXPECT_EQ(held(b), 1);
    gate.open();
    EXPECT_EQ(write.wait(), 0);
    settle(b);
    EXPECT_EQ(membersOf(b->cacheMap), (Blocks{5}));
}

TEST_F(Worker, CountsWhatItTakesAndGivesBack)
{
    Backup* b = begin();
    const int pages = atomic_read(&b->curAllocPages);
    const int allPages = atomic_read(&b->totalAllocPages);
    const hosted::Live before = hosted::live();
    write(b, 1, 5, 0x11);
    write(b, 1, 6, 0x11);
    EXPECT_EQ(atomic_read(&b->totalAllocPages), allPages + 2);
    EXPECT_EQ(atomic_read(&b->curAllocPages), pages);
    EXPECT_EQ(atomic_read(&b->totalAllocBRs), 2);
    EXPECT_EQ(atomic_read(&b->curAllocBRs), 0);
    const hosted::Live after = hosted::live();
    EXPECT_EQ(after.pages, before.pages);
    EXPECT_EQ(after.bios, before.bios);
    EXPECT_EQ(after.buffer_heads, before.buffer_heads);
    EXPECT_EQ(after.kmallocs, before.kmallocs);
}

TEST_F(Worker, FinishesTheHeldWritesBeforeAClose)
{
    Backup* b = begin();
    DiskGate gate(firstRead(sda(), 1, 5));
    GuestIo first(sda(), 1, Op::write, 5 * kBlock, kBlock, 0xAA);
    gate.waitUntilStopped();
    GuestIo second(sda(), 1, Op::write, 6 * kBlock, kBlock, 0xBB);
    EXPECT_EQ(held(b), 2);
    std::atomic<bool> closed{false};
    std::thread closer([&] {
        EXPECT_EQ(program.close(), 0);
        closed = true;
    });
    eventually([&] { return load_acquire(&b->state) == QUENDREL_STATE_CLOSING; });
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
    EXPECT_FALSE(closed);
    EXPECT_EQ(linesOf(takeLog(), "backup_cache"), Lines{});
    // From now on nothing more is held.
    GuestIo third(sda(), 1, Op::write, 7 * kBlock, kBlock, 0xCC);
    EXPECT_TRUE(third.done());

    gate.open();
    closer.join();
    EXPECT_EQ(first.wait() | second.wait(), 0);
    EXPECT_EQ(sda().block(1, 5), filled(kBlock, 0xAA));
    EXPECT_EQ(sda().block(1, 6), filled(kBlock, 0xBB));
    EXPECT_EQ(linesOf(takeLog(), "backup_cache"), (Lines{"<6>backup_cache: backupd thread exiting\n"}));
}

// ---- Failures: the backup's, never the write's

TEST_F(Worker, FailsTheBackupAndNotTheWriteWhenAnOldBlockCannotBeRead)
{
    make_request_fn* own = hookOf(sda());
    Backup* b = begin();
    hosted::faults::fail_read(1);
    write(b, 1, 5, 0xAA);
    EXPECT_EQ(sda().block(1, 5), filled(kBlock, 0xAA));
    EXPECT_EQ(state(), unsigned(QUENDREL_STATE_READ_FAILED));
    EXPECT_EQ(tracking()->state, 0u);
    EXPECT_EQ(hookOf(sda()), own);
    EXPECT_EQ(membersOf(b->cacheMap), (Blocks{5}));
    EXPECT_EQ(atomic_read(&b->totalCBs), 0);
    EXPECT_EQ(atomic_read(&b->curAllocBRs), 0);
    EXPECT_EQ(withoutPointers(takeLog()),
              (Lines{"<4>qdrBIOEndIO: IO error, bio=P, major=8, sector=2088\n",
                     "<4>qdrBHEndIO: buffer_head I/O error bh=P, major=8, minor=1, block=5\n",
                     "<3>cacheBlock: Block read error blockNum=5 MAJOR=8 MINOR=1\n"}));
}

TEST_F(Worker, FailsTheBackupAndNotTheWriteWhenTheCacheIsFull)
{
    make_request_fn* own = hookOf(sda());
    Backup* b = begin(1);
    write(b, 1, 4, 0x11);
    EXPECT_EQ(state(), unsigned(QUENDREL_STATE_MAP_LOADED));
    write(b, 1, 5, 0xAA);
    EXPECT_EQ(sda().block(1, 5), filled(kBlock, 0xAA));
    EXPECT_EQ(state(), unsigned(QUENDREL_STATE_CACHE_EXHAUSTED));
    EXPECT_EQ(tracking()->state, 0u);
    EXPECT_EQ(hookOf(sda()), own);
    EXPECT_EQ(membersOf(b->cacheMap), (Blocks{4, 5}));
    EXPECT_EQ(takeLog(), (Lines{"<3>getCacheBlock: configured max cache memory reached (1 blocks) failed to allocate "
                                "cache object\n",
                                "<3>cacheBlock: Error caching blockNum=5 MAJOR=8 MINOR=1\n"}));
}

TEST_F(Worker, FailsTheBackupAndNotTheWriteWhenThereIsNoPageForAnOldBlock)
{
    make_request_fn* own = hookOf(sda());
    Backup* b = begin();
    const int pages = atomic_read(&b->curAllocPages);
    hosted::faults::fail_allocation(1, unsigned(Kind::page));
    hosted::faults::fail_read(0);
    write(b, 1, 5, 0xAA);
    EXPECT_EQ(sda().block(1, 5), filled(kBlock, 0xAA));
    EXPECT_EQ(hosted::faults::reads_seen(), 0u);
    EXPECT_EQ(state(), unsigned(QUENDREL_STATE_CACHE_EXHAUSTED));
    EXPECT_EQ(tracking()->state, 0u);
    EXPECT_EQ(hookOf(sda()), own);
    EXPECT_EQ(membersOf(b->cacheMap), (Blocks{5}));
    EXPECT_EQ(atomic_read(&b->curAllocPages), pages);
    EXPECT_EQ(takeLog(), Lines{});
}

TEST_F(Worker, SavesNoLaterBlockOfAWriteWhoseFirstCouldNotBeSavedButMarksAll)
{
    Backup* b = begin();
    hosted::faults::fail_read(1);
    GuestIo write(sda(), 1, Op::write, 5 * kBlock, 3 * kBlock, 0xAA);
    EXPECT_EQ(write.wait(), 0);
    settle(b);
    EXPECT_EQ(hosted::faults::reads_seen(), 1u);
    EXPECT_EQ(atomic_read(&b->totalCBs), 0);
    EXPECT_EQ(membersOf(b->cacheMap), (Blocks{5, 6, 7}));
    for (u32 block : {5u, 6u, 7u})
        EXPECT_EQ(sda().block(1, block), filled(kBlock, 0xAA));
}

TEST_F(Worker, PassesTheRequestsHeldBehindAFailureOnAndMarksThem)
{
    Backup* b = begin();
    hosted::faults::fail_read(1);
    DiskGate gate(firstRead(sda(), 1, 5));
    GuestIo first(sda(), 1, Op::write, 5 * kBlock, kBlock, 0xAA);
    gate.waitUntilStopped();
    GuestIo second(sda(), 1, Op::write, 6 * kBlock, kBlock, 0xBB);
    EXPECT_EQ(held(b), 2);
    gate.open();
    EXPECT_EQ(first.wait() | second.wait(), 0);
    settle(b);
    EXPECT_EQ(sda().block(1, 6), filled(kBlock, 0xBB));
    EXPECT_EQ(hosted::faults::reads_seen(), 1u);
    EXPECT_EQ(membersOf(b->cacheMap), (Blocks{5, 6}));
}

TEST_F(Worker, TriesUntilItHasABufferHead)
{
    Backup* b = begin();
    hosted::faults::fail_allocation(1, unsigned(Kind::buffer_head));
    write(b, 1, 5, 0xAA);
    EXPECT_EQ(hosted::faults::allocations_seen(), 2u);
    EXPECT_EQ(state(), unsigned(QUENDREL_STATE_MAP_LOADED));
    EXPECT_EQ(atomic_read(&b->curCBs), 1);
    EXPECT_EQ(takeLog(), Lines{});
}

TEST_F(Worker, TriesUntilItHasABio)
{
    Backup* b = begin();
    hosted::faults::fail_allocation(1, unsigned(Kind::bio));
    write(b, 1, 5, 0xAA);
    EXPECT_EQ(hosted::faults::allocations_seen(), 2u);
    EXPECT_EQ(state(), unsigned(QUENDREL_STATE_MAP_LOADED));
    EXPECT_EQ(atomic_read(&b->curCBs), 1);
    EXPECT_EQ(takeLog(), Lines{});
}

TEST_F(Worker, DoesNothingForABlockOnceTheBackupHasFailed)
{
    Backup* b = begin();
    set_mb(&b->state, QUENDREL_STATE_MAP_LOAD_FAILED);
    hosted::faults::fail_read(0);
    hosted::faults::fail_allocation(0);
    cacheBlock(b, nullptr, 5);
    EXPECT_EQ(hosted::faults::reads_seen(), 0u);
    EXPECT_EQ(hosted::faults::allocations_seen(), 0u);
    EXPECT_EQ(state(), unsigned(QUENDREL_STATE_MAP_LOAD_FAILED));
}

// ---- Waiting for the queue to drain

TEST_F(Worker, WaitEndsWithoutAMessageWhenTheQueueIsEmptyOrThereIsNoThread)
{
    QueueRecord b;
    unsigned long flags;
    atomic_set(&b->mrInQueue, 1);
    waitForMRs(b.get(), &flags); // no thread
    atomic_set(&b->mrInQueue, 0);
    store_release(&backup_cachePID, 1234);
    waitForMRs(b.get(), &flags); // nothing queued
    store_release(&backup_cachePID, 0);
    EXPECT_EQ(takeLog(), Lines{});
}

// ---- One block's read

TEST_F(Worker, DescribesTheReadOfABlock)
{
    Backup* b = begin();
    page* p = alloc_page(GFP_NOIO);
    buffer_head* bh = newBufferHead();
    bio* bio = newReadBIO();
    initBH(b, bh, p, 1024, 7);
    EXPECT_EQ(bh_bdev(bh), b->diskInfo.bdev);
    EXPECT_EQ(bh_block(bh), 7u);
    EXPECT_EQ(bh_bytes(bh), kBlock);
    EXPECT_EQ(bh_page(bh), p);
    EXPECT_EQ(bh_offset(bh), 1024u);
    EXPECT_EQ(bh_count(bh), 1);
    EXPECT_TRUE(buffer_locked(bh));

    initBIO(b, bio, bh);
    EXPECT_EQ(bio_bdev(bio), b->diskInfo.bdev);
    EXPECT_EQ(bio_sector(bio), 2048u + 7 * 8);
    EXPECT_EQ(bio_size(bio), kBlock);
    EXPECT_EQ(bio_private(bio), bh);
    EXPECT_EQ(bio->end_io, qdrBIOEndIO);
    EXPECT_EQ(bio->references, 2);
    ASSERT_EQ(bio_vectors(bio), 1u);
    page* vectorPage;
    u32 bytes, offset;
    bio_vector(bio, 0, &vectorPage, &bytes, &offset);
    EXPECT_EQ(vectorPage, p);
    EXPECT_EQ(bytes, kBlock);
    EXPECT_EQ(offset, 1024u);

    unlock_buffer(bh);
    free_buffer_head(bh);
    bio_put(bio);
    bio_put(bio);
    free_page_ref(p);
}

TEST_F(Worker, FindsSectorsBeyond32Bits)
{
    Backup* b = begin();
    const DiskInfo before = b->diskInfo;
    b->diskInfo.partitionStart = 0x300000000ull;
    buffer_head* bh = newBufferHead();
    bio* bio = newReadBIO();
    page* p = alloc_page(GFP_NOIO);
    initBH(b, bh, p, 0, 0xFFFFFFF0u);
    initBIO(b, bio, bh);
    EXPECT_EQ(bio_sector(bio), 0x300000000ull + 0xFFFFFFF0ull * 8);
    b->diskInfo = before;
    unlock_buffer(bh);
    free_buffer_head(bh);
    bio_put(bio);
    bio_put(bio);
    free_page_ref(p);
}

TEST_F(Worker, EndsAnUnsupportedReadAsSuchAndUnlocksItsBuffer)
{
    Backup* b = begin();
    page* p = alloc_page(GFP_NOIO);
    buffer_head* bh = newBufferHead();
    bio* bio = newReadBIO();
    initBH(b, bh, p, 0, 7);
    initBIO(b, bio, bh);
    bio->up_to_date = false;
    qdrBIOEndIO(bio, -KERNEL_EOPNOTSUPP);
    EXPECT_TRUE(bio->eopnotsupp);
    EXPECT_FALSE(buffer_locked(bh));
    EXPECT_EQ(bh_count(bh), 0);
    EXPECT_EQ(bio->references, 1);
    EXPECT_EQ(withoutPointers(takeLog()), (Lines{"<4>qdrBIOEndIO: IO error, bio=P, major=8, sector=2104\n",
                                                 "<4>qdrBHEndIO: buffer_head I/O error bh=P, major=8, minor=1, "
                                                 "block=7\n"}));
    wait_on_buffer(bh); // neither lock nor count keep it
    free_buffer_head(bh);
    bio_put(bio);
    free_page_ref(p);
}

TEST_F(Worker, EndsAGoodReadWithoutAMessage)
{
    Backup* b = begin();
    page* p = alloc_page(GFP_NOIO);
    buffer_head* bh = newBufferHead();
    bio* bio = newReadBIO();
    initBH(b, bh, p, 0, 7);
    initBIO(b, bio, bh);
    qdrBIOEndIO(bio, 0);
    EXPECT_FALSE(bio->eopnotsupp);
    EXPECT_FALSE(buffer_locked(bh));
    EXPECT_EQ(takeLog(), Lines{});
    free_buffer_head(bh);
    bio_put(bio);
    free_page_ref(p);
}
