// SPDX-License-Identifier: GPL-2.0-only
/*
 * Interception: the request function of a hooked queue is one of the glue's, which counts the tasks inside and calls
 * the function that the queue has for the core. An unhooked queue has its own function back and knows nothing of us.
 *
 * The function is called by the task that submits the request, after the request was remapped from a partition to its
 * disk, and may sleep; requests that it submits are collected at current->bio_tail until it returns.
 *
 * A queue's own function is whatever it had when it was hooked last: md sets one whenever an array is put together or
 * stopped, and loop with each file. That takes the hook away, too, and nobody sees what is written then.
 *
 * To leave: every queue gets its own function back; then wait for tasks that had read the old one and not yet counted
 * themselves, for those counted, and for those on their way out.
 */
#include "glue.h"

#include <linux/bio.h>
#include <linux/delay.h>
#include <linux/srcu.h>
#include <linux/stop_machine.h>

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

/* Some disks rely on nobody's reading behind their end. */
static bool can_be_sent(const struct qdr_gendisk *disk, const struct bio *bio)
{
	if (!bio->bi_bdev || test_bit(QUEUE_FLAG_DEAD, &disk->q->queue_flags))
		return false;
	return !family_is_own_bio(bio) || bio->bi_sector + bio_sectors(bio) <= get_capacity(bio->bi_bdev->bd_disk);
}

/*
 * The queue's own function. Inside the hook, that is what the caller was about to do. In the worker and in commands there
 * is no list for the requests that a disk sends on to others, which may then go deep. What an array cuts a request into it
 * sends to itself, and that must not meet the hook again: the worker would wait there for a close, which waits for the
 * worker. An array cuts in two and no further.
 */
int qdr_original(struct qdr_request_queue *queue, struct bio *bio)
{
	struct qdr_gendisk *disk = container_of(queue, struct qdr_gendisk, queue);
	int result;

	qdr_may_sleep();
	if (!can_be_sent(disk, bio)) {
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
		if (bdev_get_queue(bio->bi_bdev) != disk->q || qdr_original(queue, bio))
			generic_make_request(bio);
		bio = next;
	}
	return result;
}

/* What the queue has now is its own; another's store in between is not lost. */
static void take(struct qdr_gendisk *disk)
{
	int (*own)(struct request_queue *, struct bio *);

	do {
		own = READ_ONCE(disk->q->make_request_fn);
		if (own == hook)
			return;
		WRITE_ONCE(disk->original, own);
	} while (cmpxchg(&disk->q->make_request_fn, own, hook) != own);
}

/* A function that the queue was given over the hook stays. */
static void give_back(struct qdr_gendisk *disk)
{
	(void)cmpxchg(&disk->q->make_request_fn, hook, disk->original);
}

/* With interrupts off, perhaps from inside the hook. */
void qk_queue_set_make_request_fn(struct qdr_request_queue *queue, qdr_make_request_fn *fn)
{
	struct qdr_gendisk *disk = container_of(queue, struct qdr_gendisk, queue);

	if (fn != qdr_original)
		take(disk);
	WRITE_ONCE(queue->fn, fn);
	if (fn == qdr_original)
		give_back(disk);
}

/* Its driver has taken the hook away, so it may have other contents now, and was written to unseen. */
static void note_if_lost(struct qdr_gendisk *disk)
{
	if (qdr_is_hooked(disk) && READ_ONCE(disk->q->make_request_fn) != hook)
		qdr_disk_changed(disk, "was given another request function");
}

/* The disk of a backup that has started keeps its function. */
void family_look_for_changes(void)
{
	qdr_for_each_disk(note_if_lost);
}

void qdr_wait_for_hooks(void)
{
	qdr_may_sleep();
	synchronize_srcu(&hooks);
}

/*
 * Whether a task may be inside the hook without being counted: it has yet to count itself, or has done it already.
 *
 * There a task never sleeps, so it runs or was preempted, and with the machine stopped it was preempted: it is on a run
 * queue, and all that its processor's registers held is on its stack. Before its count, that is the hook's address, read
 * from the queue, or an address inside the hook; after it, an address inside the hook or of where that was called from
 * here. So a task with no word on its stack that points to the module's code is not there. One that has such a word left
 * from before is waited for without need, until it sleeps or writes something else there.
 */
static bool may_be_at_an_edge(struct task_struct *task)
{
	unsigned long *word = (unsigned long *)task->thread.sp;
	unsigned long *end = task_stack_page(task) + THREAD_SIZE;

	if (!task->se.on_rq)
		return false;
	for (; word < end; word++)
		if (*word - (unsigned long)THIS_MODULE->module_core < THIS_MODULE->core_text_size)
			return true;
	return false;
}

/* While nothing else runs on any processor, so the list of tasks and the run queues stay as they are. */
static int look_for_tasks_at_the_edges(void *unloader)
{
	struct task_struct *group, *task;

	/* The task that unloads and the one that this runs in are inside the module, and not by way of the hook. */
	do_each_thread(group, task) {
		if (task != unloader && task != current && may_be_at_an_edge(task))
			return -EAGAIN;
	} while_each_thread(group, task);
	return 0;
}

/* Also waits when the machine could not be stopped. */
static void wait_for_tasks_at_the_edges(void)
{
	while (stop_machine(look_for_tasks_at_the_edges, current, NULL))
		msleep(10);
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
