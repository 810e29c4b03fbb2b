// SPDX-License-Identifier: GPL-2.0-only
// The life of a backup: what StartBackup builds, and what closing the file takes down.
//
// A start that fails undoes nothing; it leaves what it built in the record and closeBackup, which tests each resource
// for presence, is the one place that tears down. `busy` is taken before the record's own state is looked at, and is
// given back only by closing a record that was not refused (state 12); closing an idle file also clears it and
// detaches the running backup. Both are kept: they are part of the interface.
#include "guards.h"
#include "qdrlib.h"

void allocateBRCache(Backup*) {}

void closeBRCache(Backup*) {}

// Slots for the reads of one command: as many as the largest transfer area has blocks.
int allocateBlockRequests(Backup* b)
{
    const kernel_size_t bytes = kernel_size_t(b->diskInfo.blocksPerPage) * u32(b->maxVMPages) * sizeof(BIORequest*);
    b->mmBIORequests = static_cast<BIORequest**>(vmalloc(bytes));
    if (!b->mmBIORequests)
        return QUENDREL_NO_MEMORY;
    memset(b->mmBIORequests, 0, bytes);
    return QUENDREL_OK;
}

static int newBlockTable(Backup* b, u32 major, u32 minor)
{
    sprintf(b->htCacheName, "qdrHT%02x%02x", major, minor);
    b->htCache = kmem_cache_create(b->htCacheName, sizeof(HashTable));
    if (!b->htCache) {
        printk("<3>%s: kmem_cache_create failed for HashTable structs during backup start major=%d minor=%d\n",
               __func__, int(major), int(minor));
        return QUENDREL_NO_MEMORY;
    }
    b->blockTable = static_cast<HashTable**>(vmalloc(CACHE_BUCKETS * sizeof(HashTable*)));
    if (!b->blockTable)
        return QUENDREL_NO_MEMORY;
    memset(b->blockTable, 0, CACHE_BUCKETS * sizeof(HashTable*));
    for (u32 i = 0; i < CACHE_BUCKETS; i++) {
        b->blockTable[i] = static_cast<HashTable*>(kmem_cache_alloc(b->htCache, GFP_KERNEL));
        if (!b->blockTable[i])
            return QUENDREL_NO_MEMORY;
        memset(b->blockTable[i], 0, sizeof(HashTable));
    }
    for (u32 i = 0; i < CACHE_BUCKETS; i++) {
        sema_init(&b->blockTable[i]->sem, 1);
        b->blockTable[i]->busy = nullptr;
    }
    return QUENDREL_OK;
}

// Takes the count that the worker will sleep on and starts it. 0 or a negative kernel error. The worker gives the
// count back as it exits; when there is no worker it is given back here, or the next start would wait for ever.
static int startWorkQueue(Backup* b)
{
    down(&signalThread);
    atomic_set(&backup_cacheThreadContinue, 1);
    const pid_type pid = kernel_thread(backup_cache, nullptr, 0);
    store_release(&backup_cachePID, pid);
    if (pid < 0) {
        printk("<3>%s: error starting cache thread%s", __func__, "\n");
        up(&signalThread);
        return pid;
    }
    b->startedCacheThread = 1;
    wait_for_completion(&backup_cacheThreadStartCompleted);
    return QUENDREL_OK;
}

static int newCacheMap(Backup* b)
{
    u32 numPages;
    const u32 size = u32(b->diskInfo.numBlocks);
    if (int result = newBlockMap(&b->cacheMap, size, user_addr(0), 1, &numPages)) {
        printk("<3>%s: error creating cache map of size=%u\n", __func__, size);
        return result;
    }
    atomic_add(&b->totalAllocPages, int(numPages));
    atomic_add(&b->curAllocPages, int(numPages));
    return QUENDREL_OK;
}

// An entry has room for a block number for each block of a page and uses the first; on a wider word the structure
// itself may need more.
static kernel_size_t cachePageBytes(const Backup* b)
{
    const kernel_size_t stated = 8 + 4 * kernel_size_t(b->diskInfo.blocksPerPage);
    return stated < sizeof(CachePage) ? sizeof(CachePage) : stated;
}

