// SPDX-License-Identifier: GPL-2.0-only
// What the driver has done already, and what not yet, at the moment of a call of the platform: the linker puts this
// file's functions in front of the platform's.
#include "core_view.h"

#include <atomic>
#include <chrono>
#include <functional>
#include <map>
#include <thread>

using namespace rig;

namespace
{

using Watcher = std::function<void()>;

// What a test has to see at such calls.
struct Watchers {
    Watcher registration, unregistration, randomByte, slabAllocation, slabFree, slabEnd, pageFree, mappingsOperations;
    Watcher firstQueue; // once
    std::function<void(const page*)> mapping;
    std::function<void(const void*)> free; // of a record
    std::function<void(request_queue*)> hook;
    std::function<void(completion*)> wait;
    std::function<void(semaphore*)> down;
} at;

// Of each object that a close gives back, what it is.
std::map<const void*, std::string> awaited;
std::vector<std::string> givenBack;
void note(const void* object)
{
    if (const auto found = awaited.find(object); found != awaited.end())
        givenBack.push_back(found->second + (load_acquire(&backup_cachePID) ? ", the worker being there" : ""));
}

void look(const Watcher& watcher)
{
    if (watcher)
        watcher();
}

class Order : public DriverTest
{
  protected:
    void TearDown() override
    {
        at = {};
        awaited.clear();
        givenBack.clear();
        DriverTest::TearDown();
    }
    // A look at whether a semaphore is held.
    static Watcher isHeld(semaphore* sem, std::vector<bool>& answers)
    {
        return [=, &answers] {
            answers.push_back(down_trylock(sem) != 0);
            if (!answers.back())
                up(sem);
        };
    }
};

const Bytes old(4096, std::byte(0x11)); // a block's old contents

int save(Backup* b, u32 block)
{
    down_read(&b->cacheUsers);
    const int result = saveBlock(b, old.data(), block);
    up_read(&b->cacheUsers);
    return result;
}

} // namespace

extern "C" {
int __real_register_chrdev(unsigned major, const char* name, const file_operations* fops);
int __wrap_register_chrdev(unsigned major, const char* name, const file_operations* fops)
{
    look(at.registration);
    return __real_register_chrdev(major, name, fops);
}
void __real_unregister_chrdev(unsigned major, const char* name);
void __wrap_unregister_chrdev(unsigned major, const char* name)
{
    look(at.unregistration);
    __real_unregister_chrdev(major, name);
}
void __real_get_random_bytes(void* to, int bytes);
void __wrap_get_random_bytes(void* to, int bytes)
{
    __real_get_random_bytes(to, bytes);
    look(at.randomByte);
}
void* __real_kmem_cache_alloc(kmem_cache* cache, gfp_type gfp);
void* __wrap_kmem_cache_alloc(kmem_cache* cache, gfp_type gfp)
{
    look(at.slabAllocation);
    return __real_kmem_cache_alloc(cache, gfp);
}
void __real_kmem_cache_free(kmem_cache* cache, void* object);
void __wrap_kmem_cache_free(kmem_cache* cache, void* object)
{
    look(at.slabFree);
    __real_kmem_cache_free(cache, object);
}
void __real_kmem_cache_destroy(kmem_cache* cache);
void __wrap_kmem_cache_destroy(kmem_cache* cache)
{
    look(at.slabEnd);
    note(cache);
    __real_kmem_cache_destroy(cache);
}
void* __real_kmap(page* p);
void* __wrap_kmap(page* p)
{
    if (at.mapping)
        at.mapping(p);
    return __real_kmap(p);
}
void __real_vfree(const void* p);
void __wrap_vfree(const void* p)
{
    note(p);
    __real_vfree(p);
}
void __real_free_page_ref(page* p);
void __wrap_free_page_ref(page* p)
{
    look(at.pageFree);
    note(p);
    __real_free_page_ref(p);
}
void __real_kfree(const void* p);
void __wrap_kfree(const void* p)
{
    if (at.free)
        at.free(p);
    __real_kfree(p);
}
void __real_wait_for_completion(completion* c);
void __wrap_wait_for_completion(completion* c)
{
    if (at.wait)
        at.wait(c);
    __real_wait_for_completion(c);
}
void __real_down(semaphore* sem);
void __wrap_down(semaphore* sem)
{
    if (at.down)
        at.down(sem);
    __real_down(sem);
}
request_queue* __real_disk_queue(gendisk* disk);
request_queue* __wrap_disk_queue(gendisk* disk)
{
    request_queue* q = __real_disk_queue(disk);
    look(std::exchange(at.firstQueue, nullptr));
    return q;
}
void __real_queue_set_make_request_fn(request_queue* q, make_request_fn* fn);
void __wrap_queue_set_make_request_fn(request_queue* q, make_request_fn* fn)
{
    if (at.hook)
        at.hook(q);
    __real_queue_set_make_request_fn(q, fn);
}
void __real_vma_set_ops(vm_area_struct* vma, const vm_operations* ops);
void __wrap_vma_set_ops(vm_area_struct* vma, const vm_operations* ops)
{
    look(at.mappingsOperations);
    __real_vma_set_ops(vma, ops);
}
void __real_drop_super(super_block* sb);
void __wrap_drop_super(super_block* sb)
{
    note(sb);
    __real_drop_super(sb);
}
}

