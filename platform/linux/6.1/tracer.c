// SPDX-License-Identifier: GPL-2.0-only
/* Standing in front of functions of the kernel, and leaving them. */
#include "../glue.h"
#include "tracer.h"

#include <linux/kprobes.h>

/* Where a function has the tracer's place, its first instruction but for the mark that it may be called by pointer. */
static unsigned long find(const char *name)
{
	struct kprobe probe = {.symbol_name = name, .flags = KPROBE_FLAG_DISABLED};
	unsigned long address;

	if (register_kprobe(&probe))
		return 0;
	address = (unsigned long)probe.addr;
	unregister_kprobe(&probe);
	return address;
}

static int add(struct watch *watch, int i)
{
	int result;

	watch->places[i] = find(watch->names[i]);
	if (!watch->places[i]) {
		pr_err("quendrel: this kernel has no %s to stand in front of\n", watch->names[i]);
		return -ENOENT;
	}
	result = ftrace_set_filter_ip(&watch->ops, watch->places[i], 0, 0);
	if (result)
		pr_err("quendrel: %s cannot be traced on this kernel (%d)\n", watch->names[i], result);
	return result;
}

int family_stand(struct watch *watch)
{
	int i, result = 0;

	for (i = 0; i < WATCH_MOST && watch->names[i] && !result; i++)
		result = add(watch, i);
	if (!result) {
		result = register_ftrace_function(&watch->ops);
		if (result)
			pr_err("quendrel: could not stand in front of %s (%d): is it live-patched, or the function tracer off?\n",
			       watch->names[0], result);
	}
	if (result)
		ftrace_free_filter(&watch->ops);
	return result;
}

void family_leave(struct watch *watch)
{
	unregister_ftrace_function(&watch->ops);
	ftrace_free_filter(&watch->ops);
}
