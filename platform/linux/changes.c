// SPDX-License-Identifier: GPL-2.0-only
/*
 * What changes a disk past the hook. Tracking must not go on as if nothing had happened: the next backup reads everything.
 *
 * Such a change is noted where it happens, in any context, and told to the core before the next command, so that no
 * command gives an answer that the change has made wrong. The command that takes a point in time is also followed by
 * that, because it makes tracking good again: what was noted while it ran may have come before the point or after it.
 */
#include "glue.h"

#include <linux/mutex.h>

static atomic_t noted = ATOMIC_INIT(0), told = ATOMIC_INIT(0);
static DEFINE_MUTEX(telling); /* all of the noted ones are told when `told` says so */

void qdr_disk_changed(struct qdr_gendisk *disk, const char *how)
{
	WRITE_ONCE(disk->changed, how);
	atomic_inc_return(&noted);
}

static void tell(struct qdr_gendisk *disk)
{
	const char *how = xchg(&disk->changed, NULL);
	u32 partno;

	if (!how)
		return;
	if (qdr_is_hooked(disk))
		pr_notice("quendrel: %s %s: its next backup, and that of each of its partitions, reads everything\n", disk->name, how);
	for (partno = 0; partno < disk->minors; partno++)
		qk_driver_device_changed(qdr_kdev_of(disk, partno));
}

void qdr_tell_changes(void)
{
	int now;

	if (atomic_read(&told) == atomic_read(&noted))
		return;
	mutex_lock(&telling);
	now = atomic_read(&noted);
	qdr_for_each_disk(tell);
	atomic_set(&told, now);
	mutex_unlock(&telling);
}
