// SPDX-License-Identifier: GPL-2.0-only
/*
 * Pages of which a caller decides how many there are: those of transfer areas, which user space may map and which are
 * zeroed for that, and those of maps of blocks, by the number of blocks that he names. Bounded in number over all files.
 *
 * An area's page that the driver has given up may still be mapped, by a child of the process whose area it was. The
 * reference that the driver had is then kept here, and the page counted, until nobody else has one. No page gets a new
 * mapping once the driver has given it up, so a count of one is final.
 */
#include "glue.h"

#include <linux/moduleparam.h>

static unsigned long max_map_bytes;
module_param(max_map_bytes, ulong, 0644);
MODULE_PARM_DESC(max_map_bytes, "most memory in transfer areas and maps of blocks, of all files together (default: a sixteenth of the memory)");

/* In the private word of a page that is counted; a page comes with 0 there. */
#define COUNTED 1

/* counted, leaving; innermost, and nothing that may sleep is called inside */
static DEFINE_SPINLOCK(counted_lock);
static unsigned long counted;
static LIST_HEAD(leaving); /* given up by the driver and still mapped; linked by page->lru */

void qdr_counted_init(void)
{
	struct sysinfo memory;

	if (max_map_bytes)
		return;
	si_meminfo(&memory);
	max_map_bytes = memory.totalram / 16 << PAGE_SHIFT;
}

/* No file is open any more, and so nothing is mapped. */
void qdr_counted_exit(void)
{
	struct page *p, *next;

	list_for_each_entry_safe(p, next, &leaving, lru) {
		list_del(&p->lru);
		__free_page(p);
	}
}

/* The last reference to it is the driver's, or was. Under counted_lock. */
static void free_counted(struct page *p)
{
	set_page_private(p, 0);
	__free_page(p);
	counted--;
}

void qdr_free_unmapped(void)
{
	struct page *p, *next;

	spin_lock(&counted_lock);
	list_for_each_entry_safe(p, next, &leaving, lru) {
		if (page_count(p) == 1) {
			list_del(&p->lru);
			free_counted(p);
		}
	}
	spin_unlock(&counted_lock);
}

static bool count_one(void)
{
	bool fits;

	spin_lock(&counted_lock);
	fits = counted < READ_ONCE(max_map_bytes) >> PAGE_SHIFT;
	counted += fits;
	spin_unlock(&counted_lock);
	return fits;
}

struct page *qdr_alloc_counted_page(gfp_t gfp)
{
	struct page *p;

	if (!count_one()) {
		qdr_free_unmapped();
		if (!count_one())
			return NULL;
	}
	p = alloc_page(gfp);
	if (p) {
		set_page_private(p, COUNTED);
		return p;
	}
	spin_lock(&counted_lock);
	counted--;
	spin_unlock(&counted_lock);
	return NULL;
}

bool qdr_free_counted_page(struct page *p)
{
	if (page_private(p) != COUNTED)
		return false;
	spin_lock(&counted_lock);
	if (page_count(p) == 1)
		free_counted(p);
	else
		list_add(&p->lru, &leaving);
	spin_unlock(&counted_lock);
	return true;
}
