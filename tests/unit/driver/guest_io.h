/* SPDX-License-Identifier: GPL-2.0-only */
// A guest's requests that do not wait, and what the tests of copy-on-write have in common.
#pragma once

#include "block.h"
#include "core_view.h"

#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <mutex>
#include <regex>
#include <thread>

namespace rig
{

// One guest request, submitted by the constructor. The destructor waits for its end.
class GuestIo
{
  public:
    GuestIo(TestDisk& disk, u32 partition, hosted::Op op, u64 offset, u64 bytes, unsigned char fill = 0,
            bool readAhead = false)
        : data_(op == hosted::Op::read || op == hosted::Op::write ? std::size_t(bytes) : 0, std::byte(fill))
    {
        request_.op = op;
        request_.read_ahead = readAhead;
        request_.offset = offset;
        request_.bytes = bytes;
        request_.data = data_.data();
        request_.context = this;
        request_.done = [](hosted::GuestRequest* r, int error) {
            auto* io = static_cast<GuestIo*>(r->context);
            io->error_ = error;
            io->done_.store(true);
        };
        disk.disk().submit(&request_, partition);
    }
    ~GuestIo() { wait(); }
    GuestIo(const GuestIo&) = delete;
    GuestIo& operator=(const GuestIo&) = delete;

    bool done() const { return done_.load(); }
    // 0 or a negative errno.
    int wait()
    {
        const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(60);
        while (!done()) {
            if (std::chrono::steady_clock::now() > deadline) {
                // Its memory is still the block layer's: there is no way on.
                std::fprintf(stderr, "a guest request did not end\n");
                std::abort();
            }
            std::this_thread::sleep_for(std::chrono::microseconds(100));
        }
        return error_;
    }
    const Bytes& data() const { return data_; }

  private:
    Bytes data_;
    hosted::GuestRequest request_{};
    int error_ = 0;
    std::atomic<bool> done_{false};
};

// A bio as the driver's entry points see it: on the whole disk's device, with an absolute sector.
class RawBio
{
  public:
    RawBio(kdev_t dev, hosted::Op op, sector_type sector, u32 bytes)
        : data_(bytes + 1, std::byte(0xEE)), bio_(hosted::new_raw_bio())
    {
        bio_->op = op;
        bio_->sector = sector;
        bio_->size = bytes;
        bio_->raw = data_.data();
        bio_->private_data = this;
        bio_->end_io = [](bio* b, int) { static_cast<RawBio*>(b->private_data)->ends_.fetch_add(1); };
        bio_set_bdev(bio_, bdget(dev));
    }
    ~RawBio() { bio_put(bio_); }
    RawBio(const RawBio&) = delete;
    RawBio& operator=(const RawBio&) = delete;
    bio* get() { return bio_; }
    int ends() const { return ends_.load(); }

  private:
    Bytes data_;
    bio* bio_;
    std::atomic<int> ends_{0};
};

// With a backup program whose file is closed, if the test has not done that, before the driver is unloaded.
class CopyOnWriteTest : public DriverTest
{
  protected:
    void TearDown() override
    {
        if (program.isOpen()) {
            EXPECT_EQ(program.close(), 0);
        }
        DriverTest::TearDown();
    }

    static sector_type sectorOf(TestDisk& disk, u32 partition, u32 block)
    {
        const Partition& p = disk.partition(partition);
        return p.start + sector_type(block) * (p.blockSize / 512);
    }

    // For a DiskGate: the first read of a block, and no later one.
    static std::function<bool(const hosted::BioView&)> firstRead(TestDisk& disk, u32 partition, u32 block)
    {
        auto seen = std::make_shared<std::atomic<bool>>(false);
        return [seen, sector = sectorOf(disk, partition, block)](const hosted::BioView& bio) {
            return !bio.write && bio.sector == sector && !seen->exchange(true);
        };
    }

    static int held(Backup* b) { return atomic_read(&b->mrInQueue); }
    static void waitUntilHeld(Backup* b, int requests)
    {
        eventually([&] { return held(b) == requests; });
    }
    // A write is done before the worker has marked its blocks; this waits for the marks as well.
    static void settle(Backup* b) { waitUntilHeld(b, 0); }
    void write(Backup* b, u32 partition, u32 block, unsigned char value)
    {
        ASSERT_EQ(sda().writeBlock(partition, block, value), 0);
        settle(b);
    }

