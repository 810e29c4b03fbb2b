// SPDX-License-Identifier: GPL-2.0-only
// What a running backup does: first writes to blocks (held, the old block read and saved, passed on) and block reads
// from disk and from the cache.
#include "bench_rig.h"

#include <chrono>
#include <memory>
#include <stdexcept>

using namespace bench;
using hosted::Op;
using Clock = std::chrono::steady_clock;

namespace
{

constexpr u32 disk_blocks = 65536; // 256 MiB
constexpr u32 read_blocks = 256;

double seconds_since(Clock::time_point begin) { return std::chrono::duration<double>(Clock::now() - begin).count(); }

// Median and quartiles of a rate.
void report(benchmark::State& state, const char* unit, const std::vector<double>& rates)
{
    const std::string name = unit;
    state.counters[name] = quantile(rates, 0.5);
    state.counters[name + "_q1"] = quantile(rates, 0.25);
    state.counters[name + "_q3"] = quantile(rates, 0.75);
}

// Writes of one thread, each a request and buffer of its own.
class Writes
{
  public:
    Writes(u32 count) : places_(shuffled(0, disk_blocks, 1, count)), data_(block_bytes)
    {
        bios_.reserve(count);
        for (u32 i = 0; i < count; ++i)
            bios_.emplace_back(block_bytes);
    }
    // Seconds from the first submission to the end of the last write; at most `depth` are under way at a time.
    double run(BenchDisk& disk, u32 depth)
    {
        BenchBio::ended = 0;
        const auto begin = Clock::now();
        for (u32 i = 0; i < bios_.size(); ++i) {
            while (i - BenchBio::ended.load(std::memory_order_acquire) >= depth)
                schedule();
            bios_[i].submit(disk, Op::write, places_[i], data_.data());
        }
        while (BenchBio::ended.load(std::memory_order_acquire) != bios_.size())
            schedule();
        return seconds_since(begin);
    }

  private:
    std::vector<u32> places_;
    std::vector<std::byte> data_;
    std::vector<BenchBio> bios_;
};

// First writes to 32768 different blocks of a running backup.
void first_write(benchmark::State& state, u32 depth)
{
    constexpr u32 writes = 32768;
    BenchDisk disk(disk_blocks);
    Loaded driver;
    std::vector<double> rates;
    Writes load(writes);
    for (auto _ : state) {
        BenchBackup backup(disk, disk_blocks);
        backup.load_map(0, disk_blocks);
        const double seconds = load.run(disk, depth);
        if (backup.state() != QUENDREL_STATE_MAP_LOADED)
            throw std::runtime_error("the backup failed");
        rates.push_back(writes / seconds);
        state.SetIterationTime(seconds);
    }
    report(state, "per_s", rates);
}

// The whole disk, 256 blocks a command, nothing saved.
void read_from_disk(benchmark::State& state)
{
    BenchDisk disk(disk_blocks);
    Loaded driver;
    std::vector<double> rates;
    for (auto _ : state) {
        BenchBackup backup(disk, 1024);
        backup.load_map(0, disk_blocks);
        backup.read(0, read_blocks); // the transfer pages are touched for the first time
        const auto begin = Clock::now();
        for (u32 b = 0; b < disk_blocks; b += read_blocks)
            backup.read(b, read_blocks);
        const double seconds = seconds_since(begin);
        rates.push_back(double(disk_blocks) * block_bytes / 1e9 / seconds);
        state.SetIterationTime(seconds);
    }
    report(state, "GB_per_s", rates);
}

// As many blocks, all of which were overwritten after the snapshot; each leaves the cache as it is read.
void read_from_cache(benchmark::State& state)
{
    BenchDisk disk(disk_blocks);
    Loaded driver;
    std::vector<double> rates;
    Writes load(disk_blocks);
    for (auto _ : state) {
        BenchBackup backup(disk, disk_blocks);
        backup.load_map(0, disk_blocks);
        load.run(disk, 256);
        const auto begin = Clock::now();
        for (u32 b = 0; b < disk_blocks; b += read_blocks)
            backup.read(b, read_blocks);
        const double seconds = seconds_since(begin);
        rates.push_back(double(disk_blocks) * block_bytes / 1e9 / seconds);
        state.SetIterationTime(seconds);
    }
    report(state, "GB_per_s", rates);
}

} // namespace

BENCHMARK_CAPTURE(first_write, depth_64, 64)->Iterations(15)->UseManualTime()->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(first_write, unbounded, disk_blocks)->Iterations(15)->UseManualTime()->Unit(benchmark::kMillisecond);
BENCHMARK(read_from_disk)->Iterations(15)->UseManualTime()->Unit(benchmark::kMillisecond);
BENCHMARK(read_from_cache)->Iterations(9)->UseManualTime()->Unit(benchmark::kMillisecond);
