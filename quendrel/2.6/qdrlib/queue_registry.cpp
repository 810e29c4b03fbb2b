// SPDX-License-Identifier: GPL-2.0-only
// The registry of hooked request queues: for each queue, its own function and the devices of interest on it.
//
// Invariants: at most one entry a queue, at most one DevList a device number within an entry; an entry whose device
// list became empty is gone and its queue has its own function back; a queue that carries one of the driver's
// functions has an entry. The last one is why a hook is stored by whoever keeps the registry from changing, as a reader
// or holding it: were the entry removed between the look at the registry and the store, the queue would be left with a
// function that finds only itself to call.
//
// Readers count themselves in and walk without a lock, so that intercepted requests never sleep here. Writers wait
// until the readers have left and then hold queueListUsersLock; they do not sleep, allocate or do I/O while they do.
#include "guards.h"
#include "qdrlib.h"

static UserGuard readRegistry() { return UserGuard(&queueListUsers, &queueListUsersLock); }

// The entry after `ql` (null: the first), or null.
QueueList* nextQueueList(QueueList* ql)
{
    list_head* link = ql ? ql->list.next : queueListHead.next;
    return link == &queueListHead ? nullptr : LIST_RECORD(link, QueueList, list);
}

// The device after `dev` (null: the first) of an entry, or null.
DevList* nextDevList(QueueList* ql, DevList* dev)
{
    list_head* link = dev ? dev->list.next : ql->devList.next;
    return link == &ql->devList ? nullptr : LIST_RECORD(link, DevList, list);
}

// The caller is a reader or holds the registry.
static QueueList* findQueue(request_queue* q)
{
    QueueList* ql = nullptr;
    while ((ql = nextQueueList(ql)))
        if (ql->rQueue == q)
            return ql;
    return nullptr;
}

static make_request_fn* loadMRF(request_queue* q)
{
    unsigned long flags = 0;
    qdrLockRequestQueue(q, &flags);
    make_request_fn* fn = queue_make_request_fn(q);
    qdrUnlockRequestQueue(q, flags);
    return fn;
}

static void storeMRF(request_queue* q, make_request_fn* fn)
{
    unsigned long flags = 0;
    qdrLockRequestQueue(q, &flags);
    queue_set_make_request_fn(q, fn);
    qdrUnlockRequestQueue(q, flags);
}

// Returns holding queueListUsersLock with no reader inside.
void waitForQueueListUsers(unsigned long* flags) { waitForUsers(&queueListUsers, &queueListUsersLock, flags); }

int isInDevList(QueueList* ql, kdev_t kdev)
{
    if (!ql)
        return 0;
    DevList* dev = nullptr;
    while ((dev = nextDevList(ql, dev)))
        if (dev->kdev == kdev)
            return 1;
    return 0;
}

int isInQueueList(request_queue* q, kdev_t kdev)
{
    if (!q)
        return 0;
    UserGuard reader = readRegistry();
    return isInDevList(findQueue(q), kdev);
}

// 1 when `node` was linked; 0 when there is no entry or the device is listed already.
int addDevToList(QueueList* ql, kdev_t kdev, DevList* node)
{
    if (!ql || isInDevList(ql, kdev))
        return 0;
    node->kdev = kdev;
    listAddTail(&node->list, &ql->devList);
    return 1;
}

// Allocates a zeroed record below the block layer, however long that takes.
template <typename Record> static Record* newRecord()
{
    void* record;
    while (!(record = kmalloc(sizeof(Record), GFP_NOIO)))
        schedule();
    memset(record, 0, sizeof(Record));
    return static_cast<Record*>(record);
}

void addQueueToList(request_queue* q, kdev_t kdev)
{
    if (!q) {
        printk("<3>%s: Could not add queue to list (null).%s", __func__, "\n");
        return;
    }
    QueueList* fresh = newRecord<QueueList>();
    DevList* node = newRecord<DevList>();

    unsigned long flags;
    waitForQueueListUsers(&flags);
    int linked;
    if (QueueList* found = findQueue(q)) {
        linked = addDevToList(found, kdev, node);
    } else {
        fresh->rQueue = q;
        fresh->realMRF = loadMRF(q);
        listInit(&fresh->devList);
        linked = addDevToList(fresh, kdev, node);
        listAddTail(&fresh->list, &queueListHead);
        fresh = nullptr;
    }
    spin_unlock_irqrestore(&queueListUsersLock, flags);
    kfree(fresh);
    if (!linked)
        kfree(node);
}

