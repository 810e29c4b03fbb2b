/*
 * Disks and block devices (glue.h says what their records are).
 *
 * A device is opened when the core first asks for it and closed with the last control file. Meanwhile its disk cannot go
 * away under a backup, nor its driver. Only devices that somebody has open are looked at: one with a mounted file system
 * is, and to open another would set drivers looking for media and modules.
 *
 * A disk's record holds its queue until unload, so that a hook can be put back whatever became of the disk, and so that
 * no other disk gets a queue at the same address. Records are only ever added, so looking one up takes no lock.
 */
#include "glue.h"

#include <linux/genhd.h>
#include <linux/hash.h>
#include <linux/mutex.h>
#include <linux/rculist.h>

static DEFINE_MUTEX(devices_lock); /* both tables' additions, opens and closes; taken before any of the kernel's locks */

#define DISK_BUCKETS_SHIFT 6
static struct hlist_head disks[1 << DISK_BUCKETS_SHIFT];
static LIST_HEAD(devices);
static unsigned int files; /* control files that are open */

/* Numbers without a device: nothing is mounted there, and no command keeps one beyond its end. */
static struct qdr_block_device nowhere[64];
static unsigned int next_nowhere;

/* ---- Disks --------------------------------------------------------------------------------------------------------- */

static struct hlist_head *bucket_of(const struct request_queue *q)
{
	return &disks[hash_ptr((void *)q, DISK_BUCKETS_SHIFT)];
}

struct qdr_gendisk *qdr_find_queue(const struct request_queue *q)
{
	struct qdr_gendisk *known;
	struct hlist_node *node;

	hlist_for_each_entry_rcu(known, node, bucket_of(q), hash)
		if (known->q == q)
			return known;
	return NULL;
}

struct qdr_gendisk *qdr_find_disk(const struct gendisk *disk)
{
	return qdr_find_queue(disk->queue);
}

bool qdr_numbers_in_use(u32 major, u32 first, u32 count)
{
	struct qdr_gendisk *known;
	struct hlist_node *node;
	int i;

	for (i = 0; i < ARRAY_SIZE(disks); i++)
		hlist_for_each_entry(known, node, &disks[i], hash)
			if (qdr_is_hooked(known) && known->major == major && known->first_minor < first + count &&
			    first < known->first_minor + known->minors)
				return true;
	return false;
}

static struct qdr_block_device *find_device(qdr_kdev_t kdev)
{
	struct qdr_block_device *device;

	list_for_each_entry_rcu(device, &devices, list)
		if (device->kdev == kdev)
			return device;
	return NULL;
}

/* The record of a number, which from now on belongs to a device of `disk`. */
static struct qdr_block_device *device_of(struct qdr_gendisk *disk, unsigned int partno, dev_t real)
{
	qdr_kdev_t kdev = qdr_kdev_of(disk, partno);
	struct qdr_block_device *device = find_device(kdev);

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

/* The record of an open disk, made when it is new; null when it cannot be numbered or hooked. */
static struct qdr_gendisk *disk_of(struct gendisk *kernel_disk)
{
	struct request_queue *q = kernel_disk->queue;
	struct qdr_gendisk *disk = q ? qdr_find_queue(q) : NULL;

