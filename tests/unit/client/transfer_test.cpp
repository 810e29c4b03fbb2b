// SPDX-License-Identifier: GPL-2.0-only
// The way of the blocks from the driver to the target: in order, once, and what is overwritten meanwhile first.
#include "support.h"

#include "drained_blocks.h"
#include "transfer.h"
#include "write_behind.h"

#include <gmock/gmock.h>

#include <sys/resource.h>

#include <algorithm>
#include <chrono>
#include <csignal>
#include <deque>
#include <future>
#include <thread>

namespace
{

using namespace test;
using namespace std::chrono_literals;
using quendrel::Bitmap;
using Clock = std::chrono::steady_clock;

constexpr std::uint32_t block_size = 1024;
constexpr std::uint32_t blocks = 20000;

// Keeps what it gets, and waits where it is told to.
class Target : public BlockSink
{
  public:
    void put(std::uint32_t first, std::span<const std::byte> data, const Hold& hold) override
    {
        if (holds != 0 && (held.empty() || held.back().hold != hold)) {
            held.push_back({first, data, hold});
            if (held.size() > holds) {
                const Held& oldest = held.front();
                changed += !std::ranges::equal(oldest.data, std::span{image}.subspan(std::size_t{oldest.first} * block_size, oldest.data.size()));
                held.pop_front();
            }
        }
        runs.push_back({first, static_cast<std::uint32_t>(data.size() / block_size)});
        std::copy(data.begin(), data.end(), image.begin() + std::ptrdiff_t{first} * block_size);
        while (closed)
            std::this_thread::sleep_for(1ms);
    }

    std::size_t mostHeld() const noexcept override { return holds; }

    struct Held {
        std::uint32_t first;
        std::span<const std::byte> data;
        Hold hold;
    };
    std::size_t holds = 0; // the last so many that differ
    std::deque<Held> held;
    int changed = 0; // while they were held
    std::vector<Bitmap::Run> runs;
    std::vector<std::byte> image = std::vector<std::byte>(std::size_t{block_size} * blocks);
    std::atomic<bool> closed{false};
};

class TransferOf : public ::testing::Test
{
  protected:
    TransferOf()
    {
        for (std::uint32_t block = 0; block < blocks; ++block)
            driver.write(block, 1);
    }

    // A transfer of `map` by a thread of its own.
    std::future<void> begin(Bitmap map, std::uint32_t cache_blocks, std::uint64_t memory, const fs::path& spool = {}, std::uint64_t rate = 0)
    {
        auto device = std::make_shared<quendrel::ControlDevice>(fake::connect(driver), "memory");
        device->start({8, 1}, blocks, cache_blocks);
        device->snapshot({});
        device->loadBlockMap(map);
        auto shared = std::make_shared<Bitmap>(std::move(map));
        return std::async(std::launch::async, [=, this] {
            DrainedBlocks drained{block_size, memory, spool, progress};
            transfer({*device, *shared, block_size, 256 * block_size}, drained, rate, target, progress, stop);
        });
    }

    // Overwrites blocks one after the other, each when the one before has left the driver's cache.
    void overwrite(std::uint32_t first, std::uint32_t count, std::uint32_t step = 1)
    {
        for (std::uint32_t i = 0; i < count; ++i) {
            driver.write(first + i * step, 2);
            const auto end = Clock::now() + 20s;
            while (driver.cached() != 0 && Clock::now() < end)
                std::this_thread::sleep_for(100us);
            ASSERT_EQ(driver.cached(), 0u) << "block " << first + i * step << " was not taken out";
        }
    }

