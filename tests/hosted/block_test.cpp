// SPDX-License-Identifier: GPL-2.0-only
// The way of a bio: remapping, hooks, splitting, merging, failures.
#include "test_driver.h"

#include <atomic>
#include <cerrno>
#include <cstring>
#include <gtest/gtest.h>
#include <mutex>
#include <numeric>
#include <thread>

using namespace hosted;
using test_driver::MemoryDisk;

namespace
{

constexpr std::uint64_t mebibyte = 1 << 20;

std::vector<std::byte> pattern(std::size_t bytes, unsigned seed)
{
    std::vector<std::byte> v(bytes);
    for (std::size_t i = 0; i < bytes; ++i)
        v[i] = std::byte((i * 7 + i / 512 + seed) & 0xFF);
    return v;
}

// A store that notes what reaches it and completes on another thread, when told to.
class SlowStore final : public Store
{
  public:
    explicit SlowStore(std::uint64_t bytes) : memory_(make_memory_store(bytes)) {}
    ~SlowStore() override { drain(); }
    struct Seen {
        Op op;
        std::uint64_t offset;
        std::uint64_t bytes;
        std::size_t pieces;
        bool fua;
        bool more;
    };
    std::uint64_t size() const override { return memory_->size(); }
    void submit(StoreRequest* r) override
    {
        std::lock_guard lock(mutex_);
        seen_.push_back({r->op, r->offset, r->bytes, r->pieces.size(), r->fua, r->more});
        threads_.emplace_back([this, r] {
            while (held_)
                std::this_thread::yield();
            const std::int64_t bad = bad_;
            if (bad >= 0 && r->offset <= std::uint64_t(bad) && std::uint64_t(bad) < r->offset + r->bytes)
                r->done(r, -EIO);
            else
                memory_->submit(r);
        });
    }
    void drain() override
    {
        // The end of one request may send another.
        for (;;) {
            std::vector<std::thread> threads;
            {
                std::lock_guard lock(mutex_);
                threads.swap(threads_);
            }
            if (threads.empty())
                return;
            for (auto& t : threads)
                t.join();
        }
    }
    std::vector<Seen> seen()
    {
        std::lock_guard lock(mutex_);
        return seen_;
    }
    std::atomic<bool> held_{false};
    std::atomic<std::int64_t> bad_{-1}; // the place of a byte that can be neither read nor written

  private:
    std::unique_ptr<Store> memory_;
    std::mutex mutex_;
    std::vector<Seen> seen_;
    std::vector<std::thread> threads_;
};

struct SeenBio {
    kdev_t dev;
    sector_type sector;
    u32 size;
    u32 rw;
    bool operator==(const SeenBio&) const = default;
};

std::vector<SeenBio> record_into(std::vector<SeenBio>& list)
{
    test_driver::on_bio = [&](bio* b) {
        list.push_back({bdev_dev(bio_bdev(b)), bio_sector(b), bio_size(b), bio_rw(b)});
    };
    return {};
}

struct Finished {
    std::atomic<int> count{0};
    std::atomic<int> error{0};
    static void done(GuestRequest* r, int error)
    {
        auto* f = static_cast<Finished*>(r->context);
        if (error)
            f->error = error;
        ++f->count;
    }
};

GuestRequest request(Op op, std::uint64_t offset, std::uint64_t bytes, std::byte* data, Finished& f)
{
    GuestRequest r;
    r.op = op;
    r.offset = offset;
    r.bytes = bytes;
    r.data = data;
    r.done = Finished::done;
    r.context = &f;
    return r;
}

// A read as the driver makes it, straight to the disk's own function.
struct DirectRead {
    page* p = alloc_page(GFP_KERNEL);
    bio* b = bio_alloc(GFP_NOIO, 1);
    completion done;
    int error = 1;

    DirectRead(Disk& disk, u32 partition, sector_type sector)
    {
        init_completion(&done);
        bio_set_bdev(b, bdget(disk.device(partition)));
        bio_set_sector(b, sector);
        bio_set_read(b);
        bio_set_single_vector(b, p, PAGE_BYTES, 0);
        bio_set_private(b, this);
        bio_set_end_io(b, [](bio* finished, int error) {
            auto* self = static_cast<DirectRead*>(bio_private(finished));
            self->error = error;
            complete(&self->done);
        });
    }
    void submit(Disk& disk) { queue_make_request_fn(disk.queue())(disk.queue(), b); }
    ~DirectRead()
    {
        bio_put(b);
        free_page_ref(p);
    }
};

} // namespace