TEST_F(Order, ALoadLetsNobodyInBeforeTheDeviceIsRegistered)
{
    ASSERT_EQ(hosted::unload_driver(), 0);
    int done = -1;
    at.registration = [&] { done = atomic_read(&initDone); };
    ASSERT_EQ(hosted::load_driver(), 0);
    EXPECT_EQ(done, 0);
}

// A file may be opened and a backup started as soon as the device is there.
TEST_F(Order, ALoadHasTheWorkersCountReadyBeforeTheDeviceIsRegistered)
{
    ASSERT_EQ(hosted::unload_driver(), 0);
    ASSERT_EQ(down_trylock(&signalThread), 0) << "the count of the load before";
    bool ready = false;
    at.registration = [&] {
        ready = down_trylock(&signalThread) == 0;
        if (ready)
            up(&signalThread);
    };
    ASSERT_EQ(hosted::load_driver(), 0);
    EXPECT_TRUE(ready);
}

TEST_F(Order, AnUnloadTakesTheDeviceAwayWhenNoSessionAndNoHookIsLeft)
{
    ASSERT_NO_FATAL_FAILURE(trackDevice(sda(), 1));
    ASSERT_EQ(hookOf(sda()), qdrAMRF);
    // A device without a session, which the end of the sessions leaves registered.
    addQueueToList(sda().disk().queue(), sda().device(2));
    takeLog();
    bool asked = false, tracked = true, registered = true, hooked = true;
    Lines said;
    at.unregistration = [&] {
        asked = true;
        tracked = sessionOf(sda().device(1)) != nullptr;
        registered = !registryIsEmpty();
        hooked = hookOf(sda()) == qdrAMRF;
        said = hosted::log_lines();
    };
    ASSERT_EQ(hosted::unload_driver(), 0);
    EXPECT_TRUE(asked);
    EXPECT_FALSE(tracked);
    EXPECT_FALSE(registered);
    EXPECT_FALSE(hooked);
    EXPECT_EQ(said, Lines{}) << "that it is ready is said when it is";
}

TEST_F(Order, ASnapshotPutsTheNewKeyInWithTheSessionHeld)
{
    ASSERT_NO_FATAL_FAILURE(trackDevice(sda(), 1));
    AutoMapSession* ams = sessionOf(sda().device(1));
    const Key old = keyOf(ams);
    Program program;
    ASSERT_EQ(program.open(), 0);
    ASSERT_EQ(program.start(sda().device(1), sda().blocks(1), 100), 0);
    std::atomic<unsigned> bytes{0};
    std::atomic<bool> held{false};
    at.randomByte = [&] {
        if (++bytes == QUENDREL_KEY_BYTES)
            while (!held)
                std::this_thread::yield();
    };
    std::thread snapshot([&] { EXPECT_EQ(program.snapshot(old), 0); });
    EXPECT_TRUE(eventually([&] { return bytes == QUENDREL_KEY_BYTES; }));
    unsigned long flags;
    spin_lock_irqsave(&ams->usersLock, &flags);
    held = true;
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    EXPECT_EQ(keyOf(ams), old);
    spin_unlock_irqrestore(&ams->usersLock, flags);
    snapshot.join();
    EXPECT_NE(keyOf(ams), old);
    EXPECT_EQ(bytes, unsigned(QUENDREL_KEY_BYTES));
    EXPECT_EQ(program.close(), 0);
}

