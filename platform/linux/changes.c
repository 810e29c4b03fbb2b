// SPDX-License-Identifier: GPL-2.0-only
/*
 * What changes a disk past the hook. Tracking must not go on as if nothing had happened: the next backup reads everything.
 *
 * Such a change is noted where it happens, in any context, and told to the core before the next command, so that no
 * command gives an answer that the change has made wrong. The command that takes a point in time makes tracking good
 * again, and a change that was noted while it ran may have come before the point or after it, whoever told it: so after
 * such a command all those are told once more.
 */
#include "glue.h"

#include <linux/mutex.h>

static atomic_t noted = ATOMIC_INIT(0), told = ATOMIC_INIT(0);
/* That all of the noted ones are told when `told` says so; what follows. Taken with nothing of the driver locked; the core
 * takes its table's locks inside. */
static DEFINE_MUTEX(telling);
static u32 tells;             /* how often a disk's changes were told */
static u32 since;             /* of tell_again */

void qdr_disk_changed(struct qdr_gendisk *disk, const char *how)
{
	WRITE_ONCE(disk->changed, how);
	atomic_inc_return(&noted);
}

static void forget(struct qdr_gendisk *disk)
{
	u32 partno;

	for (partno = 0; partno < disk->minors; partno++)
		qk_driver_device_changed(qdr_kdev_of(disk, partno));
}

static void tell(struct qdr_gendisk *disk)
{
	const char *how = xchg(&disk->changed, NULL);

	if (!how)
		return;
	if (qdr_is_hooked(disk))
		qk_printk("<4>quendrel: %s %s: its next backup, and that of each of its partitions, reads everything\n", disk->name, how);
	disk->told = ++tells;
	forget(disk);
}

static void tell_again(struct qdr_gendisk *disk)
{
	if ((s32)(disk->told - since) > 0)
		forget(disk);
}

u32 qdr_tell_changes(void)
{
	u32 result;
	int now;

	mutex_lock(&telling);
	now = atomic_read(&noted);
	if (now != atomic_read(&told)) {
		qdr_for_each_disk(tell);
		atomic_set(&told, now);
	}
	result = tells;
	mutex_unlock(&telling);
	return result;
}

void qdr_tell_changes_again(u32 from)
{
	qdr_tell_changes();
	mutex_lock(&telling);
	since = from;
	qdr_for_each_disk(tell_again);
	mutex_unlock(&telling);
}