TEST(Block, GuestReadsWhatItWrote)
{
    MemoryDisk d(8 * mebibyte, {{1, 2048, 4096}});
    auto data = pattern(3 * mebibyte / 2, 1);
    std::vector<std::byte> back(data.size());
    ASSERT_EQ(d.disk->write(512, data), 0);
    ASSERT_EQ(d.disk->read(512, back), 0);
    EXPECT_EQ(data, back);
    auto piece = pattern(4096, 2);
    back.resize(4096);
    ASSERT_EQ(d.disk->write(8192, piece, 1), 0);
    ASSERT_EQ(d.disk->read(2048 * 512 + 8192, back), 0);
    EXPECT_EQ(piece, back) << "a partition's offset counts from its start";
    EXPECT_EQ(std::memcmp(memory_store_bytes(d.disk->store()).data() + 2048 * 512 + 8192, piece.data(), 4096), 0);
}

TEST(Block, HookSeesTheWholeDiskAndAbsoluteSectors)
{
    MemoryDisk d(8 * mebibyte, {{1, 2048, 4096}});
    std::vector<SeenBio> seen;
    record_into(seen);
    test_driver::install(*d.disk);
    std::byte buffer[4096] = {};
    d.disk->write(8192, buffer, 1);
    d.disk->read(512, std::span(buffer, 512));
    Finished f;
    GuestRequest ahead = request(Op::read, 0, 4096, buffer, f);
    ahead.read_ahead = true;
    d.disk->submit(&ahead);
    d.disk->discard(0, 1024, 1);
    d.disk->write_zeroes(4096, 512);
    d.disk->flush();
    test_driver::uninstall(*d.disk);
    kdev_t whole = kdev_make(8, 0);
    EXPECT_EQ(seen, (std::vector<SeenBio>{{whole, 2048 + 16, 4096, 1},
                                          {whole, 1, 512, 0},
                                          {whole, 0, 4096, 2},
                                          {whole, 2048, 1024, 1},
                                          {whole, 8, 512, 1},
                                          {whole, 0, 0, 2}}));
}

TEST(Block, LargeRequestsBecomeBiosOfAtMostAMebibyte)
{
    MemoryDisk d(8 * mebibyte);
    std::vector<SeenBio> seen;
    record_into(seen);
    test_driver::install(*d.disk);
    auto data = pattern(2 * mebibyte + 512, 3);
    ASSERT_EQ(d.disk->write(0, data), 0);
    test_driver::uninstall(*d.disk);
    ASSERT_EQ(seen.size(), 3u);
    EXPECT_EQ(seen[0].size, mebibyte);
    EXPECT_EQ(seen[1].sector, 2048u);
    EXPECT_EQ(seen[2].size, 512u);
}

TEST(Block, RequestsOutsideTheDeviceOrOddlySizedAreRefused)
{
    MemoryDisk d(mebibyte, {{1, 0, 8}});
    std::byte buffer[4096];
    EXPECT_EQ(d.disk->read(mebibyte - 512, std::span(buffer, 1024)), -EIO);
    EXPECT_EQ(d.disk->write(4096, std::span<const std::byte>(buffer, 512), 1), -ENOSPC);
    EXPECT_EQ(d.disk->read(100, std::span(buffer, 512)), -EINVAL);
    EXPECT_EQ(d.disk->read(0, std::span(buffer, 512), 7), -ENXIO);
    EXPECT_EQ(d.disk->read(~0ull - 511, std::span(buffer, 512)), -EIO);
}

TEST(Block, DriversOwnBiosAreNotRemapped)
{
    MemoryDisk d(8 * mebibyte, {{1, 2048, 4096}});
    auto data = pattern(4096, 9);
    d.disk->write(0, data, 1);
    DirectRead read(*d.disk, 1, 2048);
    read.submit(*d.disk);
    wait_for_completion(&read.done);
    EXPECT_EQ(read.error, 0);
    EXPECT_EQ(std::memcmp(page_address(read.p), data.data(), 4096), 0);
}

