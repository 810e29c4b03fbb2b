// SPDX-License-Identifier: GPL-2.0-only
// The copy-on-write cache: what is saved, what a read takes out, what loading a map drops, and what a close frees.
#include "guest_io.h"

using namespace rig;
using hosted::Op;
using hosted::faults::Kind;

namespace
{

constexpr u32 kBlock = 4096; // of sda1

using Blocks = std::vector<u32>;

class BlockCache : public CopyOnWriteTest
{
  protected:
    Backup* begin(u32 maxCacheBlocks = 100000)
    {
        program.beginFullBackup(sda(), 1, maxCacheBlocks);
        takeLog();
        return recordOf(program);
    }
    Backup* beginAtSnapshot(u32 maxCacheBlocks = 100000)
    {
        program.beginSnapshot(sda(), 1, maxCacheBlocks);
        takeLog();
        return recordOf(program);
    }

    // Saves a block of value-filled bytes as the worker does, the mark in the cache map included when `mark` is true.
    int save(Backup* b, u32 block, unsigned char value, bool mark = true)
    {
        const Bytes data = filled(u32(b->diskInfo.blockSize), value);
        down_read(&b->cacheUsers);
        const int result = saveBlock(b, data.data(), block);
        up_read(&b->cacheUsers);
        if (mark)
            setBlock(&b->cacheMap, block);
        return result;
    }
    // The bytes that a read of a cached block gives; empty when it is not cached.
    Bytes take(Backup* b, u32 block)
    {
        Bytes data = filled(u32(b->diskInfo.blockSize), 0xFF);
        const int bytes = cacheRead(b, data.data(), block);
        if (bytes == 0)
            return {};
        EXPECT_EQ(bytes, b->diskInfo.blockSize);
        return data;
    }
    u32 state() { return program.state().state; }

    // A device with more blocks than the cache has buckets: sdb1, 6000 blocks of 1024 bytes.
    TestDisk& big() { return addDisk("sdb", 16, 64 + 12000, {{1, 64, 12000, 1024}}); }
};

} // namespace

// ---- Saving

TEST_F(BlockCache, KeepsACopyOfASavedBlock)
{
    Backup* b = begin();
    Bytes data = filled(kBlock, 0x11);
    down_read(&b->cacheUsers);
    EXPECT_EQ(saveBlock(b, data.data(), 5), 0);
    up_read(&b->cacheUsers);
    data = filled(kBlock, 0x22);
    EXPECT_EQ(take(b, 5), filled(kBlock, 0x11));
}

TEST_F(BlockCache, RefusesTheFirstBlockWhenItMayHoldNone)
{
    Backup* b = begin(0);
    ASSERT_EQ(sda().writeBlock(1, 5, 0xAA), 0);
    settle(b);
    EXPECT_EQ(sda().block(1, 5), filled(kBlock, 0xAA));
    EXPECT_EQ(state(), unsigned(QUENDREL_STATE_CACHE_EXHAUSTED));
    EXPECT_EQ(atomic_read(&b->totalAllocCPs), 0);
    EXPECT_EQ(takeLog(), (Lines{"<3>getCacheBlock: configured max cache memory reached (0 blocks) failed to allocate "
                                "cache object\n",
                                "<3>cacheBlock: Error caching blockNum=5 MAJOR=8 MINOR=1\n"}));
}

TEST_F(BlockCache, HoldsAsManyBlocksAsItMayAndNoMore)
{
    Backup* b = begin(2);
    EXPECT_EQ(save(b, 1, 0x11), 0);
    EXPECT_EQ(save(b, 2, 0x22), 0);
    EXPECT_EQ(state(), unsigned(QUENDREL_STATE_MAP_LOADED));
    const hosted::Live before = hosted::live();
    EXPECT_EQ(save(b, 3, 0x33), 1);
    EXPECT_EQ(state(), unsigned(QUENDREL_STATE_CACHE_EXHAUSTED));
    EXPECT_EQ(hosted::live().slab_objects, before.slab_objects);
    EXPECT_EQ(atomic_read(&b->curAllocCPs), 2);
    EXPECT_EQ(takeLog(), (Lines{"<3>getCacheBlock: configured max cache memory reached (2 blocks) failed to allocate "
                                "cache object\n"}));
}

