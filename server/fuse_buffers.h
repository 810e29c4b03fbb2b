/* SPDX-License-Identifier: GPL-2.0-only */
// Page-aligned buffers for the FUSE front, in two sizes, kept for reuse.
//
// There is a bound on how many are out at a time: a front with more work than that waits in take(), which holds back
// the host kernel's requests and bounds the daemon's memory. Buffers come back from completions, which never wait
// here, so the wait ends. The last one given back is the first one taken: a light load touches little memory.
#pragma once

#include <condition_variable>
#include <cstddef>
#include <mutex>
#include <vector>

namespace quendreld
{

class BufferPool
{
  public:
    // `bytes` of each buffer; at most `most` out at a time.
    BufferPool(std::size_t bytes, unsigned most) : bytes_(bytes), most_(most) {}
    ~BufferPool(); // all buffers are back
    BufferPool(const BufferPool&) = delete;
    BufferPool& operator=(const BufferPool&) = delete;

    std::size_t bytes() const { return bytes_; }
    std::byte* take(); // throws std::bad_alloc
    void give(std::byte* buffer);

  private:
    const std::size_t bytes_;
    const unsigned most_;
    std::mutex mutex_; // guards what follows; innermost
    std::condition_variable back_;
    std::vector<std::byte*> free_;
    unsigned out_ = 0;
};

// The buffer in which a thread receives requests, from a pool of these. The payload of a write begins on a page in it,
// so headers go into the tail of the first page, and behind the largest payload is the room that libfuse adds to it.
// An operation may keep the buffer that its request came in; the thread then takes another.
class ReceiveBuffer
{
  public:
    static constexpr std::size_t most_payload = 1 << 20;
    static constexpr std::size_t bytes = 4096 + most_payload + 4096;

    explicit ReceiveBuffer(BufferPool& pool) : pool_(pool) { renew(); }
    ~ReceiveBuffer();
    ReceiveBuffer(const ReceiveBuffer&) = delete;
    ReceiveBuffer& operator=(const ReceiveBuffer&) = delete;

    std::byte* start() const;
    // Takes another when it was kept. Waits as long as there is none, or no memory: buffers in use come back.
    void renew();
    // The buffer of the calling thread, which goes back to the pool later.
    static std::byte* keep();

  private:
    BufferPool& pool_;
    static thread_local std::byte* current; // null: kept
};

} // namespace quendreld
