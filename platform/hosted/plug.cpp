// SPDX-License-Identifier: GPL-2.0-only
// Merging: bios that reach a disk's own function in one run of one thread and are adjacent go to the store as one
// request, as an elevator would do it. What is kept back is sent when the run ends, when the thread waits for
// anything, or when the next bio does not continue it.
#include "block.h"
#include "faults.h"

#include <atomic>
#include <cerrno>
#include <new>

namespace hosted
{

namespace
{

constexpr u32 most_bytes = 1 << 20;
// Reads go in smaller runs, so that a store can work on one while the next is made.
constexpr u32 most_read_bytes = 128 << 10;
constexpr u32 most_bios = 256;

StoreRequest::Piece piece_of(bio* b)
{
    if (b->raw)
        return {b->raw, b->size};
    return {static_cast<std::byte*>(page_address(b->vector[0].p)) + b->vector[0].offset, b->size};
}

void fill(StoreRequest& request, bio* first, bool more)
{
    request.more = more;
    request.op = first->op;
    request.fua = first->fua;
    request.may_unmap = first->may_unmap;
    request.offset = first->sector << 9;
}

void single_done(StoreRequest* request, int error)
{
    bio* b = reinterpret_cast<bio*>(reinterpret_cast<std::byte*>(request) - __builtin_offsetof(bio, request));
    bio_endio(b, error);
}

void send_single(DiskImpl& disk, bio* b, bool more)
{
    fill(b->request, b, more);
    b->request.bytes = b->size;
    if (b->op == Op::read || b->op == Op::write) {
        b->piece = piece_of(b);
        b->request.pieces = {&b->piece, 1};
    }
    b->request.done = single_done;
    disk.store().submit(&b->request);
}

// A bio may be gone as soon as it was dealt with.
template <typename Do> void for_each(bio* head, Do what)
{
    while (bio* b = head) {
        head = b->next;
        what(b);
    }
}

void send_singles(DiskImpl& disk, bio* head, bool more)
{
    for_each(head, [&](bio* b) { send_single(disk, b, more); });
}

struct Batch {
    StoreRequest request{};
    DiskImpl* disk = nullptr;
    bio* head = nullptr;
    StoreRequest::Piece pieces[most_bios];

    static void done(StoreRequest* request, int error)
    {
        auto* batch = reinterpret_cast<Batch*>(request); // its first member
        // What failed together goes once more alone, so that only what really fails fails.
        if (error)
            send_singles(*batch->disk, batch->head, false);
        else
            for_each(batch->head, [](bio* b) { bio_endio(b, 0); });
        delete batch;
    }
};

void send_batch(DiskImpl& disk, bio* head, u32 bytes, bool more)
{
    auto* batch = new (std::nothrow) Batch;
    if (!batch)
        return send_singles(disk, head, more);
    batch->disk = &disk;
    u32 pieces = 0;
    for (bio* b = head; b; b = b->next) {
        StoreRequest::Piece p = piece_of(b);
        StoreRequest::Piece* last = pieces ? &batch->pieces[pieces - 1] : nullptr;
        if (last && last->data + last->bytes == p.data)
            last->bytes += p.bytes;
        else
            batch->pieces[pieces++] = p;
    }
    fill(batch->request, head, more);
    batch->request.bytes = bytes;
    batch->request.pieces = {batch->pieces, pieces};
    batch->request.done = Batch::done;
    batch->head = head;
    disk.store().submit(&batch->request);
}

bool continues(const Task& task, const DiskImpl& disk, const bio* b)
{
    const bio* tail = task.plug_tail;
    return task.plug_disk == &disk && tail->op == b->op && tail->fua == b->fua &&
           tail->sector + (tail->size >> 9) == b->sector && task.plug_bios < most_bios &&
           task.plug_bytes + b->size <= (b->op == Op::read ? most_read_bytes : most_bytes);
}

struct Probe {
    std::mutex mutex;
    std::shared_ptr<std::function<void(const BioView&)>> function;
};
Probe& the_probe()
{
    static Immortal<Probe> probe;
    return probe.get();
}
std::atomic<bool> probe_set{false};

void call_probe(const bio* b)
{
    std::shared_ptr<std::function<void(const BioView&)>> function;
    {
        std::lock_guard lock(the_probe().mutex);
        function = the_probe().function;
    }
    if (function)
        (*function)({b->op != Op::read && b->op != Op::flush, b->sector, b->size});
}

} // namespace

void flush_plug(Task& task, bool more)
{
    while (bio* head = task.plug_head) {
        DiskImpl& disk = *task.plug_disk;
        u32 bytes = task.plug_bytes;
        bool alone = task.plug_bios == 1;
        task.plug_head = task.plug_tail = nullptr;
        task.plug_disk = nullptr;
        task.plug_bytes = task.plug_bios = 0;
        if (alone)
            send_single(disk, head, more);
        else
            send_batch(disk, head, bytes, more);
    }
}

int disk_make_request(request_queue* q, bio* b)
{
    DiskImpl& disk = *q->disk;
    Task& task = this_task();
    if (__builtin_expect(probe_set.load(std::memory_order_relaxed), 0)) {
        before_waiting(task);
        call_probe(b);
    }
    if (__builtin_expect(disk.gone(), 0)) {
        bio_endio(b, -ENODEV);
        return 0;
    }
    sector_type sectors = b->size >> 9;
    if (sectors > disk.disk().capacity || b->sector > disk.disk().capacity - sectors ||
        (b->op != Op::flush && transfer_fails(b->op != Op::read))) {
        bio_endio(b, -EIO);
        return 0;
    }
    if (task.run_depth == 0 || disk.inline_store() || (b->op != Op::read && b->op != Op::write)) {
        before_waiting(task);
        send_single(disk, b, false);
        return 0;
    }
    if (task.plug_head && !continues(task, disk, b))
        flush_plug(task, true);
    b->next = nullptr;
    if (task.plug_head)
        task.plug_tail->next = b;
    else
        task.plug_head = b;
    task.plug_tail = b;
    task.plug_disk = &disk;
    task.plug_bytes += b->size;
    ++task.plug_bios;
    return 0;
}

void set_disk_probe(std::function<void(const BioView&)> probe)
{
    auto shared = probe ? std::make_shared<std::function<void(const BioView&)>>(std::move(probe)) : nullptr;
    std::lock_guard lock(the_probe().mutex);
    probe_set = shared != nullptr;
    the_probe().function = std::move(shared);
}

} // namespace hosted
