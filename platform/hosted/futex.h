/* SPDX-License-Identifier: GPL-2.0-only */
// Waiting on a 32-bit word, and the small lock that the hosted kernel uses inside itself.
//
// A wake names only the address, so it may come after the word's memory was freed: the worst case is a spurious wake
// of somebody else, which every waiter here tolerates by testing its word again.
#pragma once

#include <atomic>
#include <climits>
#include <cstdint>
#include <linux/futex.h>
#include <sched.h>
#include <sys/syscall.h>
#include <unistd.h>

namespace hosted
{

// Sleeps while *word == expected. May return early for any reason.
inline void futex_wait(const void* word, std::uint32_t expected, std::uint32_t bits = FUTEX_BITSET_MATCH_ANY)
{
    syscall(SYS_futex, word, FUTEX_WAIT_BITSET_PRIVATE, expected, nullptr, nullptr, bits);
}

inline void futex_wake(const void* word, int count = INT_MAX, std::uint32_t bits = FUTEX_BITSET_MATCH_ANY)
{
    syscall(SYS_futex, word, FUTEX_WAKE_BITSET_PRIVATE, count, nullptr, nullptr, bits);
}

inline void cpu_relax() { __builtin_ia32_pause(); }

// One step of a busy wait: cheap at first, then gives the processor to whoever is awaited.
inline void spin_step(unsigned& step)
{
    if (++step % 128 == 0)
        sched_yield();
    else
        cpu_relax();
}

// A lock for a few instructions; BasicLockable. Never held across anything that sleeps or calls out.
class Latch
{
  public:
    void lock()
    {
        unsigned step = 0;
        while (taken_.exchange(true, std::memory_order_acquire)) {
            while (taken_.load(std::memory_order_relaxed))
                spin_step(step);
        }
    }
    void unlock() { taken_.store(false, std::memory_order_release); }

  private:
    std::atomic<bool> taken_{false};
};

} // namespace hosted
