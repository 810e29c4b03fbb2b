// SPDX-License-Identifier: GPL-2.0-only
// The snapshot: the moment that a backup shows.
//
// In order: the tracking session that can serve this backup is chosen or made, its key replaced, the queue hooked,
// the file system frozen; while it is frozen the blocks written since the last snapshot become the backup's map,
// recording starts afresh, and the backup's state lets the hook hold requests. Nothing is undone on a failure; closing
// the file does that.
//
// The session is not referenced across the freeze: a command of another file that wants it alone would wait for the
// freeze, and two snapshots for each other. It is looked up anew at the exchange of the maps, and known by the key that
// this snapshot gave it: one that has gone, or that another snapshot has given a key since, is not this backup's any
// more, which then has no map of changes, as if there were no tracking.
#include "guards.h"
#include "qdrlib.h"

// What became of the choice of a session.
struct SessionChoice {
    bool done; // the command ends here, with `result`
    int result;
    AutoMapSession* ams; // with a reference, until it has its new key; null: no tracking
    AMSessionKey key;    // that it was chosen with: the program's, or a new session's zeros
};

// Gives a session a new key, which goes to `fresh`, if it still has the key that it was chosen with: another file's
// snapshot may have come since, and what this one's key stands for is that one's then. Whether it has.
static bool renewKey(AutoMapSession* ams, const AMSessionKey* chosenWith, AMSessionKey* fresh)
{
    memset(fresh->key, 0xFF, sizeof fresh->key);
    for (u32 i = 0; i < sizeof fresh->key; i++)
        get_random_bytes(&fresh->key[i], 1);
    SpinGuard guard(&ams->usersLock);
    if (memcmp(chosenWith->key, ams->sessionKey.key, sizeof fresh->key) != 0)
        return false;
    ams->sessionKey = *fresh;
    return true;
}

static bool hasKey(AutoMapSession* ams, const AMSessionKey* key)
{
    SpinGuard guard(&ams->usersLock);
    return memcmp(key->key, ams->sessionKey.key, sizeof key->key) == 0;
}

static SessionChoice finished(int result) { return {true, result, nullptr, {}}; }

// Makes and references a new session.
static SessionChoice newSession(Backup* b)
{
    AutoMapSession* published = nullptr;
    if (int result = newAMS(b, &published)) {
        printk("<3>%s: new automap failed%s", "ioctlSnapShot", "\n");
        return finished(result);
    }
    // Looked up rather than used: once published, another file's Shutdown may have closed it already.
    return {false, 0, getAMS(b->diskInfo.kdev), {}};
}

// Gives up a session and starts with a new one.
static SessionChoice replaceSession(Backup* b, AutoMapSession* ams)
{
    putAMS(ams);
    closeAMS(b);
    return newSession(b);
}

static SessionChoice chooseSession(Backup* b, const AMSessionKey* key)
{
    AutoMapSession* ams = getAMS(b->diskInfo.kdev);
    const bool mayServe = ams && b->noStartAutoMap != 1 && load_acquire(&ams->state) == 1 && b->noLoadFromAutoMap != 1;
    if (mayServe && !hasKey(ams, key)) {
        // A success that takes no snapshot: the caller sees it from the unchanged state.
        printk("<3>%s: session key mismatch%s", "ioctlSnapShot", "\n");
        putAMS(ams);
        return finished(QUENDREL_OK);
    }
    // Of an earlier attempt whose freeze failed. Left where this attempt hands over no map, it would pass for a backup
    // in which nothing has changed.
    closeBUBlockMap(b);
    if (b->noStartAutoMap == 1) {
        if (ams) {
            putAMS(ams);
            closeAMS(b);
        }
        return {false, 0, nullptr, {}};
    }
    if (!ams)
        return newSession(b);
    if (!mayServe)
        return replaceSession(b, ams);
    const u64 numBlocks = b->diskInfo.numBlocks;
    if (numBlocks != ams->map.size) {
        // The two figures are the low and the high word of the device's count; the map's size has no place of its own.
        printk("<4>%s: device resize detected, device has (%u) blocks and automap has (%u), resetting automap\n",
               "ioctlSnapShot", u32(numBlocks), u32(numBlocks >> 32));
        set_mb(&ams->state, 0);
        return replaceSession(b, ams);
    }
    u32 numPages;
    if (int result = newBlockMap(&b->blockMap, ams->map.size, user_addr(0), 1, &numPages)) {
        putAMS(ams);
        printk("<3>%s: failed to create new device map%s", "ioctlSnapShot", "\n");
        return finished(result);
    }
    atomic_add(&b->totalAllocPages, int(numPages));
    atomic_add(&b->curAllocPages, int(numPages));
    return {false, 0, ams, *key};
}

