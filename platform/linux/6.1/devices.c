/*
 * Disks and block devices (glue.h says what their records are).
 *
 * A device is opened when the core first asks for it and closed with the last control file. Meanwhile its disk cannot
 * go away under a backup, nor its driver; between backups nothing of it is held, and tracking needs nothing: a request
 * finds its disk's record by the kernel's disk and its sequence number, which no other instance ever has.
 *
 * Records are only ever added, so looking one up takes no lock.
 */
#include "glue.h"

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

static struct hlist_head *bucket_of(const struct gendisk *disk)
{
	return &disks[hash_ptr(disk, DISK_BUCKETS_SHIFT)];
}

struct qdr_gendisk *qdr_find_disk(const struct gendisk *disk)
{
	struct qdr_gendisk *known;

	hlist_for_each_entry_rcu(known, bucket_of(disk), hash, true)
		if (known->disk == disk && known->diskseq == disk->diskseq)
			return known;
	return NULL;
}

bool qdr_numbers_in_use(u32 major, u32 first, u32 count)
{
	struct qdr_gendisk *known;
	int i;

	for (i = 0; i < ARRAY_SIZE(disks); i++)
		hlist_for_each_entry(known, &disks[i], hash)
			if (qdr_is_hooked(known) && known->major == major && known->first_minor < first + count &&
			    first < known->first_minor + known->minors)
				return true;
	return false;
}

static struct qdr_block_device *find_device(qdr_kdev_t kdev)
{
	struct qdr_block_device *device;

	list_for_each_entry_rcu(device, &devices, list, true)
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

/* The record of an open disk, made when it is new; null when it cannot be numbered. */
static struct qdr_gendisk *disk_of(struct gendisk *kernel_disk)
{
	struct qdr_gendisk *disk = qdr_find_disk(kernel_disk);

	if (disk)
		return disk;
	disk = kzalloc(sizeof(*disk), GFP_KERNEL | __GFP_NOFAIL);
	if (qdr_number_disk(disk, kernel_disk)) {
		kfree(disk);
		return NULL;
	}
	disk->disk = kernel_disk;
	disk->diskseq = kernel_disk->diskseq;
	spin_lock_init(&disk->queue.lock);
	disk->queue.fn = qdr_original;
	disk->whole = device_of(disk, 0, disk_devt(kernel_disk));
	hlist_add_head_rcu(&disk->hash, bucket_of(kernel_disk));
	return disk;
}

/* ---- Opening and closing ------------------------------------------------------------------------------------------- */

static void close_device(struct qdr_block_device *device)
{
	if (!device->bdev)
		return;
	blkdev_put(device->bdev, FMODE_READ);
	WRITE_ONCE(device->bdev, NULL);
	atomic_dec(&qdr_held[QDR_HELD_DEVICES]);
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

static struct qdr_block_device *open_real(dev_t real)
{
	struct qdr_block_device *device = NULL;
	struct qdr_gendisk *disk;
	struct block_device *bdev;

	if (!exists(real))
		return NULL;
	bdev = blkdev_get_by_dev(real, FMODE_READ, NULL);
	if (IS_ERR(bdev))
		return NULL;
	if (bdev_is_zoned(bdev))
		pr_warn("quendrel: %pg is a zoned device: resets of its zones cannot be seen, it is left alone\n", bdev);
	else if ((disk = disk_of(bdev->bd_disk)) && qdr_kdev_of(disk, bdev->bd_partno))
		device = device_of(disk, bdev->bd_partno, real);
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
	if (device && device->bdev && disk_live(device->bdev->bd_disk))
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
	struct hlist_node *next;
	int i;

	list_for_each_entry_safe(device, next_device, &devices, list)
		kfree(device);
	for (i = 0; i < ARRAY_SIZE(disks); i++)
		hlist_for_each_entry_safe(disk, next, &disks[i], hash)
			kfree(disk);
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

	return open && bdev_is_partition(open);
}

u64 qk_bdev_partition_start(struct qdr_block_device *bdev)
{
	struct block_device *open = qdr_kernel_bdev(bdev);

	return open ? open->bd_start_sect : 0;
}

u64 qk_bdev_partition_sectors(struct qdr_block_device *bdev)
{
	struct block_device *open = qdr_kernel_bdev(bdev);

	return open ? bdev_nr_sectors(open) : 0;
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
	struct block_device *part;
	unsigned long index, slots = 1;

	xa_for_each_start(&disk->disk->part_tbl, index, part, 1)
		slots = index + 1;
	return slots;
}

int qk_disk_partition(struct qdr_gendisk *disk, u32 index, u64 *start, u64 *sectors)
{
	struct block_device *part = xa_load(&disk->disk->part_tbl, index);

	if (!part)
		return 0;
	*start = part->bd_start_sect;
	*sectors = bdev_nr_sectors(part);
	return 1;
}

spinlock_t *qk_queue_lock(struct qdr_request_queue *q)
{
	return &q->lock;
}

qdr_make_request_fn *qk_queue_make_request_fn(struct qdr_request_queue *q)
{
	return READ_ONCE(q->fn);
}

/* Interrupts are off here, and the caller may be inside a hook: all that changes is what the interception finds. */
void qk_queue_set_make_request_fn(struct qdr_request_queue *q, qdr_make_request_fn *fn)
{
	WRITE_ONCE(q->fn, fn);
}
