// SPDX-License-Identifier: GPL-2.0-only
// The allocators: accounting, misuse, failures to order, and memory kept for tasks inside a hook.
#include "test_driver.h"

#include <atomic>
#include <cstring>
#include <gtest/gtest.h>
#include <set>
#include <thread>
#include <unistd.h>

using namespace hosted;

namespace
{
const Live nothing{};
}

TEST(Memory, EveryKindIsCountedWhileItLives)
{
    ASSERT_EQ(live(), nothing) << describe(live());
    void* k = kmalloc(100, GFP_NOIO);
    void* v = vmalloc(5000);
    page* low = alloc_page(GFP_KERNEL);
    page* high = alloc_page(GFP_HIGHUSER);
    kmem_cache* cache = kmem_cache_create("things", 24);
    void* object = kmem_cache_alloc(cache, GFP_NOIO);
    bio* b = bio_alloc(GFP_NOIO, 1);
    buffer_head* bh = alloc_buffer_head(GFP_NOIO);
    Live l = live();
    EXPECT_EQ(l.kmallocs, 1);
    EXPECT_EQ(l.vmallocs, 1);
    EXPECT_EQ(l.pages, 2);
    EXPECT_EQ(l.slab_caches, 1);
    EXPECT_EQ(l.slab_objects, 1);
    EXPECT_EQ(l.bios, 1);
    EXPECT_EQ(l.buffer_heads, 1);
    std::string text = describe(l);
    EXPECT_NE(text.find("kmalloc of 100 bytes at"), std::string::npos) << text;
    EXPECT_NE(text.find("slab cache things with 1 object(s) of 24 bytes"), std::string::npos) << text;
    // Freed by another thread than made them.
    std::thread([&] {
        kfree(k);
        vfree(v);
        free_page_ref(low);
        free_page_ref(high);
        kmem_cache_free(cache, object);
        kmem_cache_destroy(cache);
        bio_put(b);
        free_buffer_head(bh);
    }).join();
    EXPECT_EQ(live(), nothing) << describe(live());
}

TEST(Memory, ForgetLeaksFreesWhatWasLeftBehind)
{
    ASSERT_FALSE(driver_loaded());
    kmalloc(10, GFP_KERNEL);
    vmalloc(10);
    alloc_page(GFP_KERNEL);
    kmem_cache* cache = kmem_cache_create("left", 100);
    kmem_cache_alloc(cache, GFP_NOIO);
    bdget(kdev_make(8, 200));
    EXPECT_EQ(live().block_devices, 1);
    forget_leaks();
    EXPECT_EQ(live(), nothing) << describe(live());
}

TEST(Memory, TheNthAllocationOfAKindFailsOnce)
{
    faults::fail_allocation(2, unsigned(faults::Kind::kmalloc));
    void* first = kmalloc(8, GFP_NOIO);
    void* other_kind = vmalloc(8);
    void* unfailing = kmalloc(8, GFP_NOIO | GFP_NOFAIL);
    void* second = kmalloc(8, GFP_NOIO);
    void* third = kmalloc(8, GFP_NOIO);
    EXPECT_NE(first, nullptr);
    EXPECT_NE(other_kind, nullptr);
    EXPECT_NE(unfailing, nullptr);
    EXPECT_EQ(second, nullptr);
    EXPECT_NE(third, nullptr);
    EXPECT_EQ(faults::allocations_seen(), 3u);
    faults::clear();
    kfree(first);
    vfree(other_kind);
    kfree(unfailing);
    kfree(third);
    kfree(nullptr);
    vfree(nullptr);
}

TEST(MemoryDeathTest, DoubleFreeAborts)
{
    void* p = kmalloc(64, GFP_KERNEL);
    EXPECT_DEATH(
        {
            kfree(p);
            kfree(p);
        },
        "double free");
    kfree(p);
}

TEST(MemoryDeathTest, FreeOfWhatWasNeverAllocatedAborts)
{
    alignas(64) static char buffer[256];
    EXPECT_DEATH(kfree(buffer + 128), "no allocation");
    void* v = vmalloc(8);
    EXPECT_DEATH(kfree(v), "another allocator");
    vfree(v);
}

TEST(Slab, ObjectsAreAlignedAndDistinct)
{
    for (std::size_t bytes : {12ul, 24ul, 40ul, 100ul, 512ul, 4096ul, 65536ul}) {
        kmem_cache* cache = kmem_cache_create("objects", bytes);
        std::set<std::uintptr_t> seen;
        std::vector<void*> all;
        for (int i = 0; i < 600; ++i) {
            void* p = kmem_cache_alloc(cache, GFP_NOIO);
            ASSERT_NE(p, nullptr);
            std::memset(p, i, bytes);
            auto address = reinterpret_cast<std::uintptr_t>(p);
            EXPECT_EQ(address % (bytes > 32 ? 64 : 16), 0u);
            auto next = seen.lower_bound(address);
            if (next != seen.end()) {
                EXPECT_GE(*next, address + bytes);
            }
            seen.insert(address);
            all.push_back(p);
        }
        for (int i = 0; i < 600; ++i) {
            EXPECT_EQ(*static_cast<unsigned char*>(all[i]), i & 0xFF);
            kmem_cache_free(cache, all[i]);
        }
        kmem_cache_destroy(cache);
    }
}