TEST_F(Order, ABlockIsSavedWhileItsBucketIsHeld)
{
    Program program;
    program.beginFullBackup(sda(), 1);
    Backup* b = recordOf(program);
    std::vector<bool> held;
    at.slabAllocation = isHeld(&b->blockTable[7]->sem, held);
    EXPECT_EQ(save(b, 7), 0);
    at.slabAllocation = nullptr;
    EXPECT_EQ(held, (std::vector<bool>{true, true})) << "at the entry's allocation and at its buffer's";
    EXPECT_EQ(program.close(), 0);
}

TEST_F(Order, ABlockIsTakenOutWhileItsBucketIsHeld)
{
    Program program;
    program.beginFullBackup(sda(), 1);
    Backup* b = recordOf(program);
    ASSERT_EQ(save(b, 7), 0);
    std::vector<bool> held;
    at.slabFree = isHeld(&b->blockTable[7]->sem, held);
    Bytes data(4096);
    EXPECT_EQ(cacheRead(b, data.data(), 7), 4096);
    at.slabFree = nullptr;
    EXPECT_EQ(held, (std::vector<bool>{true, true})) << "at the free of the buffer and of the entry";
    EXPECT_EQ(program.close(), 0);
}

TEST_F(Order, TheCacheIsCleanedWhileTheBucketIsHeld)
{
    Program program;
    program.beginFullBackup(sda(), 1);
    Backup* b = recordOf(program);
    ASSERT_EQ(save(b, 7), 0);
    ASSERT_EQ(unSetBlock(&b->blockMap, 7), 0);
    std::vector<bool> held;
    at.slabFree = isHeld(&b->blockTable[7]->sem, held);
    EXPECT_EQ(cleanUpCache(b), 0);
    at.slabFree = nullptr;
    EXPECT_EQ(held, (std::vector<bool>{true, true})) << "at the free of the buffer and of the entry";
    EXPECT_EQ(program.close(), 0);
}

TEST_F(Order, ACleanedBlockIsOffItsListBeforeItIsFreed)
{
    Program program;
    program.beginFullBackup(sda(), 1);
    Backup* b = recordOf(program);
    ASSERT_EQ(save(b, 7), 0);
    ASSERT_EQ(unSetBlock(&b->blockMap, 7), 0);
    const CachePage* listed = b->blockTable[7]->busy;
    ASSERT_NE(listed, nullptr);
    at.slabFree = [&] { listed = b->blockTable[7]->busy; };
    EXPECT_EQ(cleanUpCache(b), 0);
    at.slabFree = nullptr;
    EXPECT_EQ(listed, nullptr);
    EXPECT_EQ(program.close(), 0);
}

TEST_F(Order, ABlockThatIsTakenOutIsOffItsListBeforeItIsFreed)
{
    Program program;
    program.beginFullBackup(sda(), 1);
    Backup* b = recordOf(program);
    ASSERT_EQ(save(b, 7), 0);
    const CachePage* listed = b->blockTable[7]->busy;
    ASSERT_NE(listed, nullptr);
    at.slabFree = [&] { listed = b->blockTable[7]->busy; };
    Bytes data(4096);
    EXPECT_EQ(cacheRead(b, data.data(), 7), 4096);
    at.slabFree = nullptr;
    EXPECT_EQ(listed, nullptr);
    EXPECT_EQ(program.close(), 0);
}

