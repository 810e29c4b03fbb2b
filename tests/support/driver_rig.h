/* SPDX-License-Identifier: GPL-2.0-only */
// What every test of the driver needs: a hosted kernel with the driver loaded, disks of known content, backup
// programs that drive the control device with 32-bit user memory, and a check at the end that nothing is left.
#pragma once

#include "hosted.h"
#include "quendrel.h"

#include <gtest/gtest.h>

#include <array>
#include <cstring>
#include <map>
#include <memory>
#include <string>
#include <vector>

namespace rig {

using Key = std::array<unsigned char, QUENDREL_KEY_BYTES>;
using Bytes = std::vector<std::byte>;

// A bitmap in the driver's layout: block n is bit n mod 8, least significant first, of byte n / 8.
class Bits
{
  public:
    explicit Bits(u32 blocks, bool set = false);
    u32 blocks() const { return blocks_; }
    bool test(u32 block) const;
    void set(u32 block, bool value = true);
    std::vector<u32> members() const;
    std::vector<unsigned char>& bytes() { return bytes_; }
    const std::vector<unsigned char>& bytes() const { return bytes_; }
    bool operator==(const Bits& other) const { return members() == other.members() && blocks_ == other.blocks_; }

  private:
    u32 blocks_;
    std::vector<unsigned char> bytes_;
};

struct Partition {
    u32 index;  // 0: the whole disk
    sector_type start;
    sector_type sectors;
    u32 blockSize;  // 0: no file system
};

// A memory-backed disk whose every sector starts with a known pattern.
class TestDisk
{
  public:
    TestDisk(std::string name, u32 firstMinor, sector_type sectors, std::vector<Partition> partitions,
             bool queueHasLock = true, u32 major = 8);
    ~TestDisk();
    TestDisk(const TestDisk&) = delete;
    TestDisk& operator=(const TestDisk&) = delete;

    hosted::Disk& disk() { return *disk_; }
    kdev_t device(u32 partition) const { return disk_->device(partition); }
    const Partition& partition(u32 index) const;
    u32 blocks(u32 partition) const;                // whole blocks that fit
    Bytes block(u32 partition, u32 number) const;   // as the store holds it now
    Bytes image(u32 partition) const;
    // Writes one block of value-filled bytes through the queue; 0 or a negative errno.
    int writeBlock(u32 partition, u32 number, unsigned char value);
    int writeSectors(u32 partition, sector_type sector, u32 sectors, unsigned char value);

  private:
    std::shared_ptr<hosted::Disk> disk_;
    std::vector<Partition> partitions_;
    std::span<std::byte> bytes_;
};

// A process with the control device open, and typed commands. Every result is the driver's own code.
class Program
{
  public:
    Program();
    int open();   // once; 0 or the code
    int close();  // unmaps first
    bool isOpen() const { return file_ != nullptr; }
    hosted::ControlFile& file() { return *file_; }
    hosted::SimulatedMemory& memory() { return *memory_; }

    // Copies a record to user memory; its address. Freed with the program.
    template <typename Record>
    u32 put(const Record& record)
    {
        u32 at = memory_->allocate(sizeof record);
        std::memcpy(memory_->at(at), &record, sizeof record);
        return at;
    }
    template <typename Record>
    Record get(u32 at)
    {
        Record record;
        EXPECT_EQ(memory_->read(at, &record, sizeof record), 0u);
        return record;
    }

    int command(u32 number, u32 argument = 0) { return file_->ioctl(number, argument); }
    int blockSize(kdev_t dev, BlockSize& answer, u32 length = sizeof(BlockSize));
    int start(kdev_t dev, u32 totalBlocks, u32 maxCacheBlocks);
    int snapshot();  // with an all-zero key
    int snapshot(const Key& key, u32 length = QUENDREL_KEY_BYTES);
    State state();
    AutoMapState autoMapState();
    Key key();
    int noLoadFromAutoMap() { return command(QUENDREL_NO_LOAD_FROM_AUTOMAP); }
    int noStartAutoMap() { return command(QUENDREL_NO_START_AUTOMAP); }
    int loadMap(const Bits& bits);
    int autoMap(Bits& bits);  // of bits.blocks() blocks
    int dirtyBlock(u32& block);
    int map(u32 area, u32 pages, unsigned long flags = VM_READ, unsigned long pageOffset = 0);
    void unmap(u32 area);
    hosted::Mapping* area(u32 area) { return areas_[area].get(); }
    int readBlocks(u32 first, u32 count, u32 area = 0);
    Bytes blockInArea(u32 area, u32 index, u32 blockSize);
    // Reads one block through area 0, which must be mapped.
    int readOne(u32 block, u32 blockSize, Bytes& content);

    // Opens, starts, snapshots and loads a map of every block; maps area 0 in full. Expects success at each step.
    void beginFullBackup(TestDisk& disk, u32 partition, u32 maxCacheBlocks = 100000);
    // The same, only as far as the snapshot (state 4).
    void beginSnapshot(TestDisk& disk, u32 partition, u32 maxCacheBlocks = 100000);

  private:
    std::shared_ptr<hosted::SimulatedMemory> memory_;
    std::unique_ptr<hosted::ControlFile> file_;
    std::array<std::unique_ptr<hosted::Mapping>, 3> areas_;
};

// Loads the driver for each test and expects at the end that allocations and module
// references are as before. A test whose subject leaves something behind says so with expectLeft.
class DriverTest : public ::testing::Test
{
  protected:
    void SetUp() override;
    void TearDown() override;

    // One disk sda: 8:1 from sector 2048 with 4096 4-KiB blocks, 8:2 behind it with 4096 1-KiB blocks.
    TestDisk& sda();
    TestDisk& addDisk(std::string name, u32 firstMinor, sector_type sectors, std::vector<Partition> partitions,
                      bool queueHasLock = true, u32 major = 8);
    // What the test leaves behind deliberately, beyond nothing.
    void expectLeft(const hosted::Live& left) { left_ = left; }
    // Lines printed since the last call (or the start), priority marker included.
    std::vector<std::string> takeLog();
    // Waits until `done` or fails the test after some seconds.
    static bool eventually(const std::function<bool()>& done);

    std::vector<std::unique_ptr<TestDisk>> disks_;

  private:
    hosted::Live before_{};
    hosted::Live left_{};
};

// Blocks a disk's own function at a chosen request, so that a test forces an order.
class DiskGate
{
  public:
    // Stops requests for which `matches` answers true until open() is called.
    explicit DiskGate(std::function<bool(const hosted::BioView&)> matches);
    ~DiskGate();
    void waitUntilStopped(unsigned requests = 1);  // fails the test after some seconds
    void open();

  private:
    struct Shared;
    std::shared_ptr<Shared> shared_;
};

}  // namespace rig
