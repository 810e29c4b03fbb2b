// SPDX-License-Identifier: GPL-2.0-only
/*
 * Changes of disks that no bio shows, seen where the kernel makes them.
 *
 *   Another table or size    a mapped device gets another table, an md array is stopped, started or reshaped, a loop
 *                            device gets another part of its file: all of them set the disk's size, before the change, and
 *                            a mapped device sets whether it can be written to behind it.
 *   Partitions               that are removed, resized, or read anew from the disk.
 *   Commands                 that are sent to the disk as they are (SG_IO and the like), and requests that a device with
 *                            several paths hands to one of its paths. They may still be under way when they are noted, so
 *                            before a point in time is taken the disk is waited for.
 *   Pages                    that some RAM disks take without a bio. While such a disk is hooked it is not asked, and
 *                            the kernel sends a bio.
 *
 * Another medium makes another instance of the disk (disks.c), of which nothing was recorded. Disks that are written to
 * by mapping them (DAX) are refused, and so are zoned ones.
 */
#include "glue.h"

#include <linux/blk-mq.h>
#include <linux/major.h>
#include <scsi/scsi_cmnd.h>
#include <scsi/scsi_proto.h>

#include "tracer.h"

/* ---- Tables, sizes, partitions ------------------------------------------------------------------------------------- */

static void note(const struct gendisk *kernel_disk, const char *how)
{
	struct qdr_gendisk *disk = qdr_find_disk(kernel_disk);

	if (disk)
		qdr_disk_changed(disk, how);
}

static void notrace at_size(unsigned long ip, unsigned long parent, struct ftrace_ops *ops, struct ftrace_regs *fregs)
{
	note(family_first_argument(fregs), "was given its table or size anew");
}

static void notrace at_partition(unsigned long ip, unsigned long parent, struct ftrace_ops *ops, struct ftrace_regs *fregs)
{
	note(family_first_argument(fregs), "had a partition removed or resized");
}

/* Nothing is read while a partition is in use; whoever reads has the disk's own lock. */
static void notrace at_table(unsigned long ip, unsigned long parent, struct ftrace_ops *ops, struct ftrace_regs *fregs)
{
	const struct gendisk *disk = family_first_argument(fregs);

	if (!disk->open_partitions)
		note(disk, "had its partition table read anew");
}

/* ---- Commands ------------------------------------------------------------------------------------------------------ */

static bool is_harmless_ata(u8 command)
{
	switch (command) {
	case 0x2f: /* read log */
	case 0x40: /* read, to verify */
	case 0x42:
	case 0x47: /* read log */
	case 0x94: /* power modes: 0x94 to 0x98, 0xe0 to 0xe6 */
	case 0x95:
	case 0x96:
	case 0x97:
	case 0x98:
	case 0xb0: /* SMART */
	case 0xe0:
	case 0xe1:
	case 0xe2:
	case 0xe3:
	case 0xe5:
	case 0xe6:
	case 0xe7: /* flush */
	case 0xea:
	case 0xec: /* identify */
	case 0xef: /* set features */
	case 0xf5: /* freeze the security settings */
		return true;
	default:
		return false;
	}
}

/* Of those that carry no data from the disk. */
static bool is_harmless_scsi(const u8 *command)
{
	switch (command[0]) {
	case TEST_UNIT_READY:
	case REQUEST_SENSE:
	case START_STOP:
	case ALLOW_MEDIUM_REMOVAL:
	case SYNCHRONIZE_CACHE:
	case 0x91: /* the same with 16 bytes */
	case VERIFY:
	case VERIFY_16:
	case PRE_FETCH:
	case 0x90:
	case PERSISTENT_RESERVE_OUT:
		return true;
	case ATA_16:
		return is_harmless_ata(command[14]);
	case ATA_12:
		return is_harmless_ata(command[9]);
	default:
		return false;
	}
}

