// SPDX-License-Identifier: GPL-2.0-only
/*
 * Disks and block devices (glue.h says what their records are).
 *
 * A device is opened when the core first asks for it and closed with the last control file. Meanwhile its disk cannot
 * go away under a backup, nor its driver; between backups none is open, and tracking needs none: a request finds its
 * disk's record by what tells one instance of a disk from every other (disks.c of the family).
 *
 * Records are only ever added, so looking one up takes no lock. (The self-test takes its own off again, and they stay.)
 */
#include "glue.h"

#include <linux/hash.h>
#include <linux/mutex.h>
#include <linux/rculist.h>

static DEFINE_MUTEX(devices_lock); /* both tables' additions, opens and closes; taken before any of the kernel's locks */

#define DISK_BUCKETS_SHIFT 6
static struct list_head disks[1 << DISK_BUCKETS_SHIFT];
static LIST_HEAD(devices);
static unsigned int files; /* control files that are open */

/* Numbers without a device: nothing is mounted there, and no command keeps one beyond its end. */
static struct qdr_block_device nowhere[64];
static unsigned int next_nowhere;

/* ---- Disks --------------------------------------------------------------------------------------------------------- */

static struct list_head *bucket_of(const void *key)
{
	return &disks[hash_ptr((void *)key, DISK_BUCKETS_SHIFT)];
}

struct qdr_gendisk *qdr_find_disk(const struct gendisk *disk)
{
	struct qdr_gendisk *known;

	list_for_each_entry_lockless(known, bucket_of(family_disk_key(disk)), list)
		if (family_is_disk(known, disk))
			return known;
	return NULL;
}

/* Records stay until unload, so a disk that was hooked once has one, whatever became of its medium since. */
struct qdr_gendisk *qdr_disk_of(const struct gendisk *disk)
{
	struct qdr_gendisk *known = qdr_find_disk(disk);

	if (known)
		return known;
	list_for_each_entry_lockless(known, bucket_of(family_disk_key(disk)), list)
		if (known->disk == disk)
			return known;
	return NULL;
}

void qdr_for_each_disk(void (*fn)(struct qdr_gendisk *disk))
{
	struct qdr_gendisk *disk, *next;
	int i;

	for (i = 0; i < ARRAY_SIZE(disks); i++)
		list_for_each_entry_safe(disk, next, &disks[i], list)
			fn(disk);
}

void qdr_list_disk(struct qdr_gendisk *disk)
{
	mutex_lock(&devices_lock);
	list_add_rcu(&disk->list, bucket_of(family_disk_key(disk->disk)));
	mutex_unlock(&devices_lock);
}

void qdr_unlist_disk(struct qdr_gendisk *disk)
{
	mutex_lock(&devices_lock);
	list_del_rcu(&disk->list);
	mutex_unlock(&devices_lock);
}

bool qdr_numbers_in_use(u32 major, u32 first, u32 count)
{
	struct qdr_gendisk *known;
	int i;

	for (i = 0; i < ARRAY_SIZE(disks); i++)
		list_for_each_entry(known, &disks[i], list)
			if (qdr_is_hooked(known) && known->major == major && known->first_minor < first + count &&
			    first < known->first_minor + known->minors)
				return true;
	return false;
}

struct qdr_block_device *qdr_find_device(qdr_kdev_t kdev)
{
	struct qdr_block_device *device;

	list_for_each_entry_lockless(device, &devices, list)
		if (device->kdev == kdev)
			return device;
	return NULL;
}

/* Whether anybody still needs the numbers of a record: its disk is there, or something of it is hooked or open. */
static bool needs_numbers(struct qdr_gendisk *known)
{
	struct qdr_block_device *device;
	struct block_device *bdev;
	bool there;

	if (known->whole->disk != known)
		return false; /* another disk has them already */
	if (qdr_is_hooked(known))
		return true;
	list_for_each_entry(device, &devices, list)
		if (device->disk == known && device->bdev)
			return true;
	bdev = family_open(known->whole->real);
	if (!bdev)
		return false;
	there = family_is_disk(known, bdev->bd_disk);
	family_close(bdev);
	return there;
}

