// SPDX-License-Identifier: GPL-2.0-only
/*
 * The pools of the core's own reads, and how a run of them is sent.
 *
 * The worker has a pool of its own, because writes wait for its reads: with one of them always to be had they never wait
 * for memory, nor for the reads of a command.
 *
 * A command that reads a run of blocks sends a bio for each. Those that follow each other on the disk are gathered and
 * sent as one, the carrier, which costs the disk and the block layer a fraction; they are sent when the next one does
 * not follow, when the carrier is full, and before the command waits for any of them. Should the carrier fail, each is
 * sent again by itself, so that only what cannot be read fails.
 */
#include "glue.h"

#include <linux/bio.h>
#include <linux/workqueue.h>

#define COMMANDS_BIOS 64
#define WORKERS_BIOS 2
#define POOL_CARRIERS 4

struct carrier {
	struct work_struct retry;
	struct bio *carried; /* linked by bi_next */
	struct bio bio;
};

static struct bio_set commands;
static struct bio_set worker;
static struct bio_set carriers;
static struct workqueue_struct *retries;

int qdr_bios_init(void)
{
	int result = bioset_init(&commands, COMMANDS_BIOS, offsetof(struct qdr_own_bio, bio), BIOSET_NEED_BVECS);

	if (result)
		return result;
	result = bioset_init(&worker, WORKERS_BIOS, offsetof(struct qdr_own_bio, bio), BIOSET_NEED_BVECS);
	if (result)
		goto no_worker;
	result = bioset_init(&carriers, POOL_CARRIERS, offsetof(struct carrier, bio), BIOSET_NEED_BVECS);
	if (result)
		goto no_carriers;
	retries = alloc_workqueue("quendrel_retry", WQ_MEM_RECLAIM, 0);
	if (retries)
		return 0;
	result = -ENOMEM;
	bioset_exit(&carriers);
no_carriers:
	bioset_exit(&worker);
no_worker:
	bioset_exit(&commands);
	return result;
}

void qdr_bios_exit(void)
{
	destroy_workqueue(retries);
	bioset_exit(&carriers);
	bioset_exit(&worker);
	bioset_exit(&commands);
}

struct bio *family_own_bio(gfp_t gfp, int vectors)
{
	return bio_alloc_bioset(NULL, vectors, REQ_OP_READ, gfp, qdr_current_call() ? &commands : &worker);
}

bool family_is_own_bio(const struct bio *b)
{
	return b->bi_pool == &commands || b->bi_pool == &worker;
}

void family_own_end_io(struct bio *b)
{
	container_of(b, struct qdr_own_bio, bio)->end_io(b, blk_status_to_errno(b->bi_status));
}

bool qdr_is_own_read(const struct bio *b)
{
	return family_is_own_bio(b) || b->bi_pool == &carriers;
}

/*
 * By the block layer's front door, past nothing but the hook: it looks whether the disk has these sectors, on which some
 * disks rely, and makes a caller wait who may read only so much in so long.
 */
static void send_alone(struct bio *b)
{
	bio_associate_blkg(b);
	submit_bio_noacct(b);
}

static void retry(struct work_struct *work)
{
	struct carrier *carrier = container_of(work, struct carrier, retry);
	struct bio *b = carrier->carried;

	while (b) {
		struct bio *next = b->bi_next;

		b->bi_next = NULL;
		send_alone(b);
		b = next;
	}
	bio_put(&carrier->bio);
	atomic_dec(&qdr_held[QDR_HELD_BIOS]);
}

static void carrier_end_io(struct bio *c)
{
	struct carrier *carrier = container_of(c, struct carrier, bio);
	struct bio *b = carrier->carried;

	if (c->bi_status) {
		queue_work(retries, &carrier->retry);
		return;
	}
	while (b) {
		struct bio *next = b->bi_next;

		b->bi_next = NULL;
		bio_endio(b);
		b = next;
	}
	bio_put(c);
	atomic_dec(&qdr_held[QDR_HELD_BIOS]);
}

static void send_carried(struct qdr_call *call)
{
	struct bio *first = call->gathered, *b;
	struct bio *c = bio_alloc_bioset(first->bi_bdev, call->gathered_count, REQ_OP_READ, GFP_NOIO, &carriers);
	struct carrier *carrier = container_of(c, struct carrier, bio);

	atomic_inc(&qdr_held[QDR_HELD_BIOS]);
	INIT_WORK(&carrier->retry, retry);
	carrier->carried = first;
	c->bi_iter.bi_sector = first->bi_iter.bi_sector;
	c->bi_end_io = carrier_end_io;
	for (b = first; b; b = b->bi_next)
		__bio_add_page(c, b->bi_io_vec[0].bv_page, b->bi_io_vec[0].bv_len, b->bi_io_vec[0].bv_offset);
	submit_bio_noacct(c);
}

static void send_gathered(struct qdr_call *call)
{
	if (!call || !call->gathered)
		return;
	if (call->gathered_count == 1)
		send_alone(call->gathered);
	else
		send_carried(call);
	call->gathered = NULL;
	call->gathered_count = 0;
}

void qdr_start_reads(struct qdr_block_device *bdev)
{
	send_gathered(qdr_current_call());
}

static bool follows(const struct qdr_call *call, const struct bio *b)
{
	const struct bio *last = call->last_gathered;
	const struct request_queue *q = bdev_get_queue(b->bi_bdev);
	sector_t first_sector = call->gathered->bi_iter.bi_sector;

	return b->bi_bdev == last->bi_bdev && b->bi_iter.bi_sector == bio_end_sector((struct bio *)last) &&
	       bio_end_sector((struct bio *)b) - first_sector <= queue_max_sectors(q) &&
	       call->gathered_count < min_t(unsigned int, queue_max_segments(q), BIO_MAX_VECS);
}

/* Takes a read of the core's own out of a command that reads a run. False: to be sent now. */
static bool gather(struct qdr_call *call, struct bio *b)
{
	if (!call || !call->gathers)
		return false;
	if (call->gathered && !follows(call, b))
		send_gathered(call);
	b->bi_next = NULL;
	if (call->gathered)
		call->last_gathered->bi_next = b;
	else
		call->gathered = b;
	call->last_gathered = b;
	call->gathered_count++;
	return true;
}

/*
 * A queue's own function. A disk whose medium has been changed is not the one that the backup is of: of the new one
 * nothing is read.
 */
int qdr_original(struct qdr_request_queue *q, struct bio *b)
{
	struct qdr_gendisk *disk = container_of(q, struct qdr_gendisk, queue);

	qdr_may_sleep();
	if (!family_is_own_bio(b))
		qdr_submit(b);
	else if (!b->bi_bdev || !family_is_disk(disk, b->bi_bdev->bd_disk))
		bio_io_error(b);
	else if (!gather(qdr_current_call(), b))
		send_alone(b);
	return 0;
}
