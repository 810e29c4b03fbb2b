// SPDX-License-Identifier: GPL-2.0-only
// Spin locks, semaphores, read-write semaphores and completions.
//
// Uncontended operations are one atomic read-modify-write. The state of a sleeping lock is one 64-bit word whose low
// half is what waiters sleep on and whose high half counts them, so that a release learns in its one step whether
// somebody is to be woken, and never touches the lock again: the woken thread may free it.
#include "futex.h"
#include "task.h"

#include <new>

using namespace hosted;

namespace
{

using Word = std::atomic<std::uint64_t>;
static_assert(Word::is_always_lock_free);
static_assert(__BYTE_ORDER__ == __ORDER_LITTLE_ENDIAN__, "the low half is taken to come first");

struct Spin {
    std::atomic<std::uint32_t> owner; // task id, 0 when free
};
struct Count {
    Word word; // low: the count; high: waiters
};
struct ReadWrite {
    Word word; // low: below; high: waiting writers (its low 16 bits), waiting readers (its high 16 bits)
};

static_assert(sizeof(Spin) <= KERNEL_SPINLOCK_SIZE && alignof(Spin) <= KERNEL_LOCK_ALIGN);
static_assert(sizeof(Count) <= KERNEL_SEMAPHORE_SIZE && alignof(Count) <= KERNEL_LOCK_ALIGN);
static_assert(sizeof(Count) <= KERNEL_COMPLETION_SIZE);
static_assert(sizeof(ReadWrite) <= KERNEL_RWSEM_SIZE && alignof(ReadWrite) <= KERNEL_LOCK_ALIGN);

Spin& of(spinlock* lock) { return *reinterpret_cast<Spin*>(lock->storage); }
Count& of(semaphore* sem) { return *reinterpret_cast<Count*>(sem->storage); }
Count& of(completion* c) { return *reinterpret_cast<Count*>(c->storage); }
ReadWrite& of(rw_semaphore* sem) { return *reinterpret_cast<ReadWrite*>(sem->storage); }

constexpr std::uint32_t low(std::uint64_t word) { return std::uint32_t(word); }
constexpr std::uint64_t one_waiter = std::uint64_t(1) << 32;

void spin_slow(Spin& s, Task& task, std::uint32_t owner)
{
    if (owner == task.id)
        die("a spin lock was taken twice by one thread");
    unsigned step = 0;
    for (;;) {
        while (s.owner.load(std::memory_order_relaxed) != 0)
            spin_step(step);
        std::uint32_t expected = 0;
        if (s.owner.compare_exchange_weak(expected, task.id, std::memory_order_acquire, std::memory_order_relaxed))
            return;
    }
}

bool try_take(Count& c, std::uint64_t giving_up_waiters)
{
    std::uint64_t word = c.word.load(std::memory_order_relaxed);
    while (low(word) != 0) {
        if (c.word.compare_exchange_weak(word, word - 1 - giving_up_waiters, std::memory_order_acquire,
                                         std::memory_order_relaxed))
            return true;
    }
    return false;
}

void take(Count& c, const char* operation)
{
    Task& task = this_task();
    may_sleep(task, operation);
    if (try_take(c, 0))
        return;
    before_waiting(task);
    c.word.fetch_add(one_waiter, std::memory_order_relaxed);
    while (!try_take(c, one_waiter))
        futex_wait(&c.word, 0);
}

void give(Count& c)
{
    std::uint64_t before = c.word.fetch_add(1, std::memory_order_release);
    if (before >> 32)
        futex_wake(&c.word, 1);
}

// The low half of a read-write semaphore: readers, the writer's bit, and a generation that each writer's release
// advances. Without it a reader that was kept out, and is about to sleep, could not tell "not yet released" from
// "released, and the same again".
constexpr std::uint32_t readers_mask = 0xFFFF;
constexpr std::uint32_t writer = 1u << 16;
constexpr std::uint32_t held_mask = readers_mask | writer;
constexpr std::uint32_t generation = 1u << 17;
constexpr std::uint64_t waiting_writer = std::uint64_t(1) << 32;
constexpr std::uint64_t waiting_writers = std::uint64_t(0xFFFF) << 32;
constexpr std::uint64_t waiting_reader = std::uint64_t(1) << 48;
constexpr std::uint32_t wake_writers = 1;
constexpr std::uint32_t wake_readers = 2;

bool try_read(ReadWrite& l, std::uint64_t& word, std::uint64_t giving_up)
{
    word = l.word.load(std::memory_order_relaxed);
    while (!(low(word) & writer) && !(word & waiting_writers)) {
        if (l.word.compare_exchange_weak(word, word + 1 - giving_up, std::memory_order_acquire,
                                         std::memory_order_relaxed))
            return true;
    }
    return false;
}

bool try_write(ReadWrite& l, std::uint64_t& word, std::uint64_t giving_up)
{
    word = l.word.load(std::memory_order_relaxed);
    while ((low(word) & held_mask) == 0) {
        if (l.word.compare_exchange_weak(word, word + writer - giving_up, std::memory_order_acquire,
                                         std::memory_order_relaxed))
            return true;
    }
    return false;
}

} // namespace

