// SPDX-License-Identifier: GPL-2.0-only
// A disk in memory: every request completes before submit returns.
#include "hosted.h"

#include <atomic>
#include <cerrno>
#include <cstring>
#include <new>
#include <stdexcept>
#include <sys/mman.h>

namespace hosted
{

namespace
{

class MemoryStore final : public Store
{
  public:
    explicit MemoryStore(std::uint64_t bytes) : bytes_(bytes)
    {
        if (bytes == 0 || bytes % 512 != 0 || bytes > SIZE_MAX)
            throw std::invalid_argument("a memory store's size must be a positive multiple of 512");
        void* base = mmap(nullptr, std::size_t(bytes), PROT_READ | PROT_WRITE,
                          MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
        if (base == MAP_FAILED)
            throw std::bad_alloc();
        base_ = static_cast<std::byte*>(base);
    }
    ~MemoryStore() override { munmap(base_, std::size_t(bytes_)); }

    std::uint64_t size() const override { return bytes_; }
    bool completes_inline() const override { return true; }
    std::span<std::byte> bytes() { return {base_, std::size_t(bytes_)}; }

    void submit(StoreRequest* r) override
    {
        if (r->op != Op::flush && (r->bytes > bytes_ || r->offset > bytes_ - r->bytes)) {
            r->done(r, -EIO);
            return;
        }
        std::byte* at = base_ + r->offset;
        switch (r->op) {
        case Op::read:
            for (const auto& piece : r->pieces) {
                out(piece.data, at, piece.bytes);
                at += piece.bytes;
            }
            break;
        case Op::write:
            for (const auto& piece : r->pieces) {
                in(at, piece.data, piece.bytes);
                at += piece.bytes;
            }
            break;
        case Op::discard:
        case Op::write_zeroes:
            zero(at, std::size_t(r->bytes));
            break;
        case Op::flush:
            break;
        }
        r->done(r, 0);
    }

  private:
    // Two requests for the same sectors may run at once and then leave either's bytes, or some of each, as on a real
    // disk: no race of the program. Under ThreadSanitizer the store's side of a copy is therefore made of atomic
    // words, while the buffer's side stays visible to it.
#if defined(__SANITIZE_THREAD__)
    static_assert(sizeof(unsigned long) == 8);
    static void out(std::byte* to, const std::byte* store, std::size_t n)
    {
        for (std::size_t i = 0; i < n; i += 8) {
            unsigned long word = __atomic_load_n(reinterpret_cast<const unsigned long*>(store + i), __ATOMIC_RELAXED);
            std::memcpy(to + i, &word, 8);
        }
    }
    static void in(std::byte* store, const std::byte* from, std::size_t n)
    {
        for (std::size_t i = 0; i < n; i += 8) {
            unsigned long word;
            std::memcpy(&word, from + i, 8);
            __atomic_store_n(reinterpret_cast<unsigned long*>(store + i), word, __ATOMIC_RELAXED);
        }
    }
    static void zero(std::byte* store, std::size_t n)
    {
        for (std::size_t i = 0; i < n; i += 8)
            __atomic_store_n(reinterpret_cast<unsigned long*>(store + i), 0ul, __ATOMIC_RELAXED);
    }
#else
    static void out(std::byte* to, const std::byte* store, std::size_t n) { std::memcpy(to, store, n); }
    static void in(std::byte* store, const std::byte* from, std::size_t n) { std::memcpy(store, from, n); }
    static void zero(std::byte* store, std::size_t n) { std::memset(store, 0, n); }
#endif

    std::uint64_t bytes_;
    std::byte* base_;
};

} // namespace

std::unique_ptr<Store> make_memory_store(std::uint64_t bytes) { return std::make_unique<MemoryStore>(bytes); }

std::span<std::byte> memory_store_bytes(Store& store) { return dynamic_cast<MemoryStore&>(store).bytes(); }

} // namespace hosted