TEST(Block, DiscardAndWriteZeroesReadAsZeroes)
{
    MemoryDisk d(mebibyte);
    auto data = pattern(8192, 1);
    d.disk->write(0, data);
    EXPECT_EQ(d.disk->discard(0, 4096), 0);
    EXPECT_EQ(d.disk->write_zeroes(4096, 4096), 0);
    std::vector<std::byte> back(8192, std::byte{1});
    d.disk->read(0, back);
    EXPECT_EQ(back, std::vector<std::byte>(8192));
}

TEST(Block, AdjacentBiosOfOneRequestReachTheStoreAsOne)
{
    auto owned = std::make_unique<SlowStore>(8 * mebibyte);
    SlowStore& store = *owned;
    MemoryDisk d(0, {}, std::move(owned));
    test_driver::Loaded driver;
    // The driver's run of single-page reads in one command.
    std::vector<std::unique_ptr<DirectRead>> reads;
    auto data = pattern(64 * PAGE_BYTES, 4);
    d.disk->write(0, data);
    std::size_t before = store.seen().size();
    test_driver::calls.ioctl = [&](file*, unsigned, unsigned long) {
        for (u32 i = 0; i < 64; ++i) {
            reads.push_back(std::make_unique<DirectRead>(*d.disk, 0, i * 8 + (i >= 32 ? 8 : 0)));
            reads.back()->submit(*d.disk);
        }
        for (auto& r : reads)
            wait_for_completion(&r->done);
        return 0;
    };
    std::unique_ptr<ControlFile> f;
    ASSERT_EQ(open_control(test_driver::major_number, nullptr, f), 0);
    f->ioctl(1, 2);
    auto seen = store.seen();
    ASSERT_EQ(seen.size() - before, 2u) << "two runs of adjacent blocks";
    EXPECT_EQ(seen[before].bytes, 32u * PAGE_BYTES);
    EXPECT_EQ(seen[before + 1].offset, 33u * PAGE_BYTES);
    for (u32 i = 0; i < 32; ++i)
        EXPECT_EQ(std::memcmp(page_address(reads[i]->p), data.data() + i * PAGE_BYTES, PAGE_BYTES), 0) << i;
    reads.clear();
    f.reset();
    EXPECT_EQ(live().bios, 0);
}

TEST(Block, OfBiosThatWereSentAsOneOnlyThatFailsWhoseBlockIsBad)
{
    auto owned = std::make_unique<SlowStore>(8 * mebibyte);
    SlowStore& store = *owned;
    MemoryDisk d(0, {}, std::move(owned));
    test_driver::Loaded driver;
    std::vector<std::unique_ptr<DirectRead>> reads;
    const auto data = pattern(32 * PAGE_BYTES, 4);
    d.disk->write(0, data);
    store.bad_ = 17 * PAGE_BYTES + 512;
    const std::size_t before = store.seen().size();
    test_driver::calls.ioctl = [&](file*, unsigned, unsigned long) {
        for (u32 i = 0; i < 32; ++i) {
            reads.push_back(std::make_unique<DirectRead>(*d.disk, 0, i * 8));
            reads.back()->submit(*d.disk);
        }
        for (auto& r : reads)
            wait_for_completion(&r->done);
        return 0;
    };
    std::unique_ptr<ControlFile> f;
    ASSERT_EQ(open_control(test_driver::major_number, nullptr, f), 0);
    f->ioctl(1, 2);
    EXPECT_EQ(store.seen()[before].bytes, 32u * PAGE_BYTES) << "they did go as one";
    EXPECT_EQ(store.seen().size() - before, 33u) << "and each once more";
    for (u32 i = 0; i < 32; ++i) {
        EXPECT_EQ(reads[i]->error, i == 17 ? -EIO : 0) << i;
        if (i != 17) {
            EXPECT_EQ(std::memcmp(page_address(reads[i]->p), data.data() + i * PAGE_BYTES, PAGE_BYTES), 0) << i;
        }
    }
    store.drain();
    reads.clear();
    f.reset();
    EXPECT_EQ(live().bios, 0);
}

