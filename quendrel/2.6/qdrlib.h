/* SPDX-License-Identifier: GPL-2.0-only */
// The driver's globals, and what the units call of the library side: module, control, sessions, maps, registry,
// cache, tracking, transfer mappings, statistics.
//
// Lock order. Write path: the device's partition lock (alone), activeSessionUsers (read, released), writers (read); for
// a write that is held, inside writers: amListUsersLock and a session's usersLock, a map's lock, then mrLock; when it cannot
// be queued, amListUsersLock and then the registry. A write that is not held is recorded with none of these held. Cache:
// bSem, cacheUsers, one bucket; in the worker, when a block cannot be kept, amListUsersLock and then the registry. Registry:
// queueListUsersLock, amListUsersLock, the queue's own lock. Snapshot: bSem, amList as a reader, a session briefly, the
// registry, the freeze, writers (write), amList as a reader, the session alone, the backup's map, the session's map.
// Close: bSem, writers (write), amList and a session each briefly and never together, mrLock (dropped around each wait),
// activeSessionUsers (write); busyLock after bSem and writers are released.
#pragma once

#include "globals.h"
#include "kernel.h"
#include "qdr-2.6.h"
#include "queueList.h"
#include "quendrel.h"
#include "stats.h"

constexpr u32 AM_ROWS = 256;
constexpr u32 AM_COLUMNS = 256;
constexpr u32 AM_SLOTS = AM_ROWS * AM_COLUMNS;

extern atomic_int initDone;        // 1 once the control device is registered
extern atomic_int curAllocAMPages; // pages of all tracking maps together
extern AutoMapSession* amList[AM_ROWS][AM_COLUMNS];
extern atomic_int amListUsers;          // drain gate of amList
extern spinlock amListUsersLock;        // guards entry into amListUsers; after queueListUsersLock, before a session's
extern list_head queueListHead;         // QueueList
extern atomic_int queueListUsers;       // drain gate of queueListHead
extern spinlock queueListUsersLock;     // guards entry into queueListUsers; held by whoever changes the registry
extern semaphore signalThread;          // one count a held request; wakes kbackupd
extern atomic_int busy;                 // 1 while a backup is started anywhere
extern spinlock busyLock;               // guards busy; alone
extern Backup* activeSession;           // the running backup, as the intercepting functions see it
extern rw_semaphore activeSessionUsers; // readers: who looks at activeSession; writer: who clears it
extern pid_type backup_cachePID;        // kbackupd, 0 when none
extern atomic_int backup_cacheThreadContinue;
extern completion backup_cacheThreadStartCompleted;
extern completion backup_cacheThreadExited;
extern atomic_int shutting_down;  // kept, without behaviour
extern atomic_int shutdown_ready; // kept, without behaviour

// ---- shim-2.6/
int qdrCheckModUse();
int qdrModGet();
void qdrModPut();
int qdrModRegister(unsigned major, const char* name, file_operations* fops);
request_queue* qdrGetRequestQueue(block_device* bdev);
void qdrLockRequestQueue(request_queue* q, unsigned long* flags);
void qdrUnlockRequestQueue(request_queue* q, unsigned long flags);

// ---- module.cpp
int qdrInit();
void qdrExit();
void doModuleUnload();
int qdrUnload();
int qdrShutdown();
extern file_operations qdrFileOps;

// ---- control.cpp
int qdrOpen(inode* inode, file* file);
int qdrRelease(inode* inode, file* file);
long qdrRead(file* file, user_addr buffer, kernel_size_t count, s64* position);
long qdrWrite(file* file, user_addr buffer, kernel_size_t count, s64* position);
unsigned qdrPoll(file* file, poll_table* table);
int qdrIOCTL(inode* inode, file* file, unsigned cmd, unsigned long arg);

// ---- session.cpp
int ioctlStartBackup(Backup* b, kdev_t kdev, u32 totalBlocks_, u32 maxCacheBlocks_);
void closeBackup(Backup* b);
void allocateBRCache(Backup* b);
void closeBRCache(Backup* b);
int allocateBlockRequests(Backup* b);

