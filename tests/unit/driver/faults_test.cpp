// SPDX-License-Identifier: GPL-2.0-only
// The whole life of a backup with one thing failing in it: the n-th allocation of each kind, the n-th read of the
// disk, the n-th write, for every n until a life passes in which nothing failed.
//
// After each life: every write that the disk took is on it and no other, nothing is alive that is not on the list of
// what the driver leaves behind, the step that was hit had the code and left the state that belong to the failure and
// all others succeeded, and on the same driver a full backup and an incremental one work and are compared with the
// disk as it stood at their freezes.
#include "core_view.h"
#include "left_behind.h"

#include <algorithm>
#include <optional>
#include <set>
#include <thread>

using namespace rig;
using hosted::faults::Kind;

namespace
{

constexpr u32 kBlocks = 48;         // that the device has
constexpr u32 kTotal = 32768 + 100; // that the program claims, so that a map takes two pages
constexpr u32 kBlockSize = 4096;
constexpr u32 kCacheBlocks = 1000;

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr unsigned kBucketStride = 61; // each of the 4096 buckets alike: in a slow build only some of them fail
#else
constexpr unsigned kBucketStride = 1;
#endif
constexpr unsigned kBucketsPerAftermath = 64;

enum class Step { open, start, snapshot, write, map, fetch, load, read, close };
const char* const kStepNames[] = {"open", "start", "snapshot", "write", "map", "fetch", "load", "read", "close"};

struct Outcome {
    Step step;
    bool incremental;
    int code;
    u32 state; // of the backup after the step; 0 when there is none
};
constexpr u32 kAsUsual = ~0u;

// What a step comes to when nothing fails in it.
Outcome normal(Step step, bool incremental, u32 before)
{
    switch (step) {
    case Step::start:
        return {step, incremental, 0, QUENDREL_STATE_STARTED};
    case Step::snapshot:
        return {step, incremental, 0, QUENDREL_STATE_SNAPSHOT};
    case Step::load:
        return {step, incremental, 0, QUENDREL_STATE_MAP_LOADED};
    case Step::open:
    case Step::close:
        return {step, incremental, 0, QUENDREL_STATE_IDLE};
    default:
        return {step, incremental, 0, before};
    }
}

// A full backup and then an incremental one, with writes before, during and after, checked against a plain copy of
// the disk.
class Story
{
  public:
    // Says what the step under way may come to. Called after the step; an empty answer: as if nothing had failed.
    using Judge = std::function<std::optional<Outcome>(Step, bool incremental)>;

    Story(TestDisk& disk, unsigned char seed) : disk_(disk), one_(disk.image(1)), two_(disk.image(2)), value_(seed) {}

    void setJudge(Judge judge) { judge_ = std::move(judge); }

    // Each answers whether the backup is complete. A failure ends it: some more writes, and the file is closed.
    bool full()
    {
        begin(false);
        return end(fullSteps());
    }
    bool incremental()
    {
        begin(true);
        return end(incrementalSteps());
    }

    void writeBetween() { writes({6, 17, 40, 47}); }

    void expectDiskIsAsWritten() const
    {
        EXPECT_TRUE(disk_.image(1) == one_) << "a write to the device was lost or changed";
        EXPECT_TRUE(disk_.image(2) == two_) << "a write to the neighbour was lost or changed";
    }

    AutoMapSession* session() const { return sessionOf(disk_.device(1)); }
    const Key& key() const { return key_; }

  private:
    template <typename Action> bool step(Step name, Action action)
    {
        const u32 before = state();
        const int code = action();
        const Outcome got{name, incremental_, code, state()};
        const Outcome usual = normal(name, incremental_, before);
        const std::optional<Outcome> other = judge_ ? judge_(name, incremental_) : std::nullopt;
        const Outcome expected = other.value_or(usual);
        EXPECT_EQ(got.code, expected.code) << where(name);
        EXPECT_EQ(got.state, expected.state == kAsUsual ? usual.state : expected.state) << where(name);
        return got.state == usual.state && (got.code == 0 || name == Step::write);
    }
    u32 state() const { return program_ && program_->isOpen() ? u32(recordOf(*program_)->state) : 0; }
    std::string where(Step name) const
    {
        return std::string("in step ") + kStepNames[int(name)] +
               (incremental_ ? " of the incremental" : " of the full");
    }

