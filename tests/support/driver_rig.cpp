// SPDX-License-Identifier: GPL-2.0-only
#include "driver_rig.h"

#include <chrono>
#include <condition_variable>
#include <mutex>
#include <thread>

namespace rig {

namespace {

constexpr std::chrono::seconds kPatience{20};

}  // namespace

// ---- Bits

Bits::Bits(u32 blocks, bool set) : blocks_(blocks), bytes_((u64(blocks) + 7) / 8, set ? 0xFF : 0x00) {}

bool Bits::test(u32 block) const { return (bytes_.at(block / 8) >> (block % 8)) & 1; }

void Bits::set(u32 block, bool value)
{
    const auto mask = static_cast<unsigned char>(1u << (block % 8));
    if (value)
        bytes_.at(block / 8) |= mask;
    else
        bytes_.at(block / 8) &= static_cast<unsigned char>(~mask);
}

std::vector<u32> Bits::members() const
{
    std::vector<u32> list;
    for (u32 i = 0; i < blocks_; i++)
        if (test(i))
            list.push_back(i);
    return list;
}

// ---- TestDisk

TestDisk::TestDisk(std::string name, u32 firstMinor, sector_type sectors, std::vector<Partition> partitions,
                   bool queueHasLock, u32 major)
    : partitions_(std::move(partitions))
{
    auto store = hosted::make_memory_store(sectors * 512);
    bytes_ = hosted::memory_store_bytes(*store);
    for (sector_type s = 0; s < sectors; s++) {
        std::memset(bytes_.data() + s * 512, int(s * 7 % 251 + 1), 512);
        std::memcpy(bytes_.data() + s * 512, &s, sizeof s);
    }
    hosted::DiskConfig config;
    config.name = std::move(name);
    config.major = major;
    config.first_minor = firstMinor;
    config.store = std::move(store);
    config.queue_has_lock = queueHasLock;
    for (const Partition& p : partitions_)
        if (p.index != 0)
            config.partitions.push_back({p.index, p.start, p.sectors});
    disk_ = hosted::add_disk(std::move(config));
    for (const Partition& p : partitions_)
        if (p.blockSize != 0)
            hosted::mount_file_system(disk_->device(p.index), p.blockSize);
}

TestDisk::~TestDisk()
{
    for (const Partition& p : partitions_)
        if (p.blockSize != 0)
            hosted::unmount_file_system(disk_->device(p.index));
    hosted::remove_disk(disk_);
}

const Partition& TestDisk::partition(u32 index) const
{
    for (const Partition& p : partitions_)
        if (p.index == index)
            return p;
    throw std::out_of_range("no such partition on the test disk");
}

u32 TestDisk::blocks(u32 index) const
{
    const Partition& p = partition(index);
    return u32(p.sectors * 512 / p.blockSize);
}

Bytes TestDisk::block(u32 index, u32 number) const
{
    const Partition& p = partition(index);
    const std::byte* from = bytes_.data() + p.start * 512 + u64(number) * p.blockSize;
    return Bytes(from, from + p.blockSize);
}

Bytes TestDisk::image(u32 index) const
{
    const Partition& p = partition(index);
    const std::byte* from = bytes_.data() + p.start * 512;
    return Bytes(from, from + u64(blocks(index)) * p.blockSize);
}

int TestDisk::writeBlock(u32 index, u32 number, unsigned char value)
{
    const u32 sectorsPerBlock = partition(index).blockSize / 512;
    return writeSectors(index, sector_type(number) * sectorsPerBlock, sectorsPerBlock, value);
}

int TestDisk::writeSectors(u32 index, sector_type sector, u32 sectors, unsigned char value)
{
    const Bytes data(std::size_t(sectors) * 512, std::byte(value));
    return disk_->write(sector * 512, data, index);
}

// ---- Program

Program::Program() : memory_(std::make_shared<hosted::SimulatedMemory>()) {}

int Program::open() { return hosted::open_control(QUENDREL_CHRDEV_MAJOR, memory_, file_); }

int Program::close()
{
    for (auto& area : areas_)
        area.reset();
    const int result = file_->close();
    file_.reset();
    return result;
}

int Program::blockSize(kdev_t dev, BlockSize& answer, u32 length)
{
    const u32 at = put(answer);
    const GetBlockSize record{kdev_major(dev), kdev_minor(dev), at, length};
    const int result = command(QUENDREL_GET_BLOCK_SIZE, put(record));
    answer = get<BlockSize>(at);
    return result;
}

int Program::start(kdev_t dev, u32 totalBlocks, u32 maxCacheBlocks)
{
    return command(QUENDREL_START_BACKUP,
                   put(StartBackup{kdev_major(dev), kdev_minor(dev), totalBlocks, maxCacheBlocks}));
}

int Program::snapshot() { return snapshot(Key{}); }

int Program::snapshot(const Key& key, u32 length)
{
    // Longer lengths than the key must be readable, so that only the driver's own limit decides.
    const u32 at = memory_->allocate(std::max<u32>(length, QUENDREL_KEY_BYTES));
    std::memcpy(memory_->at(at), key.data(), key.size());
    return command(QUENDREL_SNAPSHOT, put(SnapShot{at, length}));
}

State Program::state()
{
    const u32 at = put(State{});
    EXPECT_EQ(command(QUENDREL_GET_STATE, put(GetState{at, sizeof(State)})), 0);
    return get<State>(at);
}

AutoMapState Program::autoMapState()
{
    const u32 at = put(AutoMapState{});
    EXPECT_EQ(command(QUENDREL_GET_AUTOMAP_STATE, put(GetAutoMapState{at, sizeof(AutoMapState)})), 0);
    return get<AutoMapState>(at);
}

Key Program::key()
{
    Key key;
    const AutoMapState ams = autoMapState();
    std::memcpy(key.data(), ams.amsKey.key, key.size());
    return key;
}

int Program::loadMap(const Bits& bits)
{
    const u32 at = memory_->allocate(std::max<std::size_t>(bits.bytes().size(), 1));
    std::memcpy(memory_->at(at), bits.bytes().data(), bits.bytes().size());
    const int result =
        command(QUENDREL_LOAD_BLOCK_MAP, put(LoadBlockMap{put(UserBlockMap{at, bits.blocks()}), sizeof(UserBlockMap)}));
    memory_->release(at);
    return result;
}

int Program::autoMap(Bits& bits)
{
    const u32 at = memory_->allocate(std::max<std::size_t>(bits.bytes().size(), 1));
    const int result =
        command(QUENDREL_GET_AUTOMAP, put(GetAutoMap{put(UserBlockMap{at, bits.blocks()}), sizeof(UserBlockMap)}));
    std::memcpy(bits.bytes().data(), memory_->at(at), bits.bytes().size());
    memory_->release(at);
    return result;
}

int Program::dirtyBlock(u32& block)
{
    const u32 at = put(block);
    const int result = command(QUENDREL_GET_DIRTY_BLOCK, put(DirtyBlock{at}));
    block = get<u32>(at);
    return result;
}

int Program::map(u32 area, u32 pages, unsigned long flags, unsigned long pageOffset)
{
    hosted::MmapArguments arguments;
    arguments.address = 0x40000000u + area * 0x01000000u;
    arguments.bytes = pages * PAGE_BYTES;
    arguments.flags = flags;
    arguments.page_offset = pageOffset;
    return file_->mmap(arguments, areas_.at(area));
}

void Program::unmap(u32 area) { areas_.at(area).reset(); }

int Program::readBlocks(u32 first, u32 count, u32 area)
{
    const u32 data = areas_.at(area) ? areas_[area]->start() : 0;
    const u32 record = put(ReadBlocks{first, count, data});
    const int result = command(QUENDREL_READ_BLOCKS, record);
    memory_->release(record);
    return result;
}

Bytes Program::blockInArea(u32 area, u32 index, u32 blockSize)
{
    const u64 offset = u64(index) * blockSize;
    const std::byte* page = areas_.at(area)->fault(u32(offset / PAGE_BYTES));
    if (!page)
        return {};
    return Bytes(page + offset % PAGE_BYTES, page + offset % PAGE_BYTES + blockSize);
}

int Program::readOne(u32 block, u32 blockSize, Bytes& content)
{
    const int result = readBlocks(block, 1, 0);
    content = blockInArea(0, 0, blockSize);
    return result;
}

void Program::beginSnapshot(TestDisk& disk, u32 partition, u32 maxCacheBlocks)
{
    ASSERT_EQ(open(), 0);
    ASSERT_EQ(start(disk.device(partition), disk.blocks(partition), maxCacheBlocks), 0);
    ASSERT_EQ(snapshot(), 0);
    ASSERT_EQ(state().state, unsigned(QUENDREL_STATE_SNAPSHOT));
    ASSERT_EQ(map(0, u32(state().mmapSize) / PAGE_BYTES), 0);
}

void Program::beginFullBackup(TestDisk& disk, u32 partition, u32 maxCacheBlocks)
{
    ASSERT_NO_FATAL_FAILURE(beginSnapshot(disk, partition, maxCacheBlocks));
    ASSERT_EQ(loadMap(Bits(disk.blocks(partition), true)), 0);
    ASSERT_EQ(state().state, unsigned(QUENDREL_STATE_MAP_LOADED));
}

// ---- DriverTest

void DriverTest::SetUp()
{
    hosted::faults::clear();
    hosted::set_disk_probe({});
    hosted::log_clear();
    before_ = hosted::live();
    ASSERT_EQ(hosted::load_driver(), 0);
    hosted::log_clear();
}

void DriverTest::TearDown()
{
    hosted::faults::clear();
    hosted::set_disk_probe({});
    if (hosted::driver_loaded()) {
        EXPECT_EQ(hosted::unload_driver(), 0);
    }
    disks_.clear();
    hosted::Live now = hosted::live();
    // One cached object a device number, for as long as the kernel runs.
    now.block_devices = before_.block_devices;
    hosted::Live expected = before_;
    expected.kmallocs += left_.kmallocs;
    expected.vmallocs += left_.vmallocs;
    expected.pages += left_.pages;
    expected.slab_caches += left_.slab_caches;
    expected.slab_objects += left_.slab_objects;
    EXPECT_EQ(now, expected) << "left behind: " << hosted::describe(now) << "\nexpected: " << hosted::describe(expected);
    hosted::forget_leaks();
}

TestDisk& DriverTest::sda()
{
    if (disks_.empty())
        addDisk("sda", 0, 2048 + 4096 * 8 + 4096 * 2,
                {{1, 2048, 4096 * 8, 4096}, {2, 2048 + 4096 * 8, 4096 * 2, 1024}});
    return *disks_.front();
}

TestDisk& DriverTest::addDisk(std::string name, u32 firstMinor, sector_type sectors, std::vector<Partition> partitions,
                              bool queueHasLock, u32 major)
{
    disks_.push_back(
        std::make_unique<TestDisk>(std::move(name), firstMinor, sectors, std::move(partitions), queueHasLock, major));
    return *disks_.back();
}

std::vector<std::string> DriverTest::takeLog()
{
    auto lines = hosted::log_lines();
    hosted::log_clear();
    return lines;
}

bool DriverTest::eventually(const std::function<bool()>& done)
{
    const auto deadline = std::chrono::steady_clock::now() + kPatience;
    while (!done()) {
        if (std::chrono::steady_clock::now() > deadline) {
            ADD_FAILURE() << "what the test waits for did not happen";
            return false;
        }
        std::this_thread::sleep_for(std::chrono::microseconds(200));
    }
    return true;
}

// ---- DiskGate

struct DiskGate::Shared {
    std::mutex mutex;  // guards all below; taken alone
    std::condition_variable changed;
    bool isOpen = false;
    unsigned stopped = 0;
};

DiskGate::DiskGate(std::function<bool(const hosted::BioView&)> matches) : shared_(std::make_shared<Shared>())
{
    hosted::set_disk_probe([shared = shared_, matches = std::move(matches)](const hosted::BioView& bio) {
        if (!matches(bio))
            return;
        std::unique_lock lock(shared->mutex);
        if (shared->isOpen)
            return;
        shared->stopped++;
        shared->changed.notify_all();
        shared->changed.wait(lock, [&] { return shared->isOpen; });
    });
}

DiskGate::~DiskGate()
{
    open();
    hosted::set_disk_probe({});
}

void DiskGate::waitUntilStopped(unsigned requests)
{
    std::unique_lock lock(shared_->mutex);
    if (!shared_->changed.wait_for(lock, kPatience, [&] { return shared_->stopped >= requests; }))
        ADD_FAILURE() << "no request reached the disk's gate";
}

void DiskGate::open()
{
    std::lock_guard lock(shared_->mutex);
    shared_->isOpen = true;
    shared_->changed.notify_all();
}

}  // namespace rig
