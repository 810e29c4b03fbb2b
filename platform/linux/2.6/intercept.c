// SPDX-License-Identifier: GPL-2.0-only
/*
 * Interception: the request function of a hooked queue is one of the glue's, which counts the tasks inside and calls
 * the function that the queue has for the core. An unhooked queue has its own function back and knows nothing of us.
 *
 * The function is called by the task that submits the request, after the request was remapped from a partition to its
 * disk, and may sleep; requests that it submits are collected at current->bio_tail until it returns.
 *
 * To leave: every queue gets its own function back; then wait for tasks that had read the old one and not yet counted
 * themselves, for those counted, and for those on their way out. Where tasks are preempted inside the kernel the first
 * and the last of these cannot be told from others, and are given a moment.
 */
#include "glue.h"

#include <linux/bio.h>
#include <linux/delay.h>
#include <linux/rcupdate.h>
#include <linux/srcu.h>

static struct srcu_struct hooks;

static int hook(struct request_queue *q, struct bio *bio)
{
	int inside = srcu_read_lock(&hooks);
	struct qdr_gendisk *disk = qdr_find_disk(bio->bi_bdev->bd_disk);
	int result;

	/* A barrier without data touches no block, and must not wait for held writes, which nobody has seen completed. */
	if (!bio->bi_size)
		result = disk->original(q, bio);
	else
		result = READ_ONCE(disk->queue.fn)(&disk->queue, bio);
	qdr_may_sleep();
	srcu_read_unlock(&hooks, inside);
	return result;
}

/*
 * The queue's own function. Inside the hook, that is what the caller was about to do. In the worker and in commands there
 * is no list for the requests that a disk sends on to others, which may then go deep.
 */
int qdr_original(struct qdr_request_queue *queue, struct bio *bio)
{
	struct qdr_gendisk *disk = container_of(queue, struct qdr_gendisk, queue);
	int result;

	qdr_may_sleep();
	if (!bio->bi_bdev || test_bit(QUEUE_FLAG_DEAD, &disk->q->queue_flags)) {
		bio_endio(bio, -EIO);
		return 0;
	}
	if (current->bio_tail)
		return disk->original(disk->q, bio);
	current->bio_list = NULL;
	current->bio_tail = &current->bio_list;
	result = disk->original(disk->q, bio);
	bio = current->bio_list;
	current->bio_tail = NULL;
	while (bio) {
		struct bio *next = bio->bi_next;

		bio->bi_next = NULL;
		generic_make_request(bio);
		bio = next;
	}
	return result;
}

/* Under the queue's own lock when it has one, with interrupts off, perhaps from inside the hook. */
void qk_queue_set_make_request_fn(struct qdr_request_queue *queue, qdr_make_request_fn *fn)
{
	struct qdr_gendisk *disk = container_of(queue, struct qdr_gendisk, queue);

	WRITE_ONCE(queue->fn, fn);
	disk->q->make_request_fn = fn == qdr_original ? disk->original : hook;
}

static void give_back(struct qdr_gendisk *disk)
{
	if (disk->q->make_request_fn == hook)
		disk->q->make_request_fn = disk->original;
}

void qdr_wait_for_hooks(void)
{
	qdr_may_sleep();
	synchronize_srcu(&hooks);
}

static void wait_for_tasks_at_the_edges(void)
{
	synchronize_sched();
#ifdef CONFIG_PREEMPT
	msleep(200);
#endif
}

int qdr_intercept_init(void)
{
	return init_srcu_struct(&hooks);
}

void qdr_intercept_exit(void)
{
	qdr_for_each_disk(give_back);
	wait_for_tasks_at_the_edges();
	synchronize_srcu(&hooks);
	wait_for_tasks_at_the_edges();
	cleanup_srcu_struct(&hooks);
}
