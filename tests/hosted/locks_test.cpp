// SPDX-License-Identifier: GPL-2.0-only
// The contract's locks: what they exclude, whom they let go first, and the misuse that they catch.
#include "hosted.h"

#include <atomic>
#include <chrono>
#include <gtest/gtest.h>
#include <memory>
#include <thread>

namespace
{

using namespace std::chrono_literals;

void sleep_a_little() { std::this_thread::sleep_for(20ms); }

struct Guarded {
    long value = 0; // not atomic: ThreadSanitizer sees a lock that does not exclude or does not order
};

template <typename Lock, typename Unlock>
void add_from_threads(Guarded& g, int threads, int rounds, Lock lock, Unlock unlock)
{
    std::vector<std::thread> all;
    for (int t = 0; t < threads; ++t) {
        all.emplace_back([&] {
            for (int i = 0; i < rounds; ++i) {
                lock();
                ++g.value;
                unlock();
            }
        });
    }
    for (auto& t : all)
        t.join();
}

} // namespace

TEST(SpinLock, ExcludesOtherThreads)
{
    spinlock lock;
    spin_lock_init(&lock);
    Guarded g;
    thread_local unsigned long flags;
    add_from_threads(
        g, 4, 20000, [&] { spin_lock_irqsave(&lock, &flags); }, [&] { spin_unlock_irqrestore(&lock, flags); });
    EXPECT_EQ(g.value, 80000);
}

TEST(SpinLock, SavesWhetherInterruptsWereOff)
{
    spinlock outer, inner;
    spin_lock_init(&outer);
    spin_lock_init(&inner);
    unsigned long first, second;
    spin_lock_irqsave(&outer, &first);
    spin_lock_irqsave(&inner, &second);
    EXPECT_EQ(first, 0u);
    EXPECT_NE(second, 0u);
    spin_unlock_irqrestore(&inner, second);
    // Restored with the inner word on purpose: interrupts are bookkeeping and stop nobody.
    spin_unlock_irqrestore(&outer, second);
    spin_lock_irqsave(&outer, &first);
    spin_unlock_irqrestore(&outer, 0);
    SUCCEED();
}

TEST(SpinLockDeathTest, ReleaseOfAFreeLockAborts)
{
    spinlock lock;
    spin_lock_init(&lock);
    EXPECT_DEATH(spin_unlock_irqrestore(&lock, 0), "spin lock was released that nobody holds");
}

TEST(SpinLockDeathTest, ReleaseByAnotherThreadAborts)
{
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    spinlock lock;
    spin_lock_init(&lock);
    EXPECT_DEATH(
        {
            unsigned long flags;
            std::atomic<bool> held{false};
            std::thread holder([&] {
                spin_lock_irqsave(&lock, &flags);
                held = true;
                for (;;)
                    std::this_thread::sleep_for(1s);
            });
            while (!held)
                std::this_thread::yield();
            spin_unlock_irqrestore(&lock, flags);
        },
        "released by a thread that does not hold it");
}

TEST(SpinLockDeathTest, TakingItTwiceAborts)
{
    spinlock lock;
    spin_lock_init(&lock);
    unsigned long flags;
    EXPECT_DEATH(
        {
            spin_lock_irqsave(&lock, &flags);
            spin_lock_irqsave(&lock, &flags);
        },
        "taken twice by one thread");
}

TEST(SpinLockDeathTest, SleepingWithASpinLockHeldAborts)
{
    spinlock lock;
    spin_lock_init(&lock);
    semaphore sem;
    sema_init(&sem, 1);
    unsigned long flags;
    EXPECT_DEATH(
        {
            spin_lock_irqsave(&lock, &flags);
            down(&sem);
        },
        "down may sleep and was called with 1 spin lock");
    EXPECT_DEATH(
        {
            spin_lock_irqsave(&lock, &flags);
            schedule();
        },
        "schedule may sleep");
    EXPECT_DEATH(
        {
            spin_lock_irqsave(&lock, &flags);
            kfree(kmalloc(8, GFP_KERNEL));
        },
        "kmalloc may sleep");
}

TEST(Semaphore, ExcludesOtherThreadsAtCountOne)
{
    semaphore sem;
    sema_init(&sem, 1);
    Guarded g;
    add_from_threads(
        g, 4, 20000, [&] { down(&sem); }, [&] { up(&sem); });
    EXPECT_EQ(g.value, 80000);
}

TEST(Semaphore, CountsUpsWithoutWaiters)
{
    semaphore sem;
    sema_init(&sem, 0);
    EXPECT_EQ(down_trylock(&sem), 1);
    up(&sem);
    up(&sem);
    EXPECT_EQ(down_trylock(&sem), 0);
    EXPECT_EQ(down_interruptible(&sem), 0);
    EXPECT_EQ(down_trylock(&sem), 1);
}

