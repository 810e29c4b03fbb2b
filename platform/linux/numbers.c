// SPDX-License-Identifier: GPL-2.0-only
/*
 * Device numbers as the core sees them.
 *
 * The core's tables hold majors and minors below 256, and take partition n of a disk to be its first minor plus n. Most
 * disks are numbered like that. Those that are not (NVMe: major 259, partitions anywhere) get a row of numbers of major
 * 0, which no block device has, and so does a disk that comes under the number of one that has gone while it was being
 * tracked: tracking knows nothing of what happened to a disk that was away, and must not be continued on it.
 *
 * The numbers go with the disk instance for as long as it is there or tracked; after that they are given to others when
 * there are no new ones. User space always names a device by its real number: the numbers
 * in commands and answers are translated on the way.
 */
#include "glue.h"
#include "quendrel.h"

#define ALIAS_MAJOR 0
#define NUMBERS 256 /* of majors, of minors */

static u32 next_alias = 1; /* devices_lock; 0:0 is no device */

static u32 highest_partition(struct gendisk *disk)
{
	u32 slots;

	rcu_read_lock();
	slots = family_slots(disk);
	rcu_read_unlock();
	return slots - 1;
}

static bool real_numbers_fit(struct gendisk *disk, u32 minors)
{
	return disk->major > 0 && disk->major < NUMBERS && disk->first_minor + minors <= NUMBERS &&
	       disk_devt(disk) == MKDEV(disk->major, disk->first_minor) && highest_partition(disk) < minors;
}

int qdr_number_disk(struct qdr_gendisk *disk, struct gendisk *kernel_disk)
{
	u32 minors = max(kernel_disk->minors, 1), first;

	if (real_numbers_fit(kernel_disk, minors) &&
	    !qdr_numbers_in_use(kernel_disk->major, kernel_disk->first_minor, minors)) {
		disk->major = kernel_disk->major;
		disk->first_minor = kernel_disk->first_minor;
		disk->minors = minors;
		return 0;
	}
	minors = family_takes_partitions(kernel_disk) ? roundup(highest_partition(kernel_disk) + 1, 16) : 1;
	first = next_alias;
	if (first + minors > NUMBERS)
		for (first = 1; first + minors <= NUMBERS && qdr_numbers_needed(ALIAS_MAJOR, first, minors); first++)
			;
	if (first + minors > NUMBERS) {
		pr_warn("quendrel: no device number is left for %s: unload the module and load it again\n",
			kernel_disk->disk_name);
		return -ENOSPC;
	}
	disk->major = ALIAS_MAJOR;
	disk->first_minor = first;
	disk->minors = minors;
	next_alias = max(next_alias, first + minors);
	pr_info("quendrel: %s (%u:%u) is major=%u minor=%u in the lines of this log\n", kernel_disk->disk_name,
		MAJOR(disk_devt(kernel_disk)), MINOR(disk_devt(kernel_disk)), disk->major, disk->first_minor);
	return 0;
}

qdr_kdev_t qdr_kdev_of(struct qdr_gendisk *disk, unsigned int partno)
{
	return partno < disk->minors ? disk->major << 20 | (disk->first_minor + partno) : 0;
}

/* StartBackup and GetBlockSize begin with a number. */
void qdr_translate_record(struct qdr_call *call)
{
	u32 *number = call->records[0].words;
	struct qdr_block_device *device;

	if (call->cmd != QUENDREL_START_BACKUP && call->cmd != QUENDREL_GET_BLOCK_SIZE)
		return;
	if (!call->records[0].bytes || number[0] > MAJOR(~0U) || number[1] > MINORMASK)
		return;
	device = qdr_open_real(MKDEV(number[0], number[1]));
	if (device) {
		number[0] = device->kdev >> 20;
		number[1] = device->kdev & MINORMASK;
	} else if (number[0] == ALIAS_MAJOR) {
		number[1] = 0; /* a number of ours is not a second name for somebody else's device */
	}
}

/* So do the answers BlockSize, State and AutoMapState, and the core has them whole, whatever part the caller takes. */
bool qdr_answers_with_number(const struct qdr_call *call)
{
	return call->cmd == QUENDREL_GET_BLOCK_SIZE || call->cmd == QUENDREL_GET_STATE ||
	       call->cmd == QUENDREL_GET_AUTOMAP_STATE;
}

void qdr_translate_answer(void *record)
{
	u32 *number = record;
	dev_t real;

	if (number[0] != ALIAS_MAJOR || !number[1])
		return;
	real = qdr_real_number(number[0] << 20 | number[1]);
	if (!real)
		return;
	number[0] = MAJOR(real);
	number[1] = MINOR(real);
}
