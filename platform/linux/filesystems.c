// SPDX-License-Identifier: GPL-2.0-only
/* File systems: which one is mounted on a device, its block size, freezing. */
#include "glue.h"

#include <linux/buffer_head.h>

/* What the core gets for a super block: its answers, and the kernel's own while it is frozen. */
struct qdr_super_block {
	u32 block_size;
	struct super_block *frozen;
};

static void fill(struct qdr_super_block *sb, u32 block_size, struct super_block *frozen)
{
	sb->block_size = block_size;
	sb->frozen = frozen;
	atomic_inc(&qdr_held[QDR_HELD_SUPERS]);
}

void qk_drop_super(struct qdr_super_block *sb)
{
	atomic_dec(&qdr_held[QDR_HELD_SUPERS]);
	qk_kfree(sb);
}

struct qdr_super_block *qk_get_super(struct qdr_block_device *bdev)
{
	struct block_device *open = qdr_kernel_bdev(bdev);
	struct qdr_super_block *sb;
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
	sb = qdr_kzalloc_nofail(sizeof(*sb));
	fill(sb, block_size, NULL);
	return sb;
}

u32 qk_super_block_size(struct qdr_super_block *sb)
{
	return sb->block_size;
}

/* The record is made first: memory may be what the frozen file system would write out. */
struct qdr_super_block *qk_freeze_bdev(struct qdr_block_device *bdev)
{
	struct block_device *open = qdr_kernel_bdev(bdev);
	struct qdr_super_block *sb;
	struct super_block *frozen;

	qdr_may_sleep();
	sb = qk_kmalloc(sizeof(*sb), QDR_GFP_NOIO);
	if (!sb)
		return NULL;
	frozen = open ? family_freeze(open) : NULL;
	if (!frozen) {
		qk_kfree(sb);
		return NULL;
	}
	fill(sb, frozen->s_blocksize, frozen);
	return sb;
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
