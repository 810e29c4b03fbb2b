// SPDX-License-Identifier: GPL-2.0-only
// The two functions that stand in for a queue's own: qdrMRF while a backup runs, qdrAMRF while only tracking does.
//
// Both must be safe for any request for any device of the queue. They run in the task that submits the request, on
// any processor, and may sleep; no spin lock may be held on entry. Whether a request is held is decided and carried
// out under the session's `writers` held for reading, so that the close of a backup (which takes it for writing) waits
// for every request between its decision and its queueing. The session itself is used after activeSessionUsers was
// released; the platform keeps a record that a close has freed until every task inside a hooked function has left it.
#include "guards.h"
#include "qdrlib.h"

static u32 majorOf(bio* bio) { return kdev_major(bdev_dev(bio_bdev(bio))); }

// The minor number of the partition that holds the request's first sector, or of the whole disk: by now the sector is
// absolute and the request names only the disk.
int BIOToMinor(bio* bio)
{
    block_device* bdev = bio_bdev(bio);
    bdev_lock_partitions(bdev);
    gendisk* disk = bdev_disk(bdev);
    if (!disk) {
        // Unplugged under the request; the device's own function will fail it.
        bdev_unlock_partitions(bdev);
        return int(kdev_minor(bdev_dev(bdev)));
    }
    const u32 firstMinor = disk_first_minor(disk);
    const u32 minors = disk_minors(disk);
    const u32 slots = disk_partition_slots(disk);
    const sector_type sector = bio_sector(bio);
    u32 minor = firstMinor;
    for (u32 i = 1; i < minors && i < slots; i++) {
        sector_type start, sectors;
        if (disk_partition(disk, i, &start, &sectors) && start <= sector && sector < start + sectors) {
            minor = firstMinor + i;
            break;
        }
    }
    bdev_unlock_partitions(bdev);
    return int(minor);
}

// First and last block of the device that the request touches, inclusive; *endBN below *startBN for an empty request.
// Sectors before the device count as its first; an end that equals the device's length is kept as it is.
void BIOToBlockNumbers(const DiskInfo* diskInfo, bio* bio, u32* startBN, u32* endBN)
{
    const u64 sector = bio_sector(bio);
    const u32 bytes = bio_size(bio);
    const u64 start = sector < diskInfo->partitionStart ? 0 : sector - diskInfo->partitionStart;
    u64 end = start + (bytes >> 9);
    if (end != 0)
        end--;
    if (bytes & 0x1FF)
        end++;
    if (end > diskInfo->partitionLen)
        end = diskInfo->partitionLen ? diskInfo->partitionLen - 1 : 0;
    *startBN = u32(start >> diskInfo->sectorsPerBlockShift);
    *endBN = u32(end >> diskInfo->sectorsPerBlockShift);
}

// 1 when the block's old contents must still be saved, else 0.
int doWeCacheBlock(Backup* b, u32 blockNum)
{
    if (load_acquire(&b->state) == QUENDREL_STATE_MAP_LOADED && !blockInMap(&b->blockMap, blockNum))
        return 0;
    return blockInMap(&b->cacheMap, blockNum) ? 0 : 1;
}

int doWeCacheBlocks(Backup* b, u32 startBN, u32 endBN)
{
    for (u64 i = startBN; i <= endBN; i++)
        if (doWeCacheBlock(b, u32(i)))
            return 1;
    return 0;
}

// Queues a held request. 0, or QUENDREL_NO_MEMORY.
//
// A write is recorded by tracking after the decision to hold it and before it is queued: once queued, the worker may
// perform it and free the bio at any moment, and a write must be in the map before it is performed, or a snapshot in
// between would miss it.
int newMR(Backup* b, request_queue* q, bio* bio, u32 startBN, u32 endBN)
{
    MakeRequest* mr = static_cast<MakeRequest*>(kmalloc(sizeof(MakeRequest), GFP_NOIO));
    if (!mr)
        return QUENDREL_NO_MEMORY;
    mr->q = q;
    mr->bio = bio;
    mr->startBN = startBN;
    mr->endBN = endBN;
    mr->next = nullptr;
    if ((bio_rw(bio) & 3) == 1)
        updateAM(bio, int(kdev_minor(b->diskInfo.kdev)));
    addMRToQueue(b, mr);
    return 0;
}

// The running backup if it is of the device that the request goes to, else null.
static Backup* sessionFor(bio* bio, int bioMinor)
{
    ReadGuard users(&activeSessionUsers);
    Backup* b = load_acquire(&activeSession);
    if (b && kdev_major(b->diskInfo.kdev) == majorOf(bio) && int(kdev_minor(b->diskInfo.kdev)) == bioMinor)
        return b;
    return nullptr;
}

// 1: held and queued. 0: not held. -1: should have been held and could not; the backup has failed.
int cacheMRFBlock(request_queue* q, bio* bio, int bioMinor)
{
    Backup* b = sessionFor(bio, bioMinor);
    if (!b)
        return 0;
    ReadGuard writers(&b->writers);
    const u32 state = load_acquire(&b->state);
    if (state < QUENDREL_STATE_SNAPSHOT || state > QUENDREL_STATE_MAP_LOADED)
        return 0;
    u32 startBN, endBN;
    BIOToBlockNumbers(&b->diskInfo, bio, &startBN, &endBN);
    if (!doWeCacheBlocks(b, startBN, endBN))
        return 0;
    if (newMR(b, q, bio, startBN, endBN)) {
        set_mb(&b->state, QUENDREL_STATE_QUEUE_FAILED);
        errorAMS(b);
        return -1;
    }
    return 1;
}

// While a backup runs. 0 when the request was held, else the result of the queue's own function. Read-ahead is never
// held; other reads are, so that they are passed on behind the writes held before them.
int qdrMRF(request_queue* q, bio* bio)
{
    set_current_running();
    const u32 rw = bio_rw(bio) & 3;
    const int bioMinor = BIOToMinor(bio);
    if (rw != 2 && cacheMRFBlock(q, bio, bioMinor) == 1)
        return 0;
    if (rw == 1)
        updateAM(bio, bioMinor);
    make_request_fn* realMRF = getRealMRF(q);
    if (!realMRF) {
        printk("<2>%s: request intercepted for unknown device major=%d minor=%d\n", __func__, int(majorOf(bio)),
               bioMinor);
        kernel_bug(__FILE__, __LINE__);
    }
    return realMRF(q, bio);
}

// While only tracking runs on the queue.
int qdrAMRF(request_queue* q, bio* bio)
{
    const int bioMinor = BIOToMinor(bio);
    if ((bio_rw(bio) & 3) == 1)
        updateAM(bio, bioMinor);
    make_request_fn* realMRF = getRealMRF(q);
    if (!realMRF) {
        printk("<2>%s: request intercepted for unknown device major=%d realMRF=%p\n", __func__, int(majorOf(bio)),
               static_cast<void*>(nullptr));
        kernel_bug(__FILE__, __LINE__);
    }
    return realMRF(q, bio);
}

// Hands a request to the backed-up device past the driver's hook. Always 0; without a queue the request is dropped.
int callRealMRF(Backup* b, bio* bio)
{
    request_queue* q = qdrGetRequestQueue(bio_bdev(bio));
    if (!q) {
        printk("<3>%s: Block read error: (bdev queue is null) MAJOR=%d MINOR=%d\n", __func__,
               int(kdev_major(b->diskInfo.kdev)), int(kdev_minor(b->diskInfo.kdev)));
        return 0;
    }
    if (b->diskInfo.realMRF(q, bio))
        generic_make_request(bio);
    return 0;
}
