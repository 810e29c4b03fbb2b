// SPDX-License-Identifier: GPL-2.0-only
// What the backup program sees and decides of tracking: the session's state and key, the map of changed blocks, and
// the two options that the snapshot obeys.
#include "guards.h"
#include "qdrlib.h"

// GetAutoMapState: answers in any state, for the device last named by StartBackup; all zero without a session. At
// most `amsLen` bytes are written. 0 or QUENDREL_COPY_TO_USER.
int ioctlGetAutoMapState(Backup* b, user_addr userAMS, u32 amsLen)
{
    AutoMapState answer = {};
    {
        SemaphoreGuard session(&b->bSem);
        if (AutoMapSession* ams = getAMS(b->diskInfo.kdev)) {
            answer.major = kdev_major(ams->diskInfo.kdev);
            answer.minor = kdev_minor(ams->diskInfo.kdev);
            answer.state = load_acquire(&ams->state);
            answer.mapLen = ams->map.size;
            answer.mapSize = ams->map.numBytes;
            {
                SpinGuard key(&ams->usersLock);
                answer.amsKey = ams->sessionKey;
            }
            putAMS(ams);
        }
    }
    if (copy_to_user(userAMS, &answer, amsLen < sizeof answer ? amsLen : sizeof answer)) {
        printk("<3>%s: copy to user space %s\n", __func__, "failed");
        return QUENDREL_COPY_TO_USER;
    }
    return QUENDREL_OK;
}

// Copies the backup's map to the caller's buffer; the caller holds bSem. 0, QUENDREL_REFUSED or
// QUENDREL_COPY_TO_USER.
static int exportMap(BlockMap* map, const UserBlockMap* userBM)
{
    const char* name = "ioctlGetAutoMap";
    // A map that was never made has a gate that was never set up; nobody else can reach it under bSem.
    if (!map->map) {
        printk("<3>%s: backup error automap is NULL %s", name, "\n");
        return QUENDREL_REFUSED;
    }
    UserGuard user(&map->users, &map->usersLock);
    if (map->size != userBM->mapLen) {
        printk("<3>%s: backup error map size mismatch kernel map size=%u user map size=%u\n", name, map->size,
               userBM->mapLen);
        return QUENDREL_REFUSED;
    }
    const u32 bytesInMap = map->numBytes;
    const u32 numPages = (bytesInMap + PAGE_BYTES - 1) / PAGE_BYTES;
    for (u32 i = 0; i < numPages; i++) {
        u32 count = PAGE_BYTES;
        if (i == numPages - 1 && bytesInMap % PAGE_BYTES != 0)
            count = bytesInMap % PAGE_BYTES;
        const user_addr piece = user_addr_add(user_addr(userBM->map), i * PAGE_BYTES);
        const void* bytes = kmap(map->map[i]);
        const unsigned long notCopied = copy_to_user(piece, bytes, count);
        kunmap(map->map[i]);
        if (notCopied) {
            printk("<3>%s: copy to user space failed data=%p bytesCopied=%d bytesInMap=%d\n", name,
                   reinterpret_cast<void*>(kernel_size_t(piece)), int(count), int(bytesInMap));
            return QUENDREL_COPY_TO_USER;
        }
    }
    return QUENDREL_OK;
}

// GetAutoMap: hands over the blocks written since the previous snapshot, once; the backup's map is freed with it. In
// state 4 only, and only when the snapshot took its map from a session.
int ioctlGetAutoMap(Backup* b, const UserBlockMap* userBM)
{
    SemaphoreGuard session(&b->bSem);
    if (load_acquire(&b->state) != QUENDREL_STATE_SNAPSHOT) {
        printk("<3>%s: backup error map not loaded %s", __func__, "\n");
        return QUENDREL_REFUSED;
    }
    if (int result = exportMap(&b->blockMap, userBM))
        return result;
    closeBUBlockMap(b);
    return QUENDREL_OK;
}

// Tracking ends at this file's snapshot.
int ioctlNoStartAutoMap(Backup* b)
{
    SemaphoreGuard session(&b->bSem);
    b->noStartAutoMap = 1;
    return QUENDREL_OK;
}

// Tracking starts afresh at this file's snapshot, without a key and without a map of changed blocks.
int ioctlNoLoadFromAutoMap(Backup* b)
{
    SemaphoreGuard session(&b->bSem);
    b->noLoadFromAutoMap = 1;
    return QUENDREL_OK;
}
