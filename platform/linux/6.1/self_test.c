// SPDX-License-Identifier: GPL-2.0-only
/*
 * Whether the module sees bios, commands and changes of size on this very kernel: asked at load, of two small disks of its
 * own, one with requests and one that takes bios, which nobody else ever sees. What file systems and partitions alone call
 * is not tried.
 *
 * The functions that the module stands in front of are no promise of the kernel's. One that is called no more, or was
 * made part of its callers, would be there to stand in front of, and every write would go by.
 */
#include "glue.h"

#include <linux/bio.h>
#include <linux/blk-mq.h>

#include "tracer.h"

#define SECTORS 8

static struct gendisk *kernel_disk; /* under test */
static struct qdr_gendisk records[2];
static struct qdr_gendisk *record; /* of the disk under test; each is listed once */
static unsigned int seen, arrived; /* bios or requests: by the hook, by the disk */
static struct bio *held;

/* ---- The disks ----------------------------------------------------------------------------------------------------- */

static void take_bio(struct bio *bio)
{
	arrived++;
	bio_endio(bio);
}

static blk_status_t take_request(struct blk_mq_hw_ctx *hctx, const struct blk_mq_queue_data *data)
{
	blk_mq_start_request(data->rq);
	arrived++;
	blk_mq_end_request(data->rq, BLK_STS_OK);
	return BLK_STS_OK;
}

static const struct block_device_operations bio_disk = {.owner = THIS_MODULE, .submit_bio = take_bio};
static const struct block_device_operations request_disk = {.owner = THIS_MODULE};
static const struct blk_mq_ops request_ops = {.queue_rq = take_request};
static struct blk_mq_tag_set tags = {
	.ops = &request_ops,
	.nr_hw_queues = 1,
	.queue_depth = 4,
	.numa_node = NUMA_NO_NODE,
	.flags = BLK_MQ_F_BLOCKING | BLK_MQ_F_NO_SCHED,
};

/* ---- What must happen ---------------------------------------------------------------------------------------------- */

static int hold(struct qdr_request_queue *q, struct bio *bio)
{
	seen++;
	held = bio;
	return 0;
}

static int submit(struct page *page)
{
	struct bio *bio = bio_alloc(kernel_disk->part0, 1, REQ_OP_WRITE | REQ_SYNC, GFP_KERNEL);
	int result;

	__bio_add_page(bio, page, 512, 0);
	result = submit_bio_wait(bio);
	bio_put(bio);
	return result;
}

static void count_end(struct bio *bio)
{
	complete(bio->bi_private);
}

/* A hooked write is seen once, does not reach the disk while it is held, and does once it is let go. */
static const char *test_write(struct page *page)
{
	struct bio *bio;
	DECLARE_COMPLETION_ONSTACK(done);

	seen = arrived = 0;
	held = NULL;
	record->queue.fn = qdr_original;
	if (submit(page) || arrived != 1)
		return "a write to a disk that is not hooked did not arrive";
	record->queue.fn = hold;
	bio = bio_alloc(kernel_disk->part0, 1, REQ_OP_WRITE | REQ_SYNC, GFP_KERNEL);
	__bio_add_page(bio, page, 512, 0);
	bio->bi_private = &done;
	bio->bi_end_io = count_end;
	submit_bio(bio);
	if (seen != 1 || held != bio || arrived != 1) {
		if (held == bio)
			qdr_submit(bio);
		wait_for_completion(&done);
		bio_put(bio);
		return "a write was not held";
	}
	qdr_submit(bio);
	wait_for_completion(&done);
	bio_put(bio);
	if (seen != 1 || arrived != 2)
		return "a held write did not go on to its disk";
	return NULL;
}

static bool noted(void)
{
	return xchg(&record->changed, NULL);
}

static const char *test_changes(void)
{
	noted();
	set_capacity(kernel_disk, SECTORS);
	if (!noted())
		return "a new size was not noted";
	set_capacity_and_notify(kernel_disk, SECTORS);
	if (!noted())
		return "a new size was not noted where it is told to others";
	set_disk_ro(kernel_disk, false);
	if (!noted())
		return "the end of a change of tables was not noted";
	mutex_lock(&kernel_disk->open_mutex);
	bdev_disk_changed(kernel_disk, false);
	mutex_unlock(&kernel_disk->open_mutex);
	if (!noted())
		return "partitions read anew were not noted";
	return NULL;
}

static const char *test_command(void)
{
	struct request *rq = blk_mq_alloc_request(kernel_disk->queue, REQ_OP_DRV_OUT, 0);

	if (IS_ERR(rq))
		return "there was no memory";
	record->written_past = false;
	blk_execute_rq(rq, false);
	blk_mq_free_request(rq);
	return record->written_past && noted() ? NULL : "a command was not noted";
}

/* ---- At load ------------------------------------------------------------------------------------------------------- */

/* The disk is put. */
static const char *test_disk(struct gendisk *disk, const struct block_device_operations *ops)
{
	struct page *page = alloc_page(GFP_KERNEL | __GFP_ZERO);
	const char *wrong = "there was no memory";

	if (!page)
		goto out;
	kernel_disk = disk;
	disk->fops = ops;
	strscpy(disk->disk_name, "quendrel", sizeof(disk->disk_name));
	set_capacity(disk, SECTORS);
	record = &records[ops == &request_disk];
	record->disk = disk;
	record->queue.fn = qdr_original;
	family_adopt(record);
	qdr_list_disk(record);
	wrong = test_write(page);
	if (!wrong)
		wrong = test_changes();
	if (!wrong && ops == &request_disk)
		wrong = test_command();
	qdr_unlist_disk(record);
	/* Its requests' timer; the kernel does this only for disks that others could see. */
	blk_sync_queue(disk->queue);
	__free_page(page);
out:
	put_disk(disk);
	return wrong;
}

static const char *test_bios(void)
{
	struct gendisk *disk = blk_alloc_disk(NUMA_NO_NODE);

	return disk ? test_disk(disk, &bio_disk) : "there was no memory";
}

static const char *test_requests(void)
{
	const char *wrong = "there was no memory";
	struct gendisk *disk;

	if (blk_mq_alloc_tag_set(&tags))
		return wrong;
	disk = blk_mq_alloc_disk(&tags, NULL);
	if (!IS_ERR(disk))
		wrong = test_disk(disk, &request_disk);
	blk_mq_free_tag_set(&tags);
	return wrong;
}

int family_self_test(void)
{
	const char *wrong = test_bios();

	if (!wrong)
		wrong = test_requests();
	if (!wrong)
		return 0;
	pr_err("quendrel: it does not work on this kernel, and is not loaded: of a disk of its own %s\n", wrong);
	return -ENODEV;
}
