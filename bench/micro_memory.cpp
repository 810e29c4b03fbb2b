// SPDX-License-Identifier: GPL-2.0-only
// What a backup costs in memory: the cache of saved blocks, as the process grows by it, and maps.
#include "bench_rig.h"

#include <cstdio>
#include <malloc.h>
#include <memory>
#include <stdexcept>

using namespace bench;
using hosted::Op;

namespace
{

// Bytes of the process's own memory that are resident.
double resident()
{
    std::unique_ptr<FILE, int (*)(FILE*)> file(std::fopen("/proc/self/status", "r"), std::fclose);
    char line[256];
    long kib = 0;
    while (file && std::fgets(line, sizeof line, file.get()))
        if (std::sscanf(line, "RssAnon: %ld kB", &kib) == 1)
            return double(kib) * 1024;
    throw std::runtime_error("/proc/self/status names no RssAnon");
}

// 100,000 saved blocks. Writes go one by one, so that no queue of held requests is measured with them.
void cache_entry(benchmark::State& state)
{
    constexpr u32 entries = 100000;
    BenchDisk disk(entries);
    Loaded driver;
    BenchBio bio(block_bytes);
    std::vector<std::byte> data(block_bytes);
    double bytes = 0;
    for (auto _ : state) {
        BenchBackup backup(disk, entries);
        backup.load_map(0, entries);
        ::malloc_trim(0);
        BenchBio::ended = 0;
        const hosted::Live live = hosted::live();
        const double before = resident();
        for (u32 b = 0; b < entries; ++b) {
            bio.submit(disk, Op::write, b, data.data());
            while (BenchBio::ended.load(std::memory_order_acquire) != b + 1)
                schedule();
        }
        bytes = (resident() - before) / entries;
        if (hosted::live().slab_objects - live.slab_objects != 2 * long(entries))
            throw std::runtime_error("not every block was saved");
    }
    state.counters["bytes_per_entry"] = bytes;
}

// One map of a 64 GiB disk, as the driver's own pages.
void block_map(benchmark::State& state)
{
    constexpr u32 blocks = 1u << 24;
    BenchDisk disk(blocks, false);
    Loaded driver;
    double pages = 0;
    for (auto _ : state) {
        BenchBackup backup(disk, 1024);
        const hosted::Live live = hosted::live();
        backup.load_map(0, blocks);
        pages = double(hosted::live().pages - live.pages);
    }
    state.counters["bits_per_block"] = pages * PAGE_BYTES * 8 / blocks;
}

} // namespace

BENCHMARK(cache_entry)->Iterations(1)->Unit(benchmark::kMillisecond);
BENCHMARK(block_map)->Iterations(1)->Unit(benchmark::kMillisecond);
