// SPDX-License-Identifier: GPL-2.0-only
// Random histories of writes, snapshots, map loads, reads and closes, run on the driver and on a plain model of it.
// Every code, every state, every block of every backup is compared, and what a chain of backups restores to must be
// the partition as it stood at the last snapshot.
//
//   driver_model [--histories=N] [--seed=S]
//
// History i runs with seed S + i; a failure prints the seed, and --histories=1 --seed=THAT replays it.
#include "driver_model.h"

#include "qdrlib.h"

#include <cstdlib>
#include <iostream>
#include <random>
#include <sstream>
#include <thread>

namespace {

unsigned g_histories = 10000;
unsigned long g_seed = 1;

using model::Model;
using rig::Bits;
using rig::Bytes;
using rig::Key;
using rig::Program;
using rig::TestDisk;

// What a backup program keeps of a partition between backups.
struct Chain {
    bool valid = false;  // a complete backup exists
    Key key{};
    Bytes image;
};

class History
{
  public:
    explicit History(unsigned long seed) : random_(seed), disk_(makeDisk()), model_(*disk_)
    {
        for (u32 p : partitions_)
            model_.addPartition(p);
    }

    void run()
    {
        const unsigned steps = 20 + pick(60);
        for (unsigned i = 0; i < steps && !::testing::Test::HasFailure(); i++)
            step();
        if (::testing::Test::HasFailure()) {
            std::cout << story_;
            for (const std::string& line : hosted::log_lines())
                std::cout << line;
        }
        if (program_)
            close();
        for (u32 p : partitions_)
            EXPECT_EQ(disk_->image(p), model_.content(p)) << "partition " << p;
    }

  private:
    u32 pick(u32 below) { return u32(random_() % below); }
    bool chance(u32 percent) { return pick(100) < percent; }
    u32 anyPartition() { return partitions_[pick(u32(partitions_.size()))]; }

    std::unique_ptr<TestDisk> makeDisk()
    {
        std::vector<rig::Partition> layout;
        sector_type at = 8 * (1 + pick(4));
        const u32 count = 1 + pick(3);
        for (u32 index = 1; index <= count; index++) {
            const u32 blockSize = 512u << pick(4);
            const sector_type sectors = (8 + pick(56)) * (blockSize / 512) + (chance(30) ? pick(blockSize / 512) : 0);
            layout.push_back({index, at, sectors, blockSize});
            partitions_.push_back(index);
            at += sectors + pick(9);
        }
        return std::make_unique<TestDisk>("sda", 0, at + 64, layout, chance(80));
    }

    void step()
    {
        switch (pick(10)) {
        case 0:
            return chance(20) ? rareEvent() : backupStep();
        case 1:
        case 2:
        case 3:
        case 4:
            return backupStep();
        case 5:
            return guestRead();
        default:
            return write();
        }
    }

    void write()
    {
        const u32 p = anyPartition();
        // The sectors behind the last whole block belong to no block of a backup; copy-on-write there would read
        // past the partition, so they are written only while none runs.
        const bool whole = program_ && model_.backup().partition == p;
        const sector_type total =
            whole ? disk_->blocks(p) * (model_.blockBytes(p) / 512) : disk_->partition(p).sectors;
        const sector_type sector = pick(u32(total));
        const u32 sectors = 1 + pick(u32(std::min<sector_type>(total - sector, chance(20) ? 64 : 8)));
        const auto value = static_cast<unsigned char>(1 + pick(255));
        tell("write", sectors, "sectors at", sector, "of partition", p);
        model_.write(p, sector, sectors, value);
        ASSERT_EQ(disk_->writeSectors(p, sector, sectors, value), 0);
        if (chance(50))
            settle();
        if (program_) {
            ASSERT_EQ(program_->state().state, expectedState()) << "after a write";
        }
    }

    // The state the program must see. A write may complete before the worker has let go of it, never the other way
    // round: a failed save is in the state before the write is passed on.
    u32 expectedState() { return model_.backup().state; }

    void settle()
    {
        if (Backup* b = load_acquire(&activeSession))
            while (atomic_read(&b->mrInQueue) > 0)
                std::this_thread::yield();
    }

    void guestRead()
    {
        const u32 p = anyPartition();
        const u32 number = pick(disk_->blocks(p));
        Bytes got(model_.blockBytes(p));
        ASSERT_EQ(disk_->disk().read(u64(number) * got.size(), got, p), 0);
        ASSERT_EQ(got, model_.block(model_.content(p), p, number)) << "a reader saw other bytes than were written";
    }

    void rareEvent()
    {
        Program other;
        ASSERT_EQ(other.open(), 0);
        const bool shutdown = chance(50);
        tell("another file opens", shutdown ? "shuts down" : "", "and closes");
        if (shutdown) {
            ASSERT_EQ(other.command(QUENDREL_SHUTDOWN), 0);
            model_.shutdown();
        }
        // Closing any file detaches the running backup; with a write held that would wait for ever, so none is.
        settle();
        ASSERT_EQ(other.close(), 0);
        if (program_)
            model_.detach();
        if (program_)
            close();
    }