bool qdr_numbers_needed(u32 major, u32 first, u32 count)
{
	struct qdr_gendisk *known;
	int i;

	for (i = 0; i < ARRAY_SIZE(disks); i++)
		list_for_each_entry(known, &disks[i], list)
			if (known->major == major && known->first_minor < first + count &&
			    first < known->first_minor + known->minors && needs_numbers(known))
				return true;
	return false;
}

/* The record of a number, which from now on belongs to a device of `disk`. */
static struct qdr_block_device *device_of(struct qdr_gendisk *disk, unsigned int partno, dev_t real)
{
	qdr_kdev_t kdev = qdr_kdev_of(disk, partno);
	struct qdr_block_device *device = qdr_find_device(kdev);

	if (!device) {
		device = kzalloc(sizeof(*device), GFP_KERNEL | __GFP_NOFAIL);
		device->kdev = kdev;
		device->disk = disk;
		device->real = real;
		list_add_tail_rcu(&device->list, &devices);
	}
	device->disk = disk;
	device->real = real;
	return device;
}

/* The record of an open disk, made when it is new; null when it cannot be hooked or numbered. */
static struct qdr_gendisk *disk_of(struct gendisk *kernel_disk)
{
	struct qdr_gendisk *disk;

	if (!family_can_be_hooked(kernel_disk))
		return NULL;
	disk = qdr_find_disk(kernel_disk);
	if (disk)
		return disk;
	disk = kzalloc(sizeof(*disk), GFP_KERNEL | __GFP_NOFAIL);
	if (qdr_number_disk(disk, kernel_disk)) {
		kfree(disk);
		return NULL;
	}
	disk->disk = kernel_disk;
	disk->queue.fn = qdr_original;
	strlcpy(disk->name, kernel_disk->disk_name, sizeof(disk->name));
	family_adopt(disk);
	disk->whole = device_of(disk, 0, disk_devt(kernel_disk));
	list_add_rcu(&disk->list, bucket_of(family_disk_key(kernel_disk)));
	return disk;
}

/* ---- Opening and closing ------------------------------------------------------------------------------------------- */

static void close_device(struct qdr_block_device *device)
{
	if (!device->bdev)
		return;
	family_close(device->bdev);
	WRITE_ONCE(device->bdev, NULL);
	atomic_dec(&qdr_held[QDR_HELD_DEVICES]);
}

static struct qdr_block_device *open_real(dev_t real)
{
	struct qdr_block_device *device = NULL;
	struct block_device *bdev = family_open(real);
	struct qdr_gendisk *disk;
	unsigned int partno;

	if (!bdev)
		return NULL;
	disk = disk_of(bdev->bd_disk);
	partno = family_partno(bdev);
	if (disk && qdr_kdev_of(disk, partno))
		device = device_of(disk, partno, real);
	if (!device || device->bdev == bdev) {
		family_close(bdev);
		return device;
	}
	/* Of an instance that has gone. */
	close_device(device);
	WRITE_ONCE(device->bdev, bdev);
	atomic_inc(&qdr_held[QDR_HELD_DEVICES]);
	return device;
}

struct qdr_block_device *qdr_open_real(dev_t real)
{
	struct qdr_block_device *device;

	mutex_lock(&devices_lock);
	device = open_real(real);
	mutex_unlock(&devices_lock);
	return device;
}

static struct qdr_block_device *no_device(qdr_kdev_t kdev)
{
	struct qdr_block_device *device = &nowhere[next_nowhere++ % ARRAY_SIZE(nowhere)];

	device->kdev = kdev;
	return device;
}

struct qdr_block_device *qk_bdget(qdr_kdev_t kdev)
{
	struct qdr_block_device *device, *opened = NULL;

