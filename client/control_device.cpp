// SPDX-License-Identifier: GPL-2.0-only
#include "client/control_device.h"

#include <cstring>
#include <utility>

namespace quendrel
{
namespace
{

constexpr std::size_t inner = 64; // where in the record page the inner record stands
constexpr std::uint32_t no_block = 0xffffffff;

} // namespace

std::string toString(DeviceNumber device) { return std::to_string(device.major) + ":" + std::to_string(device.minor); }

TransferArea::TransferArea(std::shared_ptr<Transport> transport, std::byte* data, std::size_t bytes) noexcept
    : transport_{std::move(transport)}, data_{data}, bytes_{bytes}
{
}

TransferArea::TransferArea(TransferArea&& other) noexcept
    : transport_{std::move(other.transport_)}, data_{std::exchange(other.data_, nullptr)}, bytes_{std::exchange(
                                                                                               other.bytes_, 0)}
{
}

TransferArea& TransferArea::operator=(TransferArea&& other) noexcept
{
    if (this != &other) {
        release();
        transport_ = std::move(other.transport_);
        data_ = std::exchange(other.data_, nullptr);
        bytes_ = std::exchange(other.bytes_, 0);
    }
    return *this;
}

void TransferArea::release() noexcept
{
    if (data_ != nullptr)
        transport_->unmap(data_, bytes_);
    data_ = nullptr;
    bytes_ = 0;
    transport_.reset();
}

ControlDevice::ControlDevice(const std::string& path) : ControlDevice{openTransport(path), path} {}

ControlDevice::ControlDevice(std::unique_ptr<Transport> transport, std::string path)
    : transport_{std::move(transport)}, path_{std::move(path)}, records_{4096}
{
}

void ControlDevice::check(int result, const char* command) const
{
    if (result != QUENDREL_OK)
        throw Error{command, device_, path_, result};
}

template <typename Record> Record* ControlDevice::record(std::size_t offset) noexcept
{
    static_assert(sizeof(Record) <= 256);
    std::memset(records_.data() + offset, 0, sizeof(Record));
    return reinterpret_cast<Record*>(records_.data() + offset);
}

BlockGeometry ControlDevice::blockSize(DeviceNumber device)
{
    auto* request = record<GetBlockSize>();
    auto* answer = record<BlockSize>(inner);
    *request = {device.major, device.minor, records_.address() + static_cast<std::uint32_t>(inner), sizeof *answer};
    if (const int result = issue(QUENDREL_GET_BLOCK_SIZE, records_.address()); result != QUENDREL_OK)
        throw Error{"GetBlockSize", toString(device), path_, result};
    if (answer->blockSize < 512)
        throw Error{"GetBlockSize", toString(device), path_, QUENDREL_GOING_AWAY};
    return {static_cast<std::uint32_t>(answer->blockSize), answer->partitionSizeKB};
}

void ControlDevice::start(DeviceNumber device, std::uint32_t totalBlocks, std::uint32_t maxCacheBlocks)
{
    device_ = toString(device);
    *record<StartBackup>() = {device.major, device.minor, totalBlocks, maxCacheBlocks};
    check(issue(QUENDREL_START_BACKUP, records_.address()), "StartBackup");
}

void ControlDevice::snapshot(const SessionKey& key)
{
    auto* request = record<SnapShot>();
    std::memcpy(record<AMSessionKey>(inner)->key, key.data(), key.size());
    *request = {records_.address() + static_cast<std::uint32_t>(inner), QUENDREL_KEY_BYTES};
    check(issue(QUENDREL_SNAPSHOT, records_.address()), "SnapShot");
}

BackupState ControlDevice::state()
{
    auto* request = record<GetState>();
    auto* answer = record<State>(inner);
    *request = {records_.address() + static_cast<std::uint32_t>(inner), sizeof *answer};
    check(issue(QUENDREL_GET_STATE, records_.address()), "GetState");
    return {{answer->major, answer->minor},
            answer->state,
            static_cast<std::uint32_t>(answer->blockSize),
            static_cast<std::uint32_t>(answer->mmapSize)};
}

TrackingState ControlDevice::autoMapState()
{
    auto* request = record<GetAutoMapState>();
    auto* answer = record<AutoMapState>(inner);
    *request = {records_.address() + static_cast<std::uint32_t>(inner), sizeof *answer};
    check(issue(QUENDREL_GET_AUTOMAP_STATE, records_.address()), "GetAutoMapState");
    TrackingState result{{answer->major, answer->minor}, answer->state == 1, answer->mapLen, answer->mapSize, {}};
    std::memcpy(result.key.data(), answer->amsKey.key, result.key.size());
    return result;
}

void ControlDevice::noLoadFromAutoMap() { check(issue(QUENDREL_NO_LOAD_FROM_AUTOMAP, 0), "NoLoadFromAutoMap"); }

void ControlDevice::noStartAutoMap() { check(issue(QUENDREL_NO_START_AUTOMAP, 0), "NoStartAutoMap"); }

void ControlDevice::loadBlockMap(const Bitmap& map)
{
    auto* request = record<LoadBlockMap>();
    *record<UserBlockMap>(inner) = {map.address(), map.blocks()};
    *request = {records_.address() + static_cast<std::uint32_t>(inner), sizeof(UserBlockMap)};
    check(issue(QUENDREL_LOAD_BLOCK_MAP, records_.address()), "LoadBlockMap");
}

std::optional<Bitmap> ControlDevice::autoMap(std::uint32_t blocks)
{
    Bitmap map{blocks};
    auto* request = record<GetAutoMap>();
    *record<UserBlockMap>(inner) = {map.address(), map.blocks()};
    *request = {records_.address() + static_cast<std::uint32_t>(inner), sizeof(UserBlockMap)};
    const int result = issue(QUENDREL_GET_AUTOMAP, records_.address());
    if (result == QUENDREL_REFUSED)
        return std::nullopt;
    check(result, "GetAutoMap");
    map.clearSpareBits();
    return map;
}

std::optional<std::uint32_t> ControlDevice::dirtyBlock()
{
    auto* request = record<DirtyBlock>();
    auto* answer = record<std::uint32_t>(inner);
    request->blockNum = records_.address() + static_cast<std::uint32_t>(inner);
    check(issue(QUENDREL_GET_DIRTY_BLOCK, records_.address()), "GetDirtyBlock");
    return *answer == no_block ? std::nullopt : std::optional{*answer};
}

TransferArea ControlDevice::map(std::size_t bytes)
{
    const auto mapping = transport_->map(bytes);
    check(mapping.result, "mmap");
    return TransferArea{transport_, mapping.data, bytes};
}

void ControlDevice::readBlocks(std::uint32_t first, std::uint32_t count, const TransferArea& area)
{
    const auto address = static_cast<std::uint32_t>(reinterpret_cast<std::uintptr_t>(area.data().data()));
    *record<ReadBlocks>() = {first, count, address};
    check(issue(QUENDREL_READ_BLOCKS, records_.address()), "ReadBlocks");
}

std::uint32_t ControlDevice::word(const char* command, std::uint32_t number)
{
    auto* answer = record<std::uint32_t>();
    check(issue(number, records_.address()), command);
    return *answer;
}

Version ControlDevice::version()
{
    const std::uint32_t major = word("GetVersionMajor", QUENDREL_GET_VERSION_MAJOR);
    return {major, word("GetVersionMinor", QUENDREL_GET_VERSION_MINOR)};
}

void ControlDevice::takeOver()
{
    if (const int result = transport_->takeOver(); result != 0)
        throw Error{"taking over the connection", device_, path_, result};
}

void ControlDevice::sync() { check(issue(QUENDREL_SYNC, 0), "Sync"); }

void ControlDevice::shutdown() { check(issue(QUENDREL_SHUTDOWN, 0), "Shutdown"); }

} // namespace quendrel