TEST(Block, ALongRunOfReadsReachesTheStoreInPiecesWhileItGoesOn)
{
    auto owned = std::make_unique<SlowStore>(8 * mebibyte);
    SlowStore& store = *owned;
    MemoryDisk d(0, {}, std::move(owned));
    test_driver::Loaded driver;
    std::vector<std::unique_ptr<DirectRead>> reads;
    test_driver::calls.ioctl = [&](file*, unsigned, unsigned long) {
        for (u32 i = 0; i < 256; ++i) {
            reads.push_back(std::make_unique<DirectRead>(*d.disk, 0, i * 8));
            reads.back()->submit(*d.disk);
        }
        for (auto& r : reads)
            wait_for_completion(&r->done);
        return 0;
    };
    std::unique_ptr<ControlFile> f;
    ASSERT_EQ(open_control(test_driver::major_number, nullptr, f), 0);
    f->ioctl(1, 2);
    const auto seen = store.seen();
    ASSERT_EQ(seen.size(), 8u);
    for (std::size_t i = 0; i < 8; ++i) {
        EXPECT_EQ(seen[i].offset, i * mebibyte / 8);
        EXPECT_EQ(seen[i].bytes, mebibyte / 8);
        EXPECT_EQ(seen[i].more, i < 7) << "the last piece goes when the thread waits";
    }
    reads.clear();
    f.reset();
}

TEST(Block, ALoneBioOutsideARunIsSentAtOnce)
{
    auto owned = std::make_unique<SlowStore>(mebibyte);
    SlowStore& store = *owned;
    MemoryDisk d(0, {}, std::move(owned));
    DirectRead read(*d.disk, 0, 0);
    read.submit(*d.disk);
    EXPECT_EQ(store.seen().size(), 1u);
    wait_for_completion(&read.done);
}

namespace
{
struct WorkerArgument {
    Disk* disk;
    semaphore go_on;
    completion over;
};
int worker_body(void* arg)
{
    auto* a = static_cast<WorkerArgument*>(arg);
    {
        DirectRead read(*a->disk, 0, 0);
        read.submit(*a->disk);
        down(&a->go_on); // asleep, with the bio submitted
        wait_for_completion(&read.done);
    }
    complete_and_exit(&a->over, 0);
}
} // namespace

TEST(Block, AKernelThreadKeepsNoBioBackWhileItSleeps)
{
    auto owned = std::make_unique<SlowStore>(mebibyte);
    SlowStore& store = *owned;
    MemoryDisk d(0, {}, std::move(owned));
    WorkerArgument a{d.disk.get(), {}, {}};
    sema_init(&a.go_on, 0);
    init_completion(&a.over);
    ASSERT_GT(kernel_thread(worker_body, &a, 0), 0);
    for (int i = 0; store.seen().empty() && i < 2000; ++i)
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    EXPECT_EQ(store.seen().size(), 1u);
    up(&a.go_on);
    wait_for_completion(&a.over);
}

TEST(Block, FuaIsPassedToTheStore)
{
    auto owned = std::make_unique<SlowStore>(mebibyte);
    SlowStore& store = *owned;
    MemoryDisk d(0, {}, std::move(owned));
    std::byte sector[512] = {};
    d.disk->write(0, sector, 0, true);
    d.disk->write(512, sector, 0, false);
    EXPECT_TRUE(store.seen()[0].fua);
    EXPECT_FALSE(store.seen()[1].fua);
}

TEST(Block, FlushReachesTheStoreThroughTheHook)
{
    auto owned = std::make_unique<SlowStore>(mebibyte);
    SlowStore& store = *owned;
    MemoryDisk d(0, {}, std::move(owned));
    EXPECT_EQ(d.disk->flush(), 0);
    ASSERT_EQ(store.seen().size(), 1u);
    EXPECT_EQ(store.seen()[0].op, Op::flush);
}

