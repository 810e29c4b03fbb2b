/* SPDX-License-Identifier: GPL-2.0-only */
// Asynchronous vectored reads and writes of one file by io_uring. Any thread submits, one thread of the ring's own
// takes the completions.
#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <liburing.h>
#include <memory>
#include <mutex>
#include <sys/uio.h>
#include <thread>

namespace hosted
{

class Ring
{
  public:
    struct Transfer {
        bool write;
        bool durable; // a write that is complete only when it is durable
        int fd;
        std::uint64_t offset;
        const iovec* pieces; // valid until done
        unsigned count;
        // Bytes moved or a negative errno; on the ring's thread.
        std::function<void(long result)> done;
    };

    // Null when this host has no io_uring.
    static std::unique_ptr<Ring> open();
    ~Ring(); // nothing may be in flight
    Ring(const Ring&) = delete;
    Ring& operator=(const Ring&) = delete;

    // `transfer` stays alive until its done was called. False: not taken, the caller finds another way.
    bool submit(Transfer* transfer);

  private:
    Ring() = default;
    void reap();

    io_uring ring_{};
    std::mutex submit_; // guards the submission side of ring_
    // Orders what the submitter wrote before what the reaper reads: the kernel in between is invisible to tools.
    std::atomic<unsigned> handed_over_{0};
    std::thread reaper_;
};

} // namespace hosted