// The limit is met exactly or not at all.
TEST_F(BlockCache, IsFullAtItsLimitAndNotBeyondIt)
{
    Backup* b = begin(1);
    atomic_set(&b->curAllocCPs, 2);
    EXPECT_EQ(save(b, 1, 0x11), 0);
    EXPECT_EQ(state(), unsigned(QUENDREL_STATE_MAP_LOADED));
    atomic_set(&b->curAllocCPs, 1);
}

TEST_F(BlockCache, TakesABlockAgainWhereOneWasRead)
{
    Backup* b = begin(1);
    EXPECT_EQ(save(b, 1, 0x11), 0);
    EXPECT_EQ(take(b, 1), filled(kBlock, 0x11));
    EXPECT_EQ(save(b, 2, 0x22), 0);
    EXPECT_EQ(state(), unsigned(QUENDREL_STATE_MAP_LOADED));
    EXPECT_EQ(atomic_read(&b->totalAllocCPs), 2);
    EXPECT_EQ(atomic_read(&b->curAllocCPs), 1);
    EXPECT_EQ(atomic_read(&b->peakAllocCPs), 1);
}

TEST_F(BlockCache, FailsTheBackupWhenThereIsNoMemoryForAnEntry)
{
    Backup* b = begin();
    const hosted::Live before = hosted::live();
    hosted::faults::fail_allocation(1, unsigned(Kind::slab));
    EXPECT_EQ(save(b, 5, 0x11), 1);
    EXPECT_EQ(state(), unsigned(QUENDREL_STATE_CACHE_EXHAUSTED));
    EXPECT_EQ(hosted::live().slab_objects, before.slab_objects);
    EXPECT_EQ(atomic_read(&b->totalAllocCPs), 0);
    EXPECT_EQ(takeLog(), (Lines{"<3>getCacheBlock: system out of memory, failed to allocate cache object.\n"}));
}

TEST_F(BlockCache, FailsTheBackupAndGivesTheEntryBackWhenThereIsNoMemoryForItsBuffer)
{
    Backup* b = begin();
    const hosted::Live before = hosted::live();
    hosted::faults::fail_allocation(2, unsigned(Kind::slab));
    EXPECT_EQ(save(b, 5, 0x11), 1);
    EXPECT_EQ(state(), unsigned(QUENDREL_STATE_CACHE_EXHAUSTED));
    EXPECT_EQ(hosted::live().slab_objects, before.slab_objects);
    EXPECT_EQ(atomic_read(&b->totalAllocCPs), 0);
    EXPECT_EQ(takeLog(), (Lines{"<3>getCacheBlock: system out of memory failed to allocate block for write cache\n"}));
}

TEST_F(BlockCache, LetsTheBucketGoAfterAFailedSave)
{
    Backup* b = begin();
    hosted::faults::fail_allocation(1, unsigned(Kind::slab));
    EXPECT_EQ(save(b, 5, 0x11), 1);
    EXPECT_EQ(down_trylock(&b->blockTable[5]->sem), 0);
    up(&b->blockTable[5]->sem);
}

TEST_F(BlockCache, SavesNoBlockThatTheLoadedMapDoesNotHold)
{
    Backup* b = beginAtSnapshot();
    Bits map(sda().blocks(1));
    map.set(7);
    ASSERT_EQ(program.loadMap(map), 0);
    EXPECT_EQ(save(b, 6, 0x11), 0);
    EXPECT_EQ(atomic_read(&b->totalAllocCPs), 0);
    EXPECT_EQ(save(b, 7, 0x11), 0);
    EXPECT_EQ(atomic_read(&b->totalAllocCPs), 1);
}

TEST_F(BlockCache, SavesEveryBlockBeforeAMapIsLoaded)
{
    Backup* b = beginAtSnapshot();
    EXPECT_EQ(save(b, 6, 0x11), 0);
    set_mb(&b->state, QUENDREL_STATE_LOADING_MAP);
    EXPECT_EQ(save(b, 7, 0x11), 0);
    EXPECT_EQ(atomic_read(&b->curCBs), 2);
    set_mb(&b->state, QUENDREL_STATE_SNAPSHOT);
}

TEST_F(BlockCache, SavesNoBlockThatIsMarkedAlready)
{
    Backup* b = begin();
    setBlock(&b->cacheMap, 5);
    EXPECT_EQ(save(b, 5, 0x11), 0);
    EXPECT_EQ(atomic_read(&b->totalAllocCPs), 0);
    EXPECT_EQ(take(b, 5), Bytes{});
}