TEST(Semaphore, WakesOneWaiterForEachUp)
{
    semaphore sem;
    sema_init(&sem, 0);
    std::atomic<int> through{0};
    std::vector<std::thread> waiters;
    for (int i = 0; i < 3; ++i) {
        waiters.emplace_back([&] {
            down(&sem);
            ++through;
        });
    }
    for (int expected = 1; expected <= 3; ++expected) {
        up(&sem);
        while (through < expected)
            std::this_thread::yield();
        sleep_a_little();
        EXPECT_EQ(through, expected);
    }
    for (auto& t : waiters)
        t.join();
}

TEST(Semaphore, HandsWorkOverInOrderOfMemory)
{
    semaphore full, empty;
    sema_init(&full, 0);
    sema_init(&empty, 1);
    int slot = 0;
    std::thread producer([&] {
        for (int i = 1; i <= 20000; ++i) {
            down(&empty);
            slot = i;
            up(&full);
        }
    });
    for (int i = 1; i <= 20000; ++i) {
        down(&full);
        ASSERT_EQ(slot, i);
        up(&empty);
    }
    producer.join();
}

TEST(Completion, WaiterMayFreeItAtOnce)
{
    for (int i = 0; i < 3000; ++i) {
        auto c = std::make_unique<completion>();
        init_completion(c.get());
        std::thread other([p = c.get()] { complete(p); });
        wait_for_completion(c.get());
        c.reset();
        other.join();
    }
}

TEST(RwSemaphore, AdmitsReadersTogether)
{
    rw_semaphore sem;
    init_rwsem(&sem);
    down_read(&sem);
    std::thread other([&] {
        down_read(&sem);
        up_read(&sem);
    });
    other.join();
    up_read(&sem);
}

TEST(RwSemaphore, WaitingWriterKeepsLaterReadersOut)
{
    rw_semaphore sem;
    init_rwsem(&sem);
    std::atomic<int> order{0};
    int writer_at = 0, reader_at = 0;
    down_read(&sem);
    std::thread writer([&] {
        down_write(&sem);
        writer_at = ++order;
        up_write(&sem);
    });
    sleep_a_little();
    std::thread reader([&] {
        down_read(&sem);
        reader_at = ++order;
        up_read(&sem);
    });
    sleep_a_little();
    EXPECT_EQ(order, 0);
    up_read(&sem);
    writer.join();
    reader.join();
    EXPECT_EQ(writer_at, 1);
    EXPECT_EQ(reader_at, 2);
}

TEST(RwSemaphore, ExcludesWritersFromEachOtherAndFromReaders)
{
    rw_semaphore sem;
    init_rwsem(&sem);
    Guarded g;
    std::atomic<bool> stop{false};
    std::atomic<long> torn{0};
    long twin = 0;
    std::vector<std::thread> readers;
    for (int i = 0; i < 2; ++i) {
        readers.emplace_back([&] {
            while (!stop) {
                down_read(&sem);
                if (g.value != twin)
                    ++torn;
                up_read(&sem);
            }
        });
    }
    add_from_threads(
        g, 3, 5000, [&] { down_write(&sem); },
        [&] {
            ++twin;
            up_write(&sem);
        });
    stop = true;
    for (auto& t : readers)
        t.join();
    EXPECT_EQ(g.value, 15000);
    EXPECT_EQ(torn, 0);
}

TEST(RwSemaphoreDeathTest, ReleasesOfWhatIsNotHeldAbort)
{
    rw_semaphore sem;
    init_rwsem(&sem);
    EXPECT_DEATH(up_read(&sem), "nobody holds for reading");
    EXPECT_DEATH(up_write(&sem), "nobody holds for writing");
    EXPECT_DEATH(
        {
            down_write(&sem);
            up_read(&sem);
        },
        "nobody holds for reading");
}

namespace
{
struct ThreadArgument {
    completion done;
    std::atomic<bool> ran{false};
};
int thread_body(void* arg)
{
    auto* a = static_cast<ThreadArgument*>(arg);
    daemonize("kbackupd");
    allow_signal_kill();
    a->ran = true;
    complete_and_exit(&a->done, 0);
}
} // namespace

TEST(KernelThread, RunsAndIsGoneFromTheAccountsWhenItsCompletionIsSeen)
{
    for (int i = 0; i < 200; ++i) {
        ThreadArgument a;
        init_completion(&a.done);
        ASSERT_GT(kernel_thread(thread_body, &a, 0), 0);
        wait_for_completion(&a.done);
        EXPECT_TRUE(a.ran);
        ASSERT_EQ(hosted::live().threads, 0);
    }
    hosted::forget_leaks(); // joins the last one
}

TEST(KernelThread, FailsToOrder)
{
    hosted::faults::fail_allocation(1, unsigned(hosted::faults::Kind::thread));
    EXPECT_LT(kernel_thread(thread_body, nullptr, 0), 0);
    hosted::faults::clear();
    EXPECT_EQ(hosted::live().threads, 0);
}

TEST(KernelBugDeathTest, EndsTheProcessNamingThePlace)
{
    EXPECT_DEATH(kernel_bug("queue_registry.cpp", 42), "kernel BUG at queue_registry.cpp:42");
}
