// SPDX-License-Identifier: GPL-2.0-only
/*
 * Buffer heads: the target of one read, and a lock that its completion opens.
 *
 * The completion unlocks the buffer before it drops its reference, while whoever waited for the lock may free the
 * buffer at once; so freeing waits until the completion is through as well.
 */
#include "glue.h"

#include <linux/mempool.h>

enum { LOCKED, REQ, MAPPED, UPTODATE, COMPLETING };

struct qdr_buffer_head {
	unsigned long state;
	bool workers; /* of its pool */
	atomic_t count;
	struct qdr_block_device *bdev;
	u64 block;
	u32 bytes;
	u32 offset;
	struct page *page;
	qdr_bh_end_io_fn *end_io;
};

static struct kmem_cache *cache;
/* For the worker, whom writes wait for: it has one at a time, so there always is one. */
static mempool_t *worker;

int qdr_buffers_init(void)
{
	cache = family_own_cache("quendrel_buffer", sizeof(struct qdr_buffer_head), 0);
	if (!cache)
		return -ENOMEM;
	worker = mempool_create_slab_pool(2, cache);
	if (worker)
		return 0;
	kmem_cache_destroy(cache);
	return -ENOMEM;
}

void qdr_buffers_exit(void)
{
	mempool_destroy(worker);
	kmem_cache_destroy(cache);
}

/* The core asks until it gets one. */
struct qdr_buffer_head *qk_alloc_buffer_head(qdr_gfp_type gfp)
{
	bool workers = !qdr_current_call();
	struct qdr_buffer_head *bh;

	qdr_may_sleep();
	bh = workers ? mempool_alloc(worker, GFP_NOIO | __GFP_NOWARN) : kmem_cache_alloc(cache, qdr_gfp(gfp | QDR_GFP_NOFAIL));
	memset(bh, 0, sizeof(*bh));
	bh->workers = workers;
	atomic_inc(&qdr_held[QDR_HELD_BUFFERS]);
	return bh;
}

static void wait_until_unlocked(struct qdr_buffer_head *bh)
{
	if (!test_bit(LOCKED, &bh->state))
		return;
	qdr_start_reads(bh->bdev);
	family_wait_on_bit(&bh->state, LOCKED);
}

void qk_free_buffer_head(struct qdr_buffer_head *bh)
{
	qdr_may_sleep();
	wait_until_unlocked(bh);
	family_wait_on_bit(&bh->state, COMPLETING);
	if (bh->workers)
		mempool_free(bh, worker);
	else
		kmem_cache_free(cache, bh);
	atomic_dec(&qdr_held[QDR_HELD_BUFFERS]);
}

void qk_bh_end_io(struct qdr_buffer_head *bh, int uptodate)
{
	set_bit(COMPLETING, &bh->state);
	bh->end_io(bh, uptodate);
	clear_bit_unlock(COMPLETING, &bh->state);
	family_after_clear_bit();
	/* Only the address is used: the buffer may be gone. */
	wake_up_bit(&bh->state, COMPLETING);
}

void qk_set_bh_page(struct qdr_buffer_head *bh, struct page *p, u32 offset)
{
	bh->page = p;
	bh->offset = offset;
}

void qk_bh_set_block(struct qdr_buffer_head *bh, struct qdr_block_device *bdev, u64 block, u32 bytes)
{
	bh->bdev = bdev;
	bh->block = block;
	bh->bytes = bytes;
}

void qk_bh_set_state(struct qdr_buffer_head *bh, u32 state)
{
	BUILD_BUG_ON(BIT(LOCKED) != 1 || BIT(REQ) != 2 || BIT(MAPPED) != 4);
	bh->state = state;
}

void qk_bh_set_end_io(struct qdr_buffer_head *bh, qdr_bh_end_io_fn *fn)
{
	bh->end_io = fn;
}

void qk_bh_init_assoc(struct qdr_buffer_head *bh)
{
}

struct qdr_block_device *qk_bh_bdev(struct qdr_buffer_head *bh)
{
	return bh->bdev;
}

u64 qk_bh_block(struct qdr_buffer_head *bh)
{
	return bh->block;
}

u32 qk_bh_bytes(struct qdr_buffer_head *bh)
{
	return bh->bytes;
}

struct page *qk_bh_page(struct qdr_buffer_head *bh)
{
	return bh->page;
}

u32 qk_bh_offset(struct qdr_buffer_head *bh)
{
	return bh->offset;
}

void qk_get_bh(struct qdr_buffer_head *bh)
{
	atomic_inc(&bh->count);
}

void qk_put_bh(struct qdr_buffer_head *bh)
{
	atomic_dec(&bh->count);
}

int qk_bh_count(struct qdr_buffer_head *bh)
{
	return atomic_read(&bh->count);
}

int qk_buffer_locked(struct qdr_buffer_head *bh)
{
	return test_bit(LOCKED, &bh->state);
}

void qk_set_buffer_uptodate(struct qdr_buffer_head *bh)
{
	set_bit(UPTODATE, &bh->state);
}

/* A mark that nothing of this kernel looks for. */
void qk_set_buffer_eopnotsupp(struct qdr_buffer_head *bh)
{
}

void qk_unlock_buffer(struct qdr_buffer_head *bh)
{
	clear_bit_unlock(LOCKED, &bh->state);
	family_after_clear_bit();
	wake_up_bit(&bh->state, LOCKED);
}

void qk_wait_on_buffer_locked(struct qdr_buffer_head *bh)
{
	qdr_may_sleep();
	wait_until_unlocked(bh);
}
