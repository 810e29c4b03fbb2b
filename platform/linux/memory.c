// SPDX-License-Identifier: GPL-2.0-only
/*
 * Memory: allocations and pages; and the count of all that is held.
 *
 * Each kmalloc has a header in front. A file's release frees records that a task inside a hook may still look at; what
 * the releasing task frees is therefore chained through the headers and freed once those tasks have left.
 */
#include "glue.h"

#include <linux/highmem.h>

atomic_t qdr_held[QDR_HELD_KINDS];

static const char *const held_names[QDR_HELD_KINDS] = {
	[QDR_HELD_PAGES] = "pages",     [QDR_HELD_ALLOCATIONS] = "allocations",
	[QDR_HELD_AREAS] = "areas",     [QDR_HELD_CACHES] = "caches",
	[QDR_HELD_OBJECTS] = "objects", [QDR_HELD_BIOS] = "bios",
	[QDR_HELD_BUFFERS] = "buffers", [QDR_HELD_DEVICES] = "devices",
	[QDR_HELD_SUPERS] = "supers",   [QDR_HELD_THREADS] = "threads",
};

int qdr_print_held(char *to, size_t bytes)
{
	int used = 0;
	int i;

	for (i = 0; i < QDR_HELD_KINDS; i++)
		used += scnprintf(to + used, bytes - used, "%s%s=%d", i ? " " : "", held_names[i],
				  atomic_read(&qdr_held[i]));
	return used;
}

bool qdr_holds_anything(void)
{
	int i;

	for (i = 0; i < QDR_HELD_KINDS; i++)
		if (atomic_read(&qdr_held[i]))
			return true;
	return false;
}

void *qdr_count(void *p, enum qdr_held kind)
{
	if (p)
		atomic_inc(&qdr_held[kind]);
	return p;
}

/*
 * The driver reports what it could not get; the kernel need not. What may fail does so when nothing can be freed, rather
 * than to wait for what only the writes that the driver holds would free; then the backup fails, and no write does. What
 * must not fail is a few hundred small things at most, and may have the last of the memory for the same reason.
 */
gfp_t qdr_gfp(qdr_gfp_type gfp)
{
	gfp_t result = __GFP_NOWARN | (gfp & QDR_GFP_NOFAIL ? FAMILY_GFP_MUST : FAMILY_GFP_MAY_FAIL);

	switch (gfp & ~QDR_GFP_NOFAIL) {
	case QDR_GFP_NOIO:
		return result | GFP_NOIO | __GFP_HIGH;
	case QDR_GFP_HIGHUSER:
		return result | GFP_HIGHUSER;
	default:
		return result | GFP_KERNEL;
	}
}

/* ---- kmalloc ------------------------------------------------------------------------------------------------------- */

struct header {
	void *next; /* freed by the same release */
} __attribute__((aligned(__alignof__(u64))));

static void *allocate(size_t bytes, gfp_t gfp)
{
	struct header *header;

	qdr_may_sleep();
	header = qdr_count(kmalloc(bytes + sizeof(struct header), gfp), QDR_HELD_ALLOCATIONS);
	return header ? header + 1 : NULL;
}

void *qk_kmalloc(size_t bytes, qdr_gfp_type gfp)
{
	return allocate(bytes, qdr_gfp(gfp));
}

void *qdr_kzalloc_nofail(size_t bytes)
{
	return memset(allocate(bytes, qdr_gfp(QDR_GFP_NOIO | QDR_GFP_NOFAIL)), 0, bytes);
}

static void free_now(struct header *header)
{
	kfree(header);
	atomic_dec(&qdr_held[QDR_HELD_ALLOCATIONS]);
}

/* Also called with spin locks held. */
void qk_kfree(const void *p)
{
	struct header *header = (struct header *)p - 1;
	struct qdr_call *call;

	if (!p)
		return;
	call = qdr_current_call();
	if (call && call->release) {
		header->next = call->freed;
		call->freed = header;
	} else {
		free_now(header);
	}
}

static bool lies_in(const struct header *header, const void *p)
{
	return p > (const void *)header && p < (const void *)header + ksize(header);
}

void qdr_free_deferred(struct qdr_call *call)
{
	if (!call->freed)
		return;
	qdr_wait_for_hooks();
	while (call->freed) {
		struct header *header = call->freed;

		call->freed = header->next;
		/* The record of a file without a backup goes with a lock held, which the kernel's lock checker does not forgive. */
		if (lies_in(header, call->write_held))
			up_write(call->write_held);
		free_now(header);
	}
}

void *qk_vmalloc(unsigned long bytes)
{
	qdr_may_sleep();
	return qdr_count(family_vmalloc(bytes, qdr_gfp(QDR_GFP_KERNEL)), QDR_HELD_AREAS);
}

void qk_vfree(const void *p)
{
	if (!p)
		return;
	qdr_may_sleep();
	vfree(p);
	atomic_dec(&qdr_held[QDR_HELD_AREAS]);
}

/* ---- Pages --------------------------------------------------------------------------------------------------------- */

struct page *qk_alloc_page(qdr_gfp_type gfp)
{
	struct page *p;

	qdr_may_sleep();
	if (gfp == QDR_GFP_KERNEL) /* what the contract has for sharing with user space */
		p = qdr_alloc_counted_page(qdr_gfp(gfp) | __GFP_ZERO);
	else if (gfp == QDR_GFP_HIGHUSER) /* for maps of blocks */
		p = qdr_alloc_counted_page(qdr_gfp(gfp));
	else
		p = alloc_page(qdr_gfp(gfp));
	return qdr_count(p, QDR_HELD_PAGES);
}

/* References are counted, not pages: a page that user space has mapped outlives the driver's interest in it. */
void qk_free_page_ref(struct page *p)
{
	if (!qdr_free_counted_page(p))
		__free_page(p);
	atomic_dec(&qdr_held[QDR_HELD_PAGES]);
}

/* Taken for a mapping of user space, which gives it back by itself. */
void qk_get_page(struct page *p)
{
	get_page(p);
}

void *qk_kmap(struct page *p)
{
	qdr_may_sleep();
	return kmap(p);
}

void qk_kunmap(struct page *p)
{
	kunmap(p);
}

void *qk_page_address(struct page *p)
{
	return page_address(p);
}
