/* SPDX-License-Identifier: GPL-2.0-only */
// Sizes as a 64-bit SMP kernel without lock debugging has them. Only for compiling the core; nothing is run.
#pragma once

#define KERNEL_LOCK_ALIGN 8
#define KERNEL_SPINLOCK_SIZE 4
#define KERNEL_SEMAPHORE_SIZE 24
#define KERNEL_RWSEM_SIZE 40
#define KERNEL_COMPLETION_SIZE 32
