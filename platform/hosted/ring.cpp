// SPDX-License-Identifier: GPL-2.0-only
#include "ring.h"

#include <cerrno>

namespace hosted
{

std::unique_ptr<Ring> Ring::open()
{
    std::unique_ptr<Ring> ring(new Ring);
    if (io_uring_queue_init(256, &ring->ring_, 0) != 0)
        return nullptr;
    ring->reaper_ = std::thread([r = ring.get()] { r->reap(); });
    return ring;
}

Ring::~Ring()
{
    if (!reaper_.joinable())
        return;
    {
        std::lock_guard lock(submit_);
        io_uring_sqe* sqe;
        while (!(sqe = io_uring_get_sqe(&ring_)))
            io_uring_submit(&ring_);
        io_uring_prep_nop(sqe);
        io_uring_sqe_set_data(sqe, nullptr);
        while (io_uring_submit(&ring_) < 0)
            sched_yield();
    }
    reaper_.join();
    io_uring_queue_exit(&ring_);
}

bool Ring::submit(Transfer* t)
{
    std::lock_guard lock(submit_);
    io_uring_sqe* sqe = io_uring_get_sqe(&ring_);
    if (!sqe)
        return false;
    if (t->write)
        io_uring_prep_writev2(sqe, t->fd, t->pieces, t->count, t->offset, t->durable ? RWF_DSYNC : 0);
    else
        io_uring_prep_readv(sqe, t->fd, t->pieces, t->count, t->offset);
    io_uring_sqe_set_data(sqe, t);
    handed_over_.fetch_add(1, std::memory_order_release);
    // Once the entry is in the queue it cannot be taken back. A busy kernel takes it with a later call.
    while (io_uring_submit(&ring_) < 0)
        sched_yield();
    return true;
}

void Ring::reap()
{
    for (;;) {
        io_uring_cqe* cqe = nullptr;
        if (io_uring_wait_cqe(&ring_, &cqe) != 0)
            continue;
        handed_over_.load(std::memory_order_acquire);
        auto* t = static_cast<Transfer*>(io_uring_cqe_get_data(cqe));
        long result = cqe->res;
        io_uring_cqe_seen(&ring_, cqe);
        if (!t)
            return;
        t->done(result);
    }
}

} // namespace hosted
