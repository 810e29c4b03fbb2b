// SPDX-License-Identifier: GPL-2.0-only
// Slab caches: objects of one size packed into aligned chunks of 1 MiB, whose only overhead is a bitmap of the live
// objects at the chunk's start. The bitmap also catches double frees and foreign pointers.
//
// As in the kernel an object is aligned to a hardware cache line, or, when it would fit twice or more into one, to
// the largest power of two below a line that it fits.
#include "faults.h"
#include "futex.h"
#include "memory.h"

#include <algorithm>
#include <cstring>
#include <memory>
#include <mutex>
#include <sys/mman.h>
#include <vector>

using namespace hosted;

namespace
{

constexpr std::size_t chunk_bytes = 1 << 20;
constexpr std::size_t cache_line = 64;

struct Chunk {
    u32 live;
    u32 hint;     // no free object lies in an earlier word of the bitmap
    u32 bitmap[]; // 1: live; bits beyond the last object are set
};

Chunk* map_chunk()
{
    void* raw =
        mmap(nullptr, 2 * chunk_bytes, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
    if (raw == MAP_FAILED)
        return nullptr;
    auto start = reinterpret_cast<std::uintptr_t>(raw);
    std::uintptr_t aligned = (start + chunk_bytes - 1) & ~(chunk_bytes - 1);
    if (aligned > start)
        munmap(raw, aligned - start);
    std::uintptr_t end = start + 2 * chunk_bytes;
    if (end > aligned + chunk_bytes)
        munmap(reinterpret_cast<void*>(aligned + chunk_bytes), end - aligned - chunk_bytes);
    // A huge page would make a cache of a few objects cost 2 MiB.
    madvise(reinterpret_cast<void*>(aligned), chunk_bytes, MADV_NOHUGEPAGE);
    return reinterpret_cast<Chunk*>(aligned);
}

} // namespace

struct kmem_cache {
    std::string name;
    std::size_t object_bytes;
    std::size_t stride;
    std::size_t first; // offset of object 0
    u32 per_chunk;
    u32 words;
    const void* caller;
    Latch latch;                 // guards the rest
    std::vector<Chunk*> chunks;  // by address
    std::vector<Chunk*> partial; // those with a free object
    long live = 0;

