// SPDX-License-Identifier: GPL-2.0-only
// Guest requests: through the disk's door, split into bios, and back.
//
// A request counts itself in before it looks whether the door is closed, and the closing of a door counts those
// inside after it closed: so each request either sees the closed door or is waited for.
//
// A request that may not pass the door lies before it until the door opens, and its submitter goes on; a thread of the
// disk's own then lets it in.
#include "block.h"
#include "futex.h"

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <ctime>
#include <new>
#include <system_error>
#include <utility>

namespace hosted
{

namespace
{

constexpr std::uint64_t bio_bytes = 1 << 20;
// Discards and write-zeroes carry no data; the bound keeps a bio's size within its 32 bits.
constexpr std::uint64_t dataless_bio_bytes = 1 << 30;
constexpr auto longest_drain = std::chrono::seconds(30);

bool changes_data(Op op) { return op == Op::write || op == Op::discard || op == Op::write_zeroes; }

} // namespace

struct DiskImpl::Guest {
    std::atomic<int> bios;
    std::atomic<int> error;
    u32 epoch;
    u32 partition;
    DiskImpl* disk;
    GuestRequest* next; // before the door

    static Guest& of(GuestRequest* r) { return *reinterpret_cast<Guest*>(r->reserved); }
};

int DiskImpl::check(const GuestRequest& r, u32 partition) const
{
    if (gone())
        return -ENODEV;
    sector_type start = 0, sectors = gendisk_.capacity;
    if (partition != 0 && (partition >= gendisk_.minors || !gendisk_.slots[partition].get(&start, &sectors)))
        return -ENXIO;
    if (r.op == Op::flush)
        return r.bytes == 0 ? 0 : -EINVAL;
    const std::uint64_t size = sectors << 9;
    if (r.offset % 512 != 0 || r.bytes % 512 != 0)
        return -EINVAL;
    if (r.bytes > size || r.offset > size - r.bytes)
        return changes_data(r.op) ? -ENOSPC : -EIO;
    return 0;
}

bool DiskImpl::held(const GuestRequest& r) const
{
    const u32 partition = Guest::of(const_cast<GuestRequest*>(&r)).partition;
    sector_type partition_start = 0, sectors;
    if (partition)
        gendisk_.slots[partition].get(&partition_start, &sectors);
    const sector_type start = (r.offset >> 9) + partition_start;
    const bool changes = changes_data(r.op);
    return std::any_of(closed_.begin(), closed_.end(), [&](const Range& c) {
        return (changes || c.reads) && start < c.start + c.sectors && c.start < start + (r.bytes >> 9);
    });
}

bool DiskImpl::enter(GuestRequest* r)
{
    Guest& g = Guest::of(r);
    g.epoch = epoch_.load() & 1;
    inside_[g.epoch].fetch_add(1);
    // Only now: one that was cut by partitions of before is seen here, or waited for by the next closing of the door.
    if (__builtin_expect(r->edition != 0 && r->edition != edition_.load(), 0)) {
        leave(g.epoch);
        r->outdated = true; // a host's file may answer ESTALE, too
        r->done(r, -ESTALE);
        return false;
    }
    if (__builtin_expect(doors_closed_.load() == 0, 1) || r->op == Op::flush)
        return true;
    std::lock_guard lock(door_mutex_);
    if (!held(*r))
        return true;
    before_door_count_.fetch_add(1);
    leave(g.epoch);
    g.next = nullptr;
    *before_door_end_ = r;
    before_door_end_ = &g.next;
    return false;
}

// Takes those from before the door that may pass it now.
GuestRequest* DiskImpl::take_free()
{
    GuestRequest* first = nullptr;
    GuestRequest** end = &first;
    GuestRequest** at = &before_door_;
    while (GuestRequest* r = *at) {
        Guest& g = Guest::of(r);
        if (held(*r)) {
            at = &g.next;
            continue;
        }
        *at = g.next;
        g.next = nullptr;
        *end = r;
        end = &g.next;
    }
    before_door_end_ = at;
    return first;
}

void DiskImpl::porter()
{
    std::unique_lock lock(door_mutex_);
    for (;;) {
        GuestRequest* r = take_free();
        if (!r) {
            if (porter_ends_)
                return;
            door_opened_.wait(lock);
            continue;
        }
        lock.unlock();
        while (r) {
            GuestRequest* next = Guest::of(r).next;
            if (enter(r))
                send(r);
            // Only now: whoever waits for the disk to be idle counts it here until it counts as inside.
            before_door_count_.fetch_sub(1);
            r = next;
        }
        lock.lock();
    }
}

void DiskImpl::leave(unsigned epoch) { inside_[epoch].fetch_sub(1); }

bool DiskImpl::close_door(sector_type start, sector_type sectors, bool reads)
{
    std::lock_guard closing(closing_);
    before_waiting(this_task());
    {
        std::lock_guard lock(door_mutex_);
        if (!porter_.joinable()) {
            try {
                porter_ = std::thread([this] { porter(); });
            } catch (const std::exception&) {
                return false; // nobody would let in who has waited
            }
        }
        try {
            closed_.push_back({start, sectors, reads});
        } catch (const std::bad_alloc&) {
            return false;
        }
        doors_closed_.fetch_add(1);
    }
    auto deadline = std::chrono::steady_clock::now() + longest_drain;
    // The other epoch's count is that of stragglers of an earlier closing, mostly none.
    unsigned now = epoch_.load() & 1;
    bool drained = drain(now ^ 1, deadline);
    if (drained) {
        epoch_.fetch_add(1);
        drained = drain(now, deadline);
    }
    if (!drained)
        open_door(start, sectors);
    return drained;
}

bool DiskImpl::drain(unsigned epoch, std::chrono::steady_clock::time_point deadline)
{
    for (unsigned step = 0; inside_[epoch].load() != 0; ++step) {
        if (step < 100) {
            sched_yield();
            continue;
        }
        timespec pause{0, 50000};
        nanosleep(&pause, nullptr);
        if (std::chrono::steady_clock::now() > deadline)
            return false;
    }
    return true;
}

void DiskImpl::open_door(sector_type start, sector_type sectors)
{
    {
        std::lock_guard lock(door_mutex_);
        auto c = std::find_if(closed_.begin(), closed_.end(),
                              [&](const Range& r) { return r.start == start && r.sectors == sectors; });
        if (c == closed_.end())
            return;
        closed_.erase(c);
        doors_closed_.fetch_sub(1);
    }
    door_opened_.notify_all();
}

void DiskImpl::finish(GuestRequest* r)
{
    Guest& g = Guest::of(r);
    int error = g.error.load(std::memory_order_relaxed);
    // Out of the door before done: what done submits may have to wait for a closing that waits for this request.
    leave(g.epoch);
    r->done(r, error);
}

void DiskImpl::guest_end_io(bio* b, int error)
{
    auto* r = static_cast<GuestRequest*>(b->private_data);
    bio_put(b);
    part_over(r, error);
}

void DiskImpl::part_over(GuestRequest* r, int error)
{
    Guest& g = Guest::of(r);
    if (error) {
        int none = 0;
        g.error.compare_exchange_strong(none, error, std::memory_order_relaxed);
    }
    if (g.bios.fetch_sub(1, std::memory_order_acq_rel) == 1)
        g.disk->finish(r);
}

void DiskImpl::submit(GuestRequest* r, u32 partition) noexcept
{
    static_assert(sizeof(Guest) <= sizeof r->reserved && alignof(Guest) <= alignof(GuestRequest));
    int error = check(*r, partition);
    if (error || (r->bytes == 0 && r->op != Op::flush)) {
        r->done(r, error);
        return;
    }
    new (r->reserved) Guest{{1}, {0}, 0, partition, this, nullptr};
    if (enter(r))
        send(r);
}

void DiskImpl::send(GuestRequest* r)
{
    const u32 partition = Guest::of(r).partition;
    std::uint64_t sector = r->offset >> 9;
    SubmissionRun run;
    bool has_data = r->op == Op::read || r->op == Op::write;
    std::uint64_t most = has_data ? bio_bytes : dataless_bio_bytes;
    std::uint64_t left = r->bytes;
    std::byte* data = r->data;
    Guest& g = Guest::of(r);
    // The request may be done, and gone, as soon as its last bio is sent.
    for (bool last = false; !last;) {
        u32 bytes = u32(std::min(left, most));
        left -= bytes;
        last = left == 0;
        bio* b = new_raw_bio();
        if (!b) // the parts that were sent end by themselves
            return part_over(r, -ENOMEM);
        b->op = r->op;
        b->fua = r->fua;
        b->may_unmap = r->may_unmap;
        b->read_ahead = r->read_ahead && r->op == Op::read;
        // A flush concerns the whole disk, whichever device it is sent to.
        b->bdev = bdevs_[r->op == Op::flush ? 0 : partition];
        b->sector = r->op == Op::flush ? 0 : sector;
        b->size = bytes;
        b->raw = data;
        b->private_data = r;
        b->end_io = guest_end_io;
        sector += bytes >> 9;
        if (has_data)
            data += bytes;
        if (!last)
            g.bios.fetch_add(1, std::memory_order_relaxed);
        generic_make_request(b);
    }
}

namespace
{

struct Waiter {
    std::atomic<u32> done{0};
    int error = 0;

