// SPDX-License-Identifier: GPL-2.0-only
// The few kernel services whose form differs between kernel generations. The rest of the driver calls these and
// never the services themselves.
#include "qdrlib.h"

// Non-zero would mean that the module is in use. This kernel generation counts the users itself and does not ask the
// module to exit while there are any.
int qdrCheckModUse() { return 0; }

// Takes a reference on the driver's own module: 0 when taken, 1 when the module is being unloaded. The inverse sense
// of try_module_get.
int qdrModGet()
{
    if (module_is_going(this_module()))
        return 1;
    return try_module_get(this_module()) ? 0 : 1;
}

void qdrModPut() { module_put(this_module()); }

// Registers the control device. 0 or a negative kernel error.
int qdrModRegister(unsigned major, const char* name, file_operations* fops)
{
    fops->owner = this_module();
    return register_chrdev(major, name, fops);
}

// The queue of the device's disk, or null when the device or its disk is absent.
request_queue* qdrGetRequestQueue(block_device* bdev)
{
    if (!bdev)
        return nullptr;
    gendisk* disk = bdev_disk(bdev);
    return disk ? disk_queue(disk) : nullptr;
}

// A queue without a lock is left alone.
void qdrLockRequestQueue(request_queue* q, unsigned long* flags)
{
    if (spinlock* lock = queue_lock(q))
        spin_lock_irqsave(lock, flags);
}

void qdrUnlockRequestQueue(request_queue* q, unsigned long flags)
{
    if (spinlock* lock = queue_lock(q))
        spin_unlock_irqrestore(lock, flags);
}
