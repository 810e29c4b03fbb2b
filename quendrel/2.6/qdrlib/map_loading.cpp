// SPDX-License-Identifier: GPL-2.0-only
// Loading the set of blocks that the backup program will copy. From then on only blocks of that set are protected,
// and each leaves the set as it is read.
#include "guards.h"
#include "qdrlib.h"

// Copies the user's bitmap of `size` blocks at `data` into the backup's map; codes of newBlockMap.
int newBUBlockMap(Backup* b, u32 size, user_addr data)
{
    u32 numPages;
    if (int result = newBlockMap(&b->blockMap, size, data, 0, &numPages)) {
        printk("<3>%s: error creating map of size=%u\n", __func__, size);
        return result;
    }
    atomic_add(&b->totalAllocPages, int(numPages));
    atomic_add(&b->curAllocPages, int(numPages));
    return QUENDREL_OK;
}

void closeBUBlockMap(Backup* b)
{
    if (!b->blockMap.map)
        return;
    u32 numPages = 0;
    closeBlockMap(&b->blockMap, &numPages);
    atomic_sub(&b->curAllocPages, int(numPages));
}

// LoadBlockMap: from state 4 to 6, or to 9 when the map could not be made (codes of newBlockMap) or the cache not be
// cleaned (QUENDREL_GOING_AWAY). QUENDREL_REFUSED and nothing changed in any other state. Pages that a snapshot left
// in the backup's map are overwritten, not freed: fetch them with GetAutoMap first.
int ioctlLoadBlockMap(Backup* b, const UserBlockMap* userBM)
{
    SemaphoreGuard session(&b->bSem);
    if (load_acquire(&b->state) != QUENDREL_STATE_SNAPSHOT) {
        printk("<3>%s: backup error snapshot not %s\n", __func__, "complete");
        return QUENDREL_REFUSED;
    }
    set_mb(&b->state, QUENDREL_STATE_LOADING_MAP);
    if (int result = newBUBlockMap(b, userBM->mapLen, user_addr(userBM->map))) {
        set_mb(&b->state, QUENDREL_STATE_MAP_LOAD_FAILED);
        printk("<3>%s: backup error failed to load device map%s", __func__, "\n");
        return result;
    }
    {
        WriteGuard writers(&b->writers);
        set_mb(&b->state, QUENDREL_STATE_MAP_LOADED);
    }
    if (cleanUpCache(b)) {
        set_mb(&b->state, QUENDREL_STATE_MAP_LOAD_FAILED);
        printk("<3>%s: error cleaning cache%s", __func__, "\n");
        return QUENDREL_GOING_AWAY;
    }
    return QUENDREL_OK;
}
