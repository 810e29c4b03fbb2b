/* SPDX-License-Identifier: GPL-2.0-only */
/* What the shared part of the glue does differently on kernels that have multi-queue block devices only (6.1). */
#ifndef QUENDREL_FAMILY_H
#define QUENDREL_FAMILY_H

#include <linux/atomic.h>
#include <linux/blk_types.h>
#include <linux/blkdev.h>
#include <linux/delay.h>
#include <linux/highmem.h>
#include <linux/mm.h>
#include <linux/moduleparam.h>
#include <linux/sched/mm.h>
#include <linux/spinlock.h>
#include <linux/vmalloc.h>
#include <linux/wait_bit.h>

/* Parameters of a module that are computed when they are read. */
#define family_param_get(name, reader)                                                                                     \
	static const struct kernel_param_ops name##_ops = {.get = reader};                                                 \
	module_param_cb(name, &name##_ops, NULL, 0444)
typedef const struct kernel_param family_param;
typedef bool family_bool_param;

/* A lock of the caller's place in the code, for the lock checker. */
static inline void family_spin_lock_init(spinlock_t *lock, struct lock_class_key *key)
{
#ifdef CONFIG_DEBUG_SPINLOCK
	__raw_spin_lock_init(spinlock_check(lock), "quendrel", key, LD_WAIT_CONFIG);
#else
	spin_lock_init(lock);
#endif
}

/* A variable of this processor's own, with interrupts off or where another's value does no harm. */
#define family_cpu_read(variable) raw_cpu_read(variable)
#define family_cpu_add(variable, n) this_cpu_add(variable, n)

/* The name of a device, written to `name` of BDEVNAME_SIZE bytes. */
static inline const char *family_device_name(struct block_device *bdev, char *name)
{
	snprintf(name, BDEVNAME_SIZE, "%pg", bdev);
	return name;
}

/* Lets another task run, whatever its priority. */
static inline void family_short_sleep(void)
{
	usleep_range(20, 60);
}

#define FAMILY_GFP_MAY_FAIL __GFP_RETRY_MAYFAIL
#define FAMILY_GFP_MUST (__GFP_NOFAIL | __GFP_MEMALLOC)

/* In between the task's allocations never wait for the writing of anything. */
#define family_noio_begin() memalloc_noio_save()
#define family_noio_end(before) memalloc_noio_restore(before)

static inline void *family_vmalloc(unsigned long bytes, gfp_t gfp)
{
	return __vmalloc(bytes, gfp);
}

/*
 * A cache of exactly this name. The kernel merges caches of a size, and a merged cache bears another's name; one with a
 * part that may be copied to user space is never merged, nor is one with a constructor. The latter would keep its free
 * list beside the objects: an eighth more memory for blocks of a page. `name` must stay until the cache is destroyed.
 */
static inline struct kmem_cache *family_own_cache(const char *name, size_t bytes, slab_flags_t flags)
{
	return kmem_cache_create_usercopy(name, bytes, 0, flags, 0, 1, NULL);
}

static inline void family_wait_on_bit(unsigned long *word, int bit)
{
	wait_on_bit_io(word, bit, TASK_UNINTERRUPTIBLE);
}

static inline void family_after_clear_bit(void)
{
	smp_mb__after_atomic();
}

/* ---- Bios ---------------------------------------------------------------------------------------------------------- */

#define family_bio_sector(b) ((b)->bi_iter.bi_sector)
#define family_bio_size(b) ((b)->bi_iter.bi_size)
#define family_bio_index(b) ((b)->bi_iter.bi_idx)
#define family_bio_uptodate(b) (!(b)->bi_status)
#define family_whole(bdev) bdev_whole(bdev)
#define family_submit(b) submit_bio_noacct(b)
#define FAMILY_END_IO_ARGUMENTS struct bio *b

static inline u32 family_bio_rw(const struct bio *b)
{
	if (op_is_write(bio_op(b)))
		return 1;
	return b->bi_opf & REQ_RAHEAD ? 2 : 0;
}

static inline void family_bio_set_read(struct bio *b)
{
	b->bi_opf = REQ_OP_READ;
}

/* ---- The caller's memory ------------------------------------------------------------------------------------------------ */

/* How many of the pages could be had, from the first on; or an error below 0. May sleep. */
static inline long family_pin(unsigned long address, unsigned long count, bool write, struct page **pages)
{
	return pin_user_pages_fast(address, count, write ? FOLL_WRITE : 0, pages);
}

static inline void family_unpin(struct page **pages, unsigned long count, bool written)
{
	unpin_user_pages_dirty_lock(pages, count, written);
}

/* For a copy that does not sleep. */
#define family_map_page(page) kmap_local_page(page)
#define family_unmap_page(address) kunmap_local(address)

/* ---- The control device ---------------------------------------------------------------------------------------------- */

#define family_inode(file) file_inode(file)
typedef const struct vm_operations_struct family_vm_operations;
#define FAMILY_FAULT_ARGUMENTS struct vm_fault *vmf
#define FAMILY_FAULT_MAPPING vmf->vma
#define FAMILY_FAULT_ADDRESS(vmf) ((vmf)->address)

struct qdr_gendisk;

/* ---- Changes of disks past the hook (changes.c) ------------------------------------------------------------------------ */

int family_changes_init(void);
void family_changes_exit(void);
static inline void family_look_for_changes(void)
{
}

bool family_wait_for_changes(struct qdr_gendisk *disk, dev_t real);
int family_self_test(void);

#endif
