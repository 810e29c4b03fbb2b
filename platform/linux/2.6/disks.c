// SPDX-License-Identifier: GPL-2.0-only
/*
 * Disks: what tells one instance from another, partitions, opening.
 *
 * An instance of a disk is known by its queue, which is held until unload: a hook can be put back whatever became of the
 * disk, and no other disk gets a queue at the same address. Only devices that somebody has open are looked at: one with
 * a mounted file system is, and to open another would set drivers looking for media and modules.
 */
#include "glue.h"

const void *family_disk_key(const struct gendisk *disk)
{
	return disk->queue;
}

bool family_is_disk(const struct qdr_gendisk *known, const struct gendisk *disk)
{
	return known->q == disk->queue;
}

/* A loop device without a file has no function yet. Of two disks behind one queue the core would mix up the requests. */
bool family_can_be_hooked(struct gendisk *disk)
{
	struct qdr_gendisk *known = qdr_find_disk(disk);

	return disk->queue && disk->queue->make_request_fn && (!known || known->disk == disk);
}

void family_adopt(struct qdr_gendisk *disk)
{
	disk->q = disk->disk->queue;
	kobject_get(&disk->q->kobj);
	disk->original = disk->q->make_request_fn;
	spin_lock_init(&disk->queue.lock);
}

void family_let_go(struct qdr_gendisk *disk)
{
	kobject_put(&disk->q->kobj);
}

bool family_is_live(struct gendisk *disk)
{
	return disk->flags & GENHD_FL_UP;
}

struct block_device *family_open(dev_t real)
{
	struct block_device *bdev = bdget(real);

	if (!bdev)
		return NULL;
	if (!bdev->bd_openers) {
		bdput(bdev);
		return NULL;
	}
	/* Gives the reference back when it fails. */
	return blkdev_get(bdev, FMODE_READ) ? NULL : bdev;
}

void family_close(struct block_device *bdev)
{
	blkdev_put(bdev, FMODE_READ);
}

unsigned int family_partno(struct block_device *bdev)
{
	return bdev == bdev->bd_contains ? 0 : bdev->bd_part->partno;
}

u64 family_start(struct block_device *bdev)
{
	return bdev->bd_part->start_sect;
}

u64 family_sectors(struct block_device *bdev)
{
	return bdev->bd_part->nr_sects;
}

/* The caller reads the table under RCU. */
static struct hd_struct *partition(struct gendisk *disk, u32 index)
{
	struct disk_part_tbl *table = rcu_dereference(disk->part_tbl);

	return index < table->len ? rcu_dereference(table->part[index]) : NULL;
}

u32 family_slots(struct gendisk *disk)
{
	u32 slots = rcu_dereference(disk->part_tbl)->len;

	while (slots > 1 && !partition(disk, slots - 1))
		slots--;
	return slots;
}

bool family_partition(struct gendisk *disk, u32 index, u64 *start, u64 *sectors)
{
	struct hd_struct *part = partition(disk, index);

	if (!part)
		return false;
	*start = part->start_sect;
	*sectors = part->nr_sects;
	return true;
}

bool family_takes_partitions(const struct gendisk *disk)
{
	return disk->minors > 1;
}

/*
 * Not the kernel's lock of the queue: that one may lie in memory of the disk's driver, which has gone with the disk, and
 * nobody who reads or sets a queue's function takes it.
 */
spinlock_t *qk_queue_lock(struct qdr_request_queue *q)
{
	return &q->lock;
}