    void begin(bool incremental)
    {
        incremental_ = incremental;
        program_ = std::make_unique<Program>();
    }
    bool end(bool complete)
    {
        if (!complete && program_->isOpen()) {
            // The failed backup holds nobody up.
            writes({9, 33});
            EXPECT_EQ(program_->close(), 0);
        }
        program_.reset();
        writes({21});
        return complete;
    }

    bool fullSteps()
    {
        copy_ = Bytes(one_.size());
        return openAndStart() && program_->noLoadFromAutoMap() == 0 && snapshot(Key{}) && writes({3, 4}, 2) &&
               writes({30}) && mapArea(kBlocks) && load(firstBlocks()) && writes({10, 11, 3}) && readRange(0, 24) &&
               writes({2, 12, 41}) && readRange(24, 24) && commit();
    }
    bool incrementalSteps()
    {
        if (!openAndStart() || !writes({1}) || !snapshot(key_) || !writes({0, 6}))
            return false;
        Bits changed(kTotal);
        const Bits expected = asBits(changedAtFreeze_);
        if (!step(Step::fetch, [&] { return program_->autoMap(changed); }))
            return false;
        EXPECT_TRUE(changed.bytes() == expected.bytes()) << "the changed blocks are those written between the freezes";
        if (!mapArea(4) || !load(changed) || !writes({17, 1, 45}))
            return false;
        for (u32 block : changedAtFreeze_)
            if (!readRange(block, 1))
                return false;
        return commit();
    }

    bool openAndStart()
    {
        return step(Step::open, [&] { return program_->open(); }) &&
               step(Step::start, [&] { return program_->start(disk_.device(1), kTotal, kCacheBlocks); });
    }
    bool snapshot(const Key& key)
    {
        frozen_ = disk_.image(1);
        const auto changed = changed_;
        if (!step(Step::snapshot, [&] { return program_->snapshot(key); }))
            return false;
        changedAtFreeze_ = changed;
        changed_.clear();
        return true;
    }
    bool mapArea(u32 pages)
    {
        return step(Step::map, [&] { return program_->map(0, pages); });
    }
    bool load(const Bits& bits)
    {
        return step(Step::load, [&] { return program_->loadMap(bits); });
    }
    bool writes(std::initializer_list<u32> blocks, u32 together = 1)
    {
        for (auto at = blocks.begin(); at != blocks.end(); at += together)
            if (!step(Step::write, [&] { return write(*at, together); }))
                return false;
        // The neighbour shares the queue and is nobody's backup.
        return step(Step::write, [&] { return writeNeighbour(*blocks.begin() % 16); });
    }
    bool readRange(u32 first, u32 count)
    {
        int code = 0;
        const bool good = step(Step::read, [&] { return code = program_->readBlocks(first, count); });
        if (code != 0 && code != QUENDREL_READ_ERROR)
            return false;
        u32 zeroed = 0;
        for (u32 i = 0; i < count; i++) {
            const Bytes got = program_->blockInArea(0, i, kBlockSize);
            const auto from = frozen_.begin() + (first + i) * kBlockSize;
            if (std::all_of(got.begin(), got.end(), [](std::byte b) { return b == std::byte(0); }))
                zeroed++;
            else
                EXPECT_TRUE(std::equal(got.begin(), got.end(), from)) << "block " << first + i;
            std::copy(got.begin(), got.end(), copy_.begin() + (first + i) * kBlockSize);
        }
        EXPECT_EQ(zeroed, code == QUENDREL_READ_ERROR ? 1u : 0u);
        return good;
    }
    // What a program checks before it keeps a backup.
    bool commit()
    {
        EXPECT_EQ(program_->state().state, unsigned(QUENDREL_STATE_MAP_LOADED));
        EXPECT_EQ(program_->autoMapState().state, 1u);
        key_ = program_->key();
        EXPECT_TRUE(copy_ == frozen_) << "the backup is the disk at its freeze";
        hosted::log_clear();
        return step(Step::close, [&] { return program_->close(); });
    }

