// SPDX-License-Identifier: GPL-2.0-only
/* What this kernel's locks take, for kernel_platform.h: compiled to assembly and read from there, never linked. */
#include <linux/completion.h>
#include <linux/kbuild.h>
#include <linux/rwsem.h>
#include <linux/semaphore.h>
#include <linux/spinlock.h>

/* On a uniprocessor kernel without debugging a spin lock is nothing in C; the core's C++ needs a byte. */
#define AT_LEAST_ONE(type) (sizeof(type) ? sizeof(type) : 1)

struct strictest {
	spinlock_t spin;
	struct semaphore semaphore;
	struct rw_semaphore rwsem;
	struct completion completion;
};

int main(void);
int main(void)
{
	DEFINE(KERNEL_SPINLOCK_SIZE, AT_LEAST_ONE(spinlock_t));
	DEFINE(KERNEL_SEMAPHORE_SIZE, sizeof(struct semaphore));
	DEFINE(KERNEL_RWSEM_SIZE, sizeof(struct rw_semaphore));
	DEFINE(KERNEL_COMPLETION_SIZE, sizeof(struct completion));
	DEFINE(KERNEL_LOCK_ALIGN, __alignof__(struct strictest));
	return 0;
}
