// SPDX-License-Identifier: GPL-2.0-only
// The copy-on-write cache: old contents of blocks that were overwritten before the backup had read them.
//
// A block has at most one entry: saving refuses a block that is in cacheMap, and the worker marks every saved block
// there before it saves anything further. A bucket's list changes only with the bucket held. Every operation holds
// cacheUsers for reading (saveBlock's caller does), the teardown holds it for writing.
#include "guards.h"
#include "qdrlib.h"

static HashTable* bucketOf(Backup* b, u32 blockNum) { return b->blockTable[blockNum & CACHE_BUCKET_MASK]; }

void addCPtoBusyList(HashTable* ht, CachePage* cp)
{
    cp->next = ht->busy;
    ht->busy = cp;
}

static void unlinkCachePage(HashTable* ht, CachePage* cp, CachePage* predecessor)
{
    if (predecessor)
        predecessor->next = cp->next;
    else
        ht->busy = cp->next;
}

// A new entry with its buffer, or null and the session in state 10: there is no retry, and no write is refused. The
// bucket is held.
CachePage* getCacheBlock(Backup* b)
{
    if (u32(atomic_read(&b->curAllocCPs)) == b->maxCacheBlocks) {
        set_mb(&b->state, QUENDREL_STATE_CACHE_EXHAUSTED);
        printk("<3>%s: configured max cache memory reached (%u blocks) failed to allocate cache object\n", __func__,
               b->maxCacheBlocks);
        return nullptr;
    }
    if (!b->cpCache) {
        printk("<2>%s: b->cpCache was destroyed before kmem_cache_alloc!%s", __func__, "\n");
        kernel_bug(__FILE__, __LINE__);
    }
    CachePage* cp = static_cast<CachePage*>(kmem_cache_alloc(b->cpCache, GFP_NOIO));
    if (!cp) {
        set_mb(&b->state, QUENDREL_STATE_CACHE_EXHAUSTED);
        printk("<3>%s: system out of memory, failed to allocate cache object.%s", __func__, "\n");
        return nullptr;
    }
    memset(cp, 0, sizeof *cp);
    if (!b->dataCache) {
        printk("<2>%s: b->dataCache was destroyed before kmem_cache_alloc!%s", __func__, "\n");
        kernel_bug(__FILE__, __LINE__);
    }
    cp->data = static_cast<char*>(kmem_cache_alloc(b->dataCache, GFP_NOIO));
    if (!cp->data) {
        kmem_cache_free(b->cpCache, cp);
        set_mb(&b->state, QUENDREL_STATE_CACHE_EXHAUSTED);
        printk("<3>%s: system out of memory failed to allocate block for write cache%s", __func__, "\n");
        return nullptr;
    }
    atomic_inc(&b->curAllocCPs);
    atomic_inc(&b->totalAllocCPs);
    atomic_inc(&b->curCBs);
    atomic_inc(&b->totalCBs);
    if (atomic_read(&b->curAllocCPs) > atomic_read(&b->peakAllocCPs))
        atomic_set(&b->peakAllocCPs, atomic_read(&b->curAllocCPs));
    return cp;
}

// Keeps the old contents of a block that the backup still needs. 0 when saved or not needed, 1 when it could not be
// kept. The caller holds cacheUsers for reading.
int saveBlock(Backup* b, const void* data, u32 blockNum)
{
    if (load_acquire(&b->state) == QUENDREL_STATE_MAP_LOADED && !blockInMap(&b->blockMap, blockNum))
        return 0;
    if (blockInMap(&b->cacheMap, blockNum))
        return 0;
    HashTable* ht = bucketOf(b, blockNum);
    SemaphoreGuard bucket(&ht->sem);
    CachePage* cp = getCacheBlock(b);
    if (!cp)
        return 1;
    cp->blockNum = blockNum;
    memcpy(cp->data, data, kernel_size_t(b->diskInfo.blockSize));
    addCPtoBusyList(ht, cp);
    return 0;
}

// The entry of a block in a list, or null. *lastCP gets the entry before it and stays untouched when there is none.
CachePage* locateBlockInList(CachePage* cp, u32 blockNum, CachePage** lastCP)
{
    CachePage* last = nullptr;
    for (; cp; last = cp, cp = cp->next) {
        if (cp->blockNum == blockNum) {
            if (last)
                *lastCP = last;
            return cp;
        }
    }
    return nullptr;
}

