// SPDX-License-Identifier: GPL-2.0-only
// Pages. Those of GFP_KERNEL lie in a memfd, so that another process can map them one by one; the others are
// ordinary memory. A page's record outlives its memory, so that a wrong reference count is always noticed.
//
// The memfd is mapped whole at once and then sealed: from then on nobody can change its size (which would end this
// process at its next touch) or write to it but through that one mapping, whatever way a client finds to open it anew.
#include "base/descriptor.h"
#include "faults.h"
#include "futex.h"
#include "memory.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <mutex>
#include <sys/mman.h>
#include <system_error>
#include <vector>

using namespace hosted;

namespace
{
constexpr u32 chunk_pages = 256;
// Of all transfer pages together. They take memory only when they are used.
constexpr std::size_t transfer_bytes = sizeof(void*) == 8 ? 256 << 20 : 64 << 20;
struct Chunk;
} // namespace

struct page {
    std::atomic<int> references{0};
    std::byte* address = nullptr;
    Chunk* chunk = nullptr;
    page* next_free = nullptr;
    const void* caller = nullptr;
};

namespace
{

struct Chunk {
    std::byte* base = nullptr; // null: its memory was given back, the record waits for reuse
    std::int64_t offset = -1;  // in the memfd
    page* free = nullptr;
    u32 used = 0;
    page pages[chunk_pages];
};

class Pool
{
  public:
    explicit Pool(bool shared) : shared_(shared) {}

    page* take(const void* caller)
    {
        page* p;
        {
            std::lock_guard lock(latch_);
            if (partial_.empty() && !add_chunk())
                return nullptr;
            Chunk* c = partial_.back();
            p = c->free;
            c->free = p->next_free;
            if (++c->used == chunk_pages)
                partial_.pop_back();
        }
        HOSTED_UNPOISON(p->address, PAGE_BYTES);
        p->caller = caller;
        p->references.store(1, std::memory_order_relaxed);
        return p;
    }

    void give_back(page* p)
    {
        // What one client's page held is not for the next one.
        if (shared_)
            std::memset(p->address, 0, PAGE_BYTES);
        HOSTED_POISON(p->address, PAGE_BYTES);
        std::lock_guard lock(latch_);
        Chunk* c = p->chunk;
        p->next_free = c->free;
        c->free = p;
        if (c->used-- == chunk_pages)
            partial_.push_back(c);
        if (c->used == 0 && !shared_ && partial_.size() > 1) {
            std::erase(partial_, c);
            HOSTED_UNPOISON(c->base, chunk_pages * PAGE_BYTES);
            munmap(c->base, chunk_pages * PAGE_BYTES);
            c->base = nullptr;
            empty_.push_back(c);
        }
    }

    template <typename Visit> void each_live(Visit visit)
    {
        std::vector<page*> live;
        {
            std::lock_guard lock(latch_);
            for (Chunk* c : chunks_) {
                for (page& p : c->pages) {
                    if (c->base && p.references.load() > 0)
                        live.push_back(&p);
                }
            }
        }
        for (page* p : live)
            visit(p);
    }

    int read_only_descriptor()
    {
        std::lock_guard lock(latch_);
        open_memory();
        return read_only_.get();
    }

  private:
    void open_memory()
    {
        if (read_only_)
            return;
        const base::Descriptor memory{memfd_create("transfer pages", MFD_CLOEXEC | MFD_ALLOW_SEALING)};
        const int fd = memory.get();
        if (!memory)
            fail("memfd_create for the transfer pages");
        void* all = MAP_FAILED;
        if (ftruncate(fd, off_t(transfer_bytes)) == 0)
            all = mmap(nullptr, transfer_bytes, PROT_READ | PROT_WRITE, MAP_SHARED | MAP_NORESERVE, fd, 0);
        constexpr int sizes = F_SEAL_SHRINK | F_SEAL_GROW;
        // Kernels before 5.1 cannot forbid writing to others alone.
        const bool sealed =
            all != MAP_FAILED && (fcntl(fd, F_ADD_SEALS, sizes | F_SEAL_FUTURE_WRITE | F_SEAL_SEAL) == 0 ||
                                  fcntl(fd, F_ADD_SEALS, sizes | F_SEAL_SEAL) == 0);
        if (sealed)
            read_only_.reset(open(("/proc/self/fd/" + std::to_string(fd)).c_str(), O_RDONLY | O_CLOEXEC));
        if (!read_only_) {
            const int error = errno;
            if (all != MAP_FAILED)
                munmap(all, transfer_bytes);
            errno = error;
            fail("the transfer pages");
        }
        all_ = static_cast<std::byte*>(all);
    }

