/* SPDX-License-Identifier: GPL-2.0-only */
/*
 * Functions of the kernel in front of which the driver stands, by the function tracer (tracer.c).
 *
 * A watch stands in front of one function or several of a kind: each costs the unloading of the module some time. Its
 * callback runs in whatever context the function was called from, before its first instruction. It may stand in for
 * the function by setting the instruction pointer.
 */
#ifndef QUENDREL_TRACER_H
#define QUENDREL_TRACER_H

#include <linux/ftrace.h>

#define WATCH_MOST 3

struct watch {
	const char *names[WATCH_MOST]; /* of the functions */
	struct ftrace_ops ops;
	unsigned long places[WATCH_MOST]; /* of the tracer in them: the first instruction, behind which the body lies */
};
#define WATCH_OPS(callback, more_flags)                                                                                    \
	{.func = callback, .flags = FTRACE_OPS_FL_SAVE_REGS | FTRACE_OPS_FL_PERMANENT | (more_flags)}

/* Stands in front of them. 0, or a negative error, and the log says why. May sleep. */
int family_stand(struct watch *watch);
/* Leaves. Tasks may be on their way through the callback until synchronize_rcu_tasks() returns. */
void family_leave(struct watch *watch);

/* The function's first argument. A watch always has the registers. */
static inline void *family_first_argument(struct ftrace_regs *fregs)
{
	struct pt_regs *regs = ftrace_get_regs(fregs);

#ifdef CONFIG_X86_64
	return (void *)regs->di;
#else
	return (void *)regs->ax;
#endif
}

/* Lets `instead`, which takes the same arguments, run in the place of the function. */
static inline void family_run_instead(struct ftrace_regs *fregs, void *instead)
{
	instruction_pointer_set(ftrace_get_regs(fregs), (unsigned long)instead);
}

#endif