TEST(Block, TheNthReadOrWriteFailsOnce)
{
    MemoryDisk d(mebibyte);
    std::byte sector[512] = {};
    faults::fail_read(2);
    faults::fail_write(1);
    EXPECT_EQ(d.disk->read(0, sector), 0);
    EXPECT_EQ(d.disk->read(0, sector), -EIO);
    EXPECT_EQ(d.disk->read(0, sector), 0);
    EXPECT_EQ(d.disk->write(0, sector), -EIO);
    EXPECT_EQ(d.disk->write(0, sector), 0);
    EXPECT_EQ(faults::reads_seen(), 3u);
    EXPECT_EQ(faults::writes_seen(), 2u);
    faults::clear();
}

TEST(Block, AFailedReadIsNotUpToDate)
{
    MemoryDisk d(mebibyte);
    faults::fail_read(1);
    DirectRead read(*d.disk, 0, 0);
    EXPECT_EQ(bio_uptodate(read.b), 1);
    read.submit(*d.disk);
    wait_for_completion(&read.done);
    faults::clear();
    EXPECT_EQ(read.error, -EIO);
    EXPECT_EQ(bio_uptodate(read.b), 0);
}

TEST(Block, AnUnpluggedDiskFailsRequestsAndHasNoDisk)
{
    MemoryDisk d(mebibyte, {{1, 8, 8}});
    block_device* part = bdget(kdev_make(8, 1));
    block_device* whole = bdget(kdev_make(8, 0));
    EXPECT_EQ(bdev_contains(part), whole);
    EXPECT_NE(bdev_disk(part), nullptr);
    EXPECT_EQ(bdev_has_partition(part), 1);
    EXPECT_EQ(bdev_has_partition(whole), 0);
    d.disk->unplug();
    std::byte sector[512] = {};
    EXPECT_EQ(d.disk->read(0, sector), -ENODEV);
    EXPECT_EQ(bdev_disk(part), nullptr);
    EXPECT_EQ(bdev_has_partition(part), 0);
}

TEST(Block, ANumberWithoutADeviceGetsAStandIn)
{
    block_device* bdev = bdget(kdev_make(259, 3));
    ASSERT_NE(bdev, nullptr);
    EXPECT_EQ(bdget(kdev_make(259, 3)), bdev) << "one object a number";
    EXPECT_EQ(bdev_dev(bdev), kdev_make(259, 3));
    EXPECT_EQ(bdev_disk(bdev), nullptr);
    EXPECT_EQ(bdev_contains(bdev), nullptr);
    EXPECT_EQ(get_super(bdev), nullptr);
    EXPECT_EQ(freeze_bdev(bdev), nullptr);
    thaw_bdev(bdev, nullptr);
    fsync_bdev(bdev);
    forget_leaks();
}

TEST(BlockDeathTest, APartitionTableIsReadUnderItsLockOnly)
{
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    MemoryDisk d(8 * mebibyte, {{1, 2048, 4096}});
    block_device* bdev = bdget(d.disk->device());
    sector_type start, sectors;
    EXPECT_DEATH(disk_partition(bdev_disk(bdev), 1, &start, &sectors), "a partition table was read without its lock");
    EXPECT_DEATH(bdev_unlock_partitions(bdev), "the lock of a partition table was released and is not held");
    semaphore sem;
    sema_init(&sem, 1);
    EXPECT_DEATH(
        {
            bdev_lock_partitions(bdev);
            down(&sem);
        },
        "down may sleep and was called with a partition table locked");
}

TEST(Block, PartitionTableIsSeenAsTheKernelHasIt)
{
    MemoryDisk d(8 * mebibyte, {{1, 2048, 4096}, {5, 8192, 100}});
    block_device* bdev = bdget(d.disk->device());
    gendisk* disk = bdev_disk(bdev);
    EXPECT_EQ(disk_capacity(disk), 16384u);
    EXPECT_EQ(disk_first_minor(disk), 0u);
    EXPECT_EQ(disk_minors(disk), 16u);
    EXPECT_EQ(disk_partition_slots(disk), 6u);
    sector_type start = 0, sectors = 0;
    bdev_lock_partitions(bdev);
    EXPECT_EQ(disk_partition(disk, 5, &start, &sectors), 1);
    EXPECT_EQ(start, 8192u);
    EXPECT_EQ(sectors, 100u);
    EXPECT_EQ(disk_partition(disk, 2, &start, &sectors), 0);
    EXPECT_EQ(disk_partition(disk, 0, &start, &sectors), 0);
    EXPECT_EQ(disk_partition(disk, 6, &start, &sectors), 0);
    bdev_unlock_partitions(bdev);
    EXPECT_THROW(MemoryDisk{mebibyte}, std::invalid_argument) << "the same device numbers";
}

