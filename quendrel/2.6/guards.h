/* SPDX-License-Identifier: GPL-2.0-only */
// Scoped holds of the contract's locks, and the drain gate that four structures of the driver share.
//
// The drain gate: an atomic user count whose idle value is 1, and a spin lock. A user enters by counting itself in
// under the lock and leaves by a bare decrement, so it holds no lock while it works and may sleep. Whoever wants the
// structure alone waits until the count is 1 and then keeps the lock, which keeps new users out.
#pragma once

#include "kernel.h"

class SpinGuard
{
  public:
    explicit SpinGuard(spinlock* lock) : lock_(lock) { spin_lock_irqsave(lock_, &flags_); }
    ~SpinGuard() { spin_unlock_irqrestore(lock_, flags_); }
    SpinGuard(const SpinGuard&) = delete;
    SpinGuard& operator=(const SpinGuard&) = delete;

  private:
    spinlock* lock_;
    unsigned long flags_;
};

class SemaphoreGuard
{
  public:
    explicit SemaphoreGuard(semaphore* sem) : sem_(sem) { down(sem_); }
    ~SemaphoreGuard() { up(sem_); }
    SemaphoreGuard(const SemaphoreGuard&) = delete;
    SemaphoreGuard& operator=(const SemaphoreGuard&) = delete;

  private:
    semaphore* sem_;
};

class ReadGuard
{
  public:
    explicit ReadGuard(rw_semaphore* sem) : sem_(sem) { down_read(sem_); }
    ~ReadGuard() { up_read(sem_); }
    ReadGuard(const ReadGuard&) = delete;
    ReadGuard& operator=(const ReadGuard&) = delete;

  private:
    rw_semaphore* sem_;
};

class WriteGuard
{
  public:
    explicit WriteGuard(rw_semaphore* sem) : sem_(sem) { down_write(sem_); }
    ~WriteGuard() { up_write(sem_); }
    WriteGuard(const WriteGuard&) = delete;
    WriteGuard& operator=(const WriteGuard&) = delete;

  private:
    rw_semaphore* sem_;
};

inline void enterUsers(atomic_int* users, spinlock* lock)
{
    SpinGuard guard(lock);
    atomic_inc(users);
}

inline void leaveUsers(atomic_int* users) { atomic_dec(users); }

class UserGuard
{
  public:
    UserGuard(atomic_int* users, spinlock* lock) : users_(users) { enterUsers(users, lock); }
    ~UserGuard() { leaveUsers(users_); }
    UserGuard(const UserGuard&) = delete;
    UserGuard& operator=(const UserGuard&) = delete;

  private:
    atomic_int* users_;
};

// True: holds `lock`, its saved interrupt state in *flags, with no user inside. The caller may itself be counted in:
// `ownReferences` of the users are then its own, and they are given up whatever comes out.
inline bool tryForUsers(atomic_int* users, spinlock* lock, unsigned long* flags, int ownReferences = 0)
{
    spin_lock_irqsave(lock, flags);
    atomic_sub(users, ownReferences);
    const bool alone = atomic_dec_and_test(users);
    atomic_inc(users);
    if (!alone)
        spin_unlock_irqrestore(lock, *flags);
    return alone;
}

// Returns holding `lock`, its saved interrupt state in *flags, with no user inside.
inline void waitForUsers(atomic_int* users, spinlock* lock, unsigned long* flags)
{
    while (!tryForUsers(users, lock, flags))
        schedule();
}
