/* SPDX-License-Identifier: GPL-2.0-only */
// Sizes of the contract's lock types on the hosted kernel. locks.cpp asserts that its structures fit.
#pragma once

#define KERNEL_LOCK_ALIGN 8
#define KERNEL_SPINLOCK_SIZE 16
#define KERNEL_SEMAPHORE_SIZE 16
#define KERNEL_RWSEM_SIZE 32
#define KERNEL_COMPLETION_SIZE 16
