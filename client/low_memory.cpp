// SPDX-License-Identifier: GPL-2.0-only
#include "client/low_memory.h"

#include <sys/mman.h>

#include <new>
#include <utility>

namespace quendrel
{
namespace
{

constexpr std::size_t page = 4096;
constexpr std::uint64_t limit = 1ULL << 32;
constexpr std::uint64_t search_step = 16ULL << 20;

bool below_limit(const void* p, std::size_t bytes)
{
    return reinterpret_cast<std::uintptr_t>(p) + std::uint64_t{bytes} <= limit;
}

// MAP_32BIT looks only between 1 and 2 GiB. A map of a very large device may not fit there, so the rest of the
// first 4 GiB is tried in steps.
void* map_low(std::size_t bytes, int protection, int flags)
{
    void* p = ::mmap(nullptr, bytes, protection, flags | MAP_32BIT, -1, 0);
    if (p != MAP_FAILED && below_limit(p, bytes))
        return p;
    if (p != MAP_FAILED)
        ::munmap(p, bytes);
    for (std::uint64_t at = search_step; at + bytes <= limit; at += search_step) {
        void* wanted = reinterpret_cast<void*>(static_cast<std::uintptr_t>(at));
        p = ::mmap(wanted, bytes, protection, flags | MAP_FIXED_NOREPLACE, -1, 0);
        if (p == wanted)
            return p;
        if (p != MAP_FAILED) // a kernel without MAP_FIXED_NOREPLACE takes the address for a hint
            ::munmap(p, bytes);
    }
    throw std::bad_alloc{};
}

} // namespace

LowMemory::LowMemory(std::size_t bytes, Access access)
{
    if (bytes >= limit)
        throw std::bad_alloc{};
    const std::size_t rounded = bytes == 0 ? page : (bytes + page - 1) / page * page;
    const bool reserve = access == Access::reserve;
    const int flags = MAP_PRIVATE | MAP_ANONYMOUS | (reserve ? MAP_NORESERVE : 0);
    data_ = static_cast<std::byte*>(map_low(rounded, reserve ? PROT_NONE : PROT_READ | PROT_WRITE, flags));
    bytes_ = rounded;
}

LowMemory::LowMemory(LowMemory&& other) noexcept
    : data_{std::exchange(other.data_, nullptr)}, bytes_{std::exchange(other.bytes_, 0)}
{
}

LowMemory& LowMemory::operator=(LowMemory&& other) noexcept
{
    if (this != &other) {
        release();
        data_ = std::exchange(other.data_, nullptr);
        bytes_ = std::exchange(other.bytes_, 0);
    }
    return *this;
}

void LowMemory::release() noexcept
{
    if (data_ != nullptr)
        ::munmap(data_, bytes_);
    data_ = nullptr;
    bytes_ = 0;
}

} // namespace quendrel
