// SPDX-License-Identifier: GPL-2.0-only
// ReadBlocks: a run of blocks as they were at the snapshot, into a transfer area.
//
// A block with saved contents comes from the cache, every other one from the disk, all sent before any is waited for.
// A write may save a block while its disk read is under way, and the read may then deliver either contents; so after
// the wait every block read from disk is looked for in the cache once more, and the saved copy wins. Then the block
// leaves the backup's map and later writes to it need no copy.
#include "guards.h"
#include "qdrlib.h"

int isRequestSubmitted(Backup* b, int i) { return b->mmBIORequests[i] ? 1 : 0; }

void freeMMBRs(Backup* b)
{
    vfree(b->mmBIORequests);
    b->mmBIORequests = nullptr;
}

// Sends a disk read for every block of the run that is not in the cache map. The number sent.
u32 readBlocks(Backup* b, u32 startBlockNum, u32 numBlocks, BackupVMA* bVMA)
{
    const u32 blocksPerPage = b->diskInfo.blocksPerPage;
    u32 sent = 0;
    for (u32 i = 0; i < numBlocks; i++) {
        const u32 blockNum = startBlockNum + i;
        if (blockInMap(&b->cacheMap, blockNum))
            continue;
        BIORequest* request = static_cast<BIORequest*>(kmalloc(sizeof(BIORequest), GFP_NOIO | GFP_NOFAIL));
        memset(request, 0, sizeof *request);
        b->mmBIORequests[i] = request;
        buffer_head* bh = newBufferHead();
        request->bio = newReadBIO();
        atomic_inc(&b->curAllocBRs);
        atomic_inc(&b->totalAllocBRs);
        initBH(b, bh, bVMA->mmPages[i / blocksPerPage], i % blocksPerPage * u32(b->diskInfo.blockSize), blockNum);
        initBIO(b, request->bio, bh);
        bio_set_read(request->bio);
        callRealMRF(b, request->bio);
        atomic_inc(&b->totalReadBlocks);
        sent++;
    }
    return sent;
}

// Copies every block of the run that was not sent to the disk from the cache. The number copied.
u32 readFromCache(Backup* b, u32 startBlockNum, u32 numBlocks, BackupVMA* bVMA)
{
    u32 copied = 0;
    for (u32 i = 0; i < numBlocks; i++) {
        if (isRequestSubmitted(b, int(i)))
            continue;
        if (cacheRead(b, mmPageAddr(b, int(i), bVMA), startBlockNum + i))
            copied++;
        else
            printk("<4>%s: expected to read block number (%u) from cache and block not found in cache\n", __func__,
                   startBlockNum + i);
    }
    return copied;
}

static void zeroFailedRead(bio* bio)
{
    for (u32 v = 0; v < bio_vectors(bio); v++) {
        page* p;
        u32 bytes, offset;
        bio_vector(bio, v, &p, &bytes, &offset);
        if (offset + bytes > PAGE_BYTES) {
            printk("<2>%s: BIO segment greater than page size (offset=%d, length=%d)", "waitForSubmitted", int(offset),
                   int(bytes));
            kernel_bug(__FILE__, __LINE__);
        }
        memset(static_cast<char*>(page_address(p)) + offset, 0, bytes);
    }
}

// Waits for the disk reads in ascending order; what could not be read becomes zeros. 0, or QUENDREL_READ_ERROR. With
// the backup's map loaded each block leaves it, read or not.
int waitForSubmitted(Backup* b, u32 startBlockNum, u32 numBlocks)
{
    int result = QUENDREL_OK;
    for (u32 i = 0; i < numBlocks; i++) {
        if (!isRequestSubmitted(b, int(i)))
            continue;
        bio* bio = b->mmBIORequests[i]->bio;
        wait_on_buffer(static_cast<buffer_head*>(bio_private(bio)));
        if (!bio_uptodate(bio)) {
            zeroFailedRead(bio);
            result = QUENDREL_READ_ERROR;
        }
        if (load_acquire(&b->state) == QUENDREL_STATE_MAP_LOADED)
            unSetBlock(&b->blockMap, startBlockNum + i);
    }
    return result;
}

// Lets what was saved while its disk read was under way replace what the disk delivered.
void readCheckCache(Backup* b, u32 startBlockNum, u32 numBlocks, BackupVMA* bVMA)
{
    for (u32 i = 0; i < numBlocks; i++)
        if (isRequestSubmitted(b, int(i)))
            cacheRead(b, mmPageAddr(b, int(i), bVMA), startBlockNum + i);
}