    // The cache's entry of a block; the cache must be at rest.
    static CachePage* entryOf(Backup* b, u32 block)
    {
        CachePage* before = nullptr;
        return locateBlockInList(b->blockTable[block & CACHE_BUCKET_MASK]->busy, block, &before);
    }

    static Bytes filled(u32 bytes, unsigned char value) { return Bytes(bytes, std::byte(value)); }

    // Log lines with every pointer replaced by P.
    static Lines withoutPointers(Lines lines)
    {
        static const std::regex pointer("(bio|bh)=[0-9a-f]+");
        for (std::string& line : lines)
            line = std::regex_replace(line, pointer, "$1=P");
        return lines;
    }

    // In a death test: the driver's lines go where the death test looks.
    static void showLog()
    {
        hosted::log_set_sink([](std::string_view line) {
            std::fwrite(line.data(), 1, line.size(), stderr);
            std::fflush(stderr);
        });
    }

    Program program;
};

constexpr u32 SLOW_DISK_BLOCK = 4096;

// A disk in memory that keeps the reads of a range back until it is told to serve them.
class SlowStore final : public hosted::Store
{
  public:
    SlowStore(u64 bytes, u64 from, u64 to) : memory_(hosted::make_memory_store(bytes)), from_(from), to_(to)
    {
        auto all = hosted::memory_store_bytes(*memory_);
        for (std::size_t i = 0; i < all.size(); i++)
            all[i] = std::byte(i / SLOW_DISK_BLOCK % 251 + 1);
    }
    std::uint64_t size() const override { return memory_->size(); }
    void submit(hosted::StoreRequest* r) override
    {
        {
            std::lock_guard lock(mutex_);
            if (keeping_ && r->op == hosted::Op::read && r->offset >= from_ && r->offset < to_) {
                kept_.push_back(r);
                keptBytes_ += r->bytes;
                return;
            }
        }
        memory_->submit(r);
    }
    u64 keptBytes()
    {
        std::lock_guard lock(mutex_);
        return keptBytes_;
    }
    // With an error other than 0 the reads fail instead.
    void serve(int error = 0)
    {
        std::vector<hosted::StoreRequest*> kept;
        {
            std::lock_guard lock(mutex_);
            keeping_ = false;
            kept.swap(kept_);
        }
        for (hosted::StoreRequest* r : kept) {
            if (error)
                r->done(r, error);
            else
                memory_->submit(r);
        }
    }

  private:
    std::unique_ptr<hosted::Store> memory_;
    const u64 from_, to_;
    std::mutex mutex_; // guards the rest
    bool keeping_ = true;
    u64 keptBytes_ = 0;
    std::vector<hosted::StoreRequest*> kept_;
};

// With such a disk, if the test asks for it.
class SlowDiskTest : public CopyOnWriteTest
{
  protected:
    // A whole disk sdb over a SlowStore that keeps the reads of blocks [from, to) back, and a backup of it with area 0
    // mapped, after the snapshot.
    SlowStore& beginOnSlowDisk(u32 from, u32 to, u32 maxCacheBlocks)
    {
        auto store = std::make_unique<SlowStore>(4096 * SLOW_DISK_BLOCK, u64(from) * SLOW_DISK_BLOCK, u64(to) * SLOW_DISK_BLOCK);
        SlowStore& slow = *store;
        hosted::DiskConfig config;
        config.name = "sdb";
        config.first_minor = 16;
        config.store = std::move(store);
        slowDisk_ = hosted::add_disk(std::move(config));
        hosted::mount_file_system(slowDisk_->device(0), SLOW_DISK_BLOCK);
        EXPECT_EQ(program.open(), 0);
        EXPECT_EQ(program.start(slowDisk_->device(0), 4096, maxCacheBlocks), 0);
        EXPECT_EQ(program.snapshot(), 0);
        EXPECT_EQ(program.map(0, 8), 0);
        takeLog();
        return slow;
    }
    void TearDown() override
    {
        if (slowDisk_) {
            EXPECT_EQ(program.close(), 0);
            EXPECT_EQ(hosted::unload_driver(), 0);
            hosted::unmount_file_system(slowDisk_->device(0));
            hosted::remove_disk(slowDisk_);
            slowDisk_.reset();
        }
        CopyOnWriteTest::TearDown();
    }
    std::shared_ptr<hosted::Disk> slowDisk_;
};

} // namespace rig