TEST_F(BlockCache, CountsEntriesAliveInAllAndAtMost)
{
    Backup* b = begin();
    for (u32 block = 0; block < 3; block++)
        EXPECT_EQ(save(b, block, 0x11), 0);
    EXPECT_EQ(take(b, 0).size(), kBlock);
    EXPECT_EQ(take(b, 1).size(), kBlock);
    EXPECT_EQ(save(b, 9, 0x11), 0);
    EXPECT_EQ(atomic_read(&b->totalAllocCPs), 4);
    EXPECT_EQ(atomic_read(&b->curAllocCPs), 2);
    EXPECT_EQ(atomic_read(&b->peakAllocCPs), 3);
    EXPECT_EQ(atomic_read(&b->totalCBs), 4);
    EXPECT_EQ(atomic_read(&b->curCBs), 2);
    EXPECT_EQ(atomic_read(&b->totalReadCBs), 2);
}

// ---- Reading

TEST_F(BlockCache, LeavesABlockOfTheSameBucketInPlace)
{
    TestDisk& disk = big();
    program.beginFullBackup(disk, 1);
    Backup* b = recordOf(program);
    for (bool oldestFirst : {true, false}) {
        SCOPED_TRACE(oldestFirst);
        ASSERT_EQ(disk.writeBlock(1, 5, 0xAA), 0);
        ASSERT_EQ(disk.writeBlock(1, 4101, 0xBB), 0);
        settle(b);
        EXPECT_EQ(b->blockTable[5]->busy, entryOf(b, 4101));
        EXPECT_EQ(b->blockTable[5]->busy->next, entryOf(b, 5));
        EXPECT_NE(entryOf(b, 5), nullptr);
        const u32 first = oldestFirst ? 5 : 4101;
        const u32 second = oldestFirst ? 4101 : 5;
        EXPECT_EQ(take(b, first).size(), 1024u);
        EXPECT_EQ(entryOf(b, first), nullptr);
        EXPECT_NE(entryOf(b, second), nullptr);
        EXPECT_EQ(take(b, second).size(), 1024u);
        EXPECT_EQ(b->blockTable[5]->busy, nullptr);
        // So that they are saved again.
        setBlock(&b->blockMap, 5);
        setBlock(&b->blockMap, 4101);
    }
}

TEST_F(BlockCache, GivesABlockAsOftenAsItIsReadBeforeTheMapIsLoaded)
{
    Backup* b = beginAtSnapshot();
    const Bytes old = sda().block(1, 5);
    write(b, 1, 5, 0xAA);
    for (int i = 1; i <= 3; i++) {
        Bytes read;
        EXPECT_EQ(program.readOne(5, kBlock, read), 0);
        EXPECT_EQ(read, old);
        EXPECT_EQ(atomic_read(&b->totalReadCBs), i);
    }
    EXPECT_EQ(atomic_read(&b->curCBs), 1);
    EXPECT_EQ(membersOf(b->cacheMap), (Blocks{5}));
    set_mb(&b->state, QUENDREL_STATE_LOADING_MAP);
    EXPECT_EQ(take(b, 5), old);
    EXPECT_EQ(take(b, 5), old);
    set_mb(&b->state, QUENDREL_STATE_SNAPSHOT);
}

TEST_F(BlockCache, GivesABlockOnceWithTheMapLoadedAndThenHoldsItsWritesNoMore)
{
    Backup* b = begin();
    const Bytes old = sda().block(1, 5);
    write(b, 1, 5, 0xAA);
    Bytes read;
    EXPECT_EQ(program.readOne(5, kBlock, read), 0);
    EXPECT_EQ(read, old);
    EXPECT_EQ(atomic_read(&b->curCBs), 0);
    EXPECT_EQ(entryOf(b, 5), nullptr);
    EXPECT_FALSE(blockInMap(&b->blockMap, 5));
    EXPECT_FALSE(blockInMap(&b->cacheMap, 5));
    EXPECT_TRUE(blockInMap(&b->blockMap, 4));

    hosted::faults::fail_read(0);
    write(b, 1, 5, 0xBB);
    EXPECT_EQ(hosted::faults::reads_seen(), 0u);
    EXPECT_EQ(atomic_read(&b->totalCBs), 1);
}

