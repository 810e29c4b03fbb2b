// SPDX-License-Identifier: GPL-2.0-only
// Load, unload and shutdown of the driver, and its globals.
//
// No file can be opened and no command is taken until initDone is 1. Unload closes every tracking session and then
// empties the queue registry, so that every hooked queue has its own request function back; a running backup needs no
// care there, because each open file holds a reference on the module. Shutdown closes the sessions only, whatever
// backups run.
#include "qdrlib.h"

atomic_int initDone;
atomic_int curAllocAMPages;
AutoMapSession* amList[AM_ROWS][AM_COLUMNS];
atomic_int amListUsers;
spinlock amListUsersLock;
list_head queueListHead;
atomic_int queueListUsers;
spinlock queueListUsersLock;
semaphore signalThread;
atomic_int busy;
spinlock busyLock;
Backup* activeSession;
rw_semaphore activeSessionUsers;
pid_type backup_cachePID;
atomic_int backup_cacheThreadContinue;
completion backup_cacheThreadStartCompleted;
completion backup_cacheThreadExited;
atomic_int shutting_down;
atomic_int shutdown_ready;

file_operations qdrFileOps = {
    .owner = nullptr,
    .read = qdrRead,
    .write = qdrWrite,
    .poll = qdrPoll,
    .ioctl = qdrIOCTL,
    .mmap = qdrMMAP,
    .open = qdrOpen,
    .release = qdrRelease,
};

void driver_static_init()
{
    atomic_set(&initDone, 0);
    atomic_set(&curAllocAMPages, 0);
    memset(amList, 0, sizeof amList);
    atomic_set(&amListUsers, 1);
    spin_lock_init(&amListUsersLock);
    listInit(&queueListHead);
    atomic_set(&queueListUsers, 1);
    spin_lock_init(&queueListUsersLock);
    atomic_set(&busy, 0);
    spin_lock_init(&busyLock);
    store_release(&activeSession, nullptr);
    init_rwsem(&activeSessionUsers);
    store_release(&backup_cachePID, 0);
    atomic_set(&backup_cacheThreadContinue, 1);
    init_completion(&backup_cacheThreadStartCompleted);
    init_completion(&backup_cacheThreadExited);
    atomic_set(&shutting_down, 0);
    atomic_set(&shutdown_ready, 0);
    qdrFileOps.owner = nullptr;
}

int driver_init() { return qdrInit(); }

void driver_exit() { qdrExit(); }

void driver_device_changed(kdev_t dev) { forgetAM(dev); }

// Module load. 0, or the negative kernel error of the registration; the module is then not loaded.
int qdrInit()
{
    sema_init(&signalThread, 1);
    int result = qdrModRegister(QUENDREL_CHRDEV_MAJOR, QUENDREL_NAME, &qdrFileOps);
    if (result == 0) {
        atomic_set(&initDone, 1);
    } else {
        atomic_set(&initDone, 0);
        spin_lock_init(&busyLock);
        memset(amList, 0, sizeof amList);
    }
    printk("<6>%s: quendrel version %d.%d.%d build %d %s\n", __func__, QUENDREL_VERSION_MAJOR, QUENDREL_VERSION_MINOR,
           QUENDREL_VERSION_MINOR2, QUENDREL_BUILD, atomic_read(&initDone) == 1 ? "loaded" : "load FAILED");
    return result;
}

void qdrExit()
{
    doModuleUnload();
    printk("<6>%s: quendrel version %d.%d.%d build %d exiting\n", __func__, QUENDREL_VERSION_MAJOR,
           QUENDREL_VERSION_MINOR, QUENDREL_VERSION_MINOR2, QUENDREL_BUILD);
}

void doModuleUnload() { qdrUnload(); }

// 0, or -1 and nothing done when the module is in use.
int qdrUnload()
{
    if (qdrCheckModUse())
        return -1;
    closeAllAMS();
    closeQueueList();
    unregister_chrdev(QUENDREL_CHRDEV_MAJOR, QUENDREL_NAME);
    printk("<6>%s: quendrel version %d.%d.%d build %d ready to be unloaded\n", __func__, QUENDREL_VERSION_MAJOR,
           QUENDREL_VERSION_MINOR, QUENDREL_VERSION_MINOR2, QUENDREL_BUILD);
    return 0;
}

// Ends all tracking and leaves the driver loaded; later backups may start new tracking. 0, or -1 as qdrUnload.
int qdrShutdown()
{
    if (qdrCheckModUse())
        return -1;
    closeAllAMS();
    return 0;
}