	qdr_may_sleep();
	mutex_lock(&devices_lock);
	device = qdr_find_device(kdev);
	if (device && device->bdev && family_is_live(device->bdev->bd_disk))
		goto out;
	/* The device of a backup that has lost its disk stays what it was. */
	if (device && device->bdev && qdr_is_hooked(device->disk))
		goto out;
	opened = open_real(device ? device->real : MKDEV(kdev >> 20, kdev & MINORMASK));
	if (opened && opened->kdev == kdev)
		device = opened;
	else if (!device)
		device = no_device(kdev);
out:
	mutex_unlock(&devices_lock);
	return device;
}

unsigned int qdr_files_begin(void)
{
	unsigned int now;

	mutex_lock(&devices_lock);
	now = ++files;
	mutex_unlock(&devices_lock);
	return now;
}

void qdr_files_end(void)
{
	struct qdr_block_device *device;

	mutex_lock(&devices_lock);
	if (--files == 0) {
		qdr_end_lost_workers();
		list_for_each_entry(device, &devices, list)
			close_device(device);
	}
	mutex_unlock(&devices_lock);
}

void qdr_devices_init(void)
{
	int i;

	for (i = 0; i < ARRAY_SIZE(disks); i++)
		INIT_LIST_HEAD(&disks[i]);
}

static void forget_disk(struct qdr_gendisk *disk)
{
	family_let_go(disk);
	kfree(disk);
}

void qdr_devices_exit(void)
{
	struct qdr_block_device *device, *next;

	list_for_each_entry_safe(device, next, &devices, list)
		kfree(device);
	qdr_for_each_disk(forget_disk);
}

struct block_device *qdr_kernel_bdev(struct qdr_block_device *bdev)
{
	return READ_ONCE(bdev->bdev);
}

dev_t qdr_real_number(qdr_kdev_t kdev)
{
	struct qdr_block_device *device = qdr_find_device(kdev);

	return device ? device->real : 0;
}

/* ---- What the core asks of a device -------------------------------------------------------------------------------- */

qdr_kdev_t qk_bdev_dev(struct qdr_block_device *bdev)
{
	return bdev->kdev;
}

struct qdr_gendisk *qk_bdev_disk(struct qdr_block_device *bdev)
{
	return bdev->disk;
}

struct qdr_block_device *qk_bdev_contains(struct qdr_block_device *bdev)
{
	return bdev->disk ? bdev->disk->whole : NULL;
}

int qk_bdev_has_partition(struct qdr_block_device *bdev)
{
	struct block_device *open = qdr_kernel_bdev(bdev);

	return open && family_partno(open) != 0;
}

u64 qk_bdev_partition_start(struct qdr_block_device *bdev)
{
	return qk_bdev_has_partition(bdev) ? family_start(bdev->bdev) : 0;
}

u64 qk_bdev_partition_sectors(struct qdr_block_device *bdev)
{
	return qk_bdev_has_partition(bdev) ? family_sectors(bdev->bdev) : 0;
}

/* The hook runs inside requests that the kernel sends while it holds the disk's own lock, so that one is not for us. */
void qk_bdev_lock_partitions(struct qdr_block_device *bdev)
{
	rcu_read_lock();
}

void qk_bdev_unlock_partitions(struct qdr_block_device *bdev)
{
	rcu_read_unlock();
}

struct qdr_request_queue *qk_disk_queue(struct qdr_gendisk *disk)
{
	return &disk->queue;
}

u64 qk_disk_capacity(struct qdr_gendisk *disk)
{
	return get_capacity(disk->disk);
}

u32 qk_disk_first_minor(struct qdr_gendisk *disk)
{
	return disk->first_minor;
}

u32 qk_disk_minors(struct qdr_gendisk *disk)
{
	return disk->minors;
}

u32 qk_disk_partition_slots(struct qdr_gendisk *disk)
{
	return family_slots(disk->disk);
}

int qk_disk_partition(struct qdr_gendisk *disk, u32 index, u64 *start, u64 *sectors)
{
	return family_partition(disk->disk, index, start, sectors);
}

qdr_make_request_fn *qk_queue_make_request_fn(struct qdr_request_queue *q)
{
	return READ_ONCE(q->fn);
}
