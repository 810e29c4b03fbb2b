// SPDX-License-Identifier: GPL-2.0-only
// Request queues: the entry point that the driver may replace, and the way of a bio into it.
#include "block.h"
#include "futex.h"
#include "memory.h"

#include <cerrno>
#include <ctime>
#include <mutex>
#include <vector>

using namespace hosted;

namespace
{

// Marks the calling task as inside a hooked function. The mark is made before the entry point is loaded for the
// call, so that whoever unhooked a queue and then finds no mark knows that nobody is on the way in.
class InsideHook
{
  public:
    explicit InsideHook(Task& task) : task_(task)
    {
        if (task_.hook_depth++ == 0)
            step(std::memory_order_seq_cst);
    }
    ~InsideHook()
    {
        if (--task_.hook_depth == 0) {
            step(std::memory_order_release);
            if (__builtin_expect(deferred_memory.load(std::memory_order_relaxed), 0))
                release_deferred_memory();
        }
    }
    InsideHook(const InsideHook&) = delete;
    InsideHook& operator=(const InsideHook&) = delete;

  private:
    void step(std::memory_order order)
    {
        task_.hook_sequence.store(task_.hook_sequence.load(std::memory_order_relaxed) + 1, order);
    }
    Task& task_;
};

int call_entry(Task& task, request_queue* q, bio* b)
{
    make_request_fn* entry = q->entry.load(std::memory_order_acquire);
    if (entry == q->own)
        return entry(q, b);
    InsideHook inside(task);
    entry = q->entry.load(std::memory_order_seq_cst);
    return entry(q, b);
}

// A bio for a partition becomes one for the whole disk. 0 or a negative errno.
int remap(bio* b)
{
    gendisk* disk = b->bdev->disk.load(std::memory_order_acquire);
    if (!disk)
        return -ENODEV;
    u32 index = b->bdev->partition.load(std::memory_order_acquire);
    sector_type sectors = b->size >> 9;
    if (index != 0) {
        sector_type start, length;
        if (!disk->slots[index].get(&start, &length) || sectors > length || b->sector > length - sectors)
            return -EIO;
        b->sector += start;
        b->bdev = b->bdev->contains.load(std::memory_order_acquire);
    }
    if (sectors > disk->capacity || b->sector > disk->capacity - sectors)
        return -EIO;
    return 0;
}

void submit_one(Task& task, bio* b)
{
    for (;;) {
        if (int error = remap(b)) {
            bio_endio(b, error);
            return;
        }
        gendisk* disk = b->bdev->disk.load(std::memory_order_acquire);
        if (!disk) {
            bio_endio(b, -ENODEV);
            return;
        }
        if (call_entry(task, disk->queue, b) == 0)
            return;
    }
}

} // namespace

void generic_make_request(bio* b)
{
    Task& task = this_task();
    if (__builtin_expect(task.spin_locks != 0, 0))
        may_sleep(task, "generic_make_request");
    b->next = nullptr;
    if (task.bio_list) {
        // Inside a make_request_fn: the outer call goes on with it, the stack stays flat.
        (task.bio_list->tail ? task.bio_list->tail->next : task.bio_list->head) = b;
        task.bio_list->tail = b;
        return;
    }
    Task::BioList list;
    task.bio_list = &list;
    submit_one(task, b);
    while (bio* next = list.head) {
        list.head = next->next;
        if (!list.head)
            list.tail = nullptr;
        next->next = nullptr;
        submit_one(task, next);
    }
    task.bio_list = nullptr;
}

spinlock* queue_lock(request_queue* q) { return q->lock_pointer; }
make_request_fn* queue_make_request_fn(request_queue* q) { return q->entry.load(std::memory_order_acquire); }
void queue_set_make_request_fn(request_queue* q, make_request_fn* fn) { q->entry.store(fn, std::memory_order_seq_cst); }

namespace hosted
{

void wait_for_hooks()
{
    struct Inside {
        Task* task;
        unsigned long sequence;
    };
    const std::vector<Inside> inside = with_memory([] {
        std::vector<Inside> found;
        for_each_task(
            [](Task& task, void* context) {
                unsigned long sequence = task.hook_sequence.load(std::memory_order_seq_cst);
                if (sequence & 1)
                    static_cast<std::vector<Inside>*>(context)->push_back({&task, sequence});
            },
            &found);
        return found;
    });
    before_waiting(this_task());
    for (const Inside& i : inside) {
        unsigned step = 0;
        while (i.task->hook_sequence.load(std::memory_order_acquire) == i.sequence) {
            timespec pause{0, 50000};
            if (++step > 1000)
                nanosleep(&pause, nullptr);
            else
                sched_yield();
        }
    }
}

} // namespace hosted
