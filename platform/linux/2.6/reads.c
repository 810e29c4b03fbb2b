// SPDX-License-Identifier: GPL-2.0-only
/* The pool of the core's own reads. */
#include "glue.h"

#include <linux/bio.h>

#define POOL_BIOS 64

static struct bio_set *pool;

int qdr_bios_init(void)
{
	pool = bioset_create(POOL_BIOS, offsetof(struct qdr_own_bio, bio));
	return pool ? 0 : -ENOMEM;
}

void qdr_bios_exit(void)
{
	bioset_free(pool);
}

static void free_own(struct bio *b)
{
	bio_free(b, pool);
}

struct bio *family_own_bio(gfp_t gfp, int vectors)
{
	struct bio *b = bio_alloc_bioset(gfp, vectors, pool);

	if (b)
		b->bi_destructor = free_own;
	return b;
}

bool family_is_own_bio(const struct bio *b)
{
	return b->bi_destructor == free_own;
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