    int write(u32 block, u32 count = 1)
    {
        const u32 sectors = kBlockSize / 512;
        const unsigned char value = nextValue();
        const int code = disk_.writeSectors(1, sector_type(block) * sectors, count * sectors, value);
        letWorkerFinish();
        if (code == 0)
            std::fill_n(one_.begin() + block * kBlockSize, count * kBlockSize, std::byte(value));
        // A write that the disk refuses is recorded all the same: it may have changed a part.
        for (u32 i = 0; i < count; i++)
            changed_.insert(block + i);
        return code;
    }
    int writeNeighbour(u32 block)
    {
        const unsigned char value = nextValue();
        const int code = disk_.writeBlock(2, block, value);
        if (code == 0)
            std::fill_n(two_.begin() + block * 1024, 1024, std::byte(value));
        return code;
    }
    // A held write completes before the worker has marked its blocks; a read in between would go to the disk for a
    // block that is in the cache, and the number of disk reads would depend on it.
    void letWorkerFinish()
    {
        if (program_ && program_->isOpen())
            while (atomic_read(&recordOf(*program_)->mrInQueue) != 0)
                std::this_thread::yield();
    }
    // Never 0, which is what a block that could not be read looks like.
    unsigned char nextValue()
    {
        if (++value_ == 0)
            value_ = 1;
        return value_;
    }
    static Bits firstBlocks()
    {
        Bits bits(kTotal);
        for (u32 i = 0; i < kBlocks; i++)
            bits.set(i);
        return bits;
    }
    static Bits asBits(const std::set<u32>& blocks)
    {
        Bits bits(kTotal);
        for (u32 block : blocks)
            bits.set(block);
        return bits;
    }

    TestDisk& disk_;
    Bytes one_, two_; // the partitions as they must be
    Bytes frozen_;    // the device at the last freeze
    Bytes copy_;      // the backup
    std::set<u32> changed_, changedAtFreeze_;
    std::unique_ptr<Program> program_;
    Key key_{};
    Judge judge_;
    bool incremental_ = false;
    unsigned char value_;
};

class Faults : public DriverTest
{
  protected:
    void SetUp() override
    {
        DriverTest::SetUp();
        ASSERT_EQ(hosted::unload_driver(), 0);
        addDisk("sda", 0, 64 + kBlocks * 8 + 64, {{1, 64, kBlocks * 8, kBlockSize}, {2, 64 + kBlocks * 8, 32, 1024}});
    }
    TestDisk& disk() { return *disks_.front(); }

    // One life. `arm` sets the failure up, `judge` knows what the step that it hits comes to, `seen` tells after the
    // life how often the thing that was to fail came up. Answers whether both backups were completed.
    bool oneLife(const std::function<void()>& arm, const Story::Judge& judge,
                 const std::function<bool()>& withAftermath)
    {
        const hosted::Live before = hosted::live();
        make_request_fn* own = hookOf(disk());
        deliberate_ = hosted::Live{};
        EXPECT_EQ(hosted::load_driver(), 0);
        Story story(disk(), 0);
        story.setJudge(judge);
        story_ = &story;
        arm();
        const bool first = story.full();
        if (first)
            story.writeBetween();
        const bool complete = first && story.incremental();
        story.expectDiskIsAsWritten();
        EXPECT_EQ(atomic_read(&busy), 0);
        if (withAftermath()) {
            hosted::faults::clear();
            Story next(disk(), 128);
            EXPECT_TRUE(next.full()) << "the next backup";
            next.writeBetween();
            EXPECT_TRUE(next.incremental()) << "the next incremental backup";
            next.expectDiskIsAsWritten();
        }
        hosted::faults::clear();
        EXPECT_EQ(hosted::unload_driver(), 0);
        EXPECT_EQ(hookOf(disk()), own);
        hosted::Live expected = before;
        expected.kmallocs += deliberate_.kmallocs;
        expected.slab_caches += deliberate_.slab_caches;
        hosted::Live now = hosted::live();
        now.block_devices = before.block_devices;
        EXPECT_EQ(now, expected) << hosted::describe(now);
        hosted::forget_leaks();
        story_ = nullptr;
        return complete;
    }

    // Each allocation of a kind fails once; they are made in `steps`, of the full and of the incremental backup.
    void everyAllocation(Kind kind, const std::set<Step>& steps, const std::set<Step>& inFullOnly = {});
    std::optional<Outcome> afterAllocation(Kind kind, Step step, bool incremental, unsigned index);