    static void finished(GuestRequest* r, int error)
    {
        auto* w = static_cast<Waiter*>(r->context);
        w->error = error;
        w->done.store(1, std::memory_order_release);
        futex_wake(&w->done);
    }
};

int submit_and_wait(Disk& disk, GuestRequest& r, u32 partition)
{
    Task& task = this_task();
    may_sleep(task, "a synchronous guest request");
    Waiter w;
    r.done = Waiter::finished;
    r.context = &w;
    // A test's disk probe may come here from inside a make_request_fn; queued behind that one it would never start.
    Task::BioList* list = std::exchange(task.bio_list, nullptr);
    disk.submit(&r, partition);
    before_waiting(task);
    task.bio_list = list;
    while (w.done.load(std::memory_order_acquire) == 0)
        futex_wait(&w.done, 0);
    return w.error;
}

} // namespace

int Disk::read(std::uint64_t offset, std::span<std::byte> into, u32 partition)
{
    GuestRequest r;
    r.op = Op::read;
    r.offset = offset;
    r.bytes = into.size();
    r.data = into.data();
    return submit_and_wait(*this, r, partition);
}

int Disk::write(std::uint64_t offset, std::span<const std::byte> from, u32 partition, bool fua)
{
    GuestRequest r;
    r.op = Op::write;
    r.fua = fua;
    r.offset = offset;
    r.bytes = from.size();
    r.data = const_cast<std::byte*>(from.data());
    return submit_and_wait(*this, r, partition);
}

int Disk::flush()
{
    GuestRequest r;
    r.op = Op::flush;
    return submit_and_wait(*this, r, 0);
}

int Disk::discard(std::uint64_t offset, std::uint64_t bytes, u32 partition)
{
    GuestRequest r;
    r.op = Op::discard;
    r.offset = offset;
    r.bytes = bytes;
    return submit_and_wait(*this, r, partition);
}

int Disk::write_zeroes(std::uint64_t offset, std::uint64_t bytes, u32 partition)
{
    GuestRequest r;
    r.op = Op::write_zeroes;
    r.offset = offset;
    r.bytes = bytes;
    return submit_and_wait(*this, r, partition);
}

} // namespace hosted
