/* SPDX-License-Identifier: GPL-2.0-only */
// A thread that writes out what another one has read. A fixed number of batches goes round between the two; so the reader
// is at most that far ahead. Whoever they are written to may hold some of them for longer.
#pragma once

#include "client/bitmap.h"
#include "stored_backup.h"

#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <exception>
#include <memory>
#include <mutex>
#include <optional>
#include <queue>
#include <span>
#include <thread>
#include <vector>

namespace qbackup
{

// Runs of blocks in ascending order, one behind the other.
class Batch
{
  public:
    explicit Batch(std::size_t bytes) : data_{std::make_shared_for_overwrite<std::byte[]>(bytes)}, bytes_{bytes} {}

    std::size_t room() const noexcept { return bytes_ - used_; }
    bool empty() const noexcept { return used_ == 0; }
    // Space for a run, to be filled by the caller; there has to be room for it.
    std::span<std::byte> add(std::uint32_t first, std::size_t bytes);
    void putInto(BlockSink& out) const;
    // Whether nobody else holds it.
    bool free() const noexcept { return data_.use_count() == 1; }
    void clear() noexcept;

  private:
    struct Run {
        std::uint32_t first;
        std::size_t bytes;
    };
    std::shared_ptr<std::byte[]> data_;
    std::size_t bytes_;
    std::size_t used_ = 0;
    std::vector<Run> runs_;
};

class WriteBehind
{
  public:
    // `batches`: more than `out` holds at most.
    WriteBehind(std::size_t batches, std::size_t batch_bytes, BlockSink& out);
    // Does not write what is still waiting: whoever wants that calls finish().
    ~WriteBehind();
    WriteBehind(const WriteBehind&) = delete;
    WriteBehind& operator=(const WriteBehind&) = delete;

    // An empty batch, as soon as there is one within the time. Throws what stopped the writer.
    std::optional<Batch> take(std::chrono::milliseconds patience);
    void give(Batch batch);
    // Waits until everything is written out.
    void finish();

  private:
    void run();

    BlockSink& out_;
    std::mutex mutex_; // guards what follows; a leaf
    std::condition_variable changed_;
    std::vector<Batch> free_; // the last one first: as little memory as will do
    std::queue<Batch> full_;
    bool closed_ = false;
    bool discard_ = false;
    std::exception_ptr error_;
    std::vector<Batch> held_; // the writer's own, written out; `out_` lets go of them on its thread
    std::thread thread_; // last: it uses all of the above
};

} // namespace qbackup