// Everything between the geometry and the publication of the session. The caller holds bSem.
static int buildSession(Backup* b, u32 major, u32 minor)
{
    if (int result = newBlockTable(b, major, minor))
        return result;
    if (int result = startWorkQueue(b))
        return result;
    allocateBRCache(b);

    sprintf(b->cpCacheName, "qdrCP%02x%02x", major, minor);
    b->cpCache = kmem_cache_create(b->cpCacheName, cachePageBytes(b));
    sprintf(b->dataCacheName, "qdrDC%02x%02x", major, minor);
    b->dataCache = kmem_cache_create(b->dataCacheName, kernel_size_t(b->diskInfo.blockSize));
    if (!b->cpCache || !b->dataCache) {
        printk("<3>%s: kmem_cache_create failed during backup start major=%d minor=%d\n", "ioctlStartBackup",
               int(major), int(minor));
        return QUENDREL_NO_MEMORY;
    }
    if (int result = newCacheMap(b))
        return result;
    b->diskInfo.realMRF = getRealMRF(getRequestQueue(&b->diskInfo));
    if (!b->diskInfo.realMRF) {
        printk("<3>%s: error getting real MRF for major=%d minor=%d\n", "ioctlStartBackup", int(major), int(minor));
        return QUENDREL_NOT_INITIALISED;
    }
    return allocateBlockRequests(b);
}

// StartBackup: takes the driver's one backup slot for device `kdev`. `totalBlocks_` counts the file system's blocks,
// `maxCacheBlocks_` bounds the copy-on-write cache. 0 and state 2, or a code:
//   QUENDREL_REFUSED   the device number does not fit the tracking table; nothing is taken
//   QUENDREL_BUSY      another backup runs; this record is refused for good (state 12)
//   QUENDREL_NOT_IDLE  this record was used before; the slot stays taken
//   codes of getDiskInfo (state 0), QUENDREL_NO_MEMORY, QUENDREL_NOT_INITIALISED or a negative kernel error (state 1)
int ioctlStartBackup(Backup* b, kdev_t kdev, u32 totalBlocks_, u32 maxCacheBlocks_)
{
    const u32 major = kdev_major(kdev);
    const u32 minor = kdev_minor(kdev);
    if (major >= AM_ROWS || minor >= AM_COLUMNS) {
        printk("<3>%s: device major=%d minor=%d does not fit the tracking table, both must be below %d\n", __func__,
               int(major), int(minor), int(AM_ROWS));
        return QUENDREL_REFUSED;
    }
    bool taken = false;
    {
        SpinGuard guard(&busyLock);
        if (atomic_read(&busy) != 1) {
            atomic_set(&busy, 1);
            taken = true;
        }
    }
    if (!taken) {
        set_mb(&b->state, QUENDREL_STATE_REFUSED_BUSY);
        printk("<3>%s: another backup operation is open can't start backup on device major=%d minor=%d\n", __func__,
               int(major), int(minor));
        return QUENDREL_BUSY;
    }

    SemaphoreGuard guard(&b->bSem);
    if (load_acquire(&b->state) != QUENDREL_STATE_IDLE) {
        printk("<3>%s: tried to start backup on device major=%d minor=%d that is already busy\n", __func__, int(major),
               int(minor));
        return QUENDREL_NOT_IDLE;
    }
    b->maxCacheBlocks = maxCacheBlocks_;
    b->diskInfo.numBlocks = totalBlocks_;
    if (int result = getDiskInfo(&b->diskInfo, kdev))
        return result;
    set_mb(&b->state, QUENDREL_STATE_STARTING);
    // The pages that 256 blocks fill.
    b->maxVMPages = b->diskInfo.blockSize * 256 / s32(PAGE_BYTES);
    if (b->maxVMPages > MAX_AREA_PAGES)
        b->maxVMPages = MAX_AREA_PAGES;
    if (int result = buildSession(b, major, minor))
        return result;
    store_release(&activeSession, b);
    set_mb(&b->state, QUENDREL_STATE_STARTED);
    printk("<6>%s: backup started for device major=%d minor=%d\n", __func__, int(major), int(minor));
    return QUENDREL_OK;
}

