// SPDX-License-Identifier: GPL-2.0-only
// Threads against each other: writers on two partitions, a reader, one backup program after the other, Shutdown, and
// second openers, all at once. Made for ThreadSanitizer and AddressSanitizer; what is asserted besides is that no
// write is lost, no reader sees torn blocks, and everything ends at zero.
//
// Files beside the backup's own stay open to the end: closing any of them detaches the running backup, and with a
// write held that would wait for ever, by design.
#include "driver_rig.h"

#include <atomic>
#include <chrono>
#include <random>
#include <thread>

namespace {

using rig::Bits;
using rig::Bytes;
using rig::Key;
using rig::Program;

class DriverThreads : public rig::DriverTest
{
  protected:
    static constexpr u32 kBlocks = 64;  // few, so that the threads meet

    void SetUp() override
    {
        DriverTest::SetUp();
        addDisk("sda", 0, 8 + 2 * kBlocks * 8,
                {{1, 8, kBlocks * 8, 4096}, {2, 8 + kBlocks * 8, kBlocks * 8, 4096}});
    }

    void TearDown() override
    {
        join();
        DriverTest::TearDown();
    }

    void join()
    {
        stop_ = true;
        for (std::thread& t : threads_)
            t.join();
        threads_.clear();
    }

    std::atomic<bool> stop_{false};
    std::vector<std::thread> threads_;
    std::atomic<unsigned> backups_{0}, incrementals_{0}, writes_{0}, reads_{0};

    // Each writer owns every n-th block, so that the last value it wrote is what the disk must hold.
    void writer(u32 partition, u32 first, u32 step, unsigned seed)
    {
        std::mt19937 random(seed);
        std::vector<unsigned char> last(kBlocks, 0);
        while (!stop_) {
            const u32 number = first + step * (random() % (kBlocks / step));
            last[number] = static_cast<unsigned char>(1 + random() % 255);
            ASSERT_EQ(disks_[0]->writeBlock(partition, number, last[number]), 0);
            writes_++;
        }
        for (u32 i = first; i < kBlocks; i += step) {
            if (last[i]) {
                EXPECT_EQ(disks_[0]->block(partition, i), Bytes(4096, std::byte(last[i]))) << "block " << i;
            }
        }
    }

    void reader(u32 partition)
    {
        std::mt19937 random(99);
        Bytes got(4096);
        while (!stop_) {
            const u32 number = random() % kBlocks;
            ASSERT_EQ(disks_[0]->disk().read(u64(number) * 4096, got, partition), 0);
            reads_++;
        }
    }

    // One backup after the other of one partition. A Shutdown in between may take the hook away, so contents are not
    // compared here; the model test does that.
    void backups(u32 partition, u32 maxCacheBlocks)
    {
        Key key{};
        while (!stop_) {
            Program program;
            ASSERT_EQ(program.open(), 0);
            const int started = program.start(disks_[0]->device(partition), kBlocks, maxCacheBlocks);
            if (started != 0) {
                ASSERT_EQ(started, int(QUENDREL_BUSY));
                retired_.push_back(std::make_unique<Program>(std::move(program)));
                return;
            }
            ASSERT_EQ(program.snapshot(key), 0);
            if (program.state().state == QUENDREL_STATE_STARTED) {
                ASSERT_EQ(program.noLoadFromAutoMap(), 0);
                ASSERT_EQ(program.snapshot(key), 0);
            }
            ASSERT_EQ(program.map(0, 64), 0);
            Bits changed(kBlocks);
            if (program.autoMap(changed) == 0)
                incrementals_++;
            key = program.key();
            (void)program.loadMap(Bits(kBlocks, true));  // refused when the cache limit was reached meanwhile
            for (u32 first = 0; first < kBlocks; first += 16)
                (void)program.readBlocks(first, 16);
            ASSERT_EQ(program.close(), 0);
            backups_++;
        }
    }

