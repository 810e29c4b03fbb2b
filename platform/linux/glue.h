/* SPDX-License-Identifier: GPL-2.0-only */
/*
 * The contract (../kernel.h) on a Linux kernel: the glue's types and what its files offer each other.
 *
 * The core sees opaque structures. Most are the kernel's own; five are the glue's, because the kernel's have another
 * life than the contract promises:
 *
 *   qdr_gendisk        one a disk instance, never freed before unload. A disk that is pulled and plugged in again is
 *                      another instance. It holds the disk's queue as the core sees it, so that a hook can be put back
 *                      long after the disk is gone.
 *   qdr_request_queue  the entry point of a disk, inside its qdr_gendisk.
 *   qdr_block_device   one a device number as the core sees it, never freed before unload. It has the kernel's block
 *                      device open from the first use until no control file is open any more.
 *   qdr_buffer_head    what the contract asks of a buffer, without the page cache behind the kernel's.
 *   qdr_kmem_cache     a cache whose name is its own and may be another cache's as well (caches.c).
 *
 * Device numbers as the core sees them: both halves below 256. A device whose real number does not fit, or whose real
 * number is still tied to a disk that has gone, gets another one (numbers.c); user space never sees it.
 */
#ifndef QUENDREL_GLUE_H
#define QUENDREL_GLUE_H

#include <linux/blkdev.h>
#include <linux/completion.h>
#include <linux/fs.h>
#include <linux/list.h>
#include <linux/mm.h>
#include <linux/module.h>
#include <linux/rwsem.h>
#include <linux/sched.h>
#include <linux/semaphore.h>
#include <linux/slab.h>
#include <linux/spinlock.h>

#include "family.h"

/* ---- The contract's types ---------------------------------------------------------------------------------------- */

typedef u32 qdr_user_addr;
typedef u32 qdr_kdev_t; /* major << 20 | minor, as the core sees it */
typedef u32 qdr_gfp_type;
typedef int qdr_pid_type;

#define QDR_GFP_KERNEL 1
#define QDR_GFP_NOIO 2
#define QDR_GFP_HIGHUSER 3
#define QDR_GFP_NOFAIL 16

struct qdr_block_device;
struct qdr_buffer_head;
struct qdr_gendisk;
struct qdr_kmem_cache;
struct qdr_request_queue;
struct qdr_super_block;
struct poll_table_struct;

typedef int qdr_make_request_fn(struct qdr_request_queue *q, struct bio *b);
typedef void qdr_bio_end_io_fn(struct bio *b, int error);
typedef void qdr_bh_end_io_fn(struct qdr_buffer_head *bh, int uptodate);

struct qdr_kernel_timespec {
	s32 tv_sec;
	s32 tv_nsec;
};

struct qdr_vm_operations {
	void (*open)(struct vm_area_struct *vma);
	void (*close)(struct vm_area_struct *vma);
	int (*fault)(struct vm_area_struct *vma, struct vm_fault *vmf);
};

struct qdr_file_operations {
	struct module *owner;
	long (*read)(struct file *f, qdr_user_addr buffer, size_t count, s64 *position);
	long (*write)(struct file *f, qdr_user_addr buffer, size_t count, s64 *position);
	unsigned int (*poll)(struct file *f, struct poll_table_struct *table);
	int (*ioctl)(struct inode *i, struct file *f, unsigned int cmd, unsigned long arg);
	int (*mmap)(struct file *f, struct vm_area_struct *vma);
	int (*open)(struct inode *i, struct file *f);
	int (*release)(struct inode *i, struct file *f);
};

#include "contract.h"

/* ---- What the module holds (memory.c) ---------------------------------------------------------------------------- */

