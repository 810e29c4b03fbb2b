// SPDX-License-Identifier: GPL-2.0-only
/* File systems where only those are found that the kernel freezes through their device: they leave their super block with it. */
#include "glue.h"

/* The record outlives an unmount under us by the kernel's own grace period. */
u32 family_mounted_block_size(struct block_device *bdev)
{
	struct super_block *sb;
	u32 bytes = 0;

	rcu_read_lock();
	sb = READ_ONCE(bdev->bd_super);
	if (sb)
		bytes = sb->s_blocksize;
	rcu_read_unlock();
	if (!sb && READ_ONCE(bdev->bd_holder))
		pr_warn("quendrel: %pg is in use, but not by a file system that can be frozen through its device (btrfs, swap, RAID and LVM cannot)\n",
			bdev);
	return bytes;
}

struct super_block *family_freeze(struct block_device *bdev)
{
	if (freeze_bdev(bdev))
		return NULL;
	/* Without a file system the call succeeds and freezes nothing. */
	if (!bdev->bd_fsfreeze_sb) {
		thaw_bdev(bdev);
		pr_warn("quendrel: %pg holds no file system that can be frozen through its device\n", bdev);
		return NULL;
	}
	return bdev->bd_fsfreeze_sb;
}

int family_thaw(struct block_device *bdev, struct super_block *sb)
{
	return thaw_bdev(bdev);
}