// ---- block_map.cpp
int newBlockMap(BlockMap* bmap, u32 size, user_addr data, int zeroFill, u32* numPagesAlloc);
void closeBlockMap(BlockMap* bmap, u32* numPagesFreed);
u32 setBlock(BlockMap* bm, u32 blockNum);
int unSetBlock(BlockMap* bm, u32 blockNum);
int blockInMap(BlockMap* bm, u32 blockNum);
void waitForBlockMapUsers(BlockMap* bm, unsigned long* flags);
u32 numPagesInBlockMap(const BlockMap* bmap);

// ---- map_loading.cpp
int ioctlLoadBlockMap(Backup* b, const UserBlockMap* userBM);
int newBUBlockMap(Backup* b, u32 size, user_addr data);
void closeBUBlockMap(Backup* b);

// ---- queue_registry.cpp
int setMRF(Backup* b, make_request_fn* newMRF);
make_request_fn* getRealMRF(request_queue* q);
int isInQueueList(request_queue* q, kdev_t kdev);
void addQueueToList(request_queue* q, kdev_t kdev);
int addDevToList(QueueList* ql, kdev_t kdev, DevList* node);
int isInDevList(QueueList* ql, kdev_t kdev);
void unSetMRFDEV(DiskInfo* diskInfo);
void unsetQueueMRFAMS(request_queue* q);
void closeQueueList();
void waitForQueueListUsers(unsigned long* flags);
QueueList* nextQueueList(QueueList* ql);
DevList* nextDevList(QueueList* ql, DevList* dev);

// ---- block_cache.cpp
int saveBlock(Backup* b, const void* data, u32 blockNum);
CachePage* getCacheBlock(Backup* b);
void addCPtoBusyList(HashTable* ht, CachePage* cp);
int cacheRead(Backup* b, void* data, u32 blockNum);
CachePage* locateBlockInList(CachePage* cp, u32 blockNum, CachePage** lastCP);
void freeCachePage(Backup* b, CachePage* cp);
void closeList(Backup* b, CachePage* cp);
int cleanUpCache(Backup* b);
void closeCache(Backup* b);
u32 anyDirtyBlock(Backup* b);
int ioctlGetDirtyBlock(Backup* b, user_addr userBlockNum);

// ---- tracking_table.cpp
AutoMapSession** amSlot(u32 major, u32 minor);
AutoMapSession* getAMS(kdev_t kdev);
void putAMS(AutoMapSession* ams);
int newAMS(Backup* b, AutoMapSession** amSession);
int closeAMS(Backup* b);
void closeAM(AutoMapSession* ams);
void closeAllAMS();
void errorAMS(Backup* b);
void forgetAM(kdev_t kdev);
void errorAMSDEV(kdev_t kdev);
int countQueueAMS(request_queue* q);
void unSetMRFAMS(AutoMapSession* ams);
void waitForAMSUsers(AutoMapSession* ams, unsigned long* flags);
void waitForAMListUsers(unsigned long* flags);

// ---- tracking_commands.cpp
int ioctlGetAutoMapState(Backup* b, user_addr userAMS, u32 amsLen);
int ioctlGetAutoMap(Backup* b, const UserBlockMap* userBM);
int ioctlNoStartAutoMap(Backup* b);
int ioctlNoLoadFromAutoMap(Backup* b);

// ---- transfer_mapping.cpp
int qdrMMAP(file* file, vm_area_struct* vma);
int checkVMA(Backup* b, user_addr data, BackupVMA** bVMAPtr);
int findVMA(Backup* b, const vm_area_struct* vmaToFind, BackupVMA** bVMAPtr);
int maxBVMAs(Backup* b, BackupVMA** bVMAPtr);
int getVMAPageCount(Backup* b);
void freeMMPages(Backup* b, BackupVMA* bVMA);
void freeAllMMPages(Backup* b);
char* mmPageAddr(Backup* b, int index, BackupVMA* bVMA);

// ---- statistics.cpp
void setStats(Backup* b, Stats* stats);
void printStats(const Stats* s);
int ioctlGetState(Backup* b, user_addr userState, u32 stateLen);
int ioctlGetStats(Backup* b, user_addr userStats, u32 statsLen);
