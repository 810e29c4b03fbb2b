/* SPDX-License-Identifier: GPL-2.0-only */
// Memory below 4 GiB: everything whose address the driver is told lies here, since the driver's records hold 32-bit
// addresses.
#pragma once

#include <cstddef>
#include <cstdint>

namespace quendrel
{

// One private mapping below 4 GiB, zero-filled, page-aligned; given back when the object goes. Moved, never copied.
class LowMemory
{
  public:
    enum class Access { read_write, reserve }; // reserve: addresses only, nothing may be touched

    LowMemory() noexcept = default;
    // `bytes` is rounded up to whole pages; 0 gives one page. Throws std::bad_alloc when there is no room.
    explicit LowMemory(std::size_t bytes, Access access = Access::read_write);
    ~LowMemory() { release(); }
    LowMemory(LowMemory&& other) noexcept;
    LowMemory& operator=(LowMemory&& other) noexcept;
    LowMemory(const LowMemory&) = delete;
    LowMemory& operator=(const LowMemory&) = delete;

    std::byte* data() const noexcept { return data_; }
    std::size_t bytes() const noexcept { return bytes_; }
    std::uint32_t address() const noexcept
    {
        return static_cast<std::uint32_t>(reinterpret_cast<std::uintptr_t>(data_));
    }

  private:
    void release() noexcept;

    std::byte* data_ = nullptr;
    std::size_t bytes_ = 0;
};

} // namespace quendrel