// Unmarked while the backup still wanted it, it would be saved anew by a write, with contents after the snapshot.
TEST_F(Order, ABlockThatIsTakenOutLeavesTheBackupsMapBeforeItIsUnmarked)
{
    Program program;
    program.beginFullBackup(sda(), 1);
    Backup* b = recordOf(program);
    ASSERT_EQ(save(b, 7), 0);
    ASSERT_EQ(setBlock(&b->cacheMap, 7), 0u);
    const auto* wanted = static_cast<const unsigned char*>(page_address(b->blockMap.map[0]));
    bool unmarkedFirst = false;
    at.mapping = [&](const page* p) { unmarkedFirst |= p == b->cacheMap.map[0] && (*wanted & 1 << 7); };
    Bytes data(4096);
    EXPECT_EQ(cacheRead(b, data.data(), 7), 4096);
    at.mapping = nullptr;
    EXPECT_FALSE(*wanted & 1 << 7);
    EXPECT_FALSE(unmarkedFirst);
    EXPECT_EQ(program.close(), 0);
}

class CacheOrder : public Order
{
  protected:
    // With block 7 in the cache, runs `act`, which comes to its bucket. Whether somebody else who wants the cache alone
    // is kept out then.
    static bool keepsOthersOut(Backup* b, const std::function<void()>& act)
    {
        std::thread other;
        std::atomic<bool> entered{false};
        bool kept = false;
        at.down = [&](semaphore* sem) {
            if (sem != &b->blockTable[7]->sem || other.joinable())
                return;
            other = std::thread([&] {
                down_write(&b->cacheUsers);
                entered = true;
                up_write(&b->cacheUsers);
            });
            std::this_thread::sleep_for(std::chrono::milliseconds(50));
            kept = !entered;
        };
        EXPECT_EQ(save(b, 7), 0);
        EXPECT_TRUE(kept) << "when it was saved";
        if (other.joinable())
            other.join();
        other = std::thread();
        kept = entered = false;
        act();
        at.down = nullptr;
        if (other.joinable())
            other.join();
        return kept;
    }
    Backup* begin()
    {
        program.beginFullBackup(sda(), 1);
        return recordOf(program);
    }
    void TearDown() override
    {
        EXPECT_EQ(program.close(), 0);
        Order::TearDown();
    }
    Program program;
};

TEST_F(CacheOrder, ABlockIsTakenOutByOneWhoStaysAUserOfTheCache)
{
    Backup* b = begin();
    Bytes data(4096);
    EXPECT_TRUE(keepsOthersOut(b, [&] { EXPECT_EQ(cacheRead(b, data.data(), 7), 4096); }));
}

TEST_F(CacheOrder, ADirtyBlockIsLookedForByOneWhoStaysAUserOfTheCache)
{
    Backup* b = begin();
    EXPECT_TRUE(keepsOthersOut(b, [&] { EXPECT_EQ(anyDirtyBlock(b), 7u); }));
}

TEST_F(CacheOrder, TheCacheIsCleanedByOneWhoStaysAUserOfIt)
{
    Backup* b = begin();
    EXPECT_TRUE(keepsOthersOut(b, [&] { EXPECT_EQ(cleanUpCache(b), 0); }));
}

TEST_F(Order, TheCacheIsFreedWhileEachBucketIsHeld)
{
    Program program;
    program.beginFullBackup(sda(), 1);
    Backup* b = recordOf(program);
    ASSERT_EQ(save(b, 7), 0);
    std::vector<bool> held;
    semaphore* sem = &b->blockTable[7]->sem;
    at.slabFree = [&, look = isHeld(sem, held)] {
        if (held.size() < 2) // later ones free the buckets
            look();
    };
    EXPECT_EQ(program.close(), 0);
    at.slabFree = nullptr;
    EXPECT_EQ(held, (std::vector<bool>{true, true})) << "at the free of the buffer and of the entry";
}

TEST_F(Order, TheCacheIsGoneWhenItsBucketsAreFreeAgain)
{
    Program program;
    program.beginFullBackup(sda(), 1);
    Backup* b = recordOf(program);
    std::vector<bool> held;
    at.slabEnd = [&] {
        if (!held.empty())
            return;
        for (u32 i = 0; i < CACHE_BUCKETS; i++)
            isHeld(&b->blockTable[i]->sem, held)();
    };
    EXPECT_EQ(program.close(), 0);
    EXPECT_EQ(held, std::vector<bool>(CACHE_BUCKETS, false));
}

