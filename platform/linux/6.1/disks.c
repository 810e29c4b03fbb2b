// SPDX-License-Identifier: GPL-2.0-only
/*
 * Disks: what tells one instance from another, partitions, opening.
 *
 * An instance of a disk is known by the kernel's record of it and its sequence number, which no other one ever has;
 * nothing of it is held.
 */
#include "glue.h"

const void *family_disk_key(const struct gendisk *disk)
{
	return disk;
}

bool family_is_disk(const struct qdr_gendisk *known, const struct gendisk *disk)
{
	return known->disk == disk && known->diskseq == disk->diskseq;
}

bool family_can_be_hooked(struct gendisk *disk)
{
	if (blk_queue_is_zoned(disk->queue)) {
		pr_warn("quendrel: %s is a zoned disk: resets of its zones cannot be seen, it is left alone\n", disk->disk_name);
		return false;
	}
	if (blk_queue_dax(disk->queue)) {
		pr_warn("quendrel: %s is memory that files can be mapped from (DAX): such writes cannot be seen, it is left alone\n",
			disk->disk_name);
		return false;
	}
	return true;
}

void family_adopt(struct qdr_gendisk *disk)
{
	disk->diskseq = disk->disk->diskseq;
	disk->takes_bios = disk->disk->fops->submit_bio;
	disk->written_past = true; /* who knows, before it was met */
	spin_lock_init(&disk->queue.lock);
}

void family_let_go(struct qdr_gendisk *disk)
{
}

bool family_is_live(struct gendisk *disk)
{
	return disk_live(disk);
}

/* A number that no driver has taken would make the kernel look for a module; the core only wants to know. */
static bool exists(dev_t real)
{
	struct inode *inode = ilookup(blockdev_superblock, real);

	if (!inode)
		return false;
	iput(inode);
	return true;
}

struct block_device *family_open(dev_t real)
{
	struct block_device *bdev;

	if (!exists(real))
		return NULL;
	bdev = blkdev_get_by_dev(real, FMODE_READ, NULL);
	return IS_ERR(bdev) ? NULL : bdev;
}

void family_close(struct block_device *bdev)
{
	blkdev_put(bdev, FMODE_READ);
}

unsigned int family_partno(struct block_device *bdev)
{
	return bdev->bd_partno;
}

u64 family_start(struct block_device *bdev)
{
	return bdev->bd_start_sect;
}

u64 family_sectors(struct block_device *bdev)
{
	return bdev_nr_sectors(bdev);
}

u32 family_slots(struct gendisk *disk)
{
	struct block_device *part;
	unsigned long index, slots = 1;

	xa_for_each_start(&disk->part_tbl, index, part, 1)
		slots = index + 1;
	return slots;
}

bool family_partition(struct gendisk *disk, u32 index, u64 *start, u64 *sectors)
{
	struct block_device *part = xa_load(&disk->part_tbl, index);

	if (!part)
		return false;
	*start = part->bd_start_sect;
	*sectors = bdev_nr_sectors(part);
	return true;
}

bool family_takes_partitions(const struct gendisk *disk)
{
	return !(disk->flags & GENHD_FL_NO_PART);
}

spinlock_t *qk_queue_lock(struct qdr_request_queue *q)
{
	return &q->lock;
}

/* Interrupts are off here, and the caller may be inside a hook: all that changes is what the interception finds. */
void qk_queue_set_make_request_fn(struct qdr_request_queue *q, qdr_make_request_fn *fn)
{
	WRITE_ONCE(q->fn, fn);
}
