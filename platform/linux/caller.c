// SPDX-License-Identifier: GPL-2.0-only
/*
 * The caller's memory.
 *
 * mmap of the control device takes a lock of the driver, the file's session, with the caller's address space locked;
 * commands copy from and to the caller's memory with the session locked, and such a copy may fault and want the address
 * space. So that no two tasks wait for each other, nothing of the caller's memory is touched inside a lock of the driver:
 *
 *   records and keys   are read before the driver has the command, which is then shown what was read here. Nothing else
 *                      can be read by a command, so what was read once is what all of it is decided by.
 *   maps of blocks     are too large for that. Their pages are pinned before the driver has the command, and its copies go
 *                      to and from those pages. A page that could not be pinned ends the copy there, as a fault would.
 *   answers            are written by the driver when it has left its locks. These copies are plain ones.
 */
#include "glue.h"
#include "quendrel.h"

#include <linux/highmem.h>
#include <linux/uaccess.h>

#define BEYOND 0xFFFFFFFFUL /* the last address that the driver's pointers reach */
#define PINNED_AT_ONCE 512UL

static void __user *user(qdr_user_addr address)
{
	return (void __user *)(unsigned long)address;
}

/* The others' argument is only written to, or not looked at. */
static bool reads_record(unsigned int cmd)
{
	switch (cmd) {
	case QUENDREL_GET_BLOCK_SIZE:
	case QUENDREL_START_BACKUP:
	case QUENDREL_SNAPSHOT:
	case QUENDREL_GET_STATE:
	case QUENDREL_GET_AUTOMAP_STATE:
	case QUENDREL_LOAD_BLOCK_MAP:
	case QUENDREL_GET_AUTOMAP:
	case QUENDREL_GET_DIRTY_BLOCK:
	case QUENDREL_READ_BLOCKS:
		return true;
	default:
		return false;
	}
}

/* ---- Before and after the driver has the command --------------------------------------------------------------------- */

static bool fetch(struct qdr_record *record, qdr_user_addr at, u32 bytes)
{
	if (copy_from_user(record->words, user(at), bytes))
		return false;
	record->at = at;
	record->bytes = bytes;
	return true;
}

/* Pins the pages of a map of so many blocks, up to the first that cannot be had. */
static int pin_map(struct qdr_call *call, qdr_user_addr at, u32 blocks)
{
	u32 bytes = (blocks + 7) >> 3; /* wraps as the driver's own count does, which then refuses the map */
	unsigned long first = at & PAGE_MASK;
	/* Behind 4 GiB the driver's addresses begin anew, and no map does. */
	u64 end = min_t(u64, (u64)at + bytes, (u64)BEYOND + 1);
	unsigned long wanted = (unsigned long)((end - first + PAGE_SIZE - 1) >> PAGE_SHIFT);

	/* To LoadBlockMap no address means all blocks; to GetAutoMap it is an address that cannot be written to. */
	if (!bytes || !at)
		return QUENDREL_OK;
	call->pages = family_vmalloc(wanted * sizeof(*call->pages), GFP_KERNEL | __GFP_NOWARN);
	if (!call->pages)
		return QUENDREL_NO_MEMORY;
	call->first_pinned = first >> PAGE_SHIFT;
	while (call->pinned < wanted) {
		long more = family_pin(first + (call->pinned << PAGE_SHIFT), min(wanted - call->pinned, PINNED_AT_ONCE),
				       call->cmd == QUENDREL_GET_AUTOMAP, call->pages + call->pinned);

		if (more <= 0)
			break;
		call->pinned += more;
		cond_resched();
	}
	return QUENDREL_OK;
}

int qdr_caller_begin(struct qdr_call *call, unsigned long arg)
{
	struct qdr_record *record = &call->records[0], *inner = &call->records[1];

	call->unreachable = arg > BEYOND;
	if (call->unreachable || !reads_record(call->cmd) || !fetch(record, (qdr_user_addr)arg, _IOC_SIZE(call->cmd)))
		return QUENDREL_OK;
	switch (call->cmd) {
	case QUENDREL_SNAPSHOT:
		fetch(inner, record->words[0], min_t(u32, record->words[1], QUENDREL_KEY_BYTES));
		break;
	case QUENDREL_LOAD_BLOCK_MAP:
	case QUENDREL_GET_AUTOMAP:
		if (fetch(inner, record->words[0], sizeof(UserBlockMap)))
			return pin_map(call, inner->words[0], inner->words[1]);
		break;
	}
	return QUENDREL_OK;
}

void qdr_caller_end(struct qdr_call *call)
{
	if (!call->pages)
		return;
	family_unpin(call->pages, call->pinned, call->cmd == QUENDREL_GET_AUTOMAP);
	vfree(call->pages);
}

/* ---- The driver's copies --------------------------------------------------------------------------------------------- */

/* The bytes not copied. */
static unsigned long copy_pinned(const struct qdr_call *call, char *kernels, qdr_user_addr at, unsigned long bytes,
				 bool to_caller)
{
	while (bytes) {
		/* Of an address before the first page it is too large as well. */
		unsigned long index = (at >> PAGE_SHIFT) - call->first_pinned;
		unsigned long offset = at & ~PAGE_MASK;
		unsigned long part = min(bytes, PAGE_SIZE - offset);
		char *callers;

		if (index >= call->pinned)
			break;
		callers = family_map_page(call->pages[index]);
		if (to_caller)
			memcpy(callers + offset, kernels, part);
		else
			memcpy(kernels, callers + offset, part);
		family_unmap_page(callers);
		kernels += part;
		at += part;
		bytes -= part;
	}
	return bytes;
}

unsigned long qk_copy_from_user(void *to, qdr_user_addr from, unsigned long bytes)
{
	const struct qdr_call *call = qdr_current_call();
	int i;

	if (!bytes || !call)
		return bytes;
	for (i = 0; i < 2; i++) {
		if (call->records[i].bytes >= bytes && call->records[i].at == from) {
			memcpy(to, call->records[i].words, bytes);
			return 0;
		}
	}
	return copy_pinned(call, to, from, bytes, false);
}

unsigned long qk_copy_to_user(qdr_user_addr to, const void *from, unsigned long bytes)
{
	const struct qdr_call *call = qdr_current_call();
	char answer[80];

	if (!call || call->unreachable)
		return bytes;
	if (call->cmd == QUENDREL_GET_AUTOMAP)
		return copy_pinned(call, (char *)from, to, bytes, true);
	qdr_may_sleep();
	if (qdr_answers_with_number(call) && bytes <= sizeof(answer)) {
		memcpy(answer, from, max_t(unsigned long, bytes, 2 * sizeof(u32)));
		qdr_translate_answer(answer);
		from = answer;
	}
	return copy_to_user(user(to), from, bytes);
}

int qk_put_user_u32(u32 value, qdr_user_addr to)
{
	qdr_may_sleep();
	return put_user(value, (u32 __user *)user(to)) ? -EFAULT : 0;
}
