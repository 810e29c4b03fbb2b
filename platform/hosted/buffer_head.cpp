// SPDX-License-Identifier: GPL-2.0-only
// Buffer heads. The state word also says whether a completion is under way, because the completion unlocks the
// buffer before it drops its reference, and whoever waited for the lock may free the buffer at once: freeing waits
// for both.
#include "block.h"
#include "faults.h"
#include "futex.h"

#include <new>

using namespace hosted;

struct buffer_head {
    std::atomic<u32> state{0};
    std::atomic<int> references{0};
    block_device* bdev = nullptr;
    u64 block = 0;
    u32 bytes = 0;
    u32 offset = 0;
    page* data = nullptr;
    bh_end_io_fn* end_io = nullptr;
};

namespace
{

constexpr u32 up_to_date = 8;
constexpr u32 eopnotsupp = 16;
constexpr u32 completing = 32; // its end_io runs
constexpr u32 waiters = 64;
constexpr unsigned short_wait = 100; // turns of a busy wait, a few microseconds

// Waits until none of the bits is set.
void wait_until_clear(buffer_head* bh, u32 bits)
{
    u32 state = bh->state.load(std::memory_order_acquire);
    if (!(state & bits))
        return;
    before_waiting(this_task());
    // Buffers of one run end right after each other: going to sleep for each would take longer than that.
    for (unsigned step = 0; step < short_wait && (bh->state.load(std::memory_order_acquire) & bits); ++step)
        cpu_relax();
    while ((state = bh->state.load(std::memory_order_acquire)) & bits) {
        if (!(state & waiters) && !bh->state.compare_exchange_weak(state, state | waiters, std::memory_order_relaxed))
            continue;
        futex_wait(&bh->state, state | waiters);
    }
}

void clear_and_wake(buffer_head* bh, u32 bits)
{
    u32 before = bh->state.fetch_and(~(bits | waiters), std::memory_order_release);
    if (before & waiters)
        futex_wake(&bh->state);
}

} // namespace

buffer_head* alloc_buffer_head(gfp_type gfp)
{
    may_sleep(this_task(), "alloc_buffer_head");
    if (allocation_fails(faults::Kind::buffer_head, gfp))
        return nullptr;
    auto* bh = new (std::nothrow) buffer_head;
    if (bh)
        count(Counter::buffer_heads, 1);
    return bh;
}

void free_buffer_head(buffer_head* bh)
{
    may_sleep(this_task(), "free_buffer_head");
    wait_until_clear(bh, BUFFER_LOCKED | completing);
    delete bh;
    count(Counter::buffer_heads, -1);
}

void set_bh_page(buffer_head* bh, page* p, u32 offset)
{
    if (offset >= PAGE_BYTES)
        die("set_bh_page with offset %u, beyond the page", offset);
    bh->data = p;
    bh->offset = offset;
}
void bh_set_block(buffer_head* bh, block_device* bdev, u64 block, u32 bytes)
{
    bh->bdev = bdev;
    bh->block = block;
    bh->bytes = bytes;
}
void bh_set_state(buffer_head* bh, u32 state)
{
    bh->state.store(state & (BUFFER_LOCKED | BUFFER_REQ | BUFFER_MAPPED), std::memory_order_relaxed);
}
void bh_set_end_io(buffer_head* bh, bh_end_io_fn* fn) { bh->end_io = fn; }
void bh_init_assoc(buffer_head*) {}
block_device* bh_bdev(buffer_head* bh) { return bh->bdev; }
u64 bh_block(buffer_head* bh) { return bh->block; }
u32 bh_bytes(buffer_head* bh) { return bh->bytes; }
page* bh_page(buffer_head* bh) { return bh->data; }
u32 bh_offset(buffer_head* bh) { return bh->offset; }

void bh_end_io(buffer_head* bh, int uptodate)
{
    bh->state.fetch_or(completing, std::memory_order_relaxed);
    bh->end_io(bh, uptodate);
    clear_and_wake(bh, completing);
}

void get_bh(buffer_head* bh) { bh->references.fetch_add(1, std::memory_order_relaxed); }
void put_bh(buffer_head* bh) { bh->references.fetch_sub(1, std::memory_order_release); }
int bh_count(buffer_head* bh) { return bh->references.load(std::memory_order_acquire); }
int buffer_locked(buffer_head* bh) { return (bh->state.load(std::memory_order_acquire) & BUFFER_LOCKED) != 0; }
void set_buffer_uptodate(buffer_head* bh) { bh->state.fetch_or(up_to_date, std::memory_order_relaxed); }
void set_buffer_eopnotsupp(buffer_head* bh) { bh->state.fetch_or(eopnotsupp, std::memory_order_relaxed); }
void unlock_buffer(buffer_head* bh)
{
    if (!(bh->state.load(std::memory_order_relaxed) & BUFFER_LOCKED))
        die("unlock_buffer of a buffer head that is not locked");
    clear_and_wake(bh, BUFFER_LOCKED);
}

void wait_on_buffer_locked(buffer_head* bh)
{
    may_sleep(this_task(), "wait_on_buffer");
    wait_until_clear(bh, BUFFER_LOCKED);
}