TEST_F(Order, ACloseStopsTheWorkerAndThenGivesBackWhatTheBackupHadOneAfterTheOther)
{
    Program program;
    program.beginFullBackup(sda(), 1);
    Backup* b = recordOf(program);
    b->diskInfo.superBlock = get_super(b->diskInfo.bdev);
    b->vmAreas[1].mmPages[0] = alloc_page(GFP_KERNEL); // of an area without a mapping, which would be gone by then
    b->vmAreas[1].vmPages = 1;
    atomic_inc(&b->curAllocPages);
    awaited = {{b->vmAreas[1].mmPages[0], "transfer pages"},
               {b->mmBIORequests, "slots"},
               {b->cpCache, "cache entries"},
               {b->dataCache, "cache contents"},
               {b->diskInfo.superBlock, "super block"},
               {b->blockMap.map, "backup's map"},
               {b->cacheMap.map, "cache map"},
               {b->blockTable, "buckets' table"},
               {b->htCache, "buckets"}};
    EXPECT_EQ(program.close(), 0);
    EXPECT_EQ(givenBack,
              (std::vector<std::string>{"transfer pages", "slots", "cache entries", "cache contents", "super block",
                                        "backup's map", "cache map", "buckets' table", "buckets"}));
}

TEST_F(Order, ACloseTakesTheRecordOffTheFileFirstAndLetsGoOfTheModuleLast)
{
    Program program;
    program.beginFullBackup(sda(), 1);
    Backup* b = recordOf(program);
    bool asked = false, onTheFile = true;
    int references = 0;
    at.free = [&](const void* p) {
        if (p != b)
            return;
        asked = true;
        onTheFile = recordOf(program) != nullptr;
        references = hosted::driver_references();
    };
    EXPECT_EQ(program.close(), 0);
    EXPECT_TRUE(asked);
    EXPECT_FALSE(onTheFile);
    EXPECT_EQ(references, 1);
}

TEST_F(Order, TheWorkersNumberIsForgottenWhenItHasGone)
{
    Program program;
    program.beginSnapshot(sda(), 1);
    bool asked = false, known = false;
    at.wait = [&](completion* c) {
        asked |= c == &backup_cacheThreadExited;
        known = load_acquire(&backup_cachePID) > 0;
    };
    EXPECT_EQ(program.close(), 0);
    EXPECT_TRUE(asked);
    EXPECT_TRUE(known);
}

TEST_F(Order, TheCountersAreLoggedBeforeTheirRecordIsFreed)
{
    Program program;
    program.beginSnapshot(sda(), 1);
    takeLog();
    std::vector<bool> logged;
    at.free = [&](const void*) { logged.push_back(!linesOf(hosted::log_lines(), "printStats").empty()); };
    EXPECT_EQ(program.close(), 0);
    at.free = nullptr;
    ASSERT_GE(logged.size(), 2u);
    EXPECT_TRUE(logged[logged.size() - 2]) << "the one before the backup's own record";
}

// ---- Transfer areas

TEST_F(Order, AMappingIsPublishedWhenItIsComplete)
{
    Program program;
    program.beginSnapshot(sda(), 1);
    Backup* b = recordOf(program);
    bool asked = false, published = true;
    at.mappingsOperations = [&] {
        asked = true;
        published = load_acquire(&b->vmAreas[1].vma) != nullptr;
    };
    ASSERT_EQ(program.map(1, 1), 0);
    EXPECT_TRUE(asked);
    EXPECT_FALSE(published);
    EXPECT_EQ(program.close(), 0);
}

TEST_F(Order, AMappingIsWithdrawnBeforeItsPagesAreFreed)
{
    Program program;
    program.beginSnapshot(sda(), 1);
    Backup* b = recordOf(program);
    ASSERT_EQ(program.map(1, 1), 0);
    bool asked = false, published = true;
    at.pageFree = [&] {
        asked = true;
        published = load_acquire(&b->vmAreas[1].vma) != nullptr;
    };
    program.unmap(1);
    at.pageFree = nullptr;
    EXPECT_TRUE(asked);
    EXPECT_FALSE(published);
    EXPECT_EQ(program.close(), 0);
}