    void expectSessionState(u32 state)
    {
        ASSERT_NE(story_->session(), nullptr);
        EXPECT_EQ(story_->session()->state, state);
    }

    Story* story_ = nullptr;    // the one under way
    hosted::Live deliberate_{}; // what it leaves behind deliberately
};

// What a step comes to in which an allocation failed, the `index`-th of its kind in the step.
std::optional<Outcome> Faults::afterAllocation(Kind kind, Step step, bool incremental, unsigned index)
{
    const auto outcome = [&](int code, u32 state) { return Outcome{step, incremental, code, state}; };
    // Tried again until they succeed: nothing is to be seen.
    if (kind == Kind::bio || kind == Kind::buffer_head)
        return std::nullopt;
    switch (step) {
    case Step::open:
        return outcome(QUENDREL_NO_MEMORY, 0);
    case Step::start:
        if (kind == Kind::slab_cache && index == 2)
            deliberate_ = left_behind::dataCache.left;
        return outcome(kind == Kind::thread ? -12 : int(QUENDREL_NO_MEMORY), QUENDREL_STATE_STARTING);
    case Step::snapshot:
        if (kind == Kind::kmalloc && (incremental || index > 1))
            return std::nullopt; // the registry's records: tried again
        if (incremental) {
            EXPECT_EQ(keyOf(story_->session()), story_->key()) << "the old key still serves";
            expectSessionState(1);
        } else {
            EXPECT_EQ(story_->session(), nullptr);
            if (kind != Kind::kmalloc)
                deliberate_ = left_behind::trackingRecord.left;
        }
        return outcome(QUENDREL_NO_MEMORY, QUENDREL_STATE_STARTED);
    case Step::write:
        expectSessionState(0);
        return outcome(0, kind == Kind::kmalloc ? QUENDREL_STATE_QUEUE_FAILED : QUENDREL_STATE_CACHE_EXHAUSTED);
    case Step::map:
        return outcome(QUENDREL_NO_MEMORY, QUENDREL_STATE_SNAPSHOT);
    case Step::load:
        return outcome(QUENDREL_NO_MEMORY, QUENDREL_STATE_MAP_LOAD_FAILED);
    case Step::close: {
        // Only the dump of the counters is left out.
        const Lines log = hosted::log_lines();
        EXPECT_EQ(linesOf(log, "printStats"), Lines{});
        EXPECT_EQ(linesOf(log, "closeBackup"), (Lines{"<6>closeBackup: backup finished device major=8 minor=1\n"}));
        return std::nullopt;
    }
    case Step::fetch:
    case Step::read:
        break;
    }
    ADD_FAILURE() << "no allocation of this kind is known in step " << kStepNames[int(step)];
    return std::nullopt;
}

void Faults::everyAllocation(Kind kind, const std::set<Step>& steps, const std::set<Step>& inFullOnly)
{
    std::set<std::pair<Step, bool>> hitSteps;
    for (unsigned n = 1;;) {
        SCOPED_TRACE("allocation " + std::to_string(n) + " fails");
        unsigned seenBefore = 0, seen = 0, bucketsEnd = 0;
        bool hit = false;
        const bool complete = oneLife([&] { hosted::faults::fail_allocation(n, unsigned(kind)); },
                                      [&](Step step, bool incremental) -> std::optional<Outcome> {
                                          const unsigned before =
                                              std::exchange(seenBefore, hosted::faults::allocations_seen());
                                          seen = seenBefore;
                                          if (n <= before || n > seen)
                                              return std::nullopt;
                                          hit = true;
                                          hitSteps.insert({step, incremental});
                                          if (kind == Kind::slab && step == Step::start)
                                              bucketsEnd = before + CACHE_BUCKETS;
                                          return afterAllocation(kind, step, incremental, n - before);
                                      },
                                      [&] { return bucketsEnd == 0 || n % kBucketsPerAftermath == 1; });
        if (HasFailure())
            return;
        if (!hit) {
            EXPECT_TRUE(complete);
            EXPECT_LT(seen, n);
            break;
        }
        n = n < bucketsEnd ? std::min(n + kBucketStride, bucketsEnd) : n + 1;
    }
    std::set<std::pair<Step, bool>> expected;
    for (Step step : steps)
        expected.insert({{step, false}, {step, true}});
    for (Step step : inFullOnly)
        expected.insert({step, false});
    EXPECT_EQ(hitSteps, expected);
}

} // namespace

