/* SPDX-License-Identifier: GPL-2.0-only */
// Page-aligned memory for the data of requests, shared by all connections: what one gives back another takes while it
// is still in the processor's cache. An idle connection holds none.
#pragma once

#include <array>
#include <cstddef>
#include <mutex>
#include <utility>
#include <vector>

namespace quendreld::nbd
{

class Buffers;

// A piece of such memory. It goes back where it came from.
class Buffer
{
  public:
    Buffer() = default;
    Buffer(Buffer&& other) noexcept
        : from_(std::exchange(other.from_, nullptr)), bytes_(std::exchange(other.bytes_, nullptr)), size_(other.size_)
    {
    }
    Buffer& operator=(Buffer&& other) noexcept
    {
        std::swap(from_, other.from_);
        std::swap(bytes_, other.bytes_);
        std::swap(size_, other.size_);
        return *this;
    }
    ~Buffer() { reset(); }

    std::byte* data() const { return bytes_; }
    std::size_t size() const { return size_; } // at least what was asked for
    explicit operator bool() const { return bytes_; }
    void reset();

  private:
    friend class Buffers;
    Buffer(Buffers* from, std::byte* bytes, std::size_t size) : from_(from), bytes_(bytes), size_(size) {}

    Buffers* from_ = nullptr;
    std::byte* bytes_ = nullptr;
    std::size_t size_ = 0;
};

class Buffers
{
  public:
    Buffers();
    ~Buffers(); // every buffer is back
    Buffers(const Buffers&) = delete;
    Buffers& operator=(const Buffers&) = delete;

    Buffer take(std::size_t bytes); // an empty one when there is no memory

  private:
    friend class Buffer;
    void give(std::byte* bytes, std::size_t size);

    static constexpr std::size_t smallest = 4096;
    static constexpr std::size_t kept_bytes = 8 << 20; // at most, of those that nobody uses
    static constexpr std::size_t kept_of_a_size = 256;

    std::mutex mutex_;                             // guards what follows; innermost
    std::array<std::vector<std::byte*>, 16> free_; // by size: 4 KiB, 8 KiB, ...
    std::size_t free_bytes_ = 0;
};

} // namespace quendreld::nbd