    fake::Driver driver{{8, 1}, block_size, blocks};
    Target target;
    Progress progress{Progress::Style::none};
    StopSignal stop{0};
    Directory directory;
};

TEST_F(TransferOf, ScatteredBlocksArriveInOrderAndWithTheirNumbers)
{
    Bitmap map{blocks};
    for (const std::uint32_t block : {0u, 1u, 2u, 700u, 701u, 5999u})
        map.set(block);
    begin(std::move(map), 10, 0).get();
    EXPECT_EQ(target.runs, (std::vector<Bitmap::Run>{{0, 3}, {700, 2}, {5999, 1}}));
}

TEST_F(TransferOf, WhatTheTargetHoldsStaysAsItWasAndStopsNothing)
{
    for (std::uint32_t block = 0; block < blocks; ++block)
        driver.write(block, block / 7);
    target.holds = 3;
    begin(Bitmap{blocks, true}, 10, 0).get();
    EXPECT_EQ(target.image, driver.frozen());
    EXPECT_EQ(target.held.size(), 3u);
    EXPECT_EQ(target.changed, 0);
}

TEST_F(TransferOf, WhatIsOverwrittenLeavesTheDriversCacheWhileTheTargetHangs)
{
    target.closed = true;
    auto done = begin(Bitmap{blocks, true}, 8, 4 << 20);
    // The first 256 are read at once, and four batches of a mebibyte with them.
    overwrite(5000, 300);
    overwrite(5400, 200, 3);
    target.closed = false;
    done.get();
    EXPECT_EQ(target.image, driver.frozen());
    EXPECT_LE(driver.mostCached(), 8u);
    std::uint32_t end = 0;
    for (const auto& run : target.runs) {
        EXPECT_EQ(run.first, end) << "each once, in order";
        end = run.first + run.count;
    }
    EXPECT_EQ(end, blocks);
}

TEST_F(TransferOf, OfWhatIsOverwrittenOnlyWhatIsWantedIsReadAhead)
{
    Bitmap map{blocks};
    for (std::uint32_t block = 0; block < blocks; block += 2)
        map.set(block);
    target.closed = true;
    auto done = begin(std::move(map), 8, 4 << 20);
    driver.write(0, 2);
    std::this_thread::sleep_for(20ms);
    overwrite(5001, 20);
    target.closed = false;
    done.get();
    for (const auto& run : target.runs)
        EXPECT_EQ(run.first % 2, 0u);
    EXPECT_EQ(target.runs.size(), blocks / 2);
}

TEST_F(TransferOf, SomebodyWhoWritesOnAndOnIsReadAheadOf)
{
    target.closed = true;
    auto done = begin(Bitmap{blocks, true}, 8, 4 << 20);
    overwrite(4500, 1000);
    target.closed = false;
    done.get();
    std::size_t ahead = 0;
    for (const auto& read : driver.reads())
        ahead += read.first >= 4500 && read.first < 5500;
    EXPECT_LT(ahead, 30u) << "of a thousand blocks";
    EXPECT_EQ(target.image, driver.frozen());
}

TEST_F(TransferOf, WithoutRoomForItTheRestStaysInTheDriversCache)
{
    target.closed = true;
    auto done = begin(Bitmap{blocks, true}, 100, 10 * block_size);
    overwrite(5000, 8, 3);
    for (std::uint32_t i = 0; i < 100; ++i)
        driver.write(5100 + 2 * i, 2);
    std::this_thread::sleep_for(100ms);
    EXPECT_GT(driver.cached(), 90u);
    target.closed = false;
    done.get();
    EXPECT_EQ(target.image, driver.frozen());
}

TEST_F(TransferOf, ASpoolTakesWhatDoesNotFitIntoMemory)
{
    target.closed = true;
    auto done = begin(Bitmap{blocks, true}, 8, 10 * block_size, directory.path());
    overwrite(4600, 200, 7);
    EXPECT_TRUE(fs::is_empty(directory.path())) << "it has no name";
    target.closed = false;
    done.get();
    EXPECT_EQ(target.image, driver.frozen());
}

TEST_F(TransferOf, ARateIsNotExceededAndTheCacheIsEmptiedMeanwhile)
{
    const auto begun = Clock::now();
    auto done = begin(Bitmap{blocks, true}, 8, 4 << 20, {}, 10'000'000);
    overwrite(5000, 100, 5);
    done.get();
    const std::chrono::duration<double> seconds = Clock::now() - begun;
    EXPECT_GE(seconds.count(), 0.9 * blocks * block_size / 10e6);
    EXPECT_EQ(target.image, driver.frozen());
}

TEST_F(TransferOf, ABlockThatWasSavedWhenItHadBeenReadLeavesTheCacheAndIsNotStoredAgain)
{
    Bitmap map{blocks, true};
    map.clear(5500);
    target.closed = true;
    auto done = begin(std::move(map), 8, 4 << 20);
    overwrite(5000, 1);
    for (const std::uint32_t block : {0u, 5000u, 5500u}) {
        driver.saveStray(block);
        const auto end = Clock::now() + 20s;
        while (driver.cached() != 0 && Clock::now() < end)
            std::this_thread::sleep_for(100us);
        EXPECT_EQ(driver.cached(), 0u) << block;
    }
    target.closed = false;
    done.get();
    std::uint32_t stored = 0;
    for (const auto& run : target.runs)
        stored += run.count;
    EXPECT_EQ(stored, blocks - 1);
    auto expected = driver.frozen();
    std::fill_n(expected.begin() + std::ptrdiff_t{5500} * block_size, block_size, std::byte{0});
    EXPECT_EQ(target.image, expected);
}

TEST_F(TransferOf, ASignalEndsItWhileTheTargetHangs)
{
    target.closed = true;
    auto done = begin(Bitmap{blocks, true}, 8, 4 << 20);
    std::this_thread::sleep_for(50ms);
    stop = SIGTERM;
    // Its writer cannot be ended.
    std::this_thread::sleep_for(50ms);
    target.closed = false;
    EXPECT_THROW(done.get(), Interrupted);
}

// ---- DrainedBlocks

std::vector<std::byte> block(unsigned value, std::uint32_t count = 1) { return std::vector<std::byte>(std::size_t{count} * block_size, static_cast<std::byte>(value)); }

TEST(DrainedBlocks, AreGivenBackOnceInTheOrderOfTheirNumbers)
{
    Progress progress{Progress::Style::none};
    DrainedBlocks drained{block_size, 1 << 20, {}, progress};
    drained.put(70, block(7, 2));
    drained.put(20, block(2));
    EXPECT_EQ(drained.next(0), (Bitmap::Run{20, 1}));
    EXPECT_EQ(drained.next(21), (Bitmap::Run{70, 2}));
    std::vector<std::byte> out(block_size);
    drained.take(20, out);
    EXPECT_EQ(out, block(2));
    EXPECT_EQ(drained.next(0), (Bitmap::Run{70, 2}));
    EXPECT_EQ(drained.next(71), std::nullopt);
}

TEST(DrainedBlocks, OnlyARunThatEndsRightBeforeIsTheOneBefore)
{
    Progress progress{Progress::Style::none};
    DrainedBlocks drained{block_size, 1 << 20, {}, progress};
    EXPECT_EQ(drained.before(5), std::nullopt);
    drained.put(3, block(1, 2));
    EXPECT_EQ(drained.before(5), (Bitmap::Run{3, 2}));
    EXPECT_EQ(drained.before(6), std::nullopt);
    EXPECT_EQ(drained.before(3), std::nullopt);
}

TEST(DrainedBlocks, HoldEachBlockOfARun)
{
    Progress progress{Progress::Style::none};
    DrainedBlocks drained{block_size, 1 << 20, {}, progress};
    drained.put(3, block(1, 2));
    EXPECT_FALSE(drained.holds(2));
    EXPECT_TRUE(drained.holds(3));
    EXPECT_TRUE(drained.holds(4));
    EXPECT_FALSE(drained.holds(5));
}

TEST(DrainedBlocks, MemoryThatWasGivenBackCountsAgain)
{
    Progress progress{Progress::Style::none};
    DrainedBlocks drained{block_size, 2 * block_size, {}, progress};
    drained.put(1, block(1));
    EXPECT_TRUE(drained.hasRoom());
    drained.put(2, block(2));
    EXPECT_FALSE(drained.hasRoom());
    std::vector<std::byte> out(block_size);
    drained.take(1, out);
    EXPECT_TRUE(drained.hasRoom());
}

TEST(DrainedBlocks, ASpoolThatIsFullLosesNothing)
{
    Progress progress{Progress::Style::none};
    Directory directory;
    DrainedBlocks drained{block_size, block_size, directory.path(), progress};
    drained.put(0, block(9));
    drained.put(1, block(1));
    rlimit before{};
    getrlimit(RLIMIT_FSIZE, &before);
    const rlimit tight{3 * block_size, before.rlim_max};
    const auto handler = std::signal(SIGXFSZ, SIG_IGN);
    setrlimit(RLIMIT_FSIZE, &tight);
    testing::internal::CaptureStderr();
    drained.put(2, block(2, 4));
    const std::string warning = testing::internal::GetCapturedStderr();
    setrlimit(RLIMIT_FSIZE, &before);
    std::signal(SIGXFSZ, handler);
    EXPECT_EQ(warning, "qbackup: warning: cannot write " + directory.path().string() + ": File too large; what is overwritten from now on waits in the driver's "
                       "cache, and the backup fails if that gets full\n");
    EXPECT_FALSE(drained.hasRoom());
    std::vector<std::byte> out(4 * block_size);
    drained.take(2, out);
    EXPECT_EQ(out, block(2, 4));
    out.resize(block_size);
    drained.take(1, out);
    EXPECT_EQ(out, block(1));
}

TEST(DrainedBlocks, ASpoolDirectoryThatIsNotThereIsRefused)
{
    Progress progress{Progress::Style::none};
    try {
        DrainedBlocks{block_size, 0, "/nowhere", progress};
        FAIL();
    } catch (const Failure& failure) {
        EXPECT_EQ(failure.exitCode(), static_cast<int>(Exit::refused));
        EXPECT_STREQ(failure.what(), "the spool directory cannot be used: cannot open /nowhere: No such file or directory. Name a directory on a local file system");
    }
}

} // namespace
