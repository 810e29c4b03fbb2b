/* File systems: which one is mounted on a device, its block size, freezing. */
#include "glue.h"

/* What the core gets for a super block: its answers, taken while it was there. */
struct qdr_super_block {
	u32 block_size;
};

static struct qdr_super_block *new_super(u32 block_size)
{
	struct qdr_super_block *sb = qdr_kzalloc_nofail(sizeof(*sb));

	sb->block_size = block_size;
	atomic_inc(&qdr_held[QDR_HELD_SUPERS]);
	return sb;
}

void qk_drop_super(struct qdr_super_block *sb)
{
	atomic_dec(&qdr_held[QDR_HELD_SUPERS]);
	qk_kfree(sb);
}

/*
 * Only file systems that the kernel freezes through their device are found, which is those that leave their super block
 * with it. The record outlives an unmount under us by the kernel's own grace period.
 */
struct qdr_super_block *qk_get_super(struct qdr_block_device *bdev)
{
	struct block_device *open = qdr_kernel_bdev(bdev);
	struct super_block *sb;
	u32 block_size = 0;

	qdr_may_sleep();
	if (!open)
		return NULL;
	rcu_read_lock();
	sb = READ_ONCE(open->bd_super);
	if (sb)
		block_size = sb->s_blocksize;
	rcu_read_unlock();
	if (!sb) {
		if (READ_ONCE(open->bd_holder))
			pr_warn("quendrel: %pg is in use, but not by a file system that can be frozen through its device (btrfs, swap, RAID and LVM cannot)\n",
				open);
		return NULL;
	}
	if (block_size > PAGE_SIZE) {
		pr_warn("quendrel: %pg has blocks of %u bytes, more than a page: it cannot be backed up\n", open, block_size);
		return NULL;
	}
	return new_super(block_size);
}

u32 qk_super_block_size(struct qdr_super_block *sb)
{
	return sb->block_size;
}

struct qdr_super_block *qk_freeze_bdev(struct qdr_block_device *bdev)
{
	struct block_device *open = qdr_kernel_bdev(bdev);

	qdr_may_sleep();
	if (!open || freeze_bdev(open))
		return NULL;
	/* Without a file system the call succeeds and freezes nothing. */
	if (!open->bd_fsfreeze_sb) {
		thaw_bdev(open);
		pr_warn("quendrel: %pg holds no file system that can be frozen through its device\n", open);
		return NULL;
	}
	return new_super(open->bd_fsfreeze_sb->s_blocksize);
}

/* A freeze that failed has left nothing to undo; somebody else's is not ours to undo. */
void qk_thaw_bdev(struct qdr_block_device *bdev, struct qdr_super_block *sb)
{
	struct block_device *open = qdr_kernel_bdev(bdev);

	qdr_may_sleep();
	if (!sb)
		return;
	if (open && thaw_bdev(open))
		pr_err("quendrel: %pg could not be thawed\n", open);
	qk_drop_super(sb);
}

void qk_fsync_bdev(struct qdr_block_device *bdev)
{
	struct block_device *open = bdev ? qdr_kernel_bdev(bdev) : NULL;

	qdr_may_sleep();
	if (open)
		fsync_bdev(open);
}
