// SPDX-License-Identifier: GPL-2.0-only
/* Kernel threads, time, randomness: the kernel's own. */
#include "glue.h"

#include <linux/completion.h>
#include <linux/random.h>
#include <linux/time.h>

/* The kernel calls a thread's function with its own convention for arguments, which the core's C++ shares. */
qdr_pid_type qk_kernel_thread(int (*fn)(void *), void *arg, unsigned long flags)
{
	int pid;

	qdr_may_sleep();
	pid = kernel_thread(fn, arg, flags);
	if (pid >= 0)
		atomic_inc(&qdr_held[QDR_HELD_THREADS]);
	return pid;
}

void qk_daemonize(const char *name)
{
	daemonize("%s", name);
}

void qk_allow_signal_kill(void)
{
	allow_signal(SIGKILL);
}

void qk_complete_and_exit(struct completion *c, long code)
{
	qdr_may_sleep();
	atomic_dec(&qdr_held[QDR_HELD_THREADS]);
	complete_and_exit(c, code);
	for (;;)
		;
}

void qk_current_kernel_time(struct qdr_kernel_timespec *now)
{
	struct timespec time = current_kernel_time();

	now->tv_sec = time.tv_sec;
	now->tv_nsec = time.tv_nsec;
}

void qk_get_random_bytes(void *to, int bytes)
{
	get_random_bytes(to, bytes);
}
