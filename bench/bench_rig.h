/* SPDX-License-Identifier: GPL-2.0-only */
// What the micro benchmarks stand on: a memory-backed disk with one partition, a backup program inside the process,
// bios of the benchmark's own, and comparisons in alternate turns.
//
// Everything here throws std::runtime_error when a step does not do what it should: a benchmark of something that
// failed would be worth nothing.
#pragma once

#include "block.h"
#include "hosted.h"
#include "quendrel.h"

#include <benchmark/benchmark.h>

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

namespace bench
{

constexpr u32 block_bytes = 4096;
constexpr u32 sectors_per_block = block_bytes / 512;

// sda with one partition of `blocks` 4-KiB blocks and a file system on it. `touch`: every byte of the disk is backed
// by memory from the start, so that no page fault is measured.
class BenchDisk
{
  public:
    explicit BenchDisk(u32 blocks, bool touch = true);
    ~BenchDisk();
    BenchDisk(const BenchDisk&) = delete;
    BenchDisk& operator=(const BenchDisk&) = delete;

    u32 blocks() const { return blocks_; }
    kdev_t device() const { return disk_->device(1); }
    request_queue* queue() { return disk_->queue(); }
    block_device* whole() { return whole_; }
    block_device* partition() { return partition_; }
    static constexpr sector_type start = 2048; // of the partition, in sectors

  private:
    std::shared_ptr<hosted::Disk> disk_;
    u32 blocks_;
    block_device* whole_;
    block_device* partition_;
};

// One backup on the control device; it ends with the object.
class BenchBackup
{
  public:
    // As far as the snapshot (state 4) with tracking started; at most `cache_blocks` saved blocks.
    BenchBackup(BenchDisk& disk, u32 cache_blocks);
    ~BenchBackup();
    void load_map(u32 first, u32 count); // these blocks are wanted; state 6
    void read(u32 first, u32 count);     // at most 256, into the transfer area
    u32 state();

  private:
    template <typename Record> u32 put(const Record& record);
    void command(u32 number, u32 argument, const char* name);

    BenchDisk& disk_;
    std::shared_ptr<hosted::SimulatedMemory> memory_;
    std::unique_ptr<hosted::ControlFile> file_;
    std::unique_ptr<hosted::Mapping> area_;
    u32 read_record_ = 0;
    u32 state_record_ = 0;
    u32 state_pointer_ = 0;
};

// The driver, loaded for as long as this lives.
class Loaded
{
  public:
    Loaded();
    ~Loaded();
};

// A bio that is used over and over. Counts its completions.
class BenchBio
{
  public:
    explicit BenchBio(u32 bytes);
    ~BenchBio();
    BenchBio(BenchBio&& other) noexcept;
    BenchBio(const BenchBio&) = delete;
    BenchBio& operator=(const BenchBio&) = delete;

    // Through the disk's own function, as if no driver were there.
    void own(BenchDisk& disk, hosted::Op op, u32 block);
    // As any user of the partition submits it.
    void submit(BenchDisk& disk, hosted::Op op, u32 block, std::byte* data);
    // Ends of bios of all threads since the last reset, for benchmarks whose bios end on another thread.
    static std::atomic<u64> ended;

  private:
    void aim(hosted::Op op, std::byte* data);
    static void counted_end(bio* b, int error);

    bio* bio_;
    u32 bytes_;
    std::vector<std::byte> data_;
};

// `count` different blocks of [first, first + among), each a multiple of `step`, in random order, the same ones at
// every run.
std::vector<u32> shuffled(u32 first, u32 among, u32 step, u32 count);

// Runs `base` and `ours` in alternate turns on `threads` threads at once and reports, as medians over the turns in
// nanoseconds an operation, counters base_ns, ours_ns, above_ns and the quartiles above_q1, above_q3.
using Batch = std::function<void(unsigned thread, unsigned turn)>; // `operations` of them
void compare(benchmark::State& state, unsigned threads, u32 operations, const Batch& base, const Batch& ours);

double quantile(std::vector<double> values, double q);

} // namespace bench