TEST(Slab, TwoCachesMayShareANameAndNullIsNoCache)
{
    kmem_cache* a = kmem_cache_create("same", 10);
    kmem_cache* b = kmem_cache_create("same", 10);
    EXPECT_NE(a, b);
    kmem_cache_destroy(a);
    kmem_cache_destroy(b);
    kmem_cache_destroy(nullptr);
}

TEST(SlabDeathTest, MisuseAborts)
{
    kmem_cache* cache = kmem_cache_create("misused", 100);
    void* p = kmem_cache_alloc(cache, GFP_NOIO);
    EXPECT_DEATH(kmem_cache_destroy(cache), "slab cache misused was destroyed with 1 live object");
    EXPECT_DEATH(
        {
            kmem_cache_free(cache, p);
            kmem_cache_free(cache, p);
        },
        "double free");
    EXPECT_DEATH(kmem_cache_free(cache, static_cast<char*>(p) + 1), "no object of the cache misused");
    kmem_cache_free(cache, p);
    kmem_cache_destroy(cache);
}

TEST(Pages, LastReferenceFrees)
{
    page* p = alloc_page(GFP_NOIO);
    get_page(p);
    std::memset(kmap(p), 7, PAGE_BYTES);
    kunmap(p);
    free_page_ref(p);
    EXPECT_EQ(live().pages, 1);
    EXPECT_EQ(*static_cast<char*>(page_address(p)), 7);
    free_page_ref(p);
    EXPECT_EQ(live().pages, 0);
}

TEST(PagesDeathTest, FreeingTwiceAborts)
{
    page* p = alloc_page(GFP_NOIO);
    free_page_ref(p);
    EXPECT_DEATH(free_page_ref(p), "fell below zero");
    EXPECT_DEATH(get_page(p), "which is free");
}

TEST(Pages, ThousandsComeAndGo)
{
    for (int round = 0; round < 3; ++round) {
        std::vector<page*> all;
        for (int i = 0; i < 2000; ++i) {
            all.push_back(alloc_page(i % 2 ? GFP_KERNEL : GFP_HIGHUSER));
            *static_cast<int*>(page_address(all.back())) = i;
        }
        for (int i = 0; i < 2000; ++i) {
            EXPECT_EQ(*static_cast<int*>(page_address(all[i])), i);
            free_page_ref(all[i]);
        }
    }
    EXPECT_EQ(live().pages, 0);
}

// A task that is inside a hook when release frees a record may still read that record.
TEST(DeferredFree, RecordFreedInReleaseStaysUntilTasksInsideAHookLeft)
{
    test_driver::Loaded driver;
    test_driver::MemoryDisk d(1 << 20);
    auto* record = static_cast<std::atomic<int>*>(kmalloc(sizeof(std::atomic<int>), GFP_KERNEL));
    new (record) std::atomic<int>(42);
    std::atomic<int> step{0};
    int seen = 0;
    test_driver::on_bio = [&](bio*) {
        step = 1;
        while (step != 2)
            std::this_thread::yield();
        seen = record->load();
    };
    test_driver::calls.release = [&](file*) {
        kfree(record);
        return 0;
    };
    test_driver::install(*d.disk);
    std::thread writer([&] {
        std::byte sector[512] = {};
        d.disk->write(0, sector);
    });
    while (step != 1)
        std::this_thread::yield();
    std::unique_ptr<ControlFile> f;
    ASSERT_EQ(open_control(test_driver::major_number, nullptr, f), 0);
    EXPECT_EQ(f->close(), 0);
    EXPECT_EQ(live().kmallocs, 0) << "freed as far as the driver's accounts go";
    EXPECT_DEATH(kfree(record), "double free");
    // Memory of that size that is allocated now must not be the record's.
    std::vector<void*> others;
    for (int i = 0; i < 100; ++i) {
        others.push_back(kmalloc(sizeof(std::atomic<int>), GFP_KERNEL));
        std::memset(others.back(), 0xFF, sizeof(std::atomic<int>));
    }
    step = 2;
    writer.join();
    EXPECT_EQ(seen, 42);
    for (void* p : others)
        kfree(p);
    test_driver::uninstall(*d.disk);
}
