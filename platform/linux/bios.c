/*
 * Bios: those of others that the interception shows to the core, and the core's own reads.
 *
 * A request of others has been remapped to its whole disk when the core sees it: its sector is absolute, and so the
 * device that it names for the core is the whole disk's. The core's own reads carry absolute sectors as well; they are
 * given to the whole disk and go past the remapping. They come from a pool of their own, because the path that needs
 * them is the one that memory is written out through.
 */
#include "glue.h"

#include <linux/bio.h>

#define POOL_BIOS 64

struct own_bio {
	qdr_bio_end_io_fn *end_io;
	struct qdr_block_device *bdev;
	struct bio bio; /* last: its vector follows */
};

static struct bio_set pool;

int qdr_bios_init(void)
{
	return bioset_init(&pool, POOL_BIOS, offsetof(struct own_bio, bio), BIOSET_NEED_BVECS);
}

void qdr_bios_exit(void)
{
	bioset_exit(&pool);
}

static struct own_bio *own(struct bio *b)
{
	return b->bi_pool == &pool ? container_of(b, struct own_bio, bio) : NULL;
}

struct bio *qk_bio_alloc(qdr_gfp_type gfp, int vectors)
{
	struct bio *b;

	qdr_may_sleep();
	b = bio_alloc_bioset(NULL, vectors, REQ_OP_READ, qdr_gfp(gfp), &pool);
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
	struct own_bio *mine = own(b);

	return mine ? mine->bdev : qdr_find_disk(b->bi_bdev->bd_disk)->whole;
}

void qk_bio_set_bdev(struct bio *b, struct qdr_block_device *bdev)
{
	struct block_device *open = qdr_kernel_bdev(bdev);

	own(b)->bdev = bdev;
	if (open)
		bio_set_dev(b, bdev_whole(open));
}

u64 qk_bio_sector(struct bio *b)
{
	return b->bi_iter.bi_sector;
}

void qk_bio_set_sector(struct bio *b, u64 sector)
{
	b->bi_iter.bi_sector = sector;
}

u32 qk_bio_size(struct bio *b)
{
	return b->bi_iter.bi_size;
}

u32 qk_bio_rw(struct bio *b)
{
	if (op_is_write(bio_op(b)))
		return 1;
	return b->bi_opf & REQ_RAHEAD ? 2 : 0;
}

void qk_bio_set_read(struct bio *b)
{
	b->bi_opf = REQ_OP_READ;
}

void qk_bio_set_single_vector(struct bio *b, struct page *p, u32 bytes, u32 offset)
{
	b->bi_io_vec[0].bv_page = p;
	b->bi_io_vec[0].bv_len = bytes;
	b->bi_io_vec[0].bv_offset = offset;
	b->bi_vcnt = 1;
	b->bi_iter.bi_idx = 0;
	b->bi_iter.bi_bvec_done = 0;
	b->bi_iter.bi_size = bytes;
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

static void own_end_io(struct bio *b)
{
	own(b)->end_io(b, blk_status_to_errno(b->bi_status));
}

void qk_bio_set_end_io(struct bio *b, qdr_bio_end_io_fn *fn)
{
	own(b)->end_io = fn;
	b->bi_end_io = own_end_io;
}

int qk_bio_uptodate(struct bio *b)
{
	return !b->bi_status;
}

/* A mark that nothing of this kernel looks for; the status says it all. */
void qk_bio_set_eopnotsupp(struct bio *b)
{
}

void qk_generic_make_request(struct bio *b)
{
	qdr_may_sleep();
	submit_bio_noacct(b);
}
