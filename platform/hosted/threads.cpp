// SPDX-License-Identifier: GPL-2.0-only
// Kernel threads and giving up the processor.
#include "block.h"
#include "faults.h"
#include "memory.h"
#include "module.h"

#include <csetjmp>
#include <exception>
#include <list>
#include <mutex>
#include <sched.h>
#include <sys/prctl.h>
#include <thread>

using namespace hosted;

namespace
{

struct KernelThread {
    std::thread thread;
    bool over = false; // guarded by the list's mutex
    std::jmp_buf way_out;
    int (*fn)(void*);
    void* arg;
};

struct Threads {
    std::mutex mutex; // guards the list
    std::list<KernelThread> list;
    pid_type next_id = 2;
};
Threads& threads()
{
    static Immortal<Threads> the;
    return the.get();
}

__thread KernelThread* this_kernel_thread = nullptr;

void body(KernelThread* self)
{
    this_kernel_thread = self;
    // A kernel thread's submissions are one run: what it keeps back is sent whenever it waits.
    ++this_task().run_depth;
    if (setjmp(self->way_out) == 0) {
        self->fn(self->arg);
        count(Counter::threads, -1);
    }
    Task& task = this_task();
    before_waiting(task);
    --task.run_depth;
    Threads& t = threads();
    std::lock_guard lock(t.mutex);
    self->over = true;
}

} // namespace

pid_type kernel_thread(int (*fn)(void*), void* arg, unsigned long)
{
    may_sleep(this_task(), "kernel_thread");
    if (allocation_fails(faults::Kind::thread, 0))
        return -12;
    reap_threads();
    Threads& t = threads();
    std::lock_guard lock(t.mutex);
    count(Counter::threads, 1);
    std::list<KernelThread> one;
    try {
        KernelThread& k = one.emplace_back();
        k.fn = fn;
        k.arg = arg;
        k.thread = std::thread(body, &k);
    } catch (const std::exception&) { // no thread, no memory
        count(Counter::threads, -1);
        return -11;
    }
    t.list.splice(t.list.end(), one);
    return t.next_id++;
}

void daemonize(const char* name) { prctl(PR_SET_NAME, name); }
void allow_signal_kill() {}

void complete_and_exit(completion* c, long)
{
    if (!this_kernel_thread)
        die("complete_and_exit outside a kernel thread");
    Task& task = this_task();
    may_sleep(task, "complete_and_exit");
    before_waiting(task);
    // Before the completion: whoever waited for it may look at the accounts.
    count(Counter::threads, -1);
    if (c)
        complete(c);
    std::longjmp(this_kernel_thread->way_out, 1);
}

void schedule()
{
    Task& task = this_task();
    may_sleep(task, "schedule");
    before_waiting(task);
    sched_yield();
}
void set_current_running() {}

namespace hosted
{

void reap_threads()
{
    std::list<KernelThread> over;
    {
        Threads& t = threads();
        std::lock_guard lock(t.mutex);
        for (auto k = t.list.begin(); k != t.list.end();) {
            auto next = std::next(k);
            if (k->over)
                over.splice(over.end(), t.list, k);
            k = next;
        }
    }
    for (KernelThread& k : over)
        k.thread.join();
}

void join_all_threads()
{
    for (;;) {
        reap_threads();
        {
            Threads& t = threads();
            std::lock_guard lock(t.mutex);
            if (long(t.list.size()) <= counted(Counter::threads))
                return; // the rest, if any, still runs driver code
        }
        sched_yield();
    }
}

} // namespace hosted
