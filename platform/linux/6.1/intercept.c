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
 * The functions are called from tasks that may sleep, with a list of bios to submit later at current->bio_list. A call
 * that comes from this module is let through, since that is a queue's own function, called by the core; so is what the
 * disk cuts off from one of the core's own reads.
 *
 * Tasks inside a hook are counted by hooks (SRCU). To leave: unregister, wait for tasks between the redirection and the
 * count, for those counted, and for those between the count and their return.
 */
#include "glue.h"

#include <linux/bio.h>
#include <linux/ftrace.h>
#include <linux/kprobes.h>
#include <linux/rcupdate.h>
#include <linux/srcu.h>

#define ENDBR64 0xfa1e0ff3

DEFINE_STATIC_SRCU(hooks);

typedef void submit_fn(struct bio *bio);

struct entry {
	const char *name;
	bool takes_bios; /* of disks that take bios themselves */
	submit_fn *original;
	struct ftrace_ops ops;
};

static void redirect(unsigned long ip, unsigned long parent, struct ftrace_ops *ops, struct ftrace_regs *fregs);

#define ENTRY_OPS {.func = redirect, .flags = FTRACE_OPS_FL_SAVE_REGS | FTRACE_OPS_FL_IPMODIFY | FTRACE_OPS_FL_PERMANENT}
static struct entry request_entry = {.name = "blk_mq_submit_bio", .ops = ENTRY_OPS};
static struct entry bio_entry = {.name = "__submit_bio", .takes_bios = true, .ops = ENTRY_OPS};

static bool takes_bios(const struct gendisk *disk)
{
	return disk->fops->submit_bio;
}

/* ---- To the disk --------------------------------------------------------------------------------------------------- */

/* Without tail calls: the return address must lie in this module. */
static noinline __attribute__((optimize("no-optimize-sibling-calls"))) void submit_original(struct bio *bio)
{
	if (takes_bios(bio->bi_bdev->bd_disk))
		bio_entry.original(bio);
	else
		request_entry.original(bio);
}

/*
 * Inside a hook this is what the caller was about to do. In the worker and in commands there is no list for the bios
 * that a disk sends on to others, nor anybody who would try again or poll.
 */
void qdr_submit(struct bio *bio)
{
	struct bio_list lists[2];

	if (test_bit(GD_DEAD, &bio->bi_bdev->bd_disk->state)) {
		bio_io_error(bio);
		return;
	}
	if (current->bio_list) {
		submit_original(bio);
		return;
	}
	bio->bi_opf &= ~(REQ_NOWAIT | REQ_POLLED);
	bio_list_init(&lists[0]);
	bio_list_init(&lists[1]);
	current->bio_list = lists;
	submit_original(bio);
	current->bio_list = NULL;
	while ((bio = bio_list_pop(&lists[0])))
		submit_bio_noacct(bio);
}

/* ---- The hook ------------------------------------------------------------------------------------------------------ */

/* In the place of both functions, for a disk that was hooked a moment ago. */
static void intercepted(struct bio *bio)
{
	struct qdr_gendisk *disk = qdr_find_disk(bio->bi_bdev->bd_disk);
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
	struct entry *entry = container_of(ops, struct entry, ops);
	struct pt_regs *regs = ftrace_get_regs(fregs);
	struct gendisk *kernel_disk;
	struct qdr_gendisk *disk;
	struct bio *bio;

	if (!regs || within_module(parent, THIS_MODULE))
		return;
#ifdef CONFIG_X86_64
	bio = (struct bio *)regs->di;
#else
	bio = (struct bio *)regs->ax;
#endif
	kernel_disk = bio->bi_bdev->bd_disk;
	if (takes_bios(kernel_disk) != entry->takes_bios || qdr_is_own_read(bio))
		return;
	disk = qdr_find_disk(kernel_disk);
	if (disk && qdr_is_hooked(disk))
		instruction_pointer_set(regs, (unsigned long)intercepted);
}

void qdr_wait_for_hooks(void)
{
	qdr_may_sleep();
	synchronize_srcu(&hooks);
}

/* ---- Standing in the way, and leaving ------------------------------------------------------------------------------ */

/* The address of a function that the kernel does not export. */
static unsigned long find(const char *name)
{
	struct kprobe probe = {.symbol_name = name, .flags = KPROBE_FLAG_DISABLED};
	unsigned long address;

	if (register_kprobe(&probe))
		return 0;
	address = (unsigned long)probe.addr;
	unregister_kprobe(&probe);
#ifdef CONFIG_X86_KERNEL_IBT
	/* A probe stands behind the instruction that marks a function as callable. */
	if (*(u32 *)(address - 4) == ENDBR64)
		address -= 4;
#endif
	return address;
}

/*
 * Where to call a function so that it does what it always did. Behind the tracer's place, which is its first
 * instruction, there is no detour; but where the processor lets calls arrive at marked places only, the function is
 * called at its mark, and the redirection sees that the call is ours.
 */
static submit_fn *body_of(unsigned long address)
{
#ifdef CONFIG_X86_KERNEL_IBT
	if (*(u32 *)address == ENDBR64) {
		if (boot_cpu_has(X86_FEATURE_IBT))
			return (submit_fn *)address;
		address += 4;
	}
#endif
	return (submit_fn *)(address + MCOUNT_INSN_SIZE);
}

static int stand(struct entry *entry)
{
	unsigned long address = find(entry->name);
	int result;

	if (!address) {
		pr_err("quendrel: this kernel has no %s to stand in front of\n", entry->name);
		return -ENOENT;
	}
	entry->original = body_of(address);
	result = ftrace_set_filter_ip(&entry->ops, address, 0, 0);
	if (!result)
		result = register_ftrace_function(&entry->ops);
	if (result)
		pr_err("quendrel: could not stand in front of %s (%d): is it live-patched, or the function tracer off?\n",
		       entry->name, result);
	return result;
}

static void leave(struct entry *entry)
{
	unregister_ftrace_function(&entry->ops);
	ftrace_free_filter(&entry->ops);
}

int qdr_intercept_init(void)
{
	int result = stand(&request_entry);

	if (result)
		return result;
	result = stand(&bio_entry);
	if (result) {
		leave(&request_entry);
		synchronize_rcu_tasks();
	}
	return result;
}

void qdr_intercept_exit(void)
{
	leave(&request_entry);
	leave(&bio_entry);
	synchronize_rcu_tasks();
	synchronize_srcu(&hooks);
	synchronize_rcu_tasks();
}