// Exchanges the pages of two maps of one size. Neither has a bit operation inside meanwhile.
static void exchangeMaps(BlockMap* backup, BlockMap* session)
{
    unsigned long backupFlags, sessionFlags;
    waitForBlockMapUsers(backup, &backupFlags);
    waitForBlockMapUsers(session, &sessionFlags);
    page** pages = backup->map;
    backup->map = session->map;
    session->map = pages;
    spin_unlock_irqrestore(&session->usersLock, sessionFlags);
    spin_unlock_irqrestore(&backup->usersLock, backupFlags);
}

// The session that this snapshot gave `key`, with a reference, or null.
static AutoMapSession* sessionWithKey(kdev_t kdev, const AMSessionKey* key)
{
    AutoMapSession* ams = getAMS(kdev);
    if (ams && !hasKey(ams, key)) {
        putAMS(ams);
        return nullptr;
    }
    return ams;
}

// With the file system frozen and no request between its decision and its hand-off. `key` is the chosen session's;
// null: no tracking.
static void takePointInTime(Backup* b, const AMSessionKey* key)
{
    AutoMapSession* ams;
    unsigned long flags;
    // No reference is kept while others are waited for, who may be waiting for this one.
    while ((ams = key ? sessionWithKey(b->diskInfo.kdev, key) : nullptr) &&
           !tryForUsers(&ams->users, &ams->usersLock, &flags, 1))
        schedule();
    if (!ams) {
        // Without its session the map would say that nothing has changed.
        closeBUBlockMap(b);
        set_mb(&b->state, QUENDREL_STATE_SNAPSHOT);
        return;
    }
    // A session that fell out of sync since the choice starts afresh, and the backup's map stays empty.
    if (load_acquire(&ams->state) == 1 && b->blockMap.map)
        exchangeMaps(&b->blockMap, &ams->map);
    else
        set_mb(&ams->state, 1);
    set_mb(&b->state, QUENDREL_STATE_SNAPSHOT);
    spin_unlock_irqrestore(&ams->usersLock, flags);
}

kernel_timespec calcTimeDiff(const kernel_timespec* start, const kernel_timespec* end)
{
    kernel_timespec diff = {end->tv_sec - start->tv_sec, end->tv_nsec - start->tv_nsec};
    if (diff.tv_nsec < 0) {
        diff.tv_nsec += 1000000000;
        diff.tv_sec--;
    }
    return diff;
}

// SnapShot: `userKey` is the key that the program kept, `keyLen` its length in bytes; a shorter key is padded with
// zeros, a longer one cut. 0 and state 4; 0 and state 2 when the key does not match; QUENDREL_REFUSED when the state
// is not 2 or the device could not be hooked or frozen; QUENDREL_COPY_FROM_USER; codes of newBlockMap and newAMS.
int ioctlSnapShot(Backup* b, user_addr userKey, u32 keyLen)
{
    AMSessionKey key = {};
    SemaphoreGuard session(&b->bSem);
    if (load_acquire(&b->state) != QUENDREL_STATE_STARTED)
        return QUENDREL_REFUSED;
    if (copy_from_user(&key, userKey, keyLen < sizeof key ? keyLen : sizeof key)) {
        printk("<3>%s: copy from user space %s\n", __func__, "failed");
        return QUENDREL_COPY_FROM_USER;
    }
    const SessionChoice choice = chooseSession(b, &key);
    if (choice.done)
        return choice.result;
    const AMSessionKey* newKey = nullptr;
    if (choice.ams) {
        if (renewKey(choice.ams, &choice.key, &key))
            newKey = &key;
        putAMS(choice.ams);
    }

    const kdev_t kdev = b->diskInfo.kdev;
    if (setMRF(b, qdrMRF)) {
        printk("<3>%s: device major=%d minor=%d not valid\n", __func__, int(kdev_major(kdev)), int(kdev_minor(kdev)));
        return QUENDREL_REFUSED;
    }
    const kdev_t frozen = bdev_dev(b->diskInfo.bdev);
    printk("<3>%s: Going to freez: %d.%d\n", __func__, int(kdev_major(frozen)), int(kdev_minor(frozen)));
    kernel_timespec freezeTime, afterFreezeTime, thawTime;
    current_kernel_time(&freezeTime);
    super_block* freezeSB = freeze_bdev(b->diskInfo.bdev);
    current_kernel_time(&afterFreezeTime);
    if (!freezeSB) {
        thaw_bdev(b->diskInfo.bdev, nullptr);
        printk("<3>%s: freeze_bdev could not freeze the device.%s", __func__, "\n");
        return QUENDREL_REFUSED;
    }
    {
        WriteGuard writers(&b->writers);
        takePointInTime(b, newKey);
    }
    thaw_bdev(b->diskInfo.bdev, freezeSB);
    current_kernel_time(&thawTime);
    b->eTimeToFreeze = calcTimeDiff(&freezeTime, &afterFreezeTime);
    b->eTimeFrozen = calcTimeDiff(&freezeTime, &thawTime);
    return QUENDREL_OK;
}

// Sync: flushes the device of the backup. Always 0.
int ioctlSync(Backup* b)
{
    fsync_bdev(b->diskInfo.bdev);
    return QUENDREL_OK;
}