enum qdr_held {
	QDR_HELD_PAGES,
	QDR_HELD_ALLOCATIONS,
	QDR_HELD_AREAS, /* vmalloc */
	QDR_HELD_CACHES,
	QDR_HELD_OBJECTS, /* of the caches */
	QDR_HELD_BIOS,    /* references */
	QDR_HELD_BUFFERS,
	QDR_HELD_DEVICES, /* opened */
	QDR_HELD_SUPERS,
	QDR_HELD_THREADS,
	QDR_HELD_KINDS
};
extern atomic_t qdr_held[QDR_HELD_KINDS];
/* Writes "pages=0 allocations=0 ..." of at most `bytes` bytes; the number written. */
int qdr_print_held(char *to, size_t bytes);
bool qdr_holds_anything(void);
void *qdr_count(void *p, enum qdr_held kind); /* counts `p` unless it is null, and returns it */

/* ---- Pages whose number a caller decides (counted_pages.c) ------------------------------------------------------- */

void qdr_counted_init(void);
void qdr_counted_exit(void);
struct page *qdr_alloc_counted_page(gfp_t gfp); /* null: also when there are as many as there may be */
bool qdr_free_counted_page(struct page *p);     /* false: it is none of these, and nothing was done */
void qdr_free_unmapped(void);                   /* those that the driver has freed and nobody maps any more */

/* ---- Slab caches (caches.c) -------------------------------------------------------------------------------------- */

struct qdr_call;
void qdr_destroy_deferred(struct qdr_call *call); /* what the core has destroyed in this call, which holds no lock any more */
void qdr_caches_exit(void); /* destroys what the core has left */

/* ---- Calls of the control device under way (control.c) ----------------------------------------------------------- */

/* A part of the caller's memory as it was read. */
struct qdr_record {
	qdr_user_addr at;
	u32 bytes; /* 0: it could not be read */
	u32 words[14];
};

/* One a command or release, on the stack of the task that makes it. */
struct qdr_call {
	struct list_head list;
	struct task_struct *task;
	unsigned int cmd;
	bool release; /* and no command */
	void *freed; /* what a release freed, linked through the allocations' headers */
	struct qdr_kmem_cache *caches; /* destroyed by the core */
	struct rw_semaphore *write_held; /* the last one that a release took for writing and still holds */
	/* Reads of a run of blocks that are not sent yet (6.1), linked by bi_next. */
	bool gathers;
	struct bio *gathered, *last_gathered;
	unsigned int gathered_count;
	/* What the command may read, and write to inside a lock, of the caller's memory (caller.c). */
	bool unreachable; /* the argument lies where the core's pointers do not reach */
	struct qdr_record records[2]; /* the command's own; the key or the map's record that it points to */
	struct page **pages;          /* of a map of blocks; null: none */
	unsigned long pinned, first_pinned; /* how many; the first one's address in pages */
};
void qdr_call_begin(struct qdr_call *call);
void qdr_call_end(struct qdr_call *call);
struct qdr_call *qdr_current_call(void); /* of this task, or null */
/* Frees what a release left, once no task can use it any more. */
void qdr_free_deferred(struct qdr_call *call);

/* ---- The caller's memory (caller.c) ------------------------------------------------------------------------------- */

/* Before the core has a command, with nothing locked: reads and pins what the core will ask for. 0, or the result with
 * which the command ends here; either way qdr_caller_end comes after it. May sleep. */
int qdr_caller_begin(struct qdr_call *call, unsigned long arg);
void qdr_caller_end(struct qdr_call *call);

/* ---- Device numbers (numbers.c) ---------------------------------------------------------------------------------- */

/* Chooses the number that the core sees for a new disk instance, into disk->{major,first_minor,minors}. 0 or -ENOSPC. */
int qdr_number_disk(struct qdr_gendisk *disk, struct gendisk *kernel_disk);
/* What the core sees for partition `partno` of the disk (0: the whole disk); 0 when it has no number for it. */
qdr_kdev_t qdr_kdev_of(struct qdr_gendisk *disk, unsigned int partno);
/* Translates the number in a command's record before the core has it, and the one in the answer. */
void qdr_translate_record(struct qdr_call *call);
bool qdr_answers_with_number(const struct qdr_call *call);
void qdr_translate_answer(void *record); /* of such a command; its first two words count */

