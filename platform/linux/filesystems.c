// SPDX-License-Identifier: GPL-2.0-only
/* File systems: which one is mounted on a device, its block size, freezing. */
#include "glue.h"

#include <linux/buffer_head.h>

/* What the core gets for a super block: its answers, and the kernel's own while it is frozen. */
struct qdr_super_block {
	u32 block_size;
	struct super_block *frozen;
};

static struct qdr_super_block *new_super(u32 block_size, struct super_block *frozen)
{
	struct qdr_super_block *sb = qdr_kzalloc_nofail(sizeof(*sb));

	sb->block_size = block_size;
	sb->frozen = frozen;
	atomic_inc(&qdr_held[QDR_HELD_SUPERS]);
	return sb;
}

void qk_drop_super(struct qdr_super_block *sb)
{
	atomic_dec(&qdr_held[QDR_HELD_SUPERS]);
	qk_kfree(sb);
}

struct qdr_super_block *qk_get_super(struct qdr_block_device *bdev)
{
	struct block_device *open = qdr_kernel_bdev(bdev);
	u32 block_size;
	char name[BDEVNAME_SIZE];

	qdr_may_sleep();
	block_size = open ? family_mounted_block_size(open) : 0;
	if (!block_size)
		return NULL;
	if (block_size > PAGE_SIZE) {
		pr_warn("quendrel: %s has blocks of %u bytes, more than a page: it cannot be backed up\n",
			family_device_name(open, name), block_size);
		return NULL;
	}
	return new_super(block_size, NULL);
}

u32 qk_super_block_size(struct qdr_super_block *sb)
{
	return sb->block_size;
}

struct qdr_super_block *qk_freeze_bdev(struct qdr_block_device *bdev)
{
	struct block_device *open = qdr_kernel_bdev(bdev);
	struct super_block *sb;

	qdr_may_sleep();
	sb = open ? family_freeze(open) : NULL;
	return sb ? new_super(sb->s_blocksize, sb) : NULL;
}

/* A freeze that failed has left nothing to undo; somebody else's is not ours to undo. */
void qk_thaw_bdev(struct qdr_block_device *bdev, struct qdr_super_block *sb)
{
	struct block_device *open = qdr_kernel_bdev(bdev);
	char name[BDEVNAME_SIZE];

	qdr_may_sleep();
	if (!sb)
		return;
	if (open && family_thaw(open, sb->frozen))
		pr_err("quendrel: %s could not be thawed\n", family_device_name(open, name));
	qk_drop_super(sb);
}

void qk_fsync_bdev(struct qdr_block_device *bdev)
{
	struct block_device *open = bdev ? qdr_kernel_bdev(bdev) : NULL;

	qdr_may_sleep();
	if (open)
		fsync_bdev(open);
}
