// SPDX-License-Identifier: GPL-2.0-only
// kbackupd: one thread that takes the held requests in arrival order and, for each write, saves what the backup still
// needs before it lets the write go.
//
// The order for one write: read each old block, save it, pass the write on, mark the blocks in cacheMap, count the
// request done. A held request always reaches the device; when a block cannot be saved the backup fails, the write
// does not. A block whose saving failed is marked all the same.
#include "guards.h"
#include "qdrlib.h"

static u32 majorOf(const Backup* b) { return kdev_major(b->diskInfo.kdev); }
static u32 minorOf(const Backup* b) { return kdev_minor(b->diskInfo.kdev); }

void closeMR(MakeRequest* mr) { kfree(mr); }

// Appends a held request and wakes the worker.
void addMRToQueue(Backup* b, MakeRequest* mr)
{
    {
        SpinGuard guard(&b->mrLock);
        if (!b->mrHead) {
            b->mrHead = mr;
            b->mrTail = mr;
        } else {
            b->mrTail->next = mr;
            b->mrTail = mr;
        }
        atomic_inc(&b->mrInQueue);
    }
    up(&signalThread);
}

// Takes the oldest held request off the queue, or null. It stays counted in mrInQueue until it is processed.
MakeRequest* getTopMR(Backup* b)
{
    SpinGuard guard(&b->mrLock);
    MakeRequest* mr = b->mrHead;
    if (mr) {
        if (b->mrTail == mr)
            b->mrTail = nullptr;
        b->mrHead = mr->next;
        mr->next = nullptr;
    }
    return mr;
}

// Reads the old contents of a block, past the driver's own hook and waiting for them, and saves them. Failures go to
// the session's state and put tracking out of sync.
void cacheBlock(Backup* b, MakeRequest*, u32 blockNum)
{
    ReadGuard users(&b->cacheUsers);
    if (load_acquire(&b->state) > QUENDREL_STATE_MAP_LOADED)
        return;
    page* p = alloc_page(GFP_NOIO);
    if (!p) {
        set_mb(&b->state, QUENDREL_STATE_CACHE_EXHAUSTED);
        errorAMS(b);
        return;
    }
    atomic_inc(&b->totalAllocPages);
    atomic_inc(&b->curAllocPages);
    buffer_head* bh = newBufferHead();
    bio* bio = newReadBIO();
    atomic_inc(&b->curAllocBRs);
    atomic_inc(&b->totalAllocBRs);

    initBH(b, bh, p, 0, blockNum);
    initBIO(b, bio, bh);
    bio_set_read(bio);
    callRealMRF(b, bio);
    wait_on_buffer(bh);

    if (!bio_uptodate(bio)) {
        set_mb(&b->state, QUENDREL_STATE_READ_FAILED);
        printk("<3>%s: Block read error blockNum=%u MAJOR=%d MINOR=%d\n", __func__, blockNum, int(majorOf(b)),
               int(minorOf(b)));
        errorAMS(b);
    } else if (saveBlock(b, page_address(p), blockNum)) {
        printk("<3>%s: Error caching blockNum=%u MAJOR=%d MINOR=%d\n", __func__, blockNum, int(majorOf(b)),
               int(minorOf(b)));
        errorAMS(b);
    }

    bio_put(bio);
    put_bh(bh);
    free_buffer_head(bh);
    atomic_dec(&b->curAllocBRs);
    free_page_ref(p);
    atomic_dec(&b->curAllocPages);
}

// Block numbers are counted in 64 bits here, so that a range that ends at the last number ends.
void processMR(Backup* b, MakeRequest* mr)
{
    const bool isWrite = (bio_rw(mr->bio) & 3) == 1;
    if (isWrite) {
        for (u64 i = mr->startBN; i <= mr->endBN; i++)
            if (doWeCacheBlock(b, u32(i)))
                cacheBlock(b, mr, u32(i));
    }
    callRealMRF(b, mr->bio);
    if (isWrite) {
        for (u64 i = mr->startBN; i <= mr->endBN; i++)
            if (doWeCacheBlock(b, u32(i)))
                setBlock(&b->cacheMap, u32(i));
    }
    atomic_dec(&b->mrInQueue);
    closeMR(mr);
}

// The thread: one request a count taken. It serves whatever activeSession is; the close protocol (state 7, drain,
// stop) keeps that record alive while it does.
int backup_cache(void*)
{
    daemonize("kbackupd");
    allow_signal_kill();
    printk("<6>%s: kbackupd thread started%s", __func__, "\n");
    complete(&backup_cacheThreadStartCompleted);
    while (atomic_read(&backup_cacheThreadContinue) == 1) {
        (void)down_interruptible(&signalThread);
        if (atomic_read(&backup_cacheThreadContinue) != 1)
            break;
        Backup* b = load_acquire(&activeSession);
        if (!b || load_acquire(&b->state) <= QUENDREL_STATE_STARTED)
            continue;
        if (MakeRequest* mr = getTopMR(b))
            processMR(b, mr);
    }
    up(&signalThread); // the count that the start took
    printk("<6>%s: backupd thread exiting%s", __func__, "\n");
    complete_and_exit(&backup_cacheThreadExited, 0);
}

// Returns when every held request is processed, or when the worker is gone.
void waitForMRs(Backup* b, unsigned long* flags)
{
    if (load_acquire(&backup_cachePID) <= 0)
        return;
    spin_lock_irqsave(&b->mrLock, flags);
    while (atomic_read(&b->mrInQueue) > 0 && load_acquire(&backup_cachePID) > 0) {
        spin_unlock_irqrestore(&b->mrLock, *flags);
        schedule();
        spin_lock_irqsave(&b->mrLock, flags);
    }
    if (load_acquire(&backup_cachePID) <= 0)
        printk("<3>%s: backup_cache thread died during waitForMRs%s", __func__, "\n");
    spin_unlock_irqrestore(&b->mrLock, *flags);
}