// ---- The registry

class RegistryOrder : public Order
{
  protected:
    // Registers both devices of sda, runs `act`, and expects that it freed them and none of the records still listed.
    void expectUnlinkedBeforeFreed(const std::function<void()>& act)
    {
        for (u32 partition : {1, 2})
            addQueueToList(sda().disk().queue(), sda().device(partition));
        unsigned freed = 0, listed = 0;
        at.free = [&](const void* p) {
            freed++;
            for (QueueList* ql = nullptr; (ql = nextQueueList(ql));) {
                listed += ql == p;
                for (DevList* dev = nullptr; (dev = nextDevList(ql, dev));)
                    listed += dev == p;
            }
        };
        act();
        at.free = nullptr;
        EXPECT_EQ(freed, 3u) << "two devices and their queue";
        EXPECT_EQ(listed, 0u);
        EXPECT_TRUE(registryIsEmpty());
    }
};

TEST_F(RegistryOrder, ADeviceGivenBackIsOffItsListBeforeItIsFreed)
{
    LooseBackup one(sda(), 1), two(sda(), 2);
    expectUnlinkedBeforeFreed([&] {
        unSetMRFDEV(&one->diskInfo);
        unSetMRFDEV(&two->diskInfo);
    });
}

TEST_F(RegistryOrder, AQueueGivenBackIsOffItsListBeforeItIsFreed)
{
    expectUnlinkedBeforeFreed([&] { unsetQueueMRFAMS(sda().disk().queue()); });
}

TEST_F(RegistryOrder, QueuesGivenBackAtTheUnloadAreOffTheirListBeforeTheyAreFreed)
{
    expectUnlinkedBeforeFreed([] { closeQueueList(); });
}

TEST_F(RegistryOrder, AQueuesFunctionIsChangedWhileTheQueueIsLocked)
{
    std::vector<std::thread> others;
    std::atomic<int> entered{0};
    std::vector<int> enteredBefore;
    at.hook = [&](request_queue* q) {
        others.emplace_back([&entered, lock = queue_lock(q)] {
            unsigned long flags;
            spin_lock_irqsave(lock, &flags);
            entered++;
            spin_unlock_irqrestore(lock, flags);
        });
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
        enteredBefore.push_back(entered);
    };
    LooseBackup b(sda(), 1);
    EXPECT_EQ(setMRF(b.get(), qdrMRF), 0);
    others.back().join();
    unSetMRFDEV(&b->diskInfo);
    others.back().join();
    EXPECT_EQ(enteredBefore, (std::vector<int>{0, 1})) << "nobody but the one of the change before";
}

// ---- A disk that vanishes between two looks at its queue, which the platform does not tell of

class VanishingDisk : public Order
{
  protected:
    void SetUp() override
    {
        Order::SetUp();
        trackDevice(sda(), 1);
        trackDevice(sda(), 2);
        EXPECT_EQ(program.open(), 0);
        EXPECT_EQ(program.start(sda().device(1), sda().blocks(1), 100), 0);
    }
    void vanishOnceTheQueueIsFound()
    {
        at.firstQueue = [&] {
            sda().disk().unplug();
            for (u32 partition : {1, 2})
                set_mb(&sessionOf(sda().device(partition))->state, 1);
        };
    }
    void expectOutOfSync()
    {
        EXPECT_FALSE(at.firstQueue) << "no queue was looked for";
        EXPECT_EQ(sessionOf(sda().device(1))->state, 0u);
        EXPECT_EQ(sessionOf(sda().device(2))->state, 0u);
    }
    Program program;
};

TEST_F(VanishingDisk, AtTheEndOfABackupPutsItsSessionsOutOfSync)
{
    set_mb(&sessionOf(sda().device(1))->state, 0);
    vanishOnceTheQueueIsFound();
    EXPECT_EQ(program.close(), 0);
    expectOutOfSync();
}

TEST_F(VanishingDisk, AtAFailurePutsItsSessionsOutOfSync)
{
    vanishOnceTheQueueIsFound();
    errorAMS(recordOf(program));
    expectOutOfSync();
    EXPECT_EQ(program.close(), 0);
}
