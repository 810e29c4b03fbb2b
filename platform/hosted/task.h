/* SPDX-License-Identifier: GPL-2.0-only */
// What the hosted kernel knows of a thread: the checks on its locks, the process it works for, the bios it has not
// sent yet, whether it is inside a driver's hook, and its share of the accounting.
//
// A Task belongs to one thread at a time and only that thread touches it, except for the atomic members, which others
// read. Tasks are recycled, never freed, so a pointer to one stays good after its thread has ended.
#pragma once

#include "hosted.h"

#include <atomic>
#include <ctime>
#include <new>

namespace hosted
{

enum class Counter : unsigned {
    kmallocs,
    vmallocs,
    pages,
    slab_caches,
    slab_objects,
    bios,
    buffer_heads,
    supers,
    threads,
    mappings,
    files,
    number_of_counters
};
constexpr unsigned counters = unsigned(Counter::number_of_counters);

class DiskImpl;

struct Task {
    u32 id = 0; // never 0
    Task* older = nullptr; // of all; set before others see it
    Task* next_unused = nullptr;
    int spin_locks = 0;
    int partition_looks = 0; // between bdev_lock_partitions and its end
    int freezes = 0;         // freeze_bdev, whatever it answered, without its thaw_bdev
    unsigned long interrupts_off = 0; // bookkeeping only

    AddressSpace* memory = nullptr; // of the process whose command this thread executes
    bool in_release = false;

    // Bios kept back for merging, in order; see plug.cpp. Only inside a run (run_depth above 0).
    int run_depth = 0;
    bio* plug_head = nullptr;
    bio* plug_tail = nullptr;
    DiskImpl* plug_disk = nullptr;
    u32 plug_bytes = 0;
    u32 plug_bios = 0;

    // Bios submitted from inside a make_request_fn wait here; null: not inside generic_make_request.
    struct BioList {
        bio* head = nullptr;
        bio* tail = nullptr;
    };
    BioList* bio_list = nullptr;

    int hook_depth = 0;
    std::atomic<unsigned long> hook_sequence{0}; // odd while inside a hooked function

    std::atomic<long> live[counters] = {}; // may be negative: another thread freed what this one made
};

// The one object of its kind, a static one: made at its first use without memory of its own, never destroyed, as threads
// may end after main has.
template <typename T> class Immortal
{
  public:
    template <typename... Arguments> explicit Immortal(Arguments... arguments) { new (memory_) T(arguments...); }
    T& get() { return *std::launder(reinterpret_cast<T*>(memory_)); }

  private:
    alignas(T) std::byte memory_[sizeof(T)];
};

// For what has no way to fail: tries until there is memory.
template <typename Do> auto with_memory(Do what)
{
    for (;;) {
        try {
            return what();
        } catch (const std::bad_alloc&) {
            timespec pause{0, 1000000};
            nanosleep(&pause, nullptr);
        }
    }
}

extern __thread Task* current_task __attribute__((tls_model("initial-exec")));
Task& adopt_thread();

inline Task& this_task()
{
    Task* task = current_task;
    return task ? *task : adopt_thread();
}

// Calls visit for every task that ever existed.
void for_each_task(void (*visit)(Task& task, void* context), void* context);

inline void count(Counter counter, long n)
{
    auto& word = this_task().live[unsigned(counter)];
    word.store(word.load(std::memory_order_relaxed) + n, std::memory_order_relaxed);
}
long counted(Counter counter);

// Prints "hosted kernel: ..." to stderr and aborts.
[[noreturn]] void die(const char* format, ...) __attribute__((format(printf, 1, 2)));

// Sends the bios that the task keeps back. `more`: the task has another bio to send.
void flush_plug(Task& task, bool more = false);

// At the entry of an operation that may sleep.
inline void may_sleep(Task& task, const char* operation)
{
    if (__builtin_expect(task.spin_locks != 0, 0))
        die("%s may sleep and was called with %d spin lock(s) held", operation, task.spin_locks);
    if (__builtin_expect(task.partition_looks != 0, 0))
        die("%s may sleep and was called with a partition table locked", operation);
}
// Just before the thread really waits: what it keeps back might be what it waits for.
inline void before_waiting(Task& task)
{
    if (task.plug_head)
        flush_plug(task);
}

// Brackets a run of submissions by the calling thread: bios that are adjacent are merged until the run ends.
class SubmissionRun
{
  public:
    SubmissionRun() : task_(this_task()) { ++task_.run_depth; }
    ~SubmissionRun()
    {
        if (--task_.run_depth == 0)
            before_waiting(task_);
    }
    SubmissionRun(const SubmissionRun&) = delete;
    SubmissionRun& operator=(const SubmissionRun&) = delete;

  private:
    Task& task_;
};

} // namespace hosted
