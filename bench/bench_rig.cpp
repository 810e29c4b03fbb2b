// SPDX-License-Identifier: GPL-2.0-only
#include "bench_rig.h"

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstring>
#include <pthread.h>
#include <random>
#include <sched.h>
#include <stdexcept>
#include <thread>
#include <utility>

namespace bench
{

namespace
{

void expect(bool good, const char* what)
{
    if (!good)
        throw std::runtime_error(what);
}

} // namespace

// ---- BenchDisk

BenchDisk::BenchDisk(u32 blocks, bool touch) : blocks_(blocks)
{
    const u64 sectors = start + u64(blocks) * sectors_per_block;
    auto store = hosted::make_memory_store(sectors * 512);
    if (touch) {
        const auto bytes = hosted::memory_store_bytes(*store);
        std::memset(bytes.data(), 0x5a, bytes.size());
    }
    hosted::DiskConfig config;
    config.name = "sda";
    config.store = std::move(store);
    config.partitions = {{1, start, sectors - start}};
    disk_ = hosted::add_disk(std::move(config));
    hosted::mount_file_system(device(), block_bytes);
    whole_ = hosted::bdev_for(disk_->device(0));
    partition_ = hosted::bdev_for(disk_->device(1));
}

BenchDisk::~BenchDisk()
{
    hosted::unmount_file_system(device());
    hosted::remove_disk(disk_);
}

Loaded::Loaded() { expect(hosted::load_driver() == 0, "the driver does not load"); }
Loaded::~Loaded() { hosted::unload_driver(); }

// ---- BenchBackup

template <typename Record> u32 BenchBackup::put(const Record& record)
{
    const u32 at = memory_->allocate(sizeof record);
    std::memcpy(memory_->at(at), &record, sizeof record);
    return at;
}

void BenchBackup::command(u32 number, u32 argument, const char* name)
{
    const int result = file_->ioctl(number, argument);
    if (result != 0)
        throw std::runtime_error(std::string(name) + " answered " + std::to_string(result));
}

BenchBackup::BenchBackup(BenchDisk& disk, u32 cache_blocks)
    : disk_(disk), memory_(std::make_shared<hosted::SimulatedMemory>())
{
    expect(hosted::open_control(QUENDREL_CHRDEV_MAJOR, memory_, file_) == 0, "the control device does not open");
    const kdev_t device = disk.device();
    command(QUENDREL_START_BACKUP,
            put(StartBackup{kdev_major(device), kdev_minor(device), disk.blocks(), cache_blocks}), "StartBackup");
    state_record_ = put(State{});
    state_pointer_ = put(GetState{state_record_, sizeof(State)});
    // Tracking begins anew with each backup, whatever was tracked before.
    command(QUENDREL_NO_LOAD_FROM_AUTOMAP, 0, "NoLoadFromAutoMap");
    command(QUENDREL_SNAPSHOT, put(SnapShot{put(AMSessionKey{}), QUENDREL_KEY_BYTES}), "SnapShot");
    expect(state() == QUENDREL_STATE_SNAPSHOT, "no snapshot was taken");
    hosted::MmapArguments arguments;
    arguments.bytes = 256 * PAGE_BYTES;
    expect(file_->mmap(arguments, area_) == 0, "the transfer area cannot be mapped");
    read_record_ = put(ReadBlocks{0, 0, area_->start()});
}

BenchBackup::~BenchBackup()
{
    area_.reset();
    file_->close();
}

u32 BenchBackup::state()
{
    command(QUENDREL_GET_STATE, state_pointer_, "GetState");
    State s;
    std::memcpy(&s, memory_->at(state_record_), sizeof s);
    return s.state;
}

void BenchBackup::load_map(u32 first, u32 count)
{
    const u32 at = memory_->allocate((disk_.blocks() + 7) / 8);
    auto* bits = reinterpret_cast<unsigned char*>(memory_->at(at));
    for (u32 b = first; b < first + count; ++b)
        bits[b / 8] = static_cast<unsigned char>(bits[b / 8] | 1u << (b % 8));
    command(QUENDREL_LOAD_BLOCK_MAP, put(LoadBlockMap{put(UserBlockMap{at, disk_.blocks()}), sizeof(UserBlockMap)}),
            "LoadBlockMap");
    memory_->release(at);
    expect(state() == QUENDREL_STATE_MAP_LOADED, "the map is not loaded");
}

void BenchBackup::read(u32 first, u32 count)
{
    const ReadBlocks record{first, count, area_->start()};
    std::memcpy(memory_->at(read_record_), &record, sizeof record);
    command(QUENDREL_READ_BLOCKS, read_record_, "ReadBlocks");
}

// ---- BenchBio

std::atomic<u64> BenchBio::ended{0};

BenchBio::BenchBio(u32 bytes) : bio_(hosted::new_raw_bio()), bytes_(bytes) {}

BenchBio::~BenchBio()
{
    if (bio_)
        bio_put(bio_);
}

BenchBio::BenchBio(BenchBio&& other) noexcept
    : bio_(std::exchange(other.bio_, nullptr)), bytes_(other.bytes_), data_(std::move(other.data_))
{
}

void BenchBio::counted_end(bio*, int error)
{
    if (error)
        std::abort(); // a memory-backed disk does not fail
    ended.fetch_add(1, std::memory_order_release);
}

void BenchBio::aim(hosted::Op op, std::byte* data)
{
    if (!data && data_.empty())
        data_.assign(bytes_, std::byte(0xa5));
    bio_->op = op;
    bio_->size = bytes_;
    bio_->raw = data ? data : data_.data();
}

void BenchBio::own(BenchDisk& disk, hosted::Op op, u32 block)
{
    aim(op, nullptr);
    bio_->end_io = nullptr;
    bio_->bdev = disk.whole();
    bio_->sector = BenchDisk::start + sector_type(block) * sectors_per_block;
    disk.queue()->own(disk.queue(), bio_);
}

void BenchBio::submit(BenchDisk& disk, hosted::Op op, u32 block, std::byte* data)
{
    aim(op, data);
    bio_->end_io = data ? counted_end : nullptr;
    bio_->bdev = disk.partition();
    bio_->sector = sector_type(block) * sectors_per_block;
    generic_make_request(bio_);
}

// ---- Measuring

std::vector<u32> shuffled(u32 first, u32 among, u32 step, u32 count)
{
    std::vector<u32> list;
    for (u32 b = first; b + step <= first + among; b += step)
        list.push_back(b);
    expect(list.size() >= count, "fewer blocks than asked for");
    std::mt19937 random(7);
    std::shuffle(list.begin(), list.end(), random);
    list.resize(count);
    return list;
}

double quantile(std::vector<double> values, double q)
{
    std::sort(values.begin(), values.end());
    return values.at(std::size_t(q * double(values.size() - 1) + 0.5));
}

namespace
{

// Threads that run one batch at a time, all at once, each on a processor of its own: left to the scheduler, two that
// wait for each other in turns may share one for a whole time slice.
class Team
{
  public:
    explicit Team(unsigned threads)
    {
        pthread_getaffinity_np(pthread_self(), sizeof before_, &before_);
        if (threads > 1)
            pin(0);
        for (unsigned t = 1; t < threads; ++t)
            others_.emplace_back([this, t] { follow(t); });
    }
    ~Team()
    {
        batch_ = nullptr;
        round_.fetch_add(1);
        for (std::thread& t : others_)
            t.join();
        pthread_setaffinity_np(pthread_self(), sizeof before_, &before_);
    }
    // Nanoseconds until all have run the batch.
    double run(const Batch& batch, unsigned turn)
    {
        batch_ = &batch;
        turn_ = turn;
        left_ = unsigned(others_.size());
        const auto begin = std::chrono::steady_clock::now();
        round_.fetch_add(1);
        batch(0, turn);
        while (left_.load() != 0)
            __builtin_ia32_pause();
        return std::chrono::duration<double, std::nano>(std::chrono::steady_clock::now() - begin).count();
    }