    [[noreturn]] static void fail(const char* what) { throw std::system_error(errno, std::generic_category(), what); }

    // The next chunk's part of the memfd, or MAP_FAILED.
    void* shared_memory(std::size_t bytes)
    {
        try {
            open_memory();
        } catch (const std::exception&) {
            return MAP_FAILED;
        }
        return std::size_t(size_) + bytes <= transfer_bytes ? all_ + size_ : MAP_FAILED;
    }

    bool add_chunk()
    {
        constexpr std::size_t bytes = chunk_pages * PAGE_BYTES;
        Chunk* c;
        if (empty_.empty()) {
            try {
                // So that giving back, and what follows here, never allocates.
                for (auto* list : {&chunks_, &partial_, &empty_})
                    list->reserve(chunks_.size() + 1);
                c = new Chunk;
            } catch (const std::bad_alloc&) {
                return false;
            }
            chunks_.push_back(c);
        } else {
            c = empty_.back();
            empty_.pop_back();
        }
        void* base;
        if (shared_) {
            base = shared_memory(bytes);
        } else {
            base = mmap(nullptr, bytes, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
        }
        if (base == MAP_FAILED) {
            empty_.push_back(c);
            return false;
        }
        if (shared_) {
            c->offset = size_;
            size_ += bytes;
        }
        c->base = static_cast<std::byte*>(base);
        c->free = nullptr;
        c->used = 0;
        for (u32 i = chunk_pages; i-- > 0;) {
            page& p = c->pages[i];
            p.address = c->base + i * PAGE_BYTES;
            p.chunk = c;
            p.next_free = c->free;
            c->free = &p;
        }
        HOSTED_POISON(base, bytes);
        partial_.push_back(c);
        return true;
    }

    const bool shared_;
    Latch latch_; // guards the rest
    std::vector<Chunk*> chunks_;
    std::vector<Chunk*> partial_; // with memory and a free page
    std::vector<Chunk*> empty_;   // without memory
    // Of the shared pool:
    base::Descriptor read_only_;
    std::byte* all_ = nullptr; // the memfd's mapping
    std::int64_t size_ = 0;    // of its part that is in chunks
};

Pool& shared_pool()
{
    static Immortal<Pool> pool{true};
    return pool.get();
}
Pool& ordinary_pool()
{
    static Immortal<Pool> pool{false};
    return pool.get();
}

void free_page(page* p)
{
    count(Counter::pages, -1);
    (p->chunk->offset >= 0 ? shared_pool() : ordinary_pool()).give_back(p);
}

} // namespace

page* alloc_page(gfp_type gfp)
{
    may_sleep(this_task(), "alloc_page");
    if (allocation_fails(faults::Kind::page, gfp))
        return nullptr;
    bool shared = (gfp & ~GFP_NOFAIL) == GFP_KERNEL;
    page* p = (shared ? shared_pool() : ordinary_pool()).take(__builtin_return_address(0));
    if (p)
        count(Counter::pages, 1);
    return p;
}

void free_page_ref(page* p)
{
    int before = p->references.fetch_sub(1, std::memory_order_acq_rel);
    if (before <= 0)
        die("the reference count of page %p fell below zero (double free)", static_cast<void*>(p));
    if (before == 1)
        free_page(p);
}

void get_page(page* p)
{
    if (p->references.fetch_add(1, std::memory_order_relaxed) <= 0)
        die("get_page of %p, which is free", static_cast<void*>(p));
}

void* kmap(page* p)
{
    may_sleep(this_task(), "kmap");
    return p->address;
}
void kunmap(page*) {}
void* page_address(page* p) { return p->address; }

namespace hosted
{

int transfer_memory_fd() { return shared_pool().read_only_descriptor(); }

std::int64_t transfer_offset(const page* p)
{
    return p->chunk->offset < 0 ? -1 : p->chunk->offset + (p->address - p->chunk->base);
}

void describe_pages(std::string& out)
{
    auto one = [&](page* p) { out += "  page at " + call_site(p->caller) + "\n"; };
    shared_pool().each_live(one);
    ordinary_pool().each_live(one);
}

void forget_pages()
{
    auto one = [](page* p) {
        p->references = 0;
        free_page(p);
    };
    shared_pool().each_live(one);
    ordinary_pool().each_live(one);
}

} // namespace hosted