    std::vector<std::unique_ptr<Program>> retired_;
};

TEST_F(DriverThreads, WritersReaderBackupsShutdownAndSecondOpenersLeaveEveryWriteInPlace)
{
    for (u32 partition : {1u, 2u})
        for (u32 i = 0; i < 2; i++)
            threads_.emplace_back([=, this] { writer(partition, i, 2, partition * 10 + i); });
    threads_.emplace_back([this] { reader(1); });
    threads_.emplace_back([this] { backups(1, 40); });

    Program idle;  // its closing at the end must find no backup running
    ASSERT_EQ(idle.open(), 0);
    threads_.emplace_back([&] {
        while (!stop_) {
            (void)idle.autoMapState();
            (void)idle.state();
            BlockSize size{};
            ASSERT_EQ(idle.blockSize(disks_[0]->device(1), size), 0);
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        }
    });
    Program shutter;
    ASSERT_EQ(shutter.open(), 0);
    threads_.emplace_back([&] {
        while (!stop_) {
            ASSERT_EQ(shutter.command(QUENDREL_SHUTDOWN), 0);
            std::this_thread::sleep_for(std::chrono::milliseconds(7));
        }
    });

    std::this_thread::sleep_for(std::chrono::seconds(8));
    join();
    EXPECT_EQ(idle.close(), 0);
    EXPECT_EQ(shutter.close(), 0);
    RecordProperty("backups", int(backups_));
    std::cout << backups_ << " backups (" << incrementals_ << " with a map from tracking), " << writes_ << " writes, "
              << reads_ << " reads\n";
    EXPECT_GT(backups_, 3u);
    EXPECT_GT(incrementals_, 0u);
    EXPECT_GT(writes_, 100u);
}

// Without Shutdown every block of every backup must be of one moment: the writers stamp a generation into each block
// and a backup may not show a block newer than its snapshot.
TEST_F(DriverThreads, EveryBlockOfABackupIsNoNewerThanItsSnapshot)
{
    std::atomic<u32> generation{1};
    for (u32 i = 0; i < kBlocks; i++)
        ASSERT_EQ(disks_[0]->writeBlock(1, i, 0), 0);
    for (u32 i = 0; i < 3; i++) {
        threads_.emplace_back([&, i] {
            std::mt19937 random(i);
            while (!stop_) {
                Bytes block(4096, std::byte(0));
                const u32 stamp = generation.load();
                for (u32 at = 0; at < 4096; at += 4)
                    std::memcpy(block.data() + at, &stamp, 4);
                const u32 number = i + 3 * (random() % (kBlocks / 3));
                ASSERT_EQ(disks_[0]->disk().write(u64(number) * 4096, block, 1), 0);
                writes_++;
            }
        });
    }
    const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(5);
    while (std::chrono::steady_clock::now() < end && !HasFatalFailure()) {
        Program program;
        ASSERT_EQ(program.open(), 0);
        ASSERT_EQ(program.start(disks_[0]->device(1), kBlocks, 100000), 0);
        ASSERT_EQ(program.noLoadFromAutoMap(), 0);  // no key is kept here
        ASSERT_EQ(program.snapshot(), 0);
        // Every stamp from here on is newer than the snapshot.
        const u32 newest = generation.fetch_add(1);
        ASSERT_EQ(program.map(0, 256), 0);
        ASSERT_EQ(program.loadMap(Bits(kBlocks, true)), 0);
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
        for (u32 first = 0; first < kBlocks; first += 16) {
            ASSERT_EQ(program.readBlocks(first, 16), 0);
            for (u32 i = 0; i < 16; i++) {
                const Bytes got = program.blockInArea(0, i, 4096);
                u32 head, tail;
                std::memcpy(&head, got.data(), 4);
                std::memcpy(&tail, got.data() + 4092, 4);
                ASSERT_EQ(head, tail) << "a torn block " << first + i;
                ASSERT_LE(head, newest) << "block " << first + i;
            }
        }
        ASSERT_EQ(program.close(), 0);
        backups_++;
    }
    join();
    std::cout << backups_ << " backups, " << writes_ << " writes\n";
    EXPECT_GT(backups_, 3u);
}

}  // namespace
