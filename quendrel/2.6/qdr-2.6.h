/* SPDX-License-Identifier: GPL-2.0-only */
// The block-layer side of the driver: its records, and what the units call of it.
#pragma once

#include "globals.h"
#include "kernel.h"
#include "list.h"
#include "quendrel.h"

// Identity and geometry of a block device. Block n of its file system lies at sector
// partitionStart + n * sectorsPerBlock of the disk.
typedef struct _DiskInfo {
    kdev_t kdev;
    u64 partitionStart; // sectors from the start of the disk
    s32 blockSize;      // bytes
    u32 blocksPerPage;
    super_block* superBlock;
    u64 partitionSizeKB;
    u64 numBlocks; // set by the caller, not derived from the device
    make_request_fn* realMRF;
    block_device* bdev;
    u64 partitionLen; // sectors
    s32 sectorsPerBlock;
    s32 sectorsPerBlockShift; // index of its lowest set bit
} DiskInfo;

// One disk read of a ReadBlocks under way. The wait goes through the buffer head's lock, not through `event`.
typedef struct _BIORequest {
    struct bio* bio; // its private pointer is the buffer head
    completion event;
} BIORequest;

// A write or read held until the blocks in its range are saved.
typedef struct _MakeRequest {
    request_queue* q;
    struct bio* bio;
    u32 startBN;
    u32 endBN; // inclusive
    struct _MakeRequest* next;
} MakeRequest;

// Records which blocks of one device are written between two snapshots. Owned by amList; whoever takes it out of the
// table frees it.
typedef struct _AutoMapSession {
    DiskInfo diskInfo;  // as it was when the session was made
    volatile u32 state; // 1: every write since the last snapshot is in the map
    BlockMap map;
    atomic_int users;   // drain gate: 1 when idle
    spinlock usersLock; // guards entry into `users`, and sessionKey; taken while amList is entered as a reader; before
                        // a map's lock
    AMSessionKey sessionKey;
    struct _AutoMapSession* next; // always null
} AutoMapSession;

// A device of interest on a hooked queue.
typedef struct _DevList {
    kdev_t kdev;
    list_head list;
} DevList;

// One open file of the control device and the backup it may have started. Zero-filled at open, freed at release.
typedef struct _Backup {
    semaphore bSem;       // serialises start, snapshot, map loading, reads and close; first in the lock order
    volatile u32 state;   // QUENDREL_STATE_...; stored with set_mb, read without a lock
    rw_semaphore writers; // readers: a request between its copy-on-write decision and its queueing; writer: whoever
                          // changes maps or state under them. After bSem; before mrLock
    s32 maxVMPages;
    BackupVMA vmAreas[TRANSFER_AREAS];
    s32 noLoadFromAutoMap;
    s32 noStartAutoMap;
    kernel_timespec eTimeToFreeze;
    kernel_timespec eTimeFrozen;
    DiskInfo diskInfo;
    BlockMap blockMap; // blocks that still belong to the backup
    HashTable** blockTable;
    kmem_cache* htCache;
    char htCacheName[32];
    BlockMap cacheMap;       // blocks that copy-on-write has dealt with
    rw_semaphore cacheUsers; // readers: every use of the cache; writer: its teardown. After bSem; before a bucket
    kmem_cache* cpCache;
    kmem_cache* dataCache;
    char cpCacheName[32];
    char dataCacheName[32];
    u32 maxCacheBlocks;
    atomic_int mrInQueue; // requests held and not yet fully processed
    spinlock mrLock;      // guards mrHead and mrTail; last on the write path
    MakeRequest* mrHead;
    MakeRequest* mrTail;
    atomic_int ioctlCount;
    atomic_int totalAllocPages, curAllocPages;
    atomic_int totalAllocCPs, curAllocCPs, peakAllocCPs;
    atomic_int totalCBs, curCBs;
    atomic_int totalReadBlocks, totalReadCBs, totalCleanedCBs;
    atomic_int totalAllocBRs, curAllocBRs;
    BIORequest** mmBIORequests; // one slot a block of the read under way; all null between reads
    s32 startedCacheThread;
} Backup;

// ---- geometry.cpp
int getDiskInfo(DiskInfo* diskInfo, kdev_t kdev);
request_queue* getRequestQueue(DiskInfo* diskInfo);
void closeDiskInfo(DiskInfo* diskInfo);
int getDiskMinor(kdev_t kdev);
int ioctlGetBlockSize(Backup* b, kdev_t kdev, user_addr userBS, u32 bsLen);

// ---- interception.cpp
int qdrMRF(request_queue* q, bio* bio);
int qdrAMRF(request_queue* q, bio* bio);
int BIOToMinor(bio* bio);
void BIOToBlockNumbers(const DiskInfo* diskInfo, bio* bio, u32* startBN, u32* endBN);
int doWeCacheBlock(Backup* b, u32 blockNum);
int doWeCacheBlocks(Backup* b, u32 startBN, u32 endBN);
int cacheMRFBlock(request_queue* q, bio* bio, int bioMinor);
int newMR(Backup* b, request_queue* q, bio* bio, u32 startBN, u32 endBN);
int callRealMRF(Backup* b, bio* bio);

// ---- worker.cpp
int backup_cache(void* unused);
void addMRToQueue(Backup* b, MakeRequest* mr);
MakeRequest* getTopMR(Backup* b);
void processMR(Backup* b, MakeRequest* mr);
void cacheBlock(Backup* b, MakeRequest* mr, u32 blockNum);
void closeMR(MakeRequest* mr);
void waitForMRs(Backup* b, unsigned long* flags);

// ---- block_io.cpp
void initBH(Backup* b, buffer_head* bh, page* page, u32 offset, u32 blockNum);
void initBIO(Backup* b, bio* bio, buffer_head* bh);
void qdrBIOEndIO(bio* bio, int error);
void qdrBHEndIO(buffer_head* bh, int uptodate);
void wait_on_buffer(buffer_head* bh);
buffer_head* newBufferHead();
bio* newReadBIO();

// ---- recording.cpp
void updateAM(bio* bio, int bioMinor);

// ---- snapshot.cpp
int ioctlSnapShot(Backup* b, user_addr userKey, u32 keyLen);
int ioctlSync(Backup* b);
kernel_timespec calcTimeDiff(const kernel_timespec* start, const kernel_timespec* end);

// ---- block_reads.cpp
int ioctlReadBlocks(Backup* b, u32 startBlockNum, u32 numBlocks, user_addr data);
u32 readBlocks(Backup* b, u32 startBlockNum, u32 numBlocks, BackupVMA* bVMA);
u32 readFromCache(Backup* b, u32 startBlockNum, u32 numBlocks, BackupVMA* bVMA);
int waitForSubmitted(Backup* b, u32 startBlockNum, u32 numBlocks);
void readCheckCache(Backup* b, u32 startBlockNum, u32 numBlocks, BackupVMA* bVMA);
void freeSubmitted(Backup* b, u32 numBlocks);
int isRequestSubmitted(Backup* b, int i);
void freeMMBRs(Backup* b);

// ---- page_faults.cpp
void qdrVMopen(vm_area_struct* vma);
void qdrVMclose(vm_area_struct* vma);
int qdrVMfault(vm_area_struct* vma, vm_fault* vmf);
page* qdrVMnopage(vm_area_struct* vma, unsigned long address, int* unused);
extern const vm_operations qdrVMOps;
