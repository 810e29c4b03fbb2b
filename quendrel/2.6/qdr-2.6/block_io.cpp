// SPDX-License-Identifier: GPL-2.0-only
// Reading one block of the device past the driver's own hook: a buffer head that describes the target, wrapped in a
// bio of one segment. The worker and the block reads share it.
//
// The bio carries an extra reference, so that it outlives its completion until its owner drops it.
#include "qdrlib.h"

// Both are waited for, however long that takes: the path below a block device has nobody to report to.
buffer_head* newBufferHead()
{
    buffer_head* bh;
    while (!(bh = alloc_buffer_head(GFP_NOIO)))
        schedule();
    return bh;
}

bio* newReadBIO()
{
    bio* b;
    while (!(b = bio_alloc(GFP_NOIO, 1)))
        schedule();
    return b;
}

// Describes a read of block `blockNum` into `page` from byte `offset` on.
void initBH(Backup* b, buffer_head* bh, page* page, u32 offset, u32 blockNum)
{
    bh_set_block(bh, b->diskInfo.bdev, blockNum, u32(b->diskInfo.blockSize));
    set_bh_page(bh, page, offset);
    bh_set_end_io(bh, qdrBHEndIO);
    bh_set_state(bh, BUFFER_LOCKED | BUFFER_REQ | BUFFER_MAPPED);
    bh_init_assoc(bh);
    get_bh(bh);
}

// Sectors count from the start of the whole disk.
void initBIO(Backup* b, bio* bio, buffer_head* bh)
{
    bio_set_bdev(bio, bh_bdev(bh));
    bio_set_sector(bio, bh_block(bh) * u32(b->diskInfo.sectorsPerBlock) + b->diskInfo.partitionStart);
    bio_set_single_vector(bio, bh_page(bh), bh_bytes(bh), bh_offset(bh));
    bio_set_private(bio, bh);
    bio_set_end_io(bio, qdrBIOEndIO);
    bio_get(bio);
}

void qdrBIOEndIO(bio* bio, int error)
{
    buffer_head* bh = static_cast<buffer_head*>(bio_private(bio));
    const int uptodate = bio_uptodate(bio);
    if (!uptodate)
        printk("<4>%s: IO error, bio=%p, major=%d, sector=%llu\n", __func__, static_cast<void*>(bio),
               int(kdev_major(bdev_dev(bio_bdev(bio)))), bio_sector(bio));
    if (error == -KERNEL_EOPNOTSUPP) {
        bio_set_eopnotsupp(bio);
        set_buffer_eopnotsupp(bh);
    }
    bh_end_io(bh, uptodate);
    bio_put(bio);
}

void qdrBHEndIO(buffer_head* bh, int uptodate)
{
    if (uptodate) {
        set_buffer_uptodate(bh);
    } else {
        const kdev_t dev = bdev_dev(bh_bdev(bh));
        printk("<4>%s: buffer_head I/O error bh=%p, major=%d, minor=%d, block=%llu\n", __func__, static_cast<void*>(bh),
               int(kdev_major(dev)), int(kdev_minor(dev)), bh_block(bh));
    }
    unlock_buffer(bh);
    put_bh(bh);
}

// May sleep; returns when the buffer is unlocked.
void wait_on_buffer(buffer_head* bh)
{
    if (buffer_locked(bh) || bh_count(bh) == 0)
        wait_on_buffer_locked(bh);
}