  private:
    // The `index`-th processor that this process may use, round and round.
    void pin(unsigned index) const
    {
        index %= unsigned(CPU_COUNT(&before_));
        for (int cpu = 0; cpu < CPU_SETSIZE; ++cpu) {
            if (!CPU_ISSET(cpu, &before_) || index-- != 0)
                continue;
            cpu_set_t one;
            CPU_ZERO(&one);
            CPU_SET(cpu, &one);
            pthread_setaffinity_np(pthread_self(), sizeof one, &one);
            return;
        }
    }
    void follow(unsigned t)
    {
        pin(t);
        for (unsigned seen = 0;;) {
            while (round_.load() == seen)
                __builtin_ia32_pause();
            ++seen;
            const Batch* batch = batch_;
            if (!batch)
                return;
            (*batch)(t, turn_);
            left_.fetch_sub(1);
        }
    }
    cpu_set_t before_; // of the calling thread
    std::atomic<unsigned> round_{0};
    std::atomic<unsigned> left_{0};
    std::atomic<const Batch*> batch_{nullptr};
    std::atomic<unsigned> turn_{0};
    std::vector<std::thread> others_;
};

} // namespace

void compare(benchmark::State& state, unsigned threads, u32 operations, const Batch& base, const Batch& ours)
{
    Team team(threads);
    for (unsigned turn = 0; turn < 8; ++turn) { // warms caches up
        team.run(base, 2 * turn);
        team.run(ours, 2 * turn + 1);
    }
    std::vector<double> bases, mine, above;
    unsigned turn = 0;
    for (auto _ : state) {
        // Different blocks: the second of the two must not find in the processor's caches what the first has fetched.
        double b, m;
        if (turn % 2 == 0) {
            b = team.run(base, 2 * turn);
            m = team.run(ours, 2 * turn + 1);
        } else {
            m = team.run(ours, 2 * turn + 1);
            b = team.run(base, 2 * turn);
        }
        ++turn;
        bases.push_back(b / operations);
        mine.push_back(m / operations);
        above.push_back((m - b) / operations);
        state.SetIterationTime(m / operations / 1e9);
    }
    state.counters["base_ns"] = quantile(bases, 0.5);
    state.counters["ours_ns"] = quantile(mine, 0.5);
    state.counters["above_ns"] = quantile(above, 0.5);
    state.counters["above_q1"] = quantile(above, 0.25);
    state.counters["above_q3"] = quantile(above, 0.75);
}

} // namespace bench