// Leaves the queue to tracking when the device's own session is in sync, or when other devices on the queue have
// sessions; unhooks it otherwise.
static void handBackQueue(Backup* b)
{
    if (AutoMapSession* ams = getAMS(b->diskInfo.kdev)) {
        const u32 amState = load_acquire(&ams->state);
        putAMS(ams);
        if (amState == 1) {
            if (setMRF(b, qdrAMRF) == 0)
                return;
            errorAMSDEV(b->diskInfo.kdev);
        }
    }
    if (load_acquire(&b->state) == QUENDREL_STATE_IDLE)
        return;
    if (countQueueAMS(getRequestQueue(&b->diskInfo)) >= 2) {
        if (setMRF(b, qdrAMRF) == 0)
            return;
        errorAMSDEV(b->diskInfo.kdev);
    }
    unsetQueueMRFAMS(getRequestQueue(&b->diskInfo));
}

static void flushWorkQueue(Backup* b)
{
    unsigned long flags;
    waitForMRs(b, &flags);
}

static void killWorkQueue(Backup* b)
{
    if (!b->startedCacheThread || load_acquire(&backup_cachePID) <= 0)
        return;
    atomic_set(&backup_cacheThreadContinue, 0);
    up(&signalThread);
    wait_for_completion(&backup_cacheThreadExited);
    store_release(&backup_cachePID, 0);
}

static void closeCacheMap(Backup* b)
{
    if (!b->cacheMap.map)
        return;
    u32 numPages = 0;
    closeBlockMap(&b->cacheMap, &numPages);
    atomic_sub(&b->curAllocPages, int(numPages));
}

static void closeBlockTable(Backup* b)
{
    if (b->blockTable) {
        for (u32 i = 0; i < CACHE_BUCKETS; i++)
            if (b->blockTable[i])
                kmem_cache_free(b->htCache, b->blockTable[i]);
        vfree(b->blockTable);
        b->blockTable = nullptr;
    }
    if (b->htCache) {
        kmem_cache_destroy(b->htCache);
        b->htCache = nullptr;
    }
}

static void logStatistics(Backup* b)
{
    if (Stats* stats = static_cast<Stats*>(kmalloc(sizeof(Stats), GFP_KERNEL))) {
        memset(stats, 0, sizeof *stats);
        setStats(b, stats);
        printStats(stats);
        kfree(stats);
    }
    printk("<6>%s: backup finished device major=%d minor=%d\n", "closeBackup", int(kdev_major(b->diskInfo.kdev)),
           int(kdev_minor(b->diskInfo.kdev)));
}

// Ends whatever `b` started and frees it. The hook goes before the worker's queue is drained, so that nothing new is
// held meanwhile; the worker goes before the cache and the maps that it uses.
void closeBackup(Backup* b)
{
    u32 finalState;
    {
        SemaphoreGuard session(&b->bSem);
        WriteGuard writers(&b->writers);
        handBackQueue(b);
        const u32 savedState = load_acquire(&b->state);
        if (savedState <= QUENDREL_STATE_MAP_LOADED)
            set_mb(&b->state, QUENDREL_STATE_CLOSING);
        flushWorkQueue(b);
        {
            // Every record that closes does this, the idle ones too: it detaches whatever backup is running.
            WriteGuard users(&activeSessionUsers);
            store_release(&activeSession, nullptr);
        }
        killWorkQueue(b);
        freeAllMMPages(b);
        freeMMBRs(b);
        closeCache(b);
        closeBRCache(b);
        closeDiskInfo(&b->diskInfo);
        closeBUBlockMap(b);
        closeCacheMap(b);
        closeBlockTable(b);
        if (savedState != QUENDREL_STATE_IDLE)
            logStatistics(b);
        finalState = load_acquire(&b->state);
        if (finalState <= QUENDREL_STATE_MAP_LOADED) {
            finalState = QUENDREL_STATE_IDLE;
            set_mb(&b->state, finalState);
        }
    }
    if (finalState != QUENDREL_STATE_REFUSED_BUSY) {
        SpinGuard guard(&busyLock);
        if (atomic_read(&busy) == 1)
            atomic_set(&busy, 0);
    }
    kfree(b);
}