	/* Two disks behind one queue: the core could not tell their requests apart. */
	if (disk)
		return disk->disk == kernel_disk ? disk : NULL;
	/* A loop device without a file has no function yet. */
	if (!q || !q->make_request_fn)
		return NULL;
	disk = kzalloc(sizeof(*disk), GFP_KERNEL | __GFP_NOFAIL);
	if (qdr_number_disk(disk, kernel_disk)) {
		kfree(disk);
		return NULL;
	}
	kobject_get(&q->kobj);
	disk->disk = kernel_disk;
	disk->q = q;
	disk->original = q->make_request_fn;
	disk->queue.fn = qdr_original;
	disk->whole = device_of(disk, 0, disk_devt(kernel_disk));
	hlist_add_head_rcu(&disk->hash, bucket_of(q));
	return disk;
}

void qdr_give_all_back(void)
{
	struct qdr_gendisk *disk;
	struct hlist_node *node;
	int i;

	for (i = 0; i < ARRAY_SIZE(disks); i++)
		hlist_for_each_entry(disk, node, &disks[i], hash)
			qdr_give_back(disk);
}

/* ---- Opening and closing ------------------------------------------------------------------------------------------- */

static bool live(const struct block_device *bdev)
{
	return bdev->bd_disk->flags & GENHD_FL_UP;
}

static void close_device(struct qdr_block_device *device)
{
	if (!device->bdev)
		return;
	blkdev_put(device->bdev, FMODE_READ);
	WRITE_ONCE(device->bdev, NULL);
	atomic_dec(&qdr_held[QDR_HELD_DEVICES]);
}

static unsigned int number_of(const struct block_device *bdev)
{
	return bdev == bdev->bd_contains ? 0 : bdev->bd_part->partno;
}

static struct qdr_block_device *open_real(dev_t real)
{
	struct qdr_block_device *device = NULL;
	struct qdr_gendisk *disk;
	struct block_device *bdev = bdget(real);

	if (!bdev)
		return NULL;
	if (!bdev->bd_openers) {
		bdput(bdev);
		return NULL;
	}
	/* Gives the reference back when it fails. */
	if (blkdev_get(bdev, FMODE_READ))
		return NULL;
	disk = disk_of(bdev->bd_disk);
	if (disk && qdr_kdev_of(disk, number_of(bdev)))
		device = device_of(disk, number_of(bdev), real);
	if (!device || device->bdev == bdev) {
		blkdev_put(bdev, FMODE_READ);
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
	device = find_device(kdev);
	if (device && device->bdev && live(device->bdev))
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

void qdr_files_begin(void)
{
	mutex_lock(&devices_lock);
	files++;
	mutex_unlock(&devices_lock);
}

void qdr_files_end(void)
{
	struct qdr_block_device *device;

	mutex_lock(&devices_lock);
	if (--files == 0)
		list_for_each_entry(device, &devices, list)
			close_device(device);
	mutex_unlock(&devices_lock);
}

void qdr_devices_exit(void)
{
	struct qdr_block_device *device, *next_device;
	struct qdr_gendisk *disk;
	struct hlist_node *node, *next;
	int i;

	list_for_each_entry_safe(device, next_device, &devices, list)
		kfree(device);
	for (i = 0; i < ARRAY_SIZE(disks); i++)
		hlist_for_each_entry_safe(disk, node, next, &disks[i], hash) {
			kobject_put(&disk->q->kobj);
			kfree(disk);
		}
}

struct block_device *qdr_kernel_bdev(struct qdr_block_device *bdev)
{
	return READ_ONCE(bdev->bdev);
}

dev_t qdr_real_number(qdr_kdev_t kdev)
{
	struct qdr_block_device *device = find_device(kdev);

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

	return open && open != open->bd_contains;
}

u64 qk_bdev_partition_start(struct qdr_block_device *bdev)
{
	return qk_bdev_has_partition(bdev) ? bdev->bdev->bd_part->start_sect : 0;
}

u64 qk_bdev_partition_sectors(struct qdr_block_device *bdev)
{
	return qk_bdev_has_partition(bdev) ? bdev->bdev->bd_part->nr_sects : 0;
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
	return rcu_dereference(disk->disk->part_tbl)->len;
}

int qk_disk_partition(struct qdr_gendisk *disk, u32 index, u64 *start, u64 *sectors)
{
	struct disk_part_tbl *table = rcu_dereference(disk->disk->part_tbl);
	struct hd_struct *part = index < table->len ? rcu_dereference(table->part[index]) : NULL;

	if (!part)
		return 0;
	*start = part->start_sect;
	*sectors = part->nr_sects;
	return 1;
}

spinlock_t *qk_queue_lock(struct qdr_request_queue *q)
{
	return container_of(q, struct qdr_gendisk, queue)->q->queue_lock;
}

qdr_make_request_fn *qk_queue_make_request_fn(struct qdr_request_queue *q)
{
	return READ_ONCE(q->fn);
}