void spin_lock_init(spinlock* lock) { new (lock->storage) Spin{{0}}; }

void spin_lock_irqsave(spinlock* lock, unsigned long* flags)
{
    Task& task = this_task();
    Spin& s = of(lock);
    std::uint32_t owner = 0;
    if (!s.owner.compare_exchange_strong(owner, task.id, std::memory_order_acquire, std::memory_order_relaxed))
        spin_slow(s, task, owner);
    ++task.spin_locks;
    *flags = task.interrupts_off;
    task.interrupts_off = 1;
}

void spin_unlock_irqrestore(spinlock* lock, unsigned long flags)
{
    Task& task = this_task();
    Spin& s = of(lock);
    std::uint32_t owner = s.owner.load(std::memory_order_relaxed);
    if (__builtin_expect(owner != task.id, 0)) {
        if (owner == 0)
            die("a spin lock was released that nobody holds");
        die("a spin lock was released by a thread that does not hold it");
    }
    --task.spin_locks;
    task.interrupts_off = flags;
    s.owner.store(0, std::memory_order_release);
}

void sema_init(semaphore* sem, int count) { new (sem->storage) Count{{std::uint64_t(std::uint32_t(count))}}; }
void down(semaphore* sem) { take(of(sem), "down"); }
int down_interruptible(semaphore* sem)
{
    take(of(sem), "down_interruptible");
    return 0;
}
int down_trylock(semaphore* sem) { return try_take(of(sem), 0) ? 0 : 1; }
void up(semaphore* sem) { give(of(sem)); }

void init_completion(completion* c) { new (c->storage) Count{{0}}; }
void complete(completion* c) { give(of(c)); }
void wait_for_completion(completion* c) { take(of(c), "wait_for_completion"); }

void init_rwsem(rw_semaphore* sem) { new (sem->storage) ReadWrite{{0}}; }

void down_read(rw_semaphore* sem)
{
    Task& task = this_task();
    may_sleep(task, "down_read");
    ReadWrite& l = of(sem);
    std::uint64_t word;
    if (try_read(l, word, 0))
        return;
    before_waiting(task);
    l.word.fetch_add(waiting_reader, std::memory_order_relaxed);
    while (!try_read(l, word, waiting_reader))
        futex_wait(&l.word, low(word), wake_readers);
}

void up_read(rw_semaphore* sem)
{
    ReadWrite& l = of(sem);
    std::uint64_t before = l.word.fetch_sub(1, std::memory_order_release);
    std::uint32_t readers = low(before) & readers_mask;
    if (__builtin_expect(readers == 0 || (low(before) & writer), 0))
        die("up_read of a read-write semaphore that nobody holds for reading");
    if (readers == 1 && (before & waiting_writers))
        futex_wake(&l.word, 1, wake_writers);
}

void down_write(rw_semaphore* sem)
{
    Task& task = this_task();
    may_sleep(task, "down_write");
    ReadWrite& l = of(sem);
    std::uint64_t word;
    if (try_write(l, word, 0))
        return;
    before_waiting(task);
    l.word.fetch_add(waiting_writer, std::memory_order_relaxed);
    while (!try_write(l, word, waiting_writer))
        futex_wait(&l.word, low(word), wake_writers);
}

void up_write(rw_semaphore* sem)
{
    ReadWrite& l = of(sem);
    std::uint64_t word = l.word.load(std::memory_order_relaxed);
    std::uint64_t released;
    do {
        if (__builtin_expect(!(low(word) & writer), 0))
            die("up_write of a read-write semaphore that nobody holds for writing");
        released = (word & ~std::uint64_t(0xFFFFFFFF)) | std::uint32_t(low(word) - writer + generation);
    } while (!l.word.compare_exchange_weak(word, released, std::memory_order_release, std::memory_order_relaxed));
    if (released >> 32)
        futex_wake(&l.word);
}
