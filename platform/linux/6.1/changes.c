// SPDX-License-Identifier: GPL-2.0-only
/*
 * Changes of disks that no bio shows, seen where the kernel makes them.
 *
 *   Another table or size    a mapped device gets another table, an md array is stopped, started or reshaped, a loop
 *                            device gets another part of its file: all of them set the disk's size, while it takes no
 *                            requests; a mapped device does so before the change, and behind it sets whether it can be
 *                            written to.
 *   Partitions               that are added, removed, resized, or read anew from the disk.
 *   Commands                 that are sent to the disk as they are (SG_IO and the like), and requests that a device with
 *                            several paths hands to one of its paths. They may still be under way when they are noted, so
 *                            before a point in time is taken the disk is waited for. Those that reach a disk by way of
 *                            one above it are noted, too, but not waited for.
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
	note(family_first_argument(fregs), "had a partition added, removed or resized");
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

/* By its code alone: the direction of its data is what the caller says. */
static bool is_harmless_scsi(const u8 *command)
{
	switch (command[0]) {
	case TEST_UNIT_READY:
	case REQUEST_SENSE:
	case READ_6:
	case INQUIRY:
	case MODE_SENSE:
	case START_STOP:
	case RECEIVE_DIAGNOSTIC:
	case ALLOW_MEDIUM_REMOVAL:
	case READ_CAPACITY:
	case READ_10:
	case VERIFY:
	case PRE_FETCH:
	case SYNCHRONIZE_CACHE:
	case READ_DEFECT_DATA:
	case READ_BUFFER:
	case READ_TOC:
	case 0x46: /* get configuration */
	case GET_EVENT_STATUS_NOTIFICATION:
	case LOG_SENSE:
	case 0x51: /* read disc information */
	case MODE_SENSE_10:
	case PERSISTENT_RESERVE_IN:
	case PERSISTENT_RESERVE_OUT:
	case READ_16:
	case VERIFY_16:
	case 0x90: /* pre-fetch */
	case 0x91: /* synchronize cache */
	case 0x95: /* report zones */
	case SERVICE_ACTION_IN_16:
	case REPORT_LUNS:
	case SECURITY_PROTOCOL_IN:
	case MAINTENANCE_IN:
	case MAINTENANCE_OUT: /* the paths to the disk, what it is called */
	case READ_12:
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
	if (is_scsi(disk->major))
		return !is_harmless_scsi(((struct scsi_cmnd *)blk_mq_rq_to_pdu(rq))->cmnd);
	return req_op(rq) != REQ_OP_DRV_IN || !blk_rq_bytes(rq);
}

#define BY_COMMAND "was sent a command past the kernel's file systems"

static void note_if_above(struct qdr_gendisk *disk)
{
	if (disk->takes_bios && qdr_is_hooked(disk))
		qdr_disk_changed(disk, BY_COMMAND);
}

static void notrace at_command(unsigned long ip, unsigned long parent, struct ftrace_ops *ops, struct ftrace_regs *fregs)
{
	struct request *rq = family_first_argument(fregs);
	const struct gendisk *kernel_disk;
	struct qdr_gendisk *disk;

	/* The request keeps the queue, which loses its disk in the end; the disk's record then stays for a grace period. */
	rcu_read_lock();
	kernel_disk = READ_ONCE(rq->q->disk);
	if (kernel_disk && may_change_disk(rq, kernel_disk)) {
		disk = qdr_find_disk(kernel_disk);
		if (disk) {
			WRITE_ONCE(disk->written_past, true);
			qdr_disk_changed(disk, BY_COMMAND);
		} else if (blk_rq_is_passthrough(rq)) {
			/* Perhaps by way of a disk above, such as a mapped device or an NVMe disk with several paths. */
			qdr_for_each_disk(note_if_above);
		}
	}
	rcu_read_unlock();
}

/*
 * A disk that has just been met may have been sent something before. Commands may take hours, and what is sent to the disk
 * waits with us.
 */
bool family_wait_for_changes(struct qdr_gendisk *disk, dev_t real)
{
	struct block_device *bdev;
	bool over = true;

	if (disk->takes_bios || !READ_ONCE(disk->written_past))
		return true;
	/* One of our own, so that the disk stays. */
	bdev = family_open(real);
	if (!bdev)
		return true;
	if (family_is_disk(disk, bdev->bd_disk)) {
		struct request_queue *q = bdev_get_queue(bdev);

		WRITE_ONCE(disk->written_past, false);
		blk_freeze_queue_start(q);
		over = blk_mq_freeze_queue_wait_timeout(q, 5 * HZ) > 0;
		blk_mq_unfreeze_queue(q);
		if (!over)
			WRITE_ONCE(disk->written_past, true);
	}
	family_close(bdev);
	return over;
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
	{.names = {"bdev_add_partition", "bdev_del_partition", "bdev_resize_partition"}, .ops = WATCH_OPS(at_partition, 0)},
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
