// SPDX-License-Identifier: GPL-2.0-only
// kmalloc and vmalloc: the C library's memory behind a header that names the size and the caller.
//
// Every live object is on one of a few lists, each behind its own latch. A second free, or the free of a pointer that
// was never given out, is recognised by the header's magic word, which lies beyond what the C library overwrites in
// freed memory.
#include "memory.h"
#include "faults.h"
#include "futex.h"

#include <cstdlib>
#include <cstring>
#include <dlfcn.h>
#include <mutex>
#include <utility>
#include <vector>

using namespace hosted;

namespace
{

enum Magic : u32 { alive = 0x6B616C76, freed = 0x64656164, deferred = 0x6C617465 };

struct alignas(16) Header {
    Header* next;
    Header* previous;
    const void* caller;
    kernel_size_t bytes;
    u32 magic;
    u16 list;
    u16 counter;
};

constexpr unsigned lists = 16;
struct alignas(64) List {
    Latch latch; // guards the links
    Header head{&head, &head, nullptr, 0, 0, 0, 0};
};
List the_lists[lists];

struct Deferred {
    struct Inside {
        Task* task;
        unsigned long sequence;
    };
    std::vector<Inside> inside;
    Header* object;
};
std::mutex deferred_mutex; // guards the list below; taken before the task registry's
std::vector<Deferred>& deferred_list()
{
    static Immortal<std::vector<Deferred>> the;
    return the.get();
}

void* allocate(kernel_size_t bytes, Counter counter, const void* caller)
{
    if (bytes > SIZE_MAX - sizeof(Header))
        return nullptr;
    auto* h = static_cast<Header*>(std::malloc(sizeof(Header) + bytes));
    if (!h)
        return nullptr;
    unsigned index = this_task().id % lists;
    h->caller = caller;
    h->bytes = bytes;
    h->magic = alive;
    h->list = u16(index);
    h->counter = u16(counter);
    List& list = the_lists[index];
    {
        std::lock_guard lock(list.latch);
        h->next = &list.head;
        h->previous = list.head.previous;
        h->previous->next = h;
        list.head.previous = h;
    }
    count(counter, 1);
    return h + 1;
}

// Reads a header that may lie in freed memory; the sanitizers would stop on that with a less clear message.
__attribute__((no_sanitize("address", "thread"), noinline)) u32 magic_of(const Header* h)
{
    return *const_cast<const volatile u32*>(&h->magic);
}

Header* check(const void* p, Counter counter, const char* operation)
{
    auto* h = reinterpret_cast<Header*>(const_cast<void*>(p)) - 1;
    u32 magic = magic_of(h);
    if (magic == freed || magic == deferred)
        die("%s of %p, which was freed before (double free)", operation, p);
    if (magic != alive)
        die("%s of %p, which is no allocation", operation, p);
    if (h->counter != u16(counter))
        die("%s of %p, which another allocator gave out", operation, p);
    return h;
}

void unlink(Header* h)
{
    List& list = the_lists[h->list];
    std::lock_guard lock(list.latch);
    h->previous->next = h->next;
    h->next->previous = h->previous;
}

void give_back(Header* h)
{
    *const_cast<volatile u32*>(&h->magic) = freed;
    std::free(h);
}

void defer(Header* h)
{
    h->magic = deferred;
    const bool needed = with_memory([h] {
        Deferred d{{}, h};
        for_each_task(
            [](Task& task, void* context) {
                unsigned long sequence = task.hook_sequence.load(std::memory_order_seq_cst);
                if (sequence & 1)
                    static_cast<Deferred*>(context)->inside.push_back({&task, sequence});
            },
            &d);
        if (d.inside.empty())
            return false;
        std::lock_guard lock(deferred_mutex);
        deferred_list().push_back(std::move(d));
        deferred_memory.store(true);
        return true;
    });
    if (!needed)
        give_back(h);
}

} // namespace

void* kmalloc(kernel_size_t bytes, gfp_type gfp)
{
    may_sleep(this_task(), "kmalloc");
    if (allocation_fails(faults::Kind::kmalloc, gfp))
        return nullptr;
    void* p;
    while (!(p = allocate(bytes, Counter::kmallocs, __builtin_return_address(0))) && (gfp & GFP_NOFAIL))
        schedule();
    return p;
}

void kfree(const void* p)
{
    if (!p)
        return;
    Header* h = check(p, Counter::kmallocs, "kfree");
    unlink(h);
    count(Counter::kmallocs, -1);
    if (this_task().in_release)
        defer(h);
    else
        give_back(h);
}

void* vmalloc(unsigned long bytes)
{
    may_sleep(this_task(), "vmalloc");
    if (allocation_fails(faults::Kind::vmalloc, 0))
        return nullptr;
    return allocate(bytes, Counter::vmallocs, __builtin_return_address(0));
}

void vfree(const void* p)
{
    if (!p)
        return;
    Header* h = check(p, Counter::vmallocs, "vfree");
    unlink(h);
    count(Counter::vmallocs, -1);
    give_back(h);
}

namespace hosted
{

std::atomic<bool> deferred_memory{false};

void release_deferred_memory()
{
    if (!deferred_memory.load())
        return;
    Header* free_now = nullptr; // off the lists of the living, so that the links are free
    {
        std::lock_guard lock(deferred_mutex);
        std::erase_if(deferred_list(), [&](Deferred& d) {
            std::erase_if(d.inside, [](const Deferred::Inside& i) {
                return i.task->hook_sequence.load(std::memory_order_acquire) != i.sequence;
            });
            if (!d.inside.empty())
                return false;
            d.object->next = std::exchange(free_now, d.object);
            return true;
        });
        if (deferred_list().empty())
            deferred_memory.store(false);
    }
    while (Header* h = free_now) {
        free_now = h->next;
        give_back(h);
    }
}

std::string call_site(const void* address)
{
    char text[256];
    Dl_info info;
    if (dladdr(address, &info) && info.dli_fname)
        snprintf(text, sizeof text, "%s(+0x%lx) %s", info.dli_fname,
                 (unsigned long)(static_cast<const char*>(address) - static_cast<const char*>(info.dli_fbase)),
                 info.dli_sname ? info.dli_sname : "");
    else
        snprintf(text, sizeof text, "%p", address);
    return text;
}

void describe_allocations(std::string& out)
{
    for (List& list : the_lists) {
        std::lock_guard lock(list.latch);
        for (Header* h = list.head.next; h != &list.head; h = h->next) {
            out += Counter(h->counter) == Counter::kmallocs ? "  kmalloc of " : "  vmalloc of ";
            out += std::to_string(h->bytes) + " bytes at " + call_site(h->caller) + "\n";
        }
    }
}

void forget_allocations()
{
    for (List& list : the_lists) {
        std::vector<Header*> gone;
        {
            std::lock_guard lock(list.latch);
            for (Header* h = list.head.next; h != &list.head; h = h->next)
                gone.push_back(h);
            list.head.next = list.head.previous = &list.head;
        }
        for (Header* h : gone) {
            count(Counter(h->counter), -1);
            give_back(h);
        }
    }
}

} // namespace hosted
