/*
 * Bios: those of others that the hook shows to the core, and the core's own reads.
 *
 * A request of others has been remapped to its whole disk when the core sees it. The core's own reads carry absolute
 * sectors as well; they are given to the whole disk and go past the remapping. They come from a pool of their own,
 * because the path that needs them is the one that memory is written out through.
 */
#include "glue.h"

#include <linux/bio.h>

#define POOL_BIOS 64

struct own_bio {
	qdr_bio_end_io_fn *end_io;
	struct qdr_block_device *bdev;
	struct bio bio; /* last: its vector follows */
};

static struct bio_set *pool;

int qdr_bios_init(void)
{
	pool = bioset_create(POOL_BIOS, offsetof(struct own_bio, bio));
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

bool qdr_is_own_bio(const struct bio *b)
{
	return b->bi_destructor == free_own;
}

static struct own_bio *own(struct bio *b)
{
	return qdr_is_own_bio(b) ? container_of(b, struct own_bio, bio) : NULL;
}

struct bio *qk_bio_alloc(qdr_gfp_type gfp, int vectors)
{
	struct bio *b;

	qdr_may_sleep();
	b = bio_alloc_bioset(qdr_gfp(gfp), vectors, pool);
	if (!b)
		return NULL;
	b->bi_destructor = free_own;
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
	b->bi_bdev = open ? open->bd_contains : NULL;
}

u64 qk_bio_sector(struct bio *b)
{
	return b->bi_sector;
}

void qk_bio_set_sector(struct bio *b, u64 sector)
{
	b->bi_sector = sector;
}

u32 qk_bio_size(struct bio *b)
{
	return b->bi_size;
}

/* A discard says that it reads, and changes data. */
u32 qk_bio_rw(struct bio *b)
{
	return bio_discard(b) ? 1 : b->bi_rw & 3;
}

void qk_bio_set_read(struct bio *b)
{
	b->bi_rw = READ;
}

void qk_bio_set_single_vector(struct bio *b, struct page *p, u32 bytes, u32 offset)
{
	b->bi_io_vec[0].bv_page = p;
	b->bi_io_vec[0].bv_len = bytes;
	b->bi_io_vec[0].bv_offset = offset;
	b->bi_vcnt = 1;
	b->bi_idx = 0;
	b->bi_size = bytes;
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

static void own_end_io(struct bio *b, int error)
{
	own(b)->end_io(b, error);
}

void qk_bio_set_end_io(struct bio *b, qdr_bio_end_io_fn *fn)
{
	own(b)->end_io = fn;
	b->bi_end_io = own_end_io;
}

int qk_bio_uptodate(struct bio *b)
{
	return test_bit(BIO_UPTODATE, &b->bi_flags);
}

void qk_bio_set_eopnotsupp(struct bio *b)
{
	set_bit(BIO_EOPNOTSUPP, &b->bi_flags);
}

void qk_generic_make_request(struct bio *b)
{
	qdr_may_sleep();
	generic_make_request(b);
}

/* A queue collects requests for a while before it sends them; somebody waits for this one. */
void qdr_start_reads(struct qdr_block_device *bdev)
{
	struct block_device *open = bdev ? qdr_kernel_bdev(bdev) : NULL;

	if (open)
		blk_run_backing_dev(&bdev_get_queue(open)->backing_dev_info, NULL);
}