// Puts `newMRF` in front of the queue of the backup's device, registering the device when it is not. 0, or 1 when the
// device has no queue. A function already in front is replaced and the queue's own one stays remembered. Where the
// device is registered this is a reader's visit, whom nobody keeps waiting.
int setMRF(Backup* b, make_request_fn* newMRF)
{
    request_queue* q = getRequestQueue(&b->diskInfo);
    if (!q)
        return 1;
    for (;;) {
        {
            UserGuard reader = readRegistry();
            if (isInDevList(findQueue(q), b->diskInfo.kdev)) {
                storeMRF(q, newMRF);
                return 0;
            }
        }
        addQueueToList(q, b->diskInfo.kdev);
    }
}

// The queue's own function: as remembered, or as it stands when the queue is not registered.
make_request_fn* getRealMRF(request_queue* q)
{
    if (!q) {
        printk("<4>%s: Can't get MRF on NULL queue.%s", __func__, "\n");
        // The count drops although nobody was counted in: kept as it is.
        leaveUsers(&queueListUsers);
        return nullptr;
    }
    UserGuard reader = readRegistry();
    QueueList* ql = nullptr;
    while ((ql = nextQueueList(ql)))
        if (ql->rQueue == q && ql->realMRF)
            return ql->realMRF;
    return loadMRF(q);
}

// Ends the interest in one device; with the last device of its queue the queue gets its own function back.
void unSetMRFDEV(DiskInfo* diskInfo)
{
    request_queue* q = getRequestQueue(diskInfo);
    if (!q) {
        printk("<4>%s: Unable to get request queue for MAJOR=%d, MINOR=%d while unsetting MRF.", __func__,
               int(kdev_major(diskInfo->kdev)), int(kdev_minor(diskInfo->kdev)));
        return;
    }
    unsigned long flags;
    waitForQueueListUsers(&flags);
    make_request_fn* realMRF = nullptr;
    if (QueueList* ql = findQueue(q)) {
        DevList* next;
        for (DevList* dev = nextDevList(ql, nullptr); dev; dev = next) {
            next = nextDevList(ql, dev);
            if (dev->kdev == diskInfo->kdev) {
                listRemove(&dev->list);
                kfree(dev);
            }
        }
        if (listEmpty(&ql->devList)) {
            realMRF = ql->realMRF;
            listRemove(&ql->list);
            kfree(ql);
        }
    }
    unsigned long queueFlags = 0;
    qdrLockRequestQueue(q, &queueFlags);
    if (realMRF && queue_make_request_fn(q) != realMRF)
        queue_set_make_request_fn(q, realMRF);
    qdrUnlockRequestQueue(q, queueFlags);
    spin_unlock_irqrestore(&queueListUsersLock, flags);
}

// Gives a whole queue back: every tracking session of its devices goes out of sync and stays in its table.
//
// One word serves the saved interrupt state of both locks, so the registry is released with the state saved at the
// inner one. That is kept, which is why no guard object stands here.
void unsetQueueMRFAMS(request_queue* q)
{
    if (!q) {
        printk("<3>%s: Could not unset MRFS for request queue because queue was null.%s", __func__, "\n");
        return;
    }
    unsigned long flags;
    waitForQueueListUsers(&flags);
    QueueList* ql = findQueue(q);
    if (!ql) {
        spin_unlock_irqrestore(&queueListUsersLock, flags);
        return;
    }
    spin_lock_irqsave(&amListUsersLock, &flags);
    atomic_inc(&amListUsers);
    spin_unlock_irqrestore(&amListUsersLock, flags);
    while (DevList* dev = nextDevList(ql, nullptr)) {
        AutoMapSession** slot = amSlot(kdev_major(dev->kdev), kdev_minor(dev->kdev));
        if (slot && *slot)
            set_mb(&(*slot)->state, 0);
        listRemove(&dev->list);
        kfree(dev);
    }
    atomic_dec(&amListUsers);
    if (!ql->realMRF) {
        printk("<2>%s: Could not find real make request fn for queue.%s", __func__, "\n");
        kernel_bug(__FILE__, __LINE__);
    }
    storeMRF(q, ql->realMRF);
    listRemove(&ql->list);
    kfree(ql);
    spin_unlock_irqrestore(&queueListUsersLock, flags);
}

// At unload, with no session and no backup left: gives every queue that is still registered its own function back. A
// device that was backed up without tracking, beside two that are tracked, stays registered when they are closed.
// An empty registry is not waited for: after a question for a null queue its count never shows it idle again.
void closeQueueList()
{
    if (listEmpty(&queueListHead))
        return;
    unsigned long flags;
    waitForQueueListUsers(&flags);
    while (QueueList* ql = nextQueueList(nullptr)) {
        while (DevList* dev = nextDevList(ql, nullptr)) {
            listRemove(&dev->list);
            kfree(dev);
        }
        storeMRF(ql->rQueue, ql->realMRF);
        listRemove(&ql->list);
        kfree(ql);
    }
    spin_unlock_irqrestore(&queueListUsersLock, flags);
}