    void backupStep()
    {
        if (!program_)
            return start();
        const u32 state = model_.backup().state;
        if (state > QUENDREL_STATE_MAP_LOADED || chance(4))
            return close();
        if (state == QUENDREL_STATE_STARTED)
            return snapshot();
        if (state == QUENDREL_STATE_SNAPSHOT && chance(50))
            return loadMap();
        if (state == QUENDREL_STATE_MAP_LOADED && chance(30))
            return finish();
        read();
    }

    void start()
    {
        const u32 p = anyPartition();
        const u32 blocks = disk_->blocks(p) + (chance(5) ? 3 : 0);
        const u32 maxCache = chance(25) ? pick(8) : 100000;
        tell("start partition", p, "blocks", blocks, "cache", maxCache);
        program_ = std::make_unique<Program>();
        ASSERT_EQ(program_->open(), 0);
        ASSERT_EQ(program_->start(disk_->device(p), blocks, maxCache), 0);
        model_.start(p, blocks, maxCache);
        ASSERT_EQ(program_->map(0, u32(program_->state().mmapSize) / PAGE_BYTES), 0);
        expected_.reset();
    }

    void snapshot()
    {
        const u32 p = model_.backup().partition;
        Model::Options options;
        options.noStart = noStart_ = noStart_ || chance(8);
        options.noLoad = noLoad_ = noLoad_ || chance(8);
        options.freezeFails = chance(5);
        Chain& chain = chains_[p];
        const bool rightKey = chain.valid && chance(85);
        Key key = rightKey ? chain.key : Key{};
        const model::Session* session = model_.session(p);
        options.keyMatches = session && key == keyNow_[p];
        if (options.noStart) {
            ASSERT_EQ(program_->noStartAutoMap(), 0);
        }
        if (options.noLoad) {
            ASSERT_EQ(program_->noLoadFromAutoMap(), 0);
        }
        tell("snapshot: noStart", options.noStart, "noLoad", options.noLoad, "freeze fails", options.freezeFails,
             "key matches", options.keyMatches);
        hosted::faults::fail_freeze(options.freezeFails);
        const int expected = model_.snapshot(options);
        ASSERT_EQ(program_->snapshot(key), expected);
        hosted::faults::fail_freeze(false);
        ASSERT_EQ(program_->state().state, expectedState());
        compareSession(p);
        if (model_.session(p))
            keyNow_[p] = program_->key();
        if (options.freezeFails && expected == QUENDREL_REFUSED)
            chain.valid = false;  // the key changed and the map may be gone with this file
        if (model_.backup().state == QUENDREL_STATE_SNAPSHOT)
            incremental_ = model_.backup().mapFromTracking && rightKey;
    }

    void compareSession(u32 p)
    {
        const AutoMapState ams = program_->autoMapState();
        const model::Session* session = model_.session(p);
        ASSERT_EQ(ams.state, session && session->inSync ? 1u : 0u);
        ASSERT_EQ(ams.mapLen, session ? session->blocks : 0u);
    }

    void loadMap()
    {
        model::BackupModel& b = model_.backup();
        Bits changed(b.blocks);
        if (b.mapFromTracking) {
            ASSERT_EQ(program_->autoMap(changed), 0);
            const auto members = changed.members();
            ASSERT_EQ(std::set<u32>(members.begin(), members.end()), b.changed) << "the blocks that tracking reports";
            b.mapFromTracking = false;
        } else {
            ASSERT_EQ(program_->autoMap(changed), int(QUENDREL_REFUSED));
        }
        const u32 real = disk_->blocks(b.partition);
        Bits wanted(b.blocks);
        complete_ = chance(85);
        for (u32 i = 0; i < real; i++)
            if (incremental_ ? changed.test(i) : (complete_ || chance(50)))
                wanted.set(i);
        if (incremental_)
            complete_ = true;
        tell("load a map of", wanted.members().size(), "blocks", incremental_ ? "incremental" : "");
        model_.loadMap(wanted);
        ASSERT_EQ(program_->loadMap(wanted), 0);
        ASSERT_EQ(program_->state().state, expectedState());
        expected_ = wanted;
        delivered_.clear();
    }

