// SPDX-License-Identifier: GPL-2.0-only
// The state query, and the counters that are logged when a backup closes.
#include "guards.h"
#include "qdrlib.h"

// GetState: at most `stateLen` bytes are written. 0 or QUENDREL_COPY_TO_USER.
int ioctlGetState(Backup* b, user_addr userState, u32 stateLen)
{
    State answer = {};
    {
        SemaphoreGuard session(&b->bSem);
        answer.major = kdev_major(b->diskInfo.kdev);
        answer.minor = kdev_minor(b->diskInfo.kdev);
        answer.blockSize = b->diskInfo.blockSize;
        answer.mmapSize = b->maxVMPages * s32(PAGE_BYTES);
        answer.state = load_acquire(&b->state);
    }
    if (copy_to_user(userState, &answer, stateLen < sizeof answer ? stateLen : sizeof answer)) {
        printk("<3>%s: copy to user space %s\n", __func__, "failed");
        return QUENDREL_COPY_TO_USER;
    }
    return QUENDREL_OK;
}

// Fills everything but the three version fields. The counters are loaded one by one and need not belong to one moment.
void setStats(Backup* b, Stats* stats)
{
    stats->major = kdev_major(b->diskInfo.kdev);
    stats->minor = kdev_minor(b->diskInfo.kdev);
    stats->state = load_acquire(&b->state);
    stats->partitionStart = u32(b->diskInfo.partitionStart);
    stats->blockSize = b->diskInfo.blockSize;
    stats->blocksPerPage = s32(b->diskInfo.blocksPerPage);
    stats->partitionSizeKB = u32(b->diskInfo.partitionSizeKB);
    stats->numBlocks = u32(b->diskInfo.numBlocks);
    stats->maxVMPages = b->maxVMPages;
    stats->vmPages = getVMAPageCount(b);
    stats->maxCacheBlocks = b->maxCacheBlocks;
    stats->curAllocAMPages = atomic_read(&curAllocAMPages);
    stats->totalAllocPages = atomic_read(&b->totalAllocPages);
    stats->curAllocPages = atomic_read(&b->curAllocPages);
    stats->totalAllocBRs = atomic_read(&b->totalAllocBRs);
    stats->curAllocBRs = atomic_read(&b->curAllocBRs);
    stats->totalAllocCPs = atomic_read(&b->totalAllocCPs);
    stats->curAllocCPs = atomic_read(&b->curAllocCPs);
    stats->peakAllocCPs = atomic_read(&b->peakAllocCPs);
    stats->totalCBs = atomic_read(&b->totalCBs);
    stats->curCBs = atomic_read(&b->curCBs);
    stats->totalReadBlocks = atomic_read(&b->totalReadBlocks);
    stats->totalReadCBs = atomic_read(&b->totalReadCBs);
    stats->totalCleanedCBs = atomic_read(&b->totalCleanedCBs);
    stats->ioctlCount = atomic_read(&b->ioctlCount);
    stats->eTimeToFreeze = b->eTimeToFreeze;
    stats->eTimeFrozen = b->eTimeFrozen;
}

// The labels of the CP and CB counters stand as they are, although each would fit the other better.
void printStats(const Stats* s)
{
    printk("<6>%s: device: major(%u) minor(%u)\n", __func__, s->major, s->minor);
    printk("<6>%s: state: %u\n", __func__, s->state);
    printk("<6>%s: block size: %i\n", __func__, s->blockSize);
    printk("<6>%s: partition size (KB): %u\n", __func__, s->partitionSizeKB);
    printk("<6>%s: file system size (blocks): %u\n", __func__, s->numBlocks);
    printk("<6>%s: pages allocated for write journal: %d\n", __func__, s->curAllocAMPages);
    printk("<6>%s: max cache size in blocks: %i\n", __func__, int(s->maxCacheBlocks));
    printk("<6>%s: total pages allocated: %d\n", __func__, s->totalAllocPages);
    printk("<6>%s: current pages allocated: %d\n", __func__, s->curAllocPages);
    printk("<6>%s: total Block Requests allocated: %d\n", __func__, s->totalAllocBRs);
    printk("<6>%s: current Block Requests allocated: %d\n", __func__, s->curAllocBRs);
    printk("<6>%s: total cached blocks: %d\n", __func__, s->totalAllocCPs);
    printk("<6>%s: current cached blocks: %d\n", __func__, s->curAllocCPs);
    printk("<6>%s: peak cached blocks: %d\n", __func__, s->peakAllocCPs);
    printk("<6>%s: total block cache data structures: %d\n", __func__, s->totalCBs);
    printk("<6>%s: current block cache data structures: %d\n", __func__, s->curCBs);
    printk("<6>%s: total reads from disk: %d\n", __func__, s->totalReadBlocks);
    printk("<6>%s: total reads from cache: %d\n", __func__, s->totalReadCBs);
    printk("<6>%s: blocks cleaned from cache: %d\n", __func__, s->totalCleanedCBs);
    printk("<6>%s: partition start (sector): %u\n", __func__, s->partitionStart);
    printk("<6>%s: blocks per page: %i\n", __func__, s->blocksPerPage);
    printk("<6>%s: max buffer size in pages: %i\n", __func__, s->maxVMPages);
    printk("<6>%s: buffer pages allocated: %i\n", __func__, s->vmPages);
    printk("<6>%s: commands processed: %d\n", __func__, s->ioctlCount);
    printk("<6>%s: time to freeze in seconds: %d.%09d\n", __func__, s->eTimeToFreeze.tv_sec, s->eTimeToFreeze.tv_nsec);
    printk("<6>%s: time frozen in seconds: %d.%09d\n", __func__, s->eTimeFrozen.tv_sec, s->eTimeFrozen.tv_nsec);
}

// Copies the counters to user space, at most `statsLen` bytes. No command leads here. 0, QUENDREL_NO_MEMORY or
// QUENDREL_COPY_TO_USER.
int ioctlGetStats(Backup* b, user_addr userStats, u32 statsLen)
{
    Stats* stats = static_cast<Stats*>(kmalloc(sizeof(Stats), GFP_KERNEL));
    if (!stats)
        return QUENDREL_NO_MEMORY;
    memset(stats, 0, sizeof *stats);
    {
        SemaphoreGuard session(&b->bSem);
        setStats(b, stats);
    }
    int result = QUENDREL_OK;
    if (copy_to_user(userStats, stats, statsLen < sizeof *stats ? statsLen : sizeof *stats)) {
        printk("<3>%s: copy to user space %s\n", __func__, "failed");
        result = QUENDREL_COPY_TO_USER;
    }
    kfree(stats);
    return result;
}
