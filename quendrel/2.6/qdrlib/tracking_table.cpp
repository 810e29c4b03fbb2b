// SPDX-License-Identifier: GPL-2.0-only
// The table of tracking sessions, one a device, which outlive the backups that make them.
//
// The table and each session have a drain gate (guards.h). A session is looked up as a reader of the table and
// referenced before the table is left; whoever takes a session out of the table, which needs the table alone, frees
// it once its references are gone. State 0 is turned into 1 by a snapshot only.
#include "guards.h"
#include "qdrlib.h"

// The table's slot of a device, or null where the table has none. The flat index is major * 256 + minor, so a minor
// above 255 falls into a later major's row.
AutoMapSession** amSlot(u32 major, u32 minor)
{
    const u32 index = major * AM_COLUMNS + minor;
    return index < AM_SLOTS ? &amList[0][0] + index : nullptr;
}

static AutoMapSession** slotOf(kdev_t kdev) { return amSlot(kdev_major(kdev), kdev_minor(kdev)); }

// The session in a slot; the caller is a reader of the table or has it alone.
static AutoMapSession* sessionOf(kdev_t kdev)
{
    AutoMapSession** slot = slotOf(kdev);
    return slot ? *slot : nullptr;
}

// Takes the session of a device out of the table, or null.
static AutoMapSession* takeSlot(AutoMapSession** slot)
{
    unsigned long flags;
    waitForAMListUsers(&flags);
    AutoMapSession* ams = slot ? *slot : nullptr;
    if (ams)
        *slot = nullptr;
    spin_unlock_irqrestore(&amListUsersLock, flags);
    return ams;
}

// The device's session with a reference, or null.
AutoMapSession* getAMS(kdev_t kdev)
{
    UserGuard reader(&amListUsers, &amListUsersLock);
    AutoMapSession* ams = sessionOf(kdev);
    if (ams)
        enterUsers(&ams->users, &ams->usersLock);
    return ams;
}

void putAMS(AutoMapSession* ams) { leaveUsers(&ams->users); }

// Returns holding amListUsersLock with no reader inside.
void waitForAMListUsers(unsigned long* flags) { waitForUsers(&amListUsers, &amListUsersLock, flags); }

// Returns holding the session's usersLock with no reference out.
void waitForAMSUsers(AutoMapSession* ams, unsigned long* flags) { waitForUsers(&ams->users, &ams->usersLock, flags); }

// Makes a session for the backup's device and publishes it, over whatever was there: callers close the old one first.
// 0, QUENDREL_NO_MEMORY, or the code of newBlockMap; then the record stays behind and *amSession is not written.
int newAMS(Backup* b, AutoMapSession** amSession)
{
    AutoMapSession* ams = static_cast<AutoMapSession*>(kmalloc(sizeof(AutoMapSession), GFP_KERNEL));
    if (!ams)
        return QUENDREL_NO_MEMORY;
    memset(ams, 0, sizeof *ams);
    ams->diskInfo = b->diskInfo;
    set_mb(&ams->state, 0);
    if (ams->diskInfo.blockSize == 0) {
        printk("<2>%s: Blocksize set to 0 when making automap%s", __func__, "\n");
        kernel_bug(__FILE__, __LINE__);
    }
    u32 numPages;
    if (int result = newBlockMap(&ams->map, u32(b->diskInfo.numBlocks), user_addr(0), 1, &numPages)) {
        printk("<3>%s: failed to create new device map%s", __func__, "\n");
        return result;
    }
    atomic_add(&curAllocAMPages, int(numPages));
    atomic_set(&ams->users, 1);
    spin_lock_init(&ams->usersLock);
    *amSession = ams;

    unsigned long flags;
    waitForAMListUsers(&flags);
    if (AutoMapSession** slot = slotOf(ams->diskInfo.kdev))
        *slot = ams;
    spin_unlock_irqrestore(&amListUsersLock, flags);
    return QUENDREL_OK;
}

// 0, or QUENDREL_REFUSED when the backup's device has no session.
int closeAMS(Backup* b)
{
    AutoMapSession* ams = takeSlot(slotOf(b->diskInfo.kdev));
    if (!ams)
        return QUENDREL_REFUSED;
    closeAM(ams);
    return QUENDREL_OK;
}

void unSetMRFAMS(AutoMapSession* ams) { unSetMRFDEV(&ams->diskInfo); }

// Unhooks and frees a session that is in the table no more.
void closeAM(AutoMapSession* ams)
{
    unSetMRFAMS(ams);
    unsigned long flags;
    waitForAMSUsers(ams, &flags);
    spin_unlock_irqrestore(&ams->usersLock, flags);
    u32 numPages = 0;
    closeBlockMap(&ams->map, &numPages);
    atomic_sub(&curAllocAMPages, int(numPages));
    kfree(ams);
}

// The table is taken alone for each slot, never across the whole sweep.
void closeAllAMS()
{
    for (u32 major = 0; major < AM_ROWS; major++)
        for (u32 minor = 0; minor < AM_COLUMNS; minor++)
            if (AutoMapSession* ams = takeSlot(&amList[major][minor]))
                closeAM(ams);
}

// After a copy-on-write failure: the device's session goes out of sync, and its queue is left to the other tracked
// devices on it, or unhooked when there is none.
void errorAMS(Backup* b)
{
    int foundAMS = 0;
    {
        UserGuard reader(&amListUsers, &amListUsersLock);
        if (AutoMapSession* ams = sessionOf(b->diskInfo.kdev)) {
            set_mb(&ams->state, 0);
            foundAMS = 1;
        }
    }
    if (countQueueAMS(getRequestQueue(&b->diskInfo)) > foundAMS) {
        if (setMRF(b, qdrAMRF) == 0)
            return;
        errorAMSDEV(b->diskInfo.kdev);
    }
    unsetQueueMRFAMS(getRequestQueue(&b->diskInfo));
}

// Puts the device's session, if it has one, out of sync: the next backup reads everything.
void forgetAM(kdev_t kdev)
{
    UserGuard reader(&amListUsers, &amListUsersLock);
    if (AutoMapSession* ams = sessionOf(kdev))
        set_mb(&ams->state, 0);
}

// Puts every session on the queue that serves `kdev` out of sync.
void errorAMSDEV(kdev_t kdev)
{
    UserGuard registry(&queueListUsers, &queueListUsersLock);
    QueueList* ql = nullptr;
    while ((ql = nextQueueList(ql)))
        if (isInDevList(ql, kdev))
            break;
    if (!ql)
        return;
    UserGuard reader(&amListUsers, &amListUsersLock);
    DevList* dev = nullptr;
    while ((dev = nextDevList(ql, dev)))
        if (AutoMapSession* ams = sessionOf(dev->kdev))
            set_mb(&ams->state, 0);
}

// Devices with a session that are registered on the queue. For a queue that is not registered the count is taken over
// the last entry of the registry: kept as it is.
int countQueueAMS(request_queue* q)
{
    if (!q) {
        printk("<3>%s: Could not count ams sessions for request queue because queue was null.%s", __func__, "\n");
        return 0;
    }
    UserGuard registry(&queueListUsers, &queueListUsersLock);
    QueueList* last = nullptr;
    QueueList* ql = nullptr;
    while ((ql = nextQueueList(ql))) {
        last = ql;
        if (ql->rQueue == q)
            break;
    }
    if (!last)
        return 0;
    UserGuard reader(&amListUsers, &amListUsersLock);
    int count = 0;
    DevList* dev = nullptr;
    while ((dev = nextDevList(last, dev)))
        if (sessionOf(dev->kdev))
            count++;
    return count;
}
