// SPDX-License-Identifier: GPL-2.0-only
/*
 * Locks. The driver's spin locks all switch interrupts off, so the number held is counted for the processor: with
 * interrupts off and the count at zero nothing is held, and an operation that may sleep can put interrupts back on.
 * (One function of the core returns with interrupts still off, by its own rules.)
 */
#include "glue.h"

#include <linux/percpu.h>

static DEFINE_PER_CPU(unsigned int, spin_locks_held);
#define DEEPEST 7U /* subclasses that the lock checker knows */

/* To the kernel's lock checker, all locks that one place in the code makes are of one class. */
#define CALLERS_CLASS ((struct lock_class_key *)__builtin_return_address(0))

static bool spin_lock_held(void)
{
	return irqs_disabled() && family_cpu_read(spin_locks_held);
}

void qdr_may_sleep(void)
{
	if (unlikely(irqs_disabled()) && !spin_lock_held())
		local_irq_enable();
}

void qk_spin_lock_init(spinlock_t *lock)
{
	family_spin_lock_init(lock, CALLERS_CLASS);
}

void qk_spin_lock_irqsave(spinlock_t *lock, unsigned long *flags)
{
	unsigned long saved;

#ifdef CONFIG_DEBUG_LOCK_ALLOC
	/* Two locks of one class are taken inside each other in one place, so the depth is part of the class. */
	unsigned int depth = family_cpu_read(spin_locks_held);

	spin_lock_irqsave_nested(lock, saved, min(depth, DEEPEST));
#else
	spin_lock_irqsave(lock, saved);
#endif
	family_cpu_add(spin_locks_held, 1);
	*flags = saved;
}

void qk_spin_unlock_irqrestore(spinlock_t *lock, unsigned long flags)
{
	family_cpu_add(spin_locks_held, -1);
	spin_unlock_irqrestore(lock, flags);
}

void qk_sema_init(struct semaphore *sem, int count)
{
	sema_init(sem, count);
}

void qk_down(struct semaphore *sem)
{
	qdr_may_sleep();
	down(sem);
}

/* What the core's worker sleeps on; only a worker sleeps interruptibly. */
static struct semaphore *workers_sleep;
static bool workers_end;
static DECLARE_COMPLETION(worker_has_ended);

/*
 * A backup that begins while the file of one that it has overtaken is still open loses its worker: that file's close
 * forgets the worker that runs by then. Nobody would end it, and it has the one count that a start takes for its worker:
 * the next start would wait for ever.
 */
void qdr_end_lost_workers(void)
{
	struct semaphore *sem = READ_ONCE(workers_sleep);

	if (!atomic_read(&qdr_held[QDR_HELD_THREADS]) || !sem)
		return;
	WRITE_ONCE(workers_end, true);
	while (atomic_read(&qdr_held[QDR_HELD_THREADS])) {
		up(sem);
		wait_for_completion(&worker_has_ended);
		up(sem); /* the start's count */
	}
	WRITE_ONCE(workers_end, false);
}

/* A signal ends one wait. Left pending it would end every later one at once, and the worker would never sleep again. */
int qk_down_interruptible(struct semaphore *sem)
{
	int result;

	qdr_may_sleep();
	WRITE_ONCE(workers_sleep, sem);
	result = down_interruptible(sem);
	if (READ_ONCE(workers_end))
		qk_complete_and_exit(&worker_has_ended, 0);
	if (result && (current->flags & PF_KTHREAD))
		flush_signals(current);
	return result;
}

int qk_down_trylock(struct semaphore *sem)
{
	return down_trylock(sem);
}

void qk_up(struct semaphore *sem)
{
	up(sem);
}

void qk_init_rwsem(struct rw_semaphore *sem)
{
#ifdef CONFIG_LOCKDEP
	__init_rwsem(sem, "quendrel", CALLERS_CLASS);
#else
	init_rwsem(sem);
#endif
}

void qk_down_read(struct rw_semaphore *sem)
{
	qdr_may_sleep();
	down_read(sem);
}

void qk_up_read(struct rw_semaphore *sem)
{
	up_read(sem);
}

void qk_down_write(struct rw_semaphore *sem)
{
	struct qdr_call *call = qdr_current_call();

	qdr_may_sleep();
	down_write(sem);
	if (call && call->release)
		call->write_held = sem;
}

void qk_up_write(struct rw_semaphore *sem)
{
	struct qdr_call *call = qdr_current_call();

	if (call && call->write_held == sem)
		call->write_held = NULL;
	up_write(sem);
}

void qk_init_completion(struct completion *c)
{
	init_completion(c);
}

void qk_complete(struct completion *c)
{
	complete(c);
}

void qk_wait_for_completion(struct completion *c)
{
	qdr_may_sleep();
	wait_for_completion(c);
}

/*
 * The core calls this in loops that wait for another task.
 * With a spin lock held only another processor can be waited for.
 */
void qk_schedule(void)
{
	if (spin_lock_held()) {
		cpu_relax();
		return;
	}
	qdr_may_sleep();
	family_short_sleep();
}

void qk_set_current_running(void)
{
	__set_current_state(TASK_RUNNING);
}