TEST_F(BlockCache, GivesNothingForABlockThatIsNotCached)
{
    Backup* b = begin();
    EXPECT_EQ(save(b, 5, 0x11), 0);
    EXPECT_EQ(take(b, 6), Bytes{});
    EXPECT_EQ(take(b, 5 + CACHE_BUCKETS), Bytes{});
    EXPECT_EQ(atomic_read(&b->totalReadCBs), 0);
    EXPECT_NE(entryOf(b, 5), nullptr);
}

TEST_F(BlockCache, GivesNothingOnceTheBackupHasFailed)
{
    Backup* b = begin();
    EXPECT_EQ(save(b, 5, 0x11), 0);
    for (u32 failed : {QUENDREL_STATE_CLOSING, QUENDREL_STATE_CACHE_EXHAUSTED}) {
        set_mb(&b->state, failed);
        EXPECT_EQ(take(b, 5), Bytes{});
    }
    EXPECT_EQ(atomic_read(&b->totalReadCBs), 0);
    EXPECT_EQ(atomic_read(&b->curCBs), 1);
}

TEST_F(BlockCache, FindsTheNewestEntryOfABlockAndTheOneBeforeIt)
{
    CachePage pages[4] = {};
    for (int i = 0; i < 4; i++) {
        pages[i].next = i < 3 ? &pages[i + 1] : nullptr;
        pages[i].blockNum = u32(i);
    }
    pages[3].blockNum = 2;
    CachePage untouched{};
    CachePage* last = &untouched;
    EXPECT_EQ(locateBlockInList(pages, 0, &last), &pages[0]);
    EXPECT_EQ(last, &untouched);
    EXPECT_EQ(locateBlockInList(pages, 2, &last), &pages[2]);
    EXPECT_EQ(last, &pages[1]);
    last = &untouched;
    EXPECT_EQ(locateBlockInList(pages, 9, &last), nullptr);
    EXPECT_EQ(last, &untouched);
    EXPECT_EQ(locateBlockInList(nullptr, 0, &last), nullptr);
}

TEST_F(BlockCache, PutsANewEntryFirstInItsBucket)
{
    HashTable bucket{};
    CachePage first{}, second{};
    addCPtoBusyList(&bucket, &first);
    EXPECT_EQ(bucket.busy, &first);
    EXPECT_EQ(first.next, nullptr);
    addCPtoBusyList(&bucket, &second);
    EXPECT_EQ(bucket.busy, &second);
    EXPECT_EQ(second.next, &first);
}

// ---- Cleaning after the map was loaded

TEST_F(BlockCache, KeepsExactlyTheEntriesOfTheNewMap)
{
    TestDisk& disk = big();
    program.beginSnapshot(disk, 1);
    Backup* b = recordOf(program);
    // Bucket 5 holds, newest first, 4101 and 5; the buckets around it one block each.
    for (u32 block : {4u, 5u, 4101u, 6u, 7u})
        ASSERT_EQ(disk.writeBlock(1, block, 0xAA), 0);
    settle(b);
    Bits map(disk.blocks(1));
    for (u32 block : {5u, 7u, 100u})
        map.set(block);
    ASSERT_EQ(program.loadMap(map), 0);
    EXPECT_EQ(state(), unsigned(QUENDREL_STATE_MAP_LOADED));
    EXPECT_NE(entryOf(b, 5), nullptr);
    EXPECT_NE(entryOf(b, 7), nullptr);
    for (u32 gone : {4u, 4101u, 6u})
        EXPECT_EQ(entryOf(b, gone), nullptr);
    EXPECT_EQ(atomic_read(&b->totalCleanedCBs), 3);
    EXPECT_EQ(atomic_read(&b->curCBs), 2);
    EXPECT_EQ(membersOf(b->cacheMap), (Blocks{5, 7}));
}

