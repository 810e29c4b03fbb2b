// SPDX-License-Identifier: GPL-2.0-only
// Tasks: made for a thread the first time it enters the hosted kernel, given back when it ends.
#include "task.h"

#include <mutex>
#include <utility>

namespace hosted
{

__thread Task* current_task __attribute__((tls_model("initial-exec"))) = nullptr;

namespace
{

struct Registry {
    std::mutex mutex; // innermost
    Task* newest = nullptr; // of all
    Task* unused = nullptr;
    u32 number = 0;
};
Registry& registry()
{
    static Immortal<Registry> the;
    return the.get();
}

struct GiveBack {
    ~GiveBack()
    {
        Task* task = current_task;
        if (!task)
            return;
        if (task->spin_locks != 0)
            die("a thread ended with %d spin lock(s) held", task->spin_locks);
        before_waiting(*task);
        current_task = nullptr;
        Registry& r = registry();
        std::lock_guard lock(r.mutex);
        task->next_unused = std::exchange(r.unused, task);
    }
    void touch() {}
};
thread_local GiveBack give_back;

} // namespace

Task& adopt_thread()
{
    Registry& r = registry();
    {
        std::lock_guard lock(r.mutex);
        if (r.unused) {
            current_task = std::exchange(r.unused, r.unused->next_unused);
        } else {
            current_task = with_memory([] { return new Task; });
            current_task->id = ++r.number;
            current_task->older = std::exchange(r.newest, current_task);
        }
    }
    give_back.touch();
    return *current_task;
}

void for_each_task(void (*visit)(Task& task, void* context), void* context)
{
    Registry& r = registry();
    std::lock_guard lock(r.mutex);
    for (Task* task = r.newest; task; task = task->older)
        visit(*task, context);
}

long counted(Counter counter)
{
    struct Sum {
        unsigned index;
        long total;
    } sum{unsigned(counter), 0};
    for_each_task(
        [](Task& task, void* context) {
            auto* s = static_cast<Sum*>(context);
            s->total += task.live[s->index].load(std::memory_order_relaxed);
        },
        &sum);
    return sum.total;
}

} // namespace hosted
