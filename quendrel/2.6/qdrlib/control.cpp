// SPDX-License-Identifier: GPL-2.0-only
// The control device: open, release, and the dispatch of commands.
//
// Open gives each file its own Backup; release is the one way in which a backup ends. The dispatcher copies the
// command's record, calls the handler and hands its result through; it takes no lock, each handler takes its own.
// Results are the driver's own small positive codes.
#include "guards.h"
#include "qdrlib.h"

int qdrOpen(inode*, file* file)
{
    if (atomic_read(&initDone) != 1)
        return QUENDREL_NOT_INITIALISED;
    Backup* b = static_cast<Backup*>(kmalloc(sizeof(Backup), GFP_KERNEL));
    if (!b)
        return QUENDREL_NO_MEMORY;
    // The counters and the state are zero from here on.
    memset(b, 0, sizeof *b);
    sema_init(&b->bSem, 1);
    init_rwsem(&b->cacheUsers);
    init_rwsem(&b->writers);
    spin_lock_init(&b->mrLock);
    file_set_private(file, b);
    // On failure the record stays with the file, for a release to free; it is not freed here.
    return qdrModGet() ? QUENDREL_GOING_AWAY : QUENDREL_OK;
}

int qdrRelease(inode*, file* file)
{
    Backup* b = static_cast<Backup*>(file_private(file));
    if (!b)
        return QUENDREL_REFUSED;
    file_set_private(file, nullptr);
    closeBackup(b);
    qdrModPut();
    return QUENDREL_OK;
}

long qdrRead(file*, user_addr, kernel_size_t, s64*) { return 0; }

long qdrWrite(file*, user_addr, kernel_size_t, s64*) { return 0; }

unsigned qdrPoll(file*, poll_table*) { return 0; }

// Copies a command's record from user space. False when any byte could not be copied.
template <typename Record> static bool fetch(Record* record, user_addr from)
{
    return copy_from_user(record, from, sizeof *record) == 0;
}

static int answerVersion(u32 version, user_addr to)
{
    if (copy_to_user(to, &version, sizeof version)) {
        printk("<3>%s: copy to user space %s\n", "qdrIOCTL", "failed");
        return QUENDREL_COPY_TO_USER;
    }
    return QUENDREL_OK;
}

int qdrIOCTL(inode*, file* file, unsigned cmd, unsigned long arg)
{
    if (atomic_read(&initDone) != 1)
        return QUENDREL_NOT_INITIALISED;
    Backup* b = static_cast<Backup*>(file_private(file));
    if (!b)
        return QUENDREL_REFUSED;
    atomic_inc(&b->ioctlCount);

    const user_addr from = user_addr(u32(arg));
    switch (cmd) {
    case QUENDREL_GET_BLOCK_SIZE: {
        GetBlockSize record;
        if (!fetch(&record, from))
            return QUENDREL_COPY_FROM_USER;
        return ioctlGetBlockSize(b, kdev_make(record.major, record.minor), user_addr(record.bs), record.len);
    }
    case QUENDREL_START_BACKUP: {
        StartBackup record;
        if (!fetch(&record, from))
            return QUENDREL_COPY_FROM_USER;
        return ioctlStartBackup(b, kdev_make(record.major, record.minor), record.totalBlocks, record.maxCacheBlocks);
    }
    case QUENDREL_SNAPSHOT: {
        SnapShot record;
        if (!fetch(&record, from))
            return QUENDREL_COPY_FROM_USER;
        return ioctlSnapShot(b, user_addr(record.amsKey), record.len);
    }
    case QUENDREL_GET_STATE: {
        GetState record;
        if (!fetch(&record, from))
            return QUENDREL_COPY_FROM_USER;
        return ioctlGetState(b, user_addr(record.s), record.len);
    }
    case QUENDREL_GET_AUTOMAP_STATE: {
        GetAutoMapState record;
        if (!fetch(&record, from))
            return QUENDREL_COPY_FROM_USER;
        return ioctlGetAutoMapState(b, user_addr(record.ams), record.len);
    }
    case QUENDREL_NO_LOAD_FROM_AUTOMAP:
        return ioctlNoLoadFromAutoMap(b);
    case QUENDREL_NO_START_AUTOMAP:
        return ioctlNoStartAutoMap(b);
    case QUENDREL_LOAD_BLOCK_MAP: {
        LoadBlockMap record;
        UserBlockMap userBM;
        if (!fetch(&record, from) || !fetch(&userBM, user_addr(record.bm)))
            return QUENDREL_COPY_FROM_USER;
        return ioctlLoadBlockMap(b, &userBM);
    }
    case QUENDREL_GET_AUTOMAP: {
        GetAutoMap record;
        UserBlockMap userBM;
        if (!fetch(&record, from) || !fetch(&userBM, user_addr(record.bm)))
            return QUENDREL_COPY_FROM_USER;
        return ioctlGetAutoMap(b, &userBM);
    }
    case QUENDREL_GET_DIRTY_BLOCK: {
        DirtyBlock record;
        if (!fetch(&record, from))
            return QUENDREL_COPY_FROM_USER;
        return ioctlGetDirtyBlock(b, user_addr(record.blockNum));
    }
    case QUENDREL_READ_BLOCKS: {
        ReadBlocks record;
        if (!fetch(&record, from))
            return QUENDREL_COPY_FROM_USER;
        return ioctlReadBlocks(b, record.startBlockNum, record.numBlocks, user_addr(record.data));
    }
    case QUENDREL_GET_VERSION_MAJOR:
        return answerVersion(QUENDREL_VERSION_MAJOR, from);
    case QUENDREL_GET_VERSION_MINOR:
        return answerVersion(QUENDREL_VERSION_MINOR, from);
    case QUENDREL_SYNC:
        return ioctlSync(b);
    case QUENDREL_SHUTDOWN:
        return qdrShutdown();
    case QUENDREL_RESERVED16:
        return QUENDREL_GOING_AWAY;
    default:
        printk("<3>%s: ioctl command not found%s", __func__, "\n");
        return QUENDREL_UNKNOWN_COMMAND;
    }
}
