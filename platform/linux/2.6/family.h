/* SPDX-License-Identifier: GPL-2.0-only */
/* What the shared part of the glue does differently on kernels whose queues have a request function (2.6.29). */
#ifndef QUENDREL_FAMILY_H
#define QUENDREL_FAMILY_H

#include <asm/atomic.h>
#include <linux/blkdev.h>
#include <linux/genhd.h>
#include <linux/highmem.h>
#include <linux/mm.h>
#include <linux/module.h>
#include <linux/moduleparam.h>
#include <linux/sched.h>
#include <linux/slab.h>
#include <linux/spinlock.h>
#include <linux/vmalloc.h>
#include <linux/wait.h>

/* The name of a device, written to `name` of BDEVNAME_SIZE bytes. */
#define family_device_name(bdev, name) bdevname(bdev, name)

#define READ_ONCE(word) ACCESS_ONCE(word)
#define WRITE_ONCE(word, value) (ACCESS_ONCE(word) = (value))
#define pr_warn pr_warning
typedef int vm_fault_t;
typedef unsigned int __poll_t;

#define FAMILY_LOCKED_IOCTL

/* Parameters of a module that are computed when they are read. */
#define family_param_get(name, reader) module_param_call(name, NULL, reader, NULL, 0444)
typedef struct kernel_param family_param;
typedef int family_bool_param; /* a parameter that is "bool" is written and read as an int */

/* A lock of the caller's place in the code, for the lock checker. */
static inline void family_spin_lock_init(spinlock_t *lock, struct lock_class_key *key)
{
#ifdef CONFIG_DEBUG_SPINLOCK
	__spin_lock_init(lock, "quendrel", key);
#else
	spin_lock_init(lock);
#endif
}

/* A variable of this processor's own, with interrupts off or where another's value does no harm. */
#define family_cpu_read(variable) per_cpu(variable, raw_smp_processor_id())
#define family_cpu_add(variable, n) (per_cpu(variable, raw_smp_processor_id()) += (n))

/* Lets another task run. */
static inline void family_short_sleep(void)
{
	schedule();
}

static inline void *family_vmalloc(unsigned long bytes, gfp_t gfp)
{
	return __vmalloc(bytes, gfp | __GFP_HIGHMEM, PAGE_KERNEL);
}

/*
 * A cache of exactly this name. One of the kernel's allocators merges caches of a size, and a merged cache bears another's
 * name; one with a constructor is never merged. `name` must stay until the cache is destroyed.
 */
static inline void family_construct(void *object)
{
}

static inline struct kmem_cache *family_own_cache(const char *name, size_t bytes, unsigned long flags)
{
	return kmem_cache_create(name, bytes, 0, flags, family_construct);
}

static inline int family_wait(void *word)
{
	io_schedule();
	return 0;
}

static inline void family_wait_on_bit(unsigned long *word, int bit)
{
	wait_on_bit(word, bit, family_wait, TASK_UNINTERRUPTIBLE);
}

static inline void family_after_clear_bit(void)
{
	smp_mb__after_clear_bit();
}

/* ---- Bios ---------------------------------------------------------------------------------------------------------- */

#define family_bio_sector(b) ((b)->bi_sector)
#define family_bio_size(b) ((b)->bi_size)
#define family_bio_index(b) ((b)->bi_idx)
#define family_bio_uptodate(b) test_bit(BIO_UPTODATE, &(b)->bi_flags)
#define family_whole(bdev) ((bdev)->bd_contains)
#define family_submit(b) generic_make_request(b)
#define FAMILY_END_IO_ARGUMENTS struct bio *b, int error

/* A discard says that it reads, and changes data. */
static inline u32 family_bio_rw(const struct bio *b)
{
	return bio_discard(b) ? 1 : b->bi_rw & 3;
}

static inline void family_bio_set_read(struct bio *b)
{
	b->bi_rw = READ;
}

/* ---- The caller's memory ------------------------------------------------------------------------------------------------ */

/* How many of the pages could be had, from the first on; or an error below 0. May sleep. */
static inline long family_pin(unsigned long address, unsigned long count, bool write, struct page **pages)
{
	long pinned;

	down_read(&current->mm->mmap_sem);
	pinned = get_user_pages(current, current->mm, address, count, write, 0, pages, NULL);
	up_read(&current->mm->mmap_sem);
	return pinned;
}

static inline void family_unpin(struct page **pages, unsigned long count, bool written)
{
	unsigned long i;

	for (i = 0; i < count; i++) {
		if (written)
			set_page_dirty_lock(pages[i]);
		put_page(pages[i]);
	}
}

/* For a copy that does not sleep. */
#define family_map_page(page) kmap_atomic(page, KM_USER0)
#define family_unmap_page(address) kunmap_atomic(address, KM_USER0)

/* ---- The control device ---------------------------------------------------------------------------------------------- */

#define family_inode(file) ((file)->f_path.dentry->d_inode)
typedef struct vm_operations_struct family_vm_operations;
#define FAMILY_FAULT_ARGUMENTS struct vm_area_struct *vma, struct vm_fault *vmf
#define FAMILY_FAULT_MAPPING vma
#define FAMILY_FAULT_ADDRESS(vmf) ((vmf)->virtual_address)

/* A list from which nothing is ever removed. */
#define list_for_each_entry_lockless list_for_each_entry_rcu

/* ---- Memory: small allocations of this family wait until there is some -------------------------------------------------- */

#define FAMILY_GFP_MAY_FAIL 0
#define FAMILY_GFP_MUST __GFP_NOFAIL
#define family_noio_begin() 0
#define family_noio_end(before) ((void)(before))

/* ---- Changes of disks past the hook ------------------------------------------------------------------------------------ */

static inline int family_changes_init(void)
{
	return 0;
}

static inline void family_changes_exit(void)
{
}

void family_look_for_changes(void); /* intercept.c */

struct qdr_gendisk;

static inline bool family_wait_for_changes(struct qdr_gendisk *disk, dev_t real)
{
	return true;
}

static inline int family_self_test(void)
{
	return 0;
}

#endif
