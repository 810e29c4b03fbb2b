// SPDX-License-Identifier: GPL-2.0-only
#include "fuse_buffers.h"

#include <sys/mman.h>

#include <new>

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
    void* buffer = ::mmap(nullptr, bytes_, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    if (buffer == MAP_FAILED)
        throw std::bad_alloc();
    free_.reserve(free_.size() + out_ + 1); // so that giving back never allocates
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

} // namespace quendreld