TEST_F(BlockCache, CleansTheHeadTheMiddleAndTheEndOfABucket)
{
    Backup* b = begin();
    // By hand: a bucket gets so long only on a device of many more blocks than the test's.
    HashTable* bucket = b->blockTable[5];
    for (u32 i = 0; i < 6; i++) {
        CachePage* cp = getCacheBlock(b);
        ASSERT_NE(cp, nullptr);
        cp->blockNum = 5 + i * CACHE_BUCKETS;
        addCPtoBusyList(bucket, cp);
    }
    BlockMap loaded = b->blockMap;
    u32 pages = 0;
    ASSERT_EQ(newBlockMap(&b->blockMap, 5 + 6 * CACHE_BUCKETS, user_addr(0), 1, &pages), 0);
    setBlock(&b->blockMap, 5 + 4 * CACHE_BUCKETS);
    setBlock(&b->blockMap, 5 + 1 * CACHE_BUCKETS);
    EXPECT_EQ(cleanUpCache(b), 0);
    ASSERT_NE(bucket->busy, nullptr);
    EXPECT_EQ(bucket->busy->blockNum, 5 + 4 * CACHE_BUCKETS);
    ASSERT_NE(bucket->busy->next, nullptr);
    EXPECT_EQ(bucket->busy->next->blockNum, 5 + 1 * CACHE_BUCKETS);
    EXPECT_EQ(bucket->busy->next->next, nullptr);
    EXPECT_EQ(atomic_read(&b->totalCleanedCBs), 4);
    closeBlockMap(&b->blockMap, &pages);
    b->blockMap = loaded;
}

TEST_F(BlockCache, CleansOnlyWithTheMapLoaded)
{
    Backup* b = beginAtSnapshot();
    EXPECT_EQ(save(b, 5, 0x11), 0);
    EXPECT_EQ(cleanUpCache(b), 3);
    set_mb(&b->state, QUENDREL_STATE_LOADING_MAP);
    EXPECT_EQ(cleanUpCache(b), 3);
    set_mb(&b->state, QUENDREL_STATE_READ_FAILED);
    EXPECT_EQ(cleanUpCache(b), 0);
    EXPECT_EQ(atomic_read(&b->curCBs), 1);
    EXPECT_EQ(atomic_read(&b->totalCleanedCBs), 0);
    // No hold of the cache was left behind.
    down_write(&b->cacheUsers);
    up_write(&b->cacheUsers);
}

// ---- Asking for a cached block

TEST_F(BlockCache, NamesTheNewestBlockOfTheLowestBucket)
{
    TestDisk& disk = big();
    program.beginFullBackup(disk, 1);
    Backup* b = recordOf(program);
    for (u32 block : {9u, 5u, 4101u, 4095u})
        ASSERT_EQ(disk.writeBlock(1, block, 0xAA), 0);
    settle(b);
    Blocks named;
    for (int i = 0; i < 4; i++) {
        u32 block = 0;
        ASSERT_EQ(program.dirtyBlock(block), 0);
        named.push_back(block);
        ASSERT_EQ(program.readBlocks(block, 1), 0);
    }
    EXPECT_EQ(named, (Blocks{4101, 5, 9, 4095}));
}

TEST_F(BlockCache, NamesNoBlockWhenItIsEmpty)
{
    begin();
    u32 block = 7;
    EXPECT_EQ(program.dirtyBlock(block), 0);
    EXPECT_EQ(block, 0xFFFFFFFFu);
}

TEST_F(BlockCache, RefusesToNameABlockBeforeTheMapIsLoaded)
{
    Backup* b = beginAtSnapshot();
    write(b, 1, 5, 0xAA);
    u32 block = 7;
    EXPECT_EQ(program.dirtyBlock(block), 2);
    EXPECT_EQ(block, 7u);
}

TEST_F(BlockCache, RefusesToNameABlockWithoutABackupsMap)
{
    Backup* b = begin();
    EXPECT_EQ(save(b, 5, 0x11), 0);
    page** map = b->blockMap.map;
    b->blockMap.map = nullptr;
    u32 block = 7;
    EXPECT_EQ(program.dirtyBlock(block), 2);
    EXPECT_EQ(block, 7u);
    b->blockMap.map = map;
}

TEST_F(BlockCache, RefusesToNameABlockOnceTheBackupHasFailed)
{
    Backup* b = begin();
    EXPECT_EQ(save(b, 5, 0x11), 0);
    set_mb(&b->state, QUENDREL_STATE_READ_FAILED);
    u32 block = 7;
    EXPECT_EQ(program.dirtyBlock(block), 2);
    EXPECT_EQ(block, 7u);
    EXPECT_EQ(anyDirtyBlock(b), 0xFFFFFFFFu);
}

TEST_F(BlockCache, HandsTheStoresFailureOnWhenTheNumberCannotBeStored)
{
    begin();
    EXPECT_EQ(program.command(QUENDREL_GET_DIRTY_BLOCK, program.put(DirtyBlock{0x7FFFF000})), -KERNEL_EFAULT);
}

// ---- Freeing