static bool is_scsi(int major)
{
	return major == SCSI_DISK0_MAJOR || (major >= SCSI_DISK1_MAJOR && major <= SCSI_DISK7_MAJOR) ||
	       (major >= SCSI_DISK8_MAJOR && major <= SCSI_DISK15_MAJOR) || major == SCSI_CDROM_MAJOR;
}

static bool may_change_disk(struct request *rq, const struct gendisk *disk)
{
	if (!blk_rq_is_passthrough(rq))
		return op_is_write(req_op(rq));
	if (req_op(rq) == REQ_OP_DRV_IN && blk_rq_bytes(rq))
		return false;
	return !is_scsi(disk->major) || !is_harmless_scsi(((struct scsi_cmnd *)blk_mq_rq_to_pdu(rq))->cmnd);
}

static void notrace at_command(unsigned long ip, unsigned long parent, struct ftrace_ops *ops, struct ftrace_regs *fregs)
{
	struct request *rq = family_first_argument(fregs);
	const struct gendisk *kernel_disk;
	struct qdr_gendisk *disk;

	/* The request keeps the queue, which loses its disk in the end; the disk's record then stays for a grace period. */
	rcu_read_lock();
	kernel_disk = READ_ONCE(rq->q->disk);
	disk = kernel_disk ? qdr_find_disk(kernel_disk) : NULL;
	if (disk && may_change_disk(rq, kernel_disk)) {
		WRITE_ONCE(disk->written_past, true);
		qdr_disk_changed(disk, "was sent a command past the kernel's file systems");
	}
	rcu_read_unlock();
}

/* A disk that has just been met may have been sent something before. */
static void wait_for_commands(struct qdr_gendisk *disk)
{
	struct request_queue *q = disk->disk->queue;

	if (!xchg(&disk->written_past, false) || !queue_is_mq(q))
		return;
	blk_mq_freeze_queue(q);
	blk_mq_unfreeze_queue(q);
}

void family_look_for_changes(void)
{
	qdr_for_each_open_disk(wait_for_commands);
}

/* ---- Pages --------------------------------------------------------------------------------------------------------- */

static int no_page(struct block_device *bdev, sector_t sector, struct page *page)
{
	return -EOPNOTSUPP;
}

static void notrace at_page(unsigned long ip, unsigned long parent, struct ftrace_ops *ops, struct ftrace_regs *fregs)
{
	const struct block_device *bdev = family_first_argument(fregs);
	struct qdr_gendisk *disk = qdr_find_disk(bdev->bd_disk);

	if (disk && qdr_is_hooked(disk))
		family_run_instead(fregs, no_page);
}

/* ---- Standing there ------------------------------------------------------------------------------------------------ */

static struct watch watches[] = {
	{.names = {"set_capacity", "set_capacity_and_notify", "set_disk_ro"}, .ops = WATCH_OPS(at_size, 0)},
	{.names = {"bdev_del_partition", "bdev_resize_partition"}, .ops = WATCH_OPS(at_partition, 0)},
	{.names = {"bdev_disk_changed"}, .ops = WATCH_OPS(at_table, 0)},
	{.names = {"blk_execute_rq", "blk_execute_rq_nowait", "blk_insert_cloned_request"}, .ops = WATCH_OPS(at_command, 0)},
	{.names = {"bdev_read_page", "bdev_write_page"}, .ops = WATCH_OPS(at_page, FTRACE_OPS_FL_IPMODIFY)},
};

static void leave(int count)
{
	while (count-- > 0)
		family_leave(&watches[count]);
	synchronize_rcu_tasks();
}

int family_changes_init(void)
{
	int i, result;

	for (i = 0; i < ARRAY_SIZE(watches); i++) {
		result = family_stand(&watches[i]);
		if (result) {
			leave(i);
			return result;
		}
	}
	return 0;
}

void family_changes_exit(void)
{
	leave(ARRAY_SIZE(watches));
}