    // Reads a run; in state 6 only what is still in the map, each once, as every program must.
    void readRun(u32 first, u32 count)
    {
        model::BackupModel& b = model_.backup();
        const u32 p = b.partition;
        std::vector<Bytes> expected;
        for (u32 i = first; i < first + count; i++) {
            const bool inPoint = b.state == QUENDREL_STATE_MAP_LOADED ? b.map.contains(i) : true;
            expected.push_back(model_.read(i));
            if (inPoint && b.protectedAll) {
                ASSERT_EQ(expected.back(), model_.block(b.frozen, p, i)) << "the model itself lost block " << i;
            }
        }
        ASSERT_EQ(program_->readBlocks(first, count), 0);
        for (u32 i = 0; i < count; i++) {
            const Bytes got = program_->blockInArea(0, i, model_.blockBytes(p));
            ASSERT_EQ(got, expected[i]) << "block " << first + i << " of partition " << p << " in state " << b.state;
            if (b.state == QUENDREL_STATE_MAP_LOADED)
                delivered_.insert_or_assign(first + i, got);
        }
    }

    void read()
    {
        model::BackupModel& b = model_.backup();
        const u32 real = disk_->blocks(b.partition);
        if (b.state == QUENDREL_STATE_MAP_LOADED) {
            if (b.map.empty())
                return;
            auto it = b.map.begin();
            std::advance(it, pick(u32(b.map.size())));
            const u32 first = *it;
            u32 count = 1;
            while (count < 8 && b.map.contains(first + count) && chance(80))
                count++;
            return readRun(first, count);
        }
        if (b.state == QUENDREL_STATE_SNAPSHOT) {
            const u32 first = pick(real);
            readRun(first, 1 + pick(std::min(real - first, 8u)));
        }
    }

    // Reads everything that is left, commits the backup as a program would, closes.
    void finish()
    {
        model::BackupModel& b = model_.backup();
        while (!b.map.empty() && !::testing::Test::HasFatalFailure())
            ASSERT_NO_FATAL_FAILURE(read());
        const u32 p = b.partition;
        const AutoMapState ams = program_->autoMapState();
        const bool good = b.protectedAll && complete_ && expected_;
        if (good) {
            Chain& chain = chains_[p];
            Bytes image = incremental_ ? chain.image : model_.content(p);
            for (const auto& [number, content] : delivered_)
                std::copy(content.begin(), content.end(), image.begin() + long(number) * long(content.size()));
            ASSERT_EQ(image, b.frozen) << "the chain restores to something else than the snapshot";
            chain.image = image;
            chain.valid = ams.state == 1;
            std::memcpy(chain.key.data(), ams.amsKey.key, chain.key.size());
            committed_ = true;
        }
        close();
    }

    void close()
    {
        const u32 p = model_.backup().partition;
        tell("close", committed_ ? "after a complete backup" : "");
        if (!committed_)
            chains_[p].valid = false;
        committed_ = incremental_ = noStart_ = noLoad_ = false;
        ASSERT_EQ(program_->close(), 0);
        program_.reset();
        model_.closeBackup();
    }

    // Printed when the history fails.
    template <typename... Parts>
    void tell(const Parts&... parts)
    {
        std::ostringstream line;
        ((line << parts << ' '), ...);
        story_ += line.str() + '\n';
    }

    std::mt19937_64 random_;
    std::string story_;
    std::vector<u32> partitions_;
    std::unique_ptr<TestDisk> disk_;
    Model model_;
    std::unique_ptr<Program> program_;
    std::map<u32, Chain> chains_;
    std::map<u32, Key> keyNow_;
    std::optional<Bits> expected_;
    std::map<u32, Bytes> delivered_;
    bool incremental_ = false, complete_ = false, committed_ = false;
    bool noStart_ = false, noLoad_ = false;
};

TEST(DriverModel, EveryHistoryMatchesThePlainModel)
{
    const hosted::Live before = hosted::live();
    for (unsigned i = 0; i < g_histories; i++) {
        const unsigned long seed = g_seed + i;
        SCOPED_TRACE("replay with --histories=1 --seed=" + std::to_string(seed));
        ASSERT_EQ(hosted::load_driver(), 0);
        History(seed).run();
        ASSERT_EQ(hosted::unload_driver(), 0);
        hosted::Live after = hosted::live();
        after.block_devices = before.block_devices;
        ASSERT_EQ(after, before) << hosted::describe(after);
        hosted::log_clear();
        if (HasFailure())
            return;
    }
    std::cout << g_histories << " histories from seed " << g_seed << "\n";
}

bool option(const char* argument, const char* name, unsigned long& value)
{
    const std::size_t length = std::strlen(name);
    if (std::strncmp(argument, name, length) != 0)
        return false;
    value = std::strtoul(argument + length, nullptr, 10);
    return true;
}

}  // namespace

int main(int argc, char** argv)
{
    ::testing::InitGoogleTest(&argc, argv);
    for (int i = 1; i < argc; i++) {
        unsigned long value;
        if (option(argv[i], "--histories=", value)) {
            g_histories = unsigned(value);
        } else if (option(argv[i], "--seed=", value)) {
            g_seed = value;
        } else {
            std::cerr << "usage: driver_model [--histories=N] [--seed=S]\n";
            return 2;
        }
    }
    return RUN_ALL_TESTS();
}
