// SPDX-License-Identifier: GPL-2.0-only
/* Kernel threads, time, randomness. */
#include "glue.h"

#include <linux/kthread.h>
#include <linux/ktime.h>
#include <linux/random.h>
#include <linux/sched/signal.h>
#include <linux/sched/task.h>
#include <linux/timekeeping.h>

struct start {
	int (*fn)(void *);
	void *arg;
};

static int run(void *data)
{
	struct start start = *(struct start *)data;

	kfree(data);
	return start.fn(start.arg);
}

qdr_pid_type qk_kernel_thread(int (*fn)(void *), void *arg, unsigned long flags)
{
	struct task_struct *task;
	struct start *start;
	int pid;

	qdr_may_sleep();
	start = kmalloc(sizeof(*start), GFP_KERNEL);
	if (!start)
		return -ENOMEM;
	start->fn = fn;
	start->arg = arg;
	task = kthread_create(run, start, "quendrel");
	if (IS_ERR(task)) {
		kfree(start);
		return PTR_ERR(task);
	}
	atomic_inc(&qdr_held[QDR_HELD_THREADS]);
	/* It does not run before it is woken, so it cannot be gone yet. */
	pid = task->pid;
	wake_up_process(task);
	return pid;
}

/* Threads of kthreadd are detached already. */
void qk_daemonize(const char *name)
{
	task_lock(current);
	strscpy(current->comm, name, sizeof(current->comm));
	task_unlock(current);
}

void qk_allow_signal_kill(void)
{
	allow_signal(SIGKILL);
}

void qk_complete_and_exit(struct completion *c, long code)
{
	qdr_may_sleep();
	atomic_dec(&qdr_held[QDR_HELD_THREADS]);
	kthread_complete_and_exit(c, code);
	unreachable();
}

void qk_current_kernel_time(struct qdr_kernel_timespec *now)
{
	struct timespec64 time;

	ktime_get_coarse_real_ts64(&time);
	now->tv_sec = (s32)time.tv_sec;
	now->tv_nsec = (s32)time.tv_nsec;
}

void qk_get_random_bytes(void *to, int bytes)
{
	get_random_bytes(to, bytes);
}
