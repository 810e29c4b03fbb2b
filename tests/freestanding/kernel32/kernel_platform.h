/* SPDX-License-Identifier: GPL-2.0-only */
// Sizes as a 32-bit SMP kernel without lock debugging has them. Only for compiling the core; nothing is run.
#pragma once

#define KERNEL_LOCK_ALIGN 4
#define KERNEL_SPINLOCK_SIZE 4
#define KERNEL_SEMAPHORE_SIZE 16
#define KERNEL_RWSEM_SIZE 16
#define KERNEL_COMPLETION_SIZE 16