// Copies a saved block to `data`. The bytes copied: blockSize, or 0 when the block is not cached. With the backup's
// map loaded a block is read once: it leaves the cache and both maps.
int cacheRead(Backup* b, void* data, u32 blockNum)
{
    ReadGuard users(&b->cacheUsers);
    if (load_acquire(&b->state) > QUENDREL_STATE_MAP_LOADED)
        return 0;
    HashTable* ht = bucketOf(b, blockNum);
    SemaphoreGuard bucket(&ht->sem);
    CachePage* predecessor = nullptr;
    CachePage* cp = locateBlockInList(ht->busy, blockNum, &predecessor);
    if (!cp)
        return 0;
    memcpy(data, cp->data, kernel_size_t(b->diskInfo.blockSize));
    atomic_inc(&b->totalReadCBs);
    if (load_acquire(&b->state) == QUENDREL_STATE_MAP_LOADED) {
        unSetBlock(&b->blockMap, blockNum);
        unSetBlock(&b->cacheMap, blockNum);
        unlinkCachePage(ht, cp, predecessor);
        freeCachePage(b, cp);
    }
    return b->diskInfo.blockSize;
}

// Frees an entry that the caller has unlinked, holding its bucket.
void freeCachePage(Backup* b, CachePage* cp)
{
    unSetBlock(&b->cacheMap, cp->blockNum);
    kmem_cache_free(b->dataCache, cp->data);
    cp->data = nullptr;
    kmem_cache_free(b->cpCache, cp);
    atomic_dec(&b->curAllocCPs);
    atomic_dec(&b->curCBs);
}

void closeList(Backup* b, CachePage* cp)
{
    while (cp) {
        CachePage* next = cp->next;
        freeCachePage(b, cp);
        cp = next;
    }
}

// Drops what the newly loaded backup map does not want. 0, or QUENDREL_GOING_AWAY when the map is not loaded.
int cleanUpCache(Backup* b)
{
    ReadGuard users(&b->cacheUsers);
    const u32 state = load_acquire(&b->state);
    if (state > QUENDREL_STATE_MAP_LOADED)
        return QUENDREL_OK;
    if (state < QUENDREL_STATE_MAP_LOADED)
        return QUENDREL_GOING_AWAY;
    for (u32 i = 0; i < CACHE_BUCKETS; i++) {
        HashTable* ht = b->blockTable[i];
        SemaphoreGuard bucket(&ht->sem);
        CachePage* predecessor = nullptr;
        CachePage* next;
        for (CachePage* cp = ht->busy; cp; cp = next) {
            next = cp->next;
            if (blockInMap(&b->blockMap, cp->blockNum)) {
                predecessor = cp;
                continue;
            }
            unlinkCachePage(ht, cp, predecessor);
            freeCachePage(b, cp);
            atomic_inc(&b->totalCleanedCBs);
        }
    }
    return QUENDREL_OK;
}

// Frees the whole cache, after the worker has stopped. When there is none, cacheUsers stays held for writing: the
// record is discarded right after.
void closeCache(Backup* b)
{
    down_write(&b->cacheUsers);
    if (!b->cpCache)
        return;
    for (u32 i = 0; i < CACHE_BUCKETS; i++) {
        HashTable* ht = b->blockTable[i];
        if (down_trylock(&ht->sem)) {
            printk("<3>%s: ht->sem contended%s", __func__, "\n");
            down(&ht->sem);
        }
        closeList(b, ht->busy);
        up(&ht->sem);
    }
    kmem_cache_destroy(b->cpCache);
    kmem_cache_destroy(b->dataCache);
    b->cpCache = nullptr;
    up_write(&b->cacheUsers);
}

constexpr u32 NO_BLOCK = 0xFFFFFFFFu;

// The newest cached block of the lowest bucket that has one, or NO_BLOCK.
u32 anyDirtyBlock(Backup* b)
{
    if (atomic_read(&b->curCBs) == 0)
        return NO_BLOCK;
    ReadGuard users(&b->cacheUsers);
    if (load_acquire(&b->state) > QUENDREL_STATE_MAP_LOADED)
        return NO_BLOCK;
    for (u32 i = 0; i < CACHE_BUCKETS; i++) {
        HashTable* ht = b->blockTable[i];
        SemaphoreGuard bucket(&ht->sem);
        if (ht->busy)
            return ht->busy->blockNum;
    }
    return NO_BLOCK;
}

// GetDirtyBlock: 0 and the number stored, QUENDREL_REFUSED, or the kernel error of the store.
int ioctlGetDirtyBlock(Backup* b, user_addr userBlockNum)
{
    if (!b->blockMap.map || load_acquire(&b->state) != QUENDREL_STATE_MAP_LOADED)
        return QUENDREL_REFUSED;
    u32 blockNum;
    {
        SemaphoreGuard session(&b->bSem);
        blockNum = anyDirtyBlock(b);
    }
    return put_user_u32(blockNum, userBlockNum);
}