void freeSubmitted(Backup* b, u32 numBlocks)
{
    for (u32 i = 0; i < numBlocks; i++) {
        if (!isRequestSubmitted(b, int(i)))
            continue;
        BIORequest* request = b->mmBIORequests[i];
        if (request->bio) {
            if (buffer_head* bh = static_cast<buffer_head*>(bio_private(request->bio))) {
                put_bh(bh);
                free_buffer_head(bh);
            }
            bio_set_private(request->bio, nullptr);
            bio_put(request->bio);
            request->bio = nullptr;
            atomic_dec(&b->curAllocBRs);
        }
        kfree(request);
        b->mmBIORequests[i] = nullptr;
    }
}

// 0 when the run may be read into *bVMA, else QUENDREL_REFUSED, with the reason logged.
static int checkRead(Backup* b, u32 startBlockNum, u32 numBlocks, user_addr data, BackupVMA** bVMA)
{
    const char* name = "ioctlReadBlocks";
    const u32 state = load_acquire(&b->state);
    if (state != QUENDREL_STATE_MAP_LOADED && state != QUENDREL_STATE_SNAPSHOT) {
        printk("<3>%s: state (%d) not valid\n", name, int(state));
        return QUENDREL_REFUSED;
    }
    const u32 endBlockNum = startBlockNum + numBlocks;
    if (endBlockNum < startBlockNum) {
        printk("<3>%s: invalid block read range (%u-%u)\n", name, startBlockNum, endBlockNum);
        return QUENDREL_REFUSED;
    }
    if (state == QUENDREL_STATE_MAP_LOADED) {
        if (!b->blockMap.map) {
            printk("<3>%s: block map is null%s", name, "\n");
            return QUENDREL_REFUSED;
        }
        if (endBlockNum > b->blockMap.size) {
            printk("<3>%s: end block number out of block map range%s", name, "\n");
            return QUENDREL_REFUSED;
        }
    }
    if (!b->cacheMap.map) {
        printk("<3>%s: cache map is null%s", name, "\n");
        return QUENDREL_REFUSED;
    }
    if (endBlockNum > b->cacheMap.size) {
        printk("<3>%s: block num (%u) out of range (%u)\n", name, endBlockNum, b->cacheMap.size);
        return QUENDREL_REFUSED;
    }
    if (!checkVMA(b, data, bVMA)) {
        printk("<3>%s: invalid data pointer%s", name, "\n");
        return QUENDREL_REFUSED;
    }
    const unsigned long capacity = (unsigned long)((*bVMA)->vmPages) * PAGE_BYTES;
    // The product wraps in 32 bits; the count is bounded by its slots as well, so that a wrapped one cannot pass.
    if (numBlocks * u32(b->diskInfo.blockSize) > capacity ||
        numBlocks > b->diskInfo.blocksPerPage * u32(b->maxVMPages)) {
        printk("<3>%s: tried to read (%u) number of blocks size (%u) and mmap region can hold (%lu) bytes\n", name,
               numBlocks, u32(b->diskInfo.blockSize), capacity);
        return QUENDREL_REFUSED;
    }
    return QUENDREL_OK;
}

// ReadBlocks: `data` is the first address of a transfer mapping. 0; QUENDREL_REFUSED; QUENDREL_READ_ERROR when some
// blocks could not be read from disk and were returned as zeros. When it returns no request slot is in use.
int ioctlReadBlocks(Backup* b, u32 startBlockNum, u32 numBlocks, user_addr data)
{
    SemaphoreGuard session(&b->bSem);
    BackupVMA* bVMA = nullptr;
    if (int refused = checkRead(b, startBlockNum, numBlocks, data, &bVMA))
        return refused;

    int result = QUENDREL_OK;
    const u32 fromDisk = readBlocks(b, startBlockNum, numBlocks, bVMA);
    u32 fromCache = 0;
    if (fromDisk < numBlocks)
        fromCache = readFromCache(b, startBlockNum, numBlocks, bVMA);
    if (fromDisk + fromCache != numBlocks) {
        // The disk reads are released below without being waited for; their completions find them alive all the same.
        printk("<3>%s: read (%u) blocks from disk and (%u) blocks from cache and expected to read (%u) blocks\n",
               __func__, fromDisk, fromCache, numBlocks);
        result = QUENDREL_REFUSED;
    } else {
        result = waitForSubmitted(b, startBlockNum, numBlocks);
        if (result == QUENDREL_READ_ERROR)
            printk("<4>%s: Received an IO error while reading sectors for backup.  Some sectors could not be read%s",
                   __func__, "\n");
        readCheckCache(b, startBlockNum, numBlocks, bVMA);
    }
    if (fromDisk != 0)
        freeSubmitted(b, numBlocks);
    return result;
}
