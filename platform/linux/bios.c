// SPDX-License-Identifier: GPL-2.0-only
/*
 * Bios: those of others that the interception shows to the core, and the core's own reads.
 *
 * A request of others has been remapped to its whole disk when the core sees it: its sector is absolute, and so the
 * device that it names for the core is the whole disk's. The core's own reads carry absolute sectors as well; they are
 * addressed to the whole disk, so that nothing is remapped. They come from a pool of their own, because the path that needs
 * them is the one that memory is written out through.
 */
#include "glue.h"

#include <linux/bio.h>

static struct qdr_own_bio *own(struct bio *b)
{
	return family_is_own_bio(b) ? container_of(b, struct qdr_own_bio, bio) : NULL;
}

struct bio *qk_bio_alloc(qdr_gfp_type gfp, int vectors)
{
	struct bio *b;

	qdr_may_sleep();
	b = family_own_bio(qdr_gfp(gfp), vectors);
	if (!b)
		return NULL;
	own(b)->end_io = NULL;
	own(b)->bdev = NULL;
	atomic_inc(&qdr_held[QDR_HELD_BIOS]);
	return b;
}

void qk_bio_get(struct bio *b)
{
	atomic_inc(&qdr_held[QDR_HELD_BIOS]);
	bio_get(b);
}

void qk_bio_put(struct bio *b)
{
	atomic_dec(&qdr_held[QDR_HELD_BIOS]);
	bio_put(b);
}

struct qdr_block_device *qk_bio_bdev(struct bio *b)
{
	struct qdr_own_bio *mine = own(b);

	return mine ? mine->bdev : qdr_disk_of(b->bi_bdev->bd_disk)->whole;
}

void qk_bio_set_bdev(struct bio *b, struct qdr_block_device *bdev)
{
	struct block_device *open = qdr_kernel_bdev(bdev);

	own(b)->bdev = bdev;
	b->bi_bdev = open ? family_whole(open) : NULL;
}

u64 qk_bio_sector(struct bio *b)
{
	return family_bio_sector(b);
}

void qk_bio_set_sector(struct bio *b, u64 sector)
{
	family_bio_sector(b) = sector;
}

u32 qk_bio_size(struct bio *b)
{
	return family_bio_size(b);
}

u32 qk_bio_rw(struct bio *b)
{
	return family_bio_rw(b);
}

void qk_bio_set_read(struct bio *b)
{
	family_bio_set_read(b);
}

void qk_bio_set_single_vector(struct bio *b, struct page *p, u32 bytes, u32 offset)
{
	b->bi_io_vec[0].bv_page = p;
	b->bi_io_vec[0].bv_len = bytes;
	b->bi_io_vec[0].bv_offset = offset;
	b->bi_vcnt = 1;
	family_bio_index(b) = 0;
	family_bio_size(b) = bytes;
}

u32 qk_bio_vectors(struct bio *b)
{
	return b->bi_vcnt;
}

void qk_bio_vector(struct bio *b, u32 index, struct page **p, u32 *bytes, u32 *offset)
{
	*p = b->bi_io_vec[index].bv_page;
	*bytes = b->bi_io_vec[index].bv_len;
	*offset = b->bi_io_vec[index].bv_offset;
}

void *qk_bio_private(struct bio *b)
{
	return b->bi_private;
}

void qk_bio_set_private(struct bio *b, void *data)
{
	b->bi_private = data;
}

void qk_bio_set_end_io(struct bio *b, qdr_bio_end_io_fn *fn)
{
	own(b)->end_io = fn;
	b->bi_end_io = family_own_end_io;
}

int qk_bio_uptodate(struct bio *b)
{
	return family_bio_uptodate(b);
}

/* A mark that nothing looks for: the result says it all. */
void qk_bio_set_eopnotsupp(struct bio *b)
{
}

void qk_generic_make_request(struct bio *b)
{
	qdr_may_sleep();
	family_submit(b);
}
