// SPDX-License-Identifier: GPL-2.0-only
#include "write_behind.h"

#include <algorithm>
#include <iterator>
#include <utility>

namespace qbackup
{

std::span<std::byte> Batch::add(std::uint32_t first, std::size_t bytes)
{
    const std::span<std::byte> space{data_.get() + used_, bytes};
    runs_.push_back({first, bytes});
    used_ += bytes;
    return space;
}

void Batch::putInto(BlockSink& out) const
{
    std::size_t at = 0;
    for (const Run& run : runs_) {
        out.put(run.first, {data_.get() + at, run.bytes}, data_);
        at += run.bytes;
    }
}

void Batch::clear() noexcept
{
    runs_.clear();
    used_ = 0;
}

WriteBehind::WriteBehind(std::size_t batches, std::size_t batch_bytes, BlockSink& out) : out_{out}
{
    for (std::size_t i = 0; i < batches; ++i)
        free_.emplace_back(batch_bytes);
    thread_ = std::thread{[this] { run(); }};
}

WriteBehind::~WriteBehind()
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

std::optional<Batch> WriteBehind::take(std::chrono::milliseconds patience)
{
    std::unique_lock lock{mutex_};
    changed_.wait_for(lock, patience, [&] { return !free_.empty() || error_; });
    if (error_)
        std::rethrow_exception(error_);
    if (free_.empty())
        return std::nullopt;
    Batch batch = std::move(free_.back());
    free_.pop_back();
    return batch;
}

void WriteBehind::give(Batch batch)
{
    {
        const std::lock_guard lock{mutex_};
        full_.push(std::move(batch));
    }
    changed_.notify_all();
}

void WriteBehind::finish()
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

void WriteBehind::run()
{
    std::unique_lock lock{mutex_};
    for (;;) {
        changed_.wait(lock, [&] { return !full_.empty() || closed_; });
        if (full_.empty() || discard_)
            return;
        Batch batch = std::move(full_.front());
        full_.pop();
        lock.unlock();
        std::exception_ptr error;
        try {
            batch.putInto(out_);
        } catch (...) {
            error = std::current_exception();
        }
        batch.clear();
        held_.push_back(std::move(batch));
        const auto still_held = std::partition(held_.begin(), held_.end(), [](const Batch& one) { return !one.free(); });
        lock.lock();
        error_ = error;
        std::move(still_held, held_.end(), std::back_inserter(free_));
        held_.erase(still_held, held_.end());
        changed_.notify_all();
        if (error_)
            return;
    }
}

} // namespace qbackup