namespace
{
int depth = 0, deepest = 0, redirected = 0;
int redirecting(request_queue*, bio*)
{
    return ++redirected % 3 != 0; // twice "submit it again", then taken
}
int resubmitting(request_queue* q, bio* b)
{
    deepest = std::max(deepest, ++depth);
    if (bio_sector(b) < 1000) {
        bio_set_sector(b, bio_sector(b) + 1);
        generic_make_request(b);
    } else {
        test_driver::real(q, b);
    }
    --depth;
    return 0;
}
} // namespace

TEST(Block, ABioSubmittedFromInsideARequestFunctionDoesNotRecurse)
{
    MemoryDisk d(mebibyte);
    test_driver::install(*d.disk);
    queue_set_make_request_fn(d.disk->queue(), resubmitting);
    std::byte sector[512] = {};
    EXPECT_EQ(d.disk->read(0, sector), 0);
    test_driver::uninstall(*d.disk);
    EXPECT_EQ(deepest, 1);
}

TEST(Block, ARequestFunctionThatRedirectsIsCalledAgain)
{
    MemoryDisk d(mebibyte);
    redirected = 0;
    test_driver::install(*d.disk);
    queue_set_make_request_fn(d.disk->queue(), redirecting);
    bio* b = bio_alloc(GFP_NOIO, 1);
    bio_set_bdev(b, bdget(d.disk->device()));
    bio_set_sector(b, 0);
    generic_make_request(b);
    test_driver::uninstall(*d.disk);
    EXPECT_EQ(redirected, 3);
    bio_put(b);
}

TEST(Module, UnloadWaitsForTasksInsideAHookAndRestoresTheQueue)
{
    MemoryDisk d(mebibyte);
    std::atomic<int> step{0};
    std::atomic<bool> unloaded{false};
    auto loaded = std::make_unique<test_driver::Loaded>();
    test_driver::on_bio = [&](bio*) {
        step = 1;
        while (step != 2)
            std::this_thread::yield();
    };
    test_driver::install(*d.disk);
    std::thread writer([&] {
        std::byte sector[512] = {};
        d.disk->write(0, sector);
    });
    while (step != 1)
        std::this_thread::yield();
    std::thread unloader([&] {
        EXPECT_EQ(unload_driver(), 0);
        unloaded = true;
    });
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    EXPECT_FALSE(unloaded);
    step = 2;
    writer.join();
    unloader.join();
    EXPECT_EQ(queue_make_request_fn(d.disk->queue()), test_driver::real) << "the hook that was left is gone";
}

TEST(Block, ManyThreadsThroughAHookThatComesAndGoes)
{
    MemoryDisk d(4 * mebibyte);
    std::atomic<bool> stop{false};
    std::atomic<long> through{0};
    test_driver::on_bio = [&](bio*) { ++through; };
    std::vector<std::thread> guests;
    for (int t = 0; t < 3; ++t) {
        guests.emplace_back([&, t] {
            auto data = pattern(4096, unsigned(t));
            std::vector<std::byte> back(4096);
            for (int i = 0; !stop; ++i) {
                std::uint64_t at = std::uint64_t(t) * mebibyte + std::uint64_t(i % 200) * 4096;
                ASSERT_EQ(d.disk->write(at, data), 0);
                ASSERT_EQ(d.disk->read(at, back), 0);
                ASSERT_EQ(data, back);
            }
        });
    }
    for (int i = 0; i < 300; ++i) {
        test_driver::install(*d.disk);
        std::this_thread::yield();
        test_driver::uninstall(*d.disk);
    }
    stop = true;
    for (auto& g : guests)
        g.join();
    test_driver::on_bio = nullptr;
    EXPECT_GE(through, 0);
}
