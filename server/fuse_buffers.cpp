// SPDX-License-Identifier: GPL-2.0-only
#include "fuse_buffers.h"

#include <linux/fuse.h>
#include <sys/mman.h>

#include <chrono>
#include <new>
#include <thread>
#include <utility>

namespace quendreld
{

BufferPool::~BufferPool()
{
    for (std::byte* buffer : free_)
        ::munmap(buffer, bytes_);
}

std::byte* BufferPool::take()
{
    std::unique_lock lock(mutex_);
    back_.wait(lock, [this] { return out_ < most_; });
    if (!free_.empty()) {
        ++out_;
        std::byte* buffer = free_.back();
        free_.pop_back();
        return buffer;
    }
    free_.reserve(free_.size() + out_ + 1); // so that giving back never allocates
    void* buffer = ::mmap(nullptr, bytes_, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    if (buffer == MAP_FAILED)
        throw std::bad_alloc();
    ++out_;
    return static_cast<std::byte*>(buffer);
}

void BufferPool::give(std::byte* buffer)
{
    {
        std::lock_guard lock(mutex_);
        free_.push_back(buffer);
        --out_;
    }
    back_.notify_one();
}

thread_local std::byte* ReceiveBuffer::current = nullptr;

ReceiveBuffer::~ReceiveBuffer() { pool_.give(keep()); }

std::byte* ReceiveBuffer::start() const { return current + 4096 - sizeof(fuse_in_header) - sizeof(fuse_write_in); }

void ReceiveBuffer::renew()
{
    while (!current) {
        try {
            current = pool_.take();
        } catch (const std::bad_alloc&) {
            std::this_thread::sleep_for(std::chrono::milliseconds(10));
        }
    }
}

std::byte* ReceiveBuffer::keep() { return std::exchange(current, nullptr); }

} // namespace quendreld