TEST_F(BlockCache, UnmarksABlockWhoseEntryIsFreed)
{
    Backup* b = begin();
    EXPECT_EQ(save(b, 5, 0x11), 0);
    EXPECT_EQ(save(b, 6, 0x22), 0);
    const hosted::Live before = hosted::live();
    CachePage* cp = b->blockTable[5]->busy;
    b->blockTable[5]->busy = nullptr;
    freeCachePage(b, cp);
    EXPECT_EQ(membersOf(b->cacheMap), (Blocks{6}));
    EXPECT_EQ(atomic_read(&b->curCBs), 1);
    EXPECT_EQ(atomic_read(&b->curAllocCPs), 1);
    EXPECT_EQ(hosted::live().slab_objects, before.slab_objects - 2);
}

TEST_F(BlockCache, FreesEverythingAtClose)
{
    Backup* b = begin();
    const hosted::Live before = hosted::live();
    for (u32 block = 0; block < 50; block++)
        write(b, 1, block, 0x11);
    EXPECT_EQ(hosted::live().slab_objects, before.slab_objects + 100);
    EXPECT_EQ(program.close(), 0);
    EXPECT_EQ(hosted::live().slab_objects, 0);
    EXPECT_EQ(hosted::live().slab_caches, 0);
    EXPECT_EQ(linesOf(takeLog(), "closeCache"), Lines{});
}

TEST_F(BlockCache, CloseWaitsForABucketInUseAndSaysSo)
{
    Backup* b = begin();
    HashTable* bucket = b->blockTable[9];
    down(&bucket->sem);
    std::atomic<bool> closed{false};
    std::thread closer([&] {
        EXPECT_EQ(program.close(), 0);
        closed = true;
    });
    Lines lines;
    eventually([&] { return !(lines = linesOf(hosted::log_lines(), "closeCache")).empty(); });
    EXPECT_EQ(lines, (Lines{"<3>closeCache: ht->sem contended\n"}));
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
    EXPECT_FALSE(closed);
    up(&bucket->sem);
    closer.join();
}

TEST_F(BlockCache, CloseWaitsForAReaderOfTheCache)
{
    Backup* b = begin();
    EXPECT_EQ(save(b, 5, 0x11), 0);
    down_read(&b->cacheUsers);
    std::atomic<bool> closed{false};
    std::thread closer([&] {
        closeCache(b);
        closed = true;
    });
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
    EXPECT_FALSE(closed);
    EXPECT_EQ(atomic_read(&b->curCBs), 1);
    up_read(&b->cacheUsers);
    closer.join();
    EXPECT_EQ(atomic_read(&b->curCBs), 0);
    EXPECT_EQ(b->cpCache, nullptr);
    EXPECT_NE(b->dataCache, nullptr); // keeps its value
    // The buckets' lists were freed but not reset; nobody looks at them again.
    down_write(&b->cacheUsers);
    up_write(&b->cacheUsers);
}

TEST_F(BlockCache, CloseWithoutACacheKeepsItsHold)
{
    auto record = std::make_unique<Backup>();
    std::memset(static_cast<void*>(record.get()), 0, sizeof(Backup));
    init_rwsem(&record->cacheUsers);
    closeCache(record.get());
    std::atomic<bool> entered{false};
    std::thread reader([&] {
        down_read(&record->cacheUsers);
        entered = true;
        up_read(&record->cacheUsers);
    });
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
    EXPECT_FALSE(entered);
    up_write(&record->cacheUsers);
    reader.join();
    EXPECT_TRUE(entered);
}

// ---- Slab caches destroyed under use

TEST_F(BlockCache, StopsTheKernelWhenTheEntriesSlabCacheIsGone)
{
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    Backup* b = begin();
    EXPECT_DEATH(
        {
            showLog();
            b->cpCache = nullptr;
            save(b, 5, 0x11);
        },
        "^<2>getCacheBlock: b->cpCache was destroyed before kmem_cache_alloc!\nhosted kernel: kernel BUG at ");
}

TEST_F(BlockCache, StopsTheKernelWhenTheBuffersSlabCacheIsGone)
{
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    Backup* b = begin();
    EXPECT_DEATH(
        {
            showLog();
            b->dataCache = nullptr;
            save(b, 5, 0x11);
        },
        "^<2>getCacheBlock: b->dataCache was destroyed before kmem_cache_alloc!\nhosted kernel: kernel BUG at ");
}