/* ---- Disks and devices (devices.c) ------------------------------------------------------------------------------- */

struct qdr_request_queue {
	spinlock_t lock; /* of the entry point's changes, as the core sees them; inside the core's own, interrupts off */
	qdr_make_request_fn *fn;
};

struct qdr_gendisk {
	struct list_head list; /* of its bucket */
	struct gendisk *disk;  /* valid while one of its devices is open here, or a bio for it is at hand */
	u64 diskseq;                                /* 6.1 */
	char name[DISK_NAME_LEN];
	const char *changed; /* how, if the core is to be told (changes.c) */
	u32 told;            /* when it was told last, by the count of changes.c */
	bool written_past;   /* 6.1: a request that no hook saw may be under way */
	bool takes_bios;     /* 6.1: by itself, it has no requests */
	struct request_queue *q;                    /* 2.6: held until unload */
	int (*original)(struct request_queue *, struct bio *); /* 2.6: what the queue had */
	u32 major, first_minor, minors; /* as the core sees them */
	struct qdr_request_queue queue;
	struct qdr_block_device *whole;
};

struct qdr_block_device {
	struct list_head list;
	qdr_kdev_t kdev;
	dev_t real;
	struct qdr_gendisk *disk;  /* null: there is no such device */
	struct block_device *bdev; /* open, or null */
};

/* The instance of a live disk, or null when the core never met it. Any context. */
struct qdr_gendisk *qdr_find_disk(const struct gendisk *disk);
/* The same of a disk for which a request is at hand that came to the hook: if its medium has been changed meanwhile, and
 * it is another instance now, the one that it was. */
struct qdr_gendisk *qdr_disk_of(const struct gendisk *disk);
/* Opens the device of real number `real`, makes what the core needs to know of it. Null when there is none that can be
 * used. May sleep. */
struct qdr_block_device *qdr_open_real(dev_t real);
/* Whether some hooked disk has one of these numbers. The caller is numbers.c, inside qdr_number_disk. */
bool qdr_numbers_in_use(u32 major, u32 first, u32 count);
bool qdr_numbers_needed(u32 major, u32 first, u32 count); /* by a disk that is there, or something that is held */
/* Files of the control device come and go; with the last one every device is closed. The number open now. */
unsigned int qdr_files_begin(void);
void qdr_files_end(void);
void qdr_devices_init(void);
void qdr_devices_exit(void);
void qdr_for_each_disk(void (*fn)(struct qdr_gendisk *disk));
/* For the self-test. Whoever goes through the disks may be at the record even when it is off the list: it must stay, and never
 * be listed again. */
void qdr_list_disk(struct qdr_gendisk *disk);
void qdr_unlist_disk(struct qdr_gendisk *disk);
struct qdr_block_device *qdr_find_device(qdr_kdev_t kdev); /* as the core sees it, or null. Any context */
struct block_device *qdr_kernel_bdev(struct qdr_block_device *bdev); /* open, or null */
dev_t qdr_real_number(qdr_kdev_t kdev);                             /* 0 when the core has no such device */

/* ---- Disks of a family of kernels (FAMILY/disks.c) ----------------------------------------------------------------- */

const void *family_disk_key(const struct gendisk *disk); /* two disks with different ones are different */
bool family_is_disk(const struct qdr_gendisk *known, const struct gendisk *disk);
bool family_can_be_hooked(struct gendisk *disk);
void family_adopt(struct qdr_gendisk *disk); /* fills what is the family's own, from disk->disk */
void family_let_go(struct qdr_gendisk *disk);
bool family_is_live(struct gendisk *disk);
struct block_device *family_open(dev_t real); /* for reading; null when there is none to be had. May sleep */
void family_close(struct block_device *bdev);
unsigned int family_partno(struct block_device *bdev); /* of an open device; 0: a whole disk */
u64 family_start(struct block_device *bdev);           /* of an open partition, in sectors */
u64 family_sectors(struct block_device *bdev);
bool family_takes_partitions(const struct gendisk *disk);
/* Under rcu_read_lock: one more than the last partition's number; where a partition lies, or false. */
u32 family_slots(struct gendisk *disk);
bool family_partition(struct gendisk *disk, u32 index, u64 *start, u64 *sectors);