TEST_F(Faults, ALifeWithoutAFailureIsCompleted)
{
    EXPECT_TRUE(oneLife([] {}, {}, [] { return true; }));
}

TEST_F(Faults, EveryRecordAllocationFails)
{
    // The incremental's snapshot finds its session and its device registered.
    everyAllocation(Kind::kmalloc, {Step::open, Step::write, Step::close}, {Step::snapshot});
}

TEST_F(Faults, EveryLargeAllocationFails) { everyAllocation(Kind::vmalloc, {Step::start, Step::snapshot, Step::load}); }

TEST_F(Faults, EveryPageAllocationFails)
{
    everyAllocation(Kind::page, {Step::start, Step::snapshot, Step::write, Step::map, Step::load});
}

TEST_F(Faults, EverySlabObjectAllocationFails) { everyAllocation(Kind::slab, {Step::start, Step::write}); }

TEST_F(Faults, EverySlabCacheCreationFails) { everyAllocation(Kind::slab_cache, {Step::start}); }

TEST_F(Faults, EveryBioAllocationFails) { everyAllocation(Kind::bio, {Step::write, Step::read}); }

TEST_F(Faults, EveryBufferHeadAllocationFails) { everyAllocation(Kind::buffer_head, {Step::write, Step::read}); }

TEST_F(Faults, EveryThreadStartFails) { everyAllocation(Kind::thread, {Step::start}); }

TEST_F(Faults, EveryDiskReadFails)
{
    std::set<std::pair<Step, bool>> hitSteps;
    for (unsigned n = 1;; n++) {
        SCOPED_TRACE("disk read " + std::to_string(n) + " fails");
        unsigned seen = 0;
        bool hit = false;
        const bool complete =
            oneLife([&] { hosted::faults::fail_read(n); },
                    [&](Step step, bool incremental) -> std::optional<Outcome> {
                        const unsigned before = std::exchange(seen, hosted::faults::reads_seen());
                        if (n <= before || n > seen)
                            return std::nullopt;
                        hit = true;
                        hitSteps.insert({step, incremental});
                        if (step == Step::read) {
                            expectSessionState(1);
                            return Outcome{step, incremental, QUENDREL_READ_ERROR, QUENDREL_STATE_MAP_LOADED};
                        }
                        expectSessionState(0);
                        return Outcome{step, incremental, 0, QUENDREL_STATE_READ_FAILED};
                    },
                    [] { return true; });
        if (HasFailure())
            return;
        if (!hit) {
            EXPECT_TRUE(complete);
            break;
        }
        EXPECT_FALSE(complete) << "a backup with a block that could not be read is none";
    }
    EXPECT_EQ(hitSteps, (std::set<std::pair<Step, bool>>{
                            {Step::write, false}, {Step::write, true}, {Step::read, false}, {Step::read, true}}));
}

TEST_F(Faults, EveryDiskWriteFails)
{
    std::set<std::pair<Step, bool>> hitSteps;
    for (unsigned n = 1;; n++) {
        SCOPED_TRACE("disk write " + std::to_string(n) + " fails");
        unsigned seen = 0;
        bool hit = false;
        const bool complete = oneLife([&] { hosted::faults::fail_write(n); },
                                      [&](Step step, bool incremental) -> std::optional<Outcome> {
                                          const unsigned before = std::exchange(seen, hosted::faults::writes_seen());
                                          if (n <= before || n > seen)
                                              return std::nullopt;
                                          hit = true;
                                          hitSteps.insert({step, incremental});
                                          EXPECT_EQ(step, Step::write);
                                          // The writer's own error, as the disk gave it; the backup is none the worse.
                                          return Outcome{step, incremental, -5, kAsUsual};
                                      },
                                      [] { return true; });
        if (HasFailure())
            return;
        EXPECT_TRUE(complete);
        if (!hit)
            break;
    }
    EXPECT_EQ(hitSteps, (std::set<std::pair<Step, bool>>{{Step::write, false}, {Step::write, true}}));
}