    Chunk* add_chunk()
    {
        Chunk* c = map_chunk();
        if (!c)
            return nullptr;
        if (per_chunk % 32)
            c->bitmap[words - 1] = ~0u << (per_chunk % 32);
        HOSTED_POISON(reinterpret_cast<std::byte*>(c) + first, chunk_bytes - first);
        try {
            partial.reserve(chunks.size() + 1); // so that freeing an object never allocates
            chunks.insert(std::lower_bound(chunks.begin(), chunks.end(), c), c);
        } catch (const std::bad_alloc&) {
            unmap(c);
            return nullptr;
        }
        partial.push_back(c);
        return c;
    }
    void remove_chunk(Chunk* c)
    {
        chunks.erase(std::lower_bound(chunks.begin(), chunks.end(), c));
        std::erase(partial, c);
        unmap(c);
    }
    void unmap(Chunk* c)
    {
        HOSTED_UNPOISON(c, chunk_bytes);
        munmap(c, chunk_bytes);
    }
    void* object(Chunk* c, u32 index) { return reinterpret_cast<std::byte*>(c) + first + index * stride; }
};

namespace
{

std::mutex caches_mutex; // guards the list
std::vector<kmem_cache*>& caches()
{
    static Immortal<std::vector<kmem_cache*>> the;
    return the.get();
}

void destroy(kmem_cache* cache)
{
    for (Chunk* c : cache->chunks)
        cache->unmap(c);
    delete cache;
    count(Counter::slab_caches, -1);
}

} // namespace

kmem_cache* kmem_cache_create(const char* name, kernel_size_t bytes)
{
    may_sleep(this_task(), "kmem_cache_create");
    if (bytes == 0 || bytes > chunk_bytes / 2 || allocation_fails(faults::Kind::slab_cache, 0))
        return nullptr;
    std::size_t align = cache_line;
    while (align > sizeof(void*) && bytes <= align / 2)
        align /= 2;
    std::unique_ptr<kmem_cache> owned;
    std::lock_guard lock(caches_mutex);
    try {
        owned = std::make_unique<kmem_cache>();
        owned->name = name;
        caches().push_back(owned.get());
    } catch (const std::bad_alloc&) {
        return nullptr;
    }
    kmem_cache* cache = owned.release();
    cache->object_bytes = bytes;
    cache->stride = (bytes + align - 1) / align * align;
    cache->caller = __builtin_return_address(0);
    // Object count first for a bitmap that is too long by at most a word, then what really fits.
    std::size_t guess = chunk_bytes / cache->stride;
    cache->first = (sizeof(Chunk) + (guess + 31) / 32 * 4 + align - 1) / align * align;
    cache->per_chunk = u32((chunk_bytes - cache->first) / cache->stride);
    cache->words = (cache->per_chunk + 31) / 32;
    count(Counter::slab_caches, 1);
    return cache;
}

void* kmem_cache_alloc(kmem_cache* cache, gfp_type gfp)
{
    may_sleep(this_task(), "kmem_cache_alloc");
    if (allocation_fails(faults::Kind::slab, gfp))
        return nullptr;
    void* object;
    {
        std::lock_guard lock(cache->latch);
        Chunk* c = cache->partial.empty() ? cache->add_chunk() : cache->partial.back();
        if (!c)
            return nullptr;
        u32 word = c->hint;
        while (c->bitmap[word] == ~0u)
            ++word;
        u32 bit = u32(__builtin_ctz(~c->bitmap[word]));
        c->bitmap[word] |= 1u << bit;
        c->hint = word;
        ++cache->live;
        if (++c->live == cache->per_chunk)
            cache->partial.pop_back();
        object = cache->object(c, word * 32 + bit);
    }
    HOSTED_UNPOISON(object, cache->object_bytes);
    count(Counter::slab_objects, 1);
    return object;
}

void kmem_cache_free(kmem_cache* cache, void* object)
{
    auto address = reinterpret_cast<std::uintptr_t>(object);
    auto* c = reinterpret_cast<Chunk*>(address & ~(chunk_bytes - 1));
    HOSTED_POISON(object, cache->stride);
    {
        std::lock_guard lock(cache->latch);
        bool ours = std::binary_search(cache->chunks.begin(), cache->chunks.end(), c);
        std::size_t offset = address - reinterpret_cast<std::uintptr_t>(c) - cache->first;
        u32 index = u32(offset / cache->stride);
        if (!ours || offset % cache->stride != 0 || index >= cache->per_chunk)
            die("kmem_cache_free of %p, which is no object of the cache %s", object, cache->name.c_str());
        u32& word = c->bitmap[index / 32];
        if (!(word >> (index % 32) & 1))
            die("kmem_cache_free of %p, an object of the cache %s that was freed before (double free)", object,
                cache->name.c_str());
        word &= ~(1u << (index % 32));
        c->hint = std::min(c->hint, index / 32);
        --cache->live;
        if (c->live-- == cache->per_chunk)
            cache->partial.push_back(c);
        if (c->live == 0 && cache->partial.size() > 1)
            cache->remove_chunk(c);
    }
    count(Counter::slab_objects, -1);
}

void kmem_cache_destroy(kmem_cache* cache)
{
    if (!cache)
        return;
    if (cache->live != 0)
        die("the slab cache %s was destroyed with %ld live object(s)", cache->name.c_str(), cache->live);
    {
        std::lock_guard lock(caches_mutex);
        if (std::erase(caches(), cache) == 0)
            die("kmem_cache_destroy of %p, which is no slab cache", static_cast<void*>(cache));
    }
    destroy(cache);
}

namespace hosted
{

void describe_slabs(std::string& out)
{
    std::lock_guard lock(caches_mutex);
    for (kmem_cache* cache : caches())
        out += "  slab cache " + cache->name + " with " + std::to_string(cache->live) + " object(s) of " +
               std::to_string(cache->object_bytes) + " bytes, made at " + call_site(cache->caller) + "\n";
}

void forget_slabs()
{
    std::lock_guard lock(caches_mutex);
    for (kmem_cache* cache : caches()) {
        count(Counter::slab_objects, -cache->live);
        destroy(cache);
    }
    caches().clear();
}

} // namespace hosted