/* ---- File systems of a family (FAMILY/filesystems.c); all may sleep, of an open device ------------------------------ */

u32 family_mounted_block_size(struct block_device *bdev); /* in bytes; 0: no file system that can be frozen is mounted */
struct super_block *family_freeze(struct block_device *bdev); /* null: it failed, or there is none */
int family_thaw(struct block_device *bdev, struct super_block *sb); /* what was frozen; 0 or an error number below 0 */

/* ---- Interception (intercept.c) ---------------------------------------------------------------------------------- */

int qdr_intercept_init(void);
void qdr_intercept_exit(void); /* the core is gone; returns when no task is inside any more */
void qdr_wait_for_hooks(void); /* returns when every task that is inside a hook now has left it */
void qdr_submit(struct bio *bio); /* to its disk, past the hook; its device is set. May sleep */
qdr_make_request_fn qdr_original; /* a queue's own function */

static inline bool qdr_is_hooked(const struct qdr_gendisk *disk)
{
	return READ_ONCE(disk->queue.fn) != qdr_original;
}

/* ---- Changes of disks past the hook (changes.c, FAMILY/changes.c) -------------------------------------------------------- */

/* The disk's contents or their place have changed, or are about to: what was recorded of them counts no more. `how` is
 * the rest of a sentence that begins with the disk's name, and stays. Any context. */
void qdr_disk_changed(struct qdr_gendisk *disk, const char *how);
/* Tells the core of all such changes. What has been told so far, for the second: that tells all that were told since then
 * once more. May sleep; nothing of the driver is locked. */
u32 qdr_tell_changes(void);
void qdr_tell_changes_again(u32 since);
/* And of the family, functions of it or of its family.h:
 *   int family_changes_init(void)       0, or a negative error, and the log says why
 *   void family_changes_exit(void)
 *   void family_look_for_changes(void)  notes what can only be found by looking: before the core chooses what it has
 *                                       recorded. May sleep; nothing of the driver is locked
 *   bool family_wait_for_changes(struct qdr_gendisk *, dev_t)
 *                                       before a point in time is taken of that device of the disk: waits for what is
 *                                       under way to it past the hook. False: it is still under way. May sleep, as above
 *   int family_self_test(void)          at load: 0, or a negative error, and the log says what is not seen
 */

/* ---- The core's own reads (FAMILY/reads.c) -------------------------------------------------------------------------- */

struct qdr_own_bio {
	qdr_bio_end_io_fn *end_io;
	struct qdr_block_device *bdev;
	struct bio bio; /* last: its vector follows */
};
struct bio *family_own_bio(gfp_t gfp, int vectors); /* of a qdr_own_bio */
bool family_is_own_bio(const struct bio *b);
void family_own_end_io(FAMILY_END_IO_ARGUMENTS);
bool qdr_is_own_read(const struct bio *b); /* 6.1: an own bio, or one that carries several */

/* ---- The rest ------------------------------------------------------------------------------------------------------ */

/* To be called by every operation that may sleep: interrupts come back on when no spin lock of the driver is held. */
void qdr_may_sleep(void);
void qdr_end_lost_workers(void); /* when no file is open, and so no backup runs */
gfp_t qdr_gfp(qdr_gfp_type gfp);
void *qdr_kzalloc_nofail(size_t bytes); /* counted; for kfree, by way of qk_kfree */
/* Sends what waits to be sent together with more: before a wait for a read of `bdev` (null: at a command's end). */
void qdr_start_reads(struct qdr_block_device *bdev);
int qdr_bios_init(void);
void qdr_bios_exit(void);
int qdr_buffers_init(void);
void qdr_buffers_exit(void);

#endif
