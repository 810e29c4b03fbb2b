// SPDX-License-Identifier: GPL-2.0-only
#include "nbd/buffers.h"

#include <bit>
#include <cstdlib>

namespace quendreld::nbd
{

void Buffer::reset()
{
    if (bytes_)
        from_->give(std::exchange(bytes_, nullptr), size_);
}

Buffers::Buffers()
{
    for (auto& list : free_)
        list.reserve(kept_of_a_size); // so that giving back never allocates
}

Buffers::~Buffers()
{
    for (const auto& list : free_)
        for (std::byte* bytes : list)
            std::free(bytes);
}

Buffer Buffers::take(std::size_t bytes)
{
    const std::size_t size = std::bit_ceil(bytes < smallest ? smallest : bytes);
    const auto index = std::size_t(std::countr_zero(size / smallest));
    if (index < free_.size()) {
        std::lock_guard lock(mutex_);
        auto& list = free_[index];
        if (!list.empty()) {
            std::byte* one = list.back();
            list.pop_back();
            free_bytes_ -= size;
            return {this, one, size};
        }
    }
    auto* one = static_cast<std::byte*>(std::aligned_alloc(smallest, size));
    return one ? Buffer(this, one, size) : Buffer();
}

void Buffers::give(std::byte* bytes, std::size_t size)
{
    const auto index = std::size_t(std::countr_zero(size / smallest));
    if (index < free_.size()) {
        std::lock_guard lock(mutex_);
        auto& list = free_[index];
        if (list.size() < kept_of_a_size && free_bytes_ + size <= kept_bytes) {
            list.push_back(bytes);
            free_bytes_ += size;
            return;
        }
    }
    std::free(bytes);
}

} // namespace quendreld::nbd
