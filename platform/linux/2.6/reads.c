// SPDX-License-Identifier: GPL-2.0-only
/*
 * The pools of the core's own reads. The worker has one of its own, because writes wait for its reads: with one of them
 * always to be had they never wait for those of a command.
 */
#include "glue.h"

#include <linux/bio.h>

#define COMMANDS_BIOS 64
#define WORKERS_BIOS 2

static struct bio_set *commands, *worker;

int qdr_bios_init(void)
{
	commands = bioset_create(COMMANDS_BIOS, offsetof(struct qdr_own_bio, bio));
	if (!commands)
		return -ENOMEM;
	worker = bioset_create(WORKERS_BIOS, offsetof(struct qdr_own_bio, bio));
	if (worker)
		return 0;
	bioset_free(commands);
	return -ENOMEM;
}

void qdr_bios_exit(void)
{
	bioset_free(worker);
	bioset_free(commands);
}

static void free_commands(struct bio *b)
{
	bio_free(b, commands);
}

static void free_workers(struct bio *b)
{
	bio_free(b, worker);
}

struct bio *family_own_bio(gfp_t gfp, int vectors)
{
	bool workers = !qdr_current_call();
	struct bio *b = bio_alloc_bioset(gfp, vectors, workers ? worker : commands);

	if (b)
		b->bi_destructor = workers ? free_workers : free_commands;
	return b;
}

bool family_is_own_bio(const struct bio *b)
{
	return b->bi_destructor == free_commands || b->bi_destructor == free_workers;
}

void family_own_end_io(struct bio *b, int error)
{
	container_of(b, struct qdr_own_bio, bio)->end_io(b, error);
}

/* A queue collects requests for a while before it sends them; somebody waits for this one. */
void qdr_start_reads(struct qdr_block_device *bdev)
{
	struct block_device *open = bdev ? qdr_kernel_bdev(bdev) : NULL;

	if (open)
		blk_run_backing_dev(&bdev_get_queue(open)->backing_dev_info, NULL);
}
