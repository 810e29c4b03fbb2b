// SPDX-License-Identifier: GPL-2.0-only
// What the driver costs a request that it lets through: writes while only tracking runs, and reads and writes that
// need no copy while a backup runs. Each is compared, in alternate turns of one run, with a call of the disk's own
// function for the same blocks of the same disk.
#include "bench_rig.h"

#include <memory>
#include <vector>

using namespace bench;
using hosted::Op;

namespace
{

constexpr u32 disk_blocks = 65536; // 256 MiB
constexpr u32 places_each = 2048;  // blocks that a thread goes through, over and over
// Requests a thread and turn: few, so that most turns are not interrupted.
constexpr u32 operations_of(u32 bytes) { return 256 * block_bytes / bytes; }
constexpr int turns = 2001;

// The bios of each thread and where they go.
struct Load {
    Load(unsigned threads, u32 bytes, u32 first, u32 among)
        : operations(operations_of(bytes)), places(shuffled(first, among, bytes / block_bytes, places_each * threads))
    {
        for (unsigned t = 0; t < threads; ++t)
            bios.push_back(std::make_unique<BenchBio>(bytes));
    }
    Batch own(BenchDisk& disk, Op op)
    {
        return [this, &disk, op](unsigned thread, unsigned turn) {
            for (u32 i = 0; i < operations; ++i)
                bios[thread]->own(disk, op, place(thread, turn, i));
        };
    }
    Batch submit(BenchDisk& disk, Op op)
    {
        return [this, &disk, op](unsigned thread, unsigned turn) {
            for (u32 i = 0; i < operations; ++i)
                bios[thread]->submit(disk, op, place(thread, turn, i), nullptr);
        };
    }
    u32 place(unsigned thread, unsigned turn, u32 i) const
    {
        return places[thread * places_each + (turn * operations + i) % places_each];
    }
    const u32 operations;
    std::vector<u32> places;
    std::vector<std::unique_ptr<BenchBio>> bios; // one a thread
};

// Writes with the device tracked: a backup has been made and closed.
void tracked_write(benchmark::State& state, unsigned threads, u32 bytes)
{
    BenchDisk disk(disk_blocks);
    Loaded driver;
    BenchBackup(disk, 1024).load_map(0, disk_blocks);
    Load load(threads, bytes, 0, disk_blocks);
    compare(state, threads, load.operations, load.own(disk, Op::write), load.submit(disk, Op::write));
}

// Requests for blocks that the running backup does not want.
void pass_through(benchmark::State& state, unsigned threads, Op op)
{
    BenchDisk disk(disk_blocks);
    Loaded driver;
    BenchBackup backup(disk, 1024);
    backup.load_map(0, disk_blocks / 2);
    Load load(threads, block_bytes, disk_blocks / 2, disk_blocks / 2);
    compare(state, threads, load.operations, load.own(disk, op), load.submit(disk, op));
    if (backup.state() != QUENDREL_STATE_MAP_LOADED)
        throw std::runtime_error("the backup failed");
}

// Writes to blocks that the running backup wants and has saved already.
void second_write(benchmark::State& state, unsigned threads)
{
    BenchDisk disk(disk_blocks);
    Loaded driver;
    BenchBackup backup(disk, disk_blocks);
    backup.load_map(0, disk_blocks);
    Load load(threads, block_bytes, 0, disk_blocks);
    BenchBio first(block_bytes);
    std::vector<std::byte> data(block_bytes);
    BenchBio::ended = 0;
    u64 sent = 0;
    for (u32 block : load.places) {
        first.submit(disk, Op::write, block, data.data());
        ++sent;
        while (BenchBio::ended.load(std::memory_order_acquire) != sent)
            schedule();
    }
    // The worker marks a block as saved after the write's end: the next read of the state comes after all of it.
    BenchBio last(block_bytes);
    for (bool marked = false; !marked; schedule()) {
        last.submit(disk, Op::write, load.places.back(), data.data());
        marked = BenchBio::ended.load(std::memory_order_acquire) == ++sent;
        while (BenchBio::ended.load(std::memory_order_acquire) != sent)
            schedule();
    }
    compare(state, threads, load.operations, load.own(disk, Op::write), load.submit(disk, Op::write));
    if (backup.state() != QUENDREL_STATE_MAP_LOADED)
        throw std::runtime_error("the backup failed");
}

} // namespace

#define IN_TURNS Iterations(turns)->UseManualTime()->Unit(benchmark::kNanosecond)
BENCHMARK_CAPTURE(tracked_write, 4KiB_1_thread, 1, block_bytes)->IN_TURNS;
BENCHMARK_CAPTURE(tracked_write, 4KiB_2_threads, 2, block_bytes)->IN_TURNS;
BENCHMARK_CAPTURE(tracked_write, 64KiB_1_thread, 1, 16 * block_bytes)->IN_TURNS;
BENCHMARK_CAPTURE(tracked_write, 64KiB_2_threads, 2, 16 * block_bytes)->IN_TURNS;
BENCHMARK_CAPTURE(pass_through, read_1_thread, 1, Op::read)->IN_TURNS;
BENCHMARK_CAPTURE(pass_through, read_2_threads, 2, Op::read)->IN_TURNS;
BENCHMARK_CAPTURE(pass_through, write_1_thread, 1, Op::write)->IN_TURNS;
BENCHMARK_CAPTURE(pass_through, write_2_threads, 2, Op::write)->IN_TURNS;
BENCHMARK_CAPTURE(second_write, 1_thread, 1)->IN_TURNS;
BENCHMARK_CAPTURE(second_write, 2_threads, 2)->IN_TURNS;

BENCHMARK_MAIN();
