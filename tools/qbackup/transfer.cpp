// SPDX-License-Identifier: GPL-2.0-only
#include "transfer.h"

#include "write_behind.h"

#include <algorithm>
#include <chrono>
#include <optional>
#include <string>
#include <thread>
#include <utility>

namespace qbackup
{
namespace
{

using Clock = std::chrono::steady_clock;
using quendrel::Bitmap;

constexpr std::size_t batches = 4; // beside those that the target holds
constexpr std::size_t batch_bytes = 1 << 20; // at least
// Between two looks into the driver's cache. What is written to the device in that time is what it has to hold.
constexpr auto look_interval = std::chrono::milliseconds{10};
// What goes into the spool is kept account of in memory, and so not in small pieces.
constexpr std::size_t spool_bytes = 64 << 10;

// Tells how long to wait so that no more than a number of bytes goes by each second.
class Pace
{
  public:
    explicit Pace(std::uint64_t bytes_per_second) : rate_{bytes_per_second} {}
    std::chrono::milliseconds delay() const
    {
        return std::chrono::ceil<std::chrono::milliseconds>(std::max(next_ - Clock::now(), Clock::duration{}));
    }
    void count(std::size_t bytes)
    {
        if (rate_ != 0)
            next_ = std::max(next_, Clock::now()) + std::chrono::duration_cast<Clock::duration>(std::chrono::duration<double>{static_cast<double>(bytes) / static_cast<double>(rate_)});
    }

  private:
    std::uint64_t rate_;
    Clock::time_point next_{};
};

class Transfer
{
  public:
    Transfer(const TransferSource& source, DrainedBlocks& drained, std::uint64_t bytes_per_second, BlockSink& out, Progress& progress,
             const StopSignal& stop)
        : device_{source.device}, map_{source.map}, block_size_{source.blockSize},
          most_{static_cast<std::uint32_t>(source.areaBytes / source.blockSize)}, drained_{drained}, progress_{progress}, stop_{stop},
          pace_{bytes_per_second}, area_{device_.map(source.areaBytes)}, writer_{batches + out.mostHeld(), std::max(batch_bytes, source.areaBytes), out},
          batch_{*writer_.take(std::chrono::milliseconds{0})}
    {
    }

    void run()
    {
        while (const auto wanted = map_.nextRun(position_, most_)) {
            throwIfStopped(stop_);
            waitForPace();
            if (Clock::now() >= next_look_)
                drain();
            const auto ahead = drained_.next(position_);
            auto run = *wanted;
            // To a multiple of what one read takes: so are the places that an image is written in.
            run.count = std::min(run.count, most_ - run.first % most_);
            if (ahead && ahead->first == run.first)
                run = *ahead;
            else if (ahead)
                run.count = std::min(run.count, ahead->first - run.first);
            const std::size_t bytes = bytesOf(run.count);
            // While it waits for room more may be drained: then this run is not the next one any more.
            if (!makeRoom(bytes))
                continue;
            if (ahead && ahead->first == run.first) {
                drained_.take(run.first, batch_.add(run.first, bytes));
            } else {
                device_.readBlocks(run.first, run.count, area_);
                std::copy_n(area_.data().begin(), bytes, batch_.add(run.first, bytes).begin());
            }
            position_ = run.first + run.count;
            pace_.count(bytes);
            progress_.advance(bytes);
        }
        writer_.give(std::move(batch_));
        writer_.finish();
    }

  private:
    std::size_t bytesOf(std::uint32_t blocks) const { return std::size_t{blocks} * block_size_; }

    // Whether there was room for as much at once; otherwise there is room now.
    bool makeRoom(std::size_t bytes)
    {
        if (batch_.room() >= bytes)
            return true;
        writer_.give(std::move(batch_));
        auto patience = std::chrono::milliseconds{0};
        for (;;) {
            if (auto next = writer_.take(patience)) {
                batch_ = std::move(*next);
                return false;
            }
            throwIfStopped(stop_);
            patience = drain() ? std::chrono::milliseconds{0} : look_interval;
        }
    }

    void waitForPace()
    {
        for (auto delay = pace_.delay(); delay.count() > 0; delay = pace_.delay()) {
            if (!drain())
                std::this_thread::sleep_for(std::min(delay, look_interval));
            throwIfStopped(stop_);
        }
    }

    // Empties the driver's cache as far as there is room for it and it does not take too long at once. Whether there was
    // anything.
    bool drain()
    {
        const auto end = Clock::now() + look_interval;
        bool any = false;
        while (drained_.hasRoom() && Clock::now() < end) {
            const auto block = device_.dirtyBlock();
            if (!block)
                break;
            const auto run = around(*block);
            device_.readBlocks(run.count == 0 ? *block : run.first, std::max(run.count, 1u), area_);
            if (run.count != 0)
                drained_.put(run.first, area_.data().first(bytesOf(run.count)));
            else if (std::exchange(stray_, *block) == *block)
                throw Failure{Exit::failed, "the driver names block " + std::to_string(*block) + " again and again, which is not one to be read"};
            any = true;
        }
        next_look_ = Clock::now() + look_interval;
        return any;
    }

    // The run that begins with a block of the cache; an empty one when that is not wanted, or not any more: a write under way
    // at the same time as the read of its block can leave that behind in the cache. Where the one before it was drained as well, somebody is writing from
    // there on: then it is longer than that was, and what he comes to next is not in his way any more.
    Bitmap::Run around(std::uint32_t block) const
    {
        std::uint32_t most = 1;
        if (const auto before = drained_.before(block))
            most = std::min(2 * before->count, most_);
        if (!drained_.inMemory())
            most = std::max(most, std::min(static_cast<std::uint32_t>(spool_bytes / block_size_), most_));
        if (const auto behind = drained_.next(block))
            most = std::min(most, behind->first - block);
        const auto run = map_.nextRun(block, std::max(most, 1u));
        if (most == 0 || block < position_ || drained_.holds(block) || !run || run->first != block)
            return {block, 0};
        return *run;
    }

    quendrel::ControlDevice& device_;
    const Bitmap& map_;
    std::uint32_t block_size_;
    std::uint32_t most_; // blocks in one read
    DrainedBlocks& drained_;
    Progress& progress_;
    const StopSignal& stop_;
    std::uint32_t position_ = 0; // all blocks before it have been read
    std::optional<std::uint32_t> stray_; // the last one that was read only to empty the cache
    Clock::time_point next_look_{};
    Pace pace_;
    quendrel::TransferArea area_;
    WriteBehind writer_;
    Batch batch_;
};

} // namespace

void transfer(const TransferSource& source, DrainedBlocks& drained, std::uint64_t bytes_per_second, BlockSink& out, Progress& progress,
              const StopSignal& stop)
{
    if (source.map.nextSet(0))
        Transfer{source, drained, bytes_per_second, out, progress, stop}.run();
}

} // namespace qbackup
