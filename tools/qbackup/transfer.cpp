// SPDX-License-Identifier: GPL-2.0-only
#include "transfer.h"

#include <array>
#include <condition_variable>
#include <exception>
#include <mutex>
#include <thread>

namespace qbackup
{
namespace
{

// The writer thread and the two areas that go round between it and the reading thread.
class WriteBehind
{
  public:
    WriteBehind(std::array<std::span<const std::byte>, 2> areas, BlockSink& out)
        : areas_{areas}, out_{out}, thread_{[this] { run(); }}
    {
    }
    // Does not write what is still waiting: whoever wants that calls finish().
    ~WriteBehind()
    {
        {
            const std::lock_guard lock{mutex_};
            closed_ = true;
            discard_ = true;
        }
        changed_.notify_all();
        if (thread_.joinable())
            thread_.join();
    }
    WriteBehind(const WriteBehind&) = delete;
    WriteBehind& operator=(const WriteBehind&) = delete;

    // Waits until area `i` is written out and may be filled again. Throws what stopped the writer.
    void waitFree(std::size_t i)
    {
        std::unique_lock lock{mutex_};
        changed_.wait(lock, [&] { return filled_[i] == 0 || error_; });
        if (error_)
            std::rethrow_exception(error_);
    }
    void give(std::size_t i, std::uint32_t first, std::size_t bytes)
    {
        {
            const std::lock_guard lock{mutex_};
            filled_[i] = bytes;
            first_[i] = first;
        }
        changed_.notify_all();
    }
    // Waits until everything is written out.
    void finish()
    {
        {
            const std::lock_guard lock{mutex_};
            closed_ = true;
        }
        changed_.notify_all();
        thread_.join();
        if (error_)
            std::rethrow_exception(error_);
    }

  private:
    void run()
    {
        for (std::size_t i = 0;; i ^= 1) {
            std::size_t bytes;
            std::uint32_t first;
            {
                std::unique_lock lock{mutex_};
                changed_.wait(lock, [&] { return filled_[i] != 0 || closed_; });
                if (filled_[i] == 0 || discard_)
                    return;
                bytes = filled_[i];
                first = first_[i];
            }
            try {
                out_.put(first, areas_[i].first(bytes));
            } catch (...) {
                const std::lock_guard lock{mutex_};
                error_ = std::current_exception();
                changed_.notify_all();
                return;
            }
            {
                const std::lock_guard lock{mutex_};
                filled_[i] = 0;
            }
            changed_.notify_all();
        }
    }

    std::array<std::span<const std::byte>, 2> areas_;
    BlockSink& out_;
    std::mutex mutex_; // guards what follows; a leaf
    std::condition_variable changed_;
    std::array<std::size_t, 2> filled_{}; // bytes to write out; 0: free
    std::array<std::uint32_t, 2> first_{}; // number of the first block there
    bool closed_ = false;
    bool discard_ = false;
    std::exception_ptr error_;
    std::thread thread_; // last: it uses all of the above
};

} // namespace

void transfer(quendrel::ControlDevice& device, const quendrel::Bitmap& map, std::uint32_t block_size,
              std::size_t area_bytes, BlockSink& out, Progress& progress, const StopSignal& stop)
{
    const auto most = static_cast<std::uint32_t>(area_bytes / block_size);
    if (!map.nextSet(0))
        return;
    const std::array areas{device.map(area_bytes), device.map(area_bytes)};
    WriteBehind writer{{areas[0].data(), areas[1].data()}, out};
    std::size_t i = 0;
    for (auto run = map.nextRun(0, most); run; run = map.nextRun(run->first + run->count, most), i ^= 1) {
        throwIfStopped(stop);
        writer.waitFree(i);
        device.readBlocks(run->first, run->count, areas[i]);
        const std::size_t bytes = std::size_t{run->count} * block_size;
        writer.give(i, run->first, bytes);
        progress.advance(bytes);
    }
    writer.finish();
}

} // namespace qbackup
