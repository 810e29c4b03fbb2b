// SPDX-License-Identifier: GPL-2.0-only
/*
 * Interception: every bio for a hooked disk goes to the function that its queue has for the core.
 *
 * Kernels of today have no request function to replace, so the two functions through which all bios reach a disk are
 * redirected at their first instruction, by the function tracer, as live patches are: blk_mq_submit_bio for disks with
 * request queues, __submit_bio for those that take bios themselves (device mapper, RAM disks). The redirection stands
 * from load to unload; a disk is hooked or not by what its queue's function is, a plain pointer that can be stored with
 * interrupts off and from inside a hook. For all other disks the callback looks and lets the call go on.
 *
 * The functions are called from tasks that may sleep, with a list of bios to submit later at current->bio_list. The
 * core's own reads are let through, and so is what the disk cuts off from one.
 *
 * Tasks inside a hook are counted by hooks (SRCU). To leave: unregister, wait for tasks between the redirection and the
 * count, for those counted, and for those between the count and their return.
 */
#include "glue.h"

#include <linux/bio.h>
#include <linux/rcupdate.h>
#include <linux/srcu.h>
#include <linux/static_call.h>

#include "tracer.h"

DEFINE_STATIC_SRCU(hooks);

static void redirect(unsigned long ip, unsigned long parent, struct ftrace_ops *ops, struct ftrace_regs *fregs);

static struct watch requests = {.names = {"blk_mq_submit_bio"}, .ops = WATCH_OPS(redirect, FTRACE_OPS_FL_IPMODIFY)};
static struct watch bios = {.names = {"__submit_bio"}, .ops = WATCH_OPS(redirect, FTRACE_OPS_FL_IPMODIFY)};

/*
 * What the two functions do, from behind the tracer's place on, where there is no detour. They are called directly, by
 * calls that are patched once the places are known: where the processor lets calls by pointer arrive at marked places
 * only, one into the middle of a function would trap, and so might one to its beginning.
 */
static void no_body(struct bio *bio)
{
	bio_io_error(bio);
}
DEFINE_STATIC_CALL(request_body, no_body);
DEFINE_STATIC_CALL(bio_body, no_body);

static bool takes_bios(const struct gendisk *disk)
{
	return disk->fops->submit_bio;
}

static bool is_hooked(const struct gendisk *kernel_disk)
{
	struct qdr_gendisk *disk = qdr_find_disk(kernel_disk);

	return disk && qdr_is_hooked(disk);
}

static void intercepted(struct bio *bio);

/* ---- To the disk --------------------------------------------------------------------------------------------------- */

static void submit_original(struct bio *bio)
{
	if (takes_bios(bio->bi_bdev->bd_disk))
		static_call(bio_body)(bio);
	else
		static_call(request_body)(bio);
}

/*
 * For one bio of the list that the kernel has while it goes down a stack of disks: what was cut off from a bio that
 * `given` got already is part of that bio; all else meets the hooks that it would have met.
 */
static void pass_on(struct bio *bio, const struct gendisk *given)
{
	const struct gendisk *kernel_disk = bio->bi_bdev->bd_disk;

	if (kernel_disk == given || qdr_is_own_read(bio))
		submit_original(bio);
	else if (is_hooked(kernel_disk) && takes_bios(kernel_disk))
		intercepted(bio);
	else
		static_call(bio_body)(bio); /* comes by the other hook if the disk has requests */
}

/*
 * Inside a hook this is what the caller was about to do, and he has a list of what the disk sends on to others or cuts
 * off and sends again. The worker has none, nor would anybody try again or poll there. What comes back to the same disk
 * must not meet the hook again: the worker would wait there for a close, which waits for the worker.
 *
 * The order is the kernel's own, disks further down first, without which the disks' pools of bios could run dry.
 */
void qdr_submit(struct bio *bio)
{
	const struct gendisk *given = bio->bi_bdev->bd_disk;
	struct bio_list lists[2];

	if (test_bit(GD_DEAD, &given->state)) {
		bio_io_error(bio);
		return;
	}
	if (current->bio_list) {
		submit_original(bio);
		return;
	}
	bio->bi_opf &= ~(REQ_NOWAIT | REQ_POLLED);
	bio_list_init(&lists[0]);
	current->bio_list = lists;
	do {
		const struct request_queue *q = bdev_get_queue(bio->bi_bdev);
		struct bio_list lower, same;

		lists[1] = lists[0];
		bio_list_init(&lists[0]);
		pass_on(bio, given);
		bio_list_init(&lower);
		bio_list_init(&same);
		while ((bio = bio_list_pop(&lists[0])))
			bio_list_add(q == bdev_get_queue(bio->bi_bdev) ? &same : &lower, bio);
		bio_list_merge(&lists[0], &lower);
		bio_list_merge(&lists[0], &same);
		bio_list_merge(&lists[0], &lists[1]);
	} while ((bio = bio_list_pop(&lists[0])));
	current->bio_list = NULL;
}

/* ---- The hook ------------------------------------------------------------------------------------------------------ */

/* In the place of both functions, for a disk that was hooked a moment ago. */
static void intercepted(struct bio *bio)
{
	struct qdr_gendisk *disk = qdr_disk_of(bio->bi_bdev->bd_disk);
	int inside = srcu_read_lock(&hooks);

	if (!bio_sectors(bio)) {
		/* A flush touches no block, and must not wait for held writes, which nobody has seen completed. */
		submit_original(bio);
	} else if ((bio = bio_split_to_limits(bio))) {
		/* Cut to what the disk takes now, since what is cut off later would be seen again. */
		if (READ_ONCE(disk->queue.fn)(&disk->queue, bio))
			submit_bio_noacct(bio);
	}
	qdr_may_sleep();
	srcu_read_unlock(&hooks, inside);
}

static void notrace redirect(unsigned long ip, unsigned long parent, struct ftrace_ops *ops, struct ftrace_regs *fregs)
{
	const struct bio *bio = family_first_argument(fregs);
	const struct gendisk *kernel_disk = bio->bi_bdev->bd_disk;

	if (takes_bios(kernel_disk) == (ops == &bios.ops) && !qdr_is_own_read(bio) && is_hooked(kernel_disk))
		family_run_instead(fregs, intercepted);
}

void qdr_wait_for_hooks(void)
{
	qdr_may_sleep();
	synchronize_srcu(&hooks);
}

/* ---- Standing in the way, and leaving ------------------------------------------------------------------------------ */

int qdr_intercept_init(void)
{
	int result = family_stand(&requests);

	if (result)
		return result;
	result = family_stand(&bios);
	if (result)
		goto no_bios;
	static_call_update(request_body, (void (*)(struct bio *))(requests.places[0] + MCOUNT_INSN_SIZE));
	static_call_update(bio_body, (void (*)(struct bio *))(bios.places[0] + MCOUNT_INSN_SIZE));
	return 0;
no_bios:
	family_leave(&requests);
	synchronize_rcu_tasks();
	return result;
}

void qdr_intercept_exit(void)
{
	family_leave(&requests);
	family_leave(&bios);
	synchronize_rcu_tasks();
	synchronize_srcu(&hooks);
	synchronize_rcu_tasks();
}
