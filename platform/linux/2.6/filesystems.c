// SPDX-License-Identifier: GPL-2.0-only
/*
 * File systems where the super block of a device is looked up, and freezing it counts.
 *
 * The kernel's own freeze and thaw take the device's freeze mutex and the file system's lock in both orders. Its lock checker
 * is not told of them: it would report that once, and from then on check nothing, our locks included.
 */
#include "glue.h"

#include <linux/buffer_head.h>
#include <linux/err.h>
#include <linux/lockdep.h>

/* The kernel's reference holds the file system's own lock, so it is given back before anything else is done. */
u32 family_mounted_block_size(struct block_device *bdev)
{
	struct super_block *sb = get_super(bdev);
	u32 bytes;

	if (!sb)
		return 0;
	bytes = sb->s_blocksize;
	drop_super(sb);
	return bytes;
}

/* The kernel holds two locks from here to the thaw, which the core does in the same task and before it returns. */
struct super_block *family_freeze(struct block_device *bdev)
{
	struct super_block *sb;

	lockdep_off();
	sb = freeze_bdev(bdev);
	/* Without a file system the call succeeds and freezes nothing. */
	if (!sb)
		thaw_bdev(bdev, NULL);
	lockdep_on();
	return IS_ERR(sb) ? NULL : sb;
}

int family_thaw(struct block_device *bdev, struct super_block *sb)
{
	int result;

	lockdep_off();
	result = thaw_bdev(bdev, sb);
	lockdep_on();
	return result;
}
