// SPDX-License-Identifier: GPL-2.0-only
#include "fake_driver.h"

#include <sys/uio.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

namespace fake
{
namespace
{

constexpr std::size_t page = 4096;

const char* name(std::uint32_t number)
{
    switch (number) {
    case QUENDREL_GET_BLOCK_SIZE:
        return "GetBlockSize";
    case QUENDREL_START_BACKUP:
        return "StartBackup";
    case QUENDREL_SNAPSHOT:
        return "SnapShot";
    case QUENDREL_GET_STATE:
        return "GetState";
    case QUENDREL_GET_AUTOMAP_STATE:
        return "GetAutoMapState";
    case QUENDREL_NO_LOAD_FROM_AUTOMAP:
        return "NoLoadFromAutoMap";
    case QUENDREL_NO_START_AUTOMAP:
        return "NoStartAutoMap";
    case QUENDREL_LOAD_BLOCK_MAP:
        return "LoadBlockMap";
    case QUENDREL_GET_AUTOMAP:
        return "GetAutoMap";
    case QUENDREL_GET_DIRTY_BLOCK:
        return "GetDirtyBlock";
    case QUENDREL_READ_BLOCKS:
        return "ReadBlocks";
    default:
        return "other";
    }
}

class InProcess final : public quendrel::Transport
{
  public:
    explicit InProcess(Driver& driver) : driver_{driver} {}
    ~InProcess() override { driver_.close(); }

    int command(std::uint32_t number, std::uint32_t argument) override { return driver_.command(number, argument); }

    Mapping map(std::size_t bytes) override
    {
        quendrel::LowMemory area{bytes};
        std::vector<std::byte*> pages;
        for (std::size_t at = 0; at < bytes; at += page)
            pages.push_back(area.data() + at);
        if (const int result = driver_.map(area.address(), pages); result != 0)
            return {result, nullptr};
        std::byte* data = area.data();
        areas_.emplace(data, std::move(area));
        return {0, data};
    }

    void unmap(std::byte* data, std::size_t) noexcept override
    {
        driver_.unmap(static_cast<std::uint32_t>(reinterpret_cast<std::uintptr_t>(data)));
        areas_.erase(data);
    }

    std::optional<std::uint64_t> closes() const override { return driver_.closes; }

  private:
    Driver& driver_;
    std::map<std::byte*, quendrel::LowMemory> areas_;
};

} // namespace

std::unique_ptr<quendrel::Transport> connect(Driver& driver)
{
    if (const int result = driver.open(::getpid()); result != 0)
        throw quendrel::Error{"open", "", "memory", result};
    return std::make_unique<InProcess>(driver);
}

Driver::Driver(quendrel::DeviceNumber number, std::uint32_t block_size, std::uint32_t blocks)
    : number_{number}, block_size_{block_size}, blocks_{blocks}, disk_(std::size_t{block_size} * blocks)
{
}

// What the driver does before a write.
void Driver::save(std::uint32_t block)
{
    if (!file_ || file_->frozen.empty() || file_->state > QUENDREL_STATE_MAP_LOADED || file_->cached.contains(block))
        return;
    if (file_->state == QUENDREL_STATE_MAP_LOADED && !(*file_->map)[block])
        return;
    if (file_->cached.size() == file_->most_cached) {
        file_->state = QUENDREL_STATE_CACHE_EXHAUSTED;
        return;
    }
    file_->cached.insert(block);
    most_cached_ = std::max(most_cached_, file_->cached.size());
}

void Driver::put(std::uint32_t block, const std::vector<std::byte>& data)
{
    save(block);
    std::copy(data.begin(), data.end(), disk_.begin() + static_cast<std::ptrdiff_t>(std::size_t{block} * block_size_));
    if (tracking_ && tracking_->in_sync)
        tracking_->map[block] = true;
}

void Driver::write(std::uint32_t block, unsigned seed)
{
    const std::lock_guard lock{mutex_};
    std::vector<std::byte> data(block_size_);
    unsigned x = seed * 2654435761u + block + 1;
    for (std::byte& byte : data) {
        x = x * 1664525u + 1013904223u;
        byte = static_cast<std::byte>(x >> 24);
    }
    put(block, data);
}

void Driver::writeZeros(std::uint32_t block)
{
    const std::lock_guard lock{mutex_};
    put(block, std::vector<std::byte>(block_size_));
}

void Driver::writeAt(std::uint64_t offset, std::span<const std::byte> data)
{
    const std::lock_guard lock{mutex_};
    for (std::size_t at = 0; at < data.size(); at += block_size_)
        put(static_cast<std::uint32_t>((offset + at) / block_size_), {data.begin() + at, data.begin() + at + block_size_});
}

std::vector<std::byte> Driver::contents() const
{
    const std::lock_guard lock{mutex_};
    return disk_;
}

std::vector<std::byte> Driver::frozen() const
{
    const std::lock_guard lock{mutex_};
    return last_frozen_;
}

void Driver::loseTracking()
{
    const std::lock_guard lock{mutex_};
    if (tracking_)
        tracking_->in_sync = false;
}

void Driver::forget()
{
    const std::lock_guard lock{mutex_};
    tracking_.reset();
}

void Driver::newKey()
{
    ++keys_;
    for (std::size_t i = 0; i < tracking_->key.size(); ++i)
        tracking_->key[i] = static_cast<std::uint8_t>(keys_ * 37 + i * 11 + 1);
    // The driver's are random; here none comes twice, however many there are.
    std::memcpy(tracking_->key.data(), &keys_, sizeof keys_);
}

void Driver::replaceKey()
{
    const std::lock_guard lock{mutex_};
    newKey();
}

void Driver::fail(std::uint32_t state)
{
    const std::lock_guard lock{mutex_};
    if (file_)
        file_->state = state;
    if (tracking_)
        tracking_->in_sync = false;
}

std::vector<Driver::Read> Driver::reads() const
{
    const std::lock_guard lock{mutex_};
    return reads_;
}

std::size_t Driver::mostCached() const
{
    const std::lock_guard lock{mutex_};
    return most_cached_;
}

void Driver::saveStray(std::uint32_t block)
{
    const std::lock_guard lock{mutex_};
    file_->cached.insert(block);
}

std::size_t Driver::cached() const
{
    const std::lock_guard lock{mutex_};
    return file_ ? file_->cached.size() : 0;
}

std::vector<std::string> Driver::events() const
{
    const std::lock_guard lock{mutex_};
    return events_;
}

void Driver::clearEvents()
{
    const std::lock_guard lock{mutex_};
    events_.clear();
    reads_.clear();
}

bool Driver::isOpen() const
{
    const std::lock_guard lock{mutex_};
    return file_.has_value();
}

int Driver::open(pid_t client)
{
    const std::lock_guard lock{mutex_};
    if (open_result != 0)
        return open_result;
    if (file_)
        return -EBUSY;
    file_.emplace();
    file_->client = client;
    return 0;
}

void Driver::close()
{
    const std::lock_guard lock{mutex_};
    events_.push_back(file_ && !file_->areas.empty() ? "close with areas mapped" : "close");
    file_.reset();
}

void Driver::takeOver(pid_t client)
{
    const std::lock_guard lock{mutex_};
    file_->client = client;
}

int Driver::map(std::uint32_t address, std::vector<std::byte*> pages)
{
    const std::lock_guard lock{mutex_};
    const std::size_t most = block_size_ * 256 / page;
    if (file_->state < 2 || pages.empty() || pages.size() > most || file_->areas.size() >= 2)
        return QUENDREL_REFUSED;
    events_.push_back("map");
    file_->areas[address] = std::move(pages);
    return 0;
}

void Driver::unmap(std::uint32_t address)
{
    const std::lock_guard lock{mutex_};
    events_.push_back("unmap");
    if (file_)
        file_->areas.erase(address);
}

int Driver::command(std::uint32_t number, std::uint32_t argument)
{
    if (const auto call = before.get())
        (*call)(number);
    const std::lock_guard lock{mutex_};
    events_.push_back(name(number));
    return run(number, argument);
}

bool Driver::takeBytes(std::uint32_t address, void* to, std::size_t bytes) const
{
    iovec local{to, bytes};
    iovec remote{reinterpret_cast<void*>(std::uintptr_t{address}), bytes};
    return bytes == 0 || ::process_vm_readv(file_->client, &local, 1, &remote, 1, 0) == static_cast<ssize_t>(bytes);
}

bool Driver::giveBytes(std::uint32_t address, const void* from, std::size_t bytes) const
{
    iovec local{const_cast<void*>(from), bytes};
    iovec remote{reinterpret_cast<void*>(std::uintptr_t{address}), bytes};
    return bytes == 0 || ::process_vm_writev(file_->client, &local, 1, &remote, 1, 0) == static_cast<ssize_t>(bytes);
}

template <typename T> bool Driver::take(std::uint32_t address, T& record) const
{
    return takeBytes(address, &record, sizeof record);
}

int Driver::run(std::uint32_t number, std::uint32_t argument)
{
    switch (number) {
    case QUENDREL_GET_BLOCK_SIZE:
        return getBlockSize(argument);
    case QUENDREL_START_BACKUP:
        return start(argument);
    case QUENDREL_SNAPSHOT:
        return snapshot(argument);
    case QUENDREL_GET_STATE:
        return getState(argument);
    case QUENDREL_GET_AUTOMAP_STATE:
        return getAutoMapState(argument);
    case QUENDREL_NO_LOAD_FROM_AUTOMAP:
        file_->no_load = true;
        return 0;
    case QUENDREL_NO_START_AUTOMAP:
        file_->no_start = true;
        return 0;
    case QUENDREL_LOAD_BLOCK_MAP:
        return loadBlockMap(argument);
    case QUENDREL_GET_AUTOMAP:
        return getAutoMap(argument);
    case QUENDREL_GET_DIRTY_BLOCK: {
        DirtyBlock record{};
        if (!take(argument, record))
            return QUENDREL_COPY_FROM_USER;
        if (file_->state != QUENDREL_STATE_MAP_LOADED)
            return QUENDREL_REFUSED;
        const std::uint32_t block = file_->cached.empty() ? 0xffffffff : *file_->cached.begin();
        return giveBytes(record.blockNum, &block, 4) ? 0 : QUENDREL_COPY_TO_USER;
    }
    case QUENDREL_READ_BLOCKS:
        return readBlocks(argument);
    case QUENDREL_GET_VERSION_MAJOR:
    case QUENDREL_GET_VERSION_MINOR: {
        const std::uint32_t value = number == QUENDREL_GET_VERSION_MAJOR ? 3 : 1;
        return giveBytes(argument, &value, 4) ? 0 : QUENDREL_COPY_TO_USER;
    }
    case QUENDREL_SYNC:
        return 0;
    case QUENDREL_SHUTDOWN:
        tracking_.reset();
        return 0;
    default:
        return QUENDREL_UNKNOWN_COMMAND;
    }
}

int Driver::getBlockSize(std::uint32_t argument)
{
    GetBlockSize record{};
    if (!take(argument, record))
        return QUENDREL_COPY_FROM_USER;
    if (!mounted || quendrel::DeviceNumber{record.major, record.minor} != number_)
        return QUENDREL_NOT_MOUNTED;
    const BlockSize answer{record.major, record.minor, static_cast<int>(block_size_),
                           static_cast<unsigned>(disk_.size() / 1024)};
    return giveBytes(record.bs, &answer, std::min<std::size_t>(record.len, sizeof answer)) ? 0 : QUENDREL_COPY_TO_USER;
}

int Driver::start(std::uint32_t argument)
{
    StartBackup record{};
    if (!take(argument, record))
        return QUENDREL_COPY_FROM_USER;
    if (file_->state != 0)
        return QUENDREL_NOT_IDLE;
    if (!mounted || quendrel::DeviceNumber{record.major, record.minor} != number_)
        return QUENDREL_NOT_MOUNTED;
    if (busy_starts > 0) {
        --busy_starts;
        file_->state = QUENDREL_STATE_REFUSED_BUSY;
        return QUENDREL_BUSY;
    }
    if (record.totalBlocks > blocks_ || record.maxCacheBlocks == 0)
        return QUENDREL_REFUSED;
    file_->named = true;
    file_->most_cached = record.maxCacheBlocks;
    file_->state = QUENDREL_STATE_STARTED;
    return 0;
}

int Driver::snapshot(std::uint32_t argument)
{
    SnapShot record{};
    if (!take(argument, record))
        return QUENDREL_COPY_FROM_USER;
    if (file_->state != QUENDREL_STATE_STARTED)
        return QUENDREL_REFUSED;
    quendrel::SessionKey key{};
    if (!takeBytes(record.amsKey, key.data(), std::min<std::size_t>(record.len, key.size())))
        return QUENDREL_COPY_FROM_USER;
    if (file_->no_start) {
        tracking_.reset();
    } else if (!tracking_ || !tracking_->in_sync || file_->no_load) {
        tracking_.emplace();
        tracking_->map.assign(blocks_, false);
    } else if (key != tracking_->key) {
        return 0; // the state stays: that is all the caller gets to know
    } else {
        file_->map = tracking_->map;
        tracking_->map.assign(blocks_, false);
    }
    if (tracking_) {
        newKey();
        tracking_->in_sync = true;
    }
    file_->frozen = last_frozen_ = disk_;
    file_->state = QUENDREL_STATE_SNAPSHOT;
    return 0;
}

int Driver::getState(std::uint32_t argument)
{
    GetState record{};
    if (!take(argument, record))
        return QUENDREL_COPY_FROM_USER;
    const State answer{number_.major, number_.minor, file_->state, static_cast<int>(block_size_),
                       static_cast<int>(block_size_ * 256)};
    return giveBytes(record.s, &answer, std::min<std::size_t>(record.len, sizeof answer)) ? 0 : QUENDREL_COPY_TO_USER;
}

int Driver::getAutoMapState(std::uint32_t argument)
{
    GetAutoMapState record{};
    if (!take(argument, record))
        return QUENDREL_COPY_FROM_USER;
    AutoMapState answer{};
    if (file_->named && tracking_) {
        answer = {number_.major, number_.minor, tracking_->in_sync ? 1u : 0u, blocks_, (blocks_ + 7) / 8, {}};
        std::memcpy(answer.amsKey.key, tracking_->key.data(), tracking_->key.size());
    }
    return giveBytes(record.ams, &answer, std::min<std::size_t>(record.len, sizeof answer)) ? 0 : QUENDREL_COPY_TO_USER;
}

int Driver::loadBlockMap(std::uint32_t argument)
{
    LoadBlockMap record{};
    UserBlockMap user{};
    if (!take(argument, record) || !take(record.bm, user))
        return QUENDREL_COPY_FROM_USER;
    if (file_->state != QUENDREL_STATE_SNAPSHOT)
        return QUENDREL_REFUSED;
    std::vector<std::uint8_t> bytes((std::size_t{user.mapLen} + 7) / 8);
    if (user.mapLen == 0 || !takeBytes(user.map, bytes.data(), bytes.size())) {
        file_->state = QUENDREL_STATE_MAP_LOAD_FAILED;
        return user.mapLen == 0 ? QUENDREL_REFUSED : QUENDREL_COPY_FROM_USER;
    }
    std::vector<bool> map(user.mapLen);
    for (std::uint32_t block = 0; block < user.mapLen; ++block)
        map[block] = (bytes[block / 8] >> (block % 8) & 1) != 0;
    if (file_->map)
        events_.push_back("map loaded over the snapshot's");
    file_->map = map;
    file_->state = QUENDREL_STATE_MAP_LOADED;
    std::erase_if(file_->cached, [&](std::uint32_t block) { return !map[block]; });
    return 0;
}

int Driver::getAutoMap(std::uint32_t argument)
{
    GetAutoMap record{};
    UserBlockMap user{};
    if (!take(argument, record) || !take(record.bm, user))
        return QUENDREL_COPY_FROM_USER;
    if (file_->state != QUENDREL_STATE_SNAPSHOT || !file_->map || file_->map->size() != user.mapLen)
        return QUENDREL_REFUSED;
    // The last byte carries rubbish beyond the last block, as the driver's may.
    std::vector<std::uint8_t> bytes((std::size_t{user.mapLen} + 7) / 8);
    for (std::uint32_t block = 0; block < bytes.size() * 8; ++block)
        if (block >= user.mapLen || (*file_->map)[block])
            bytes[block / 8] |= static_cast<std::uint8_t>(1u << (block % 8));
    if (!giveBytes(user.map, bytes.data(), bytes.size()))
        return QUENDREL_COPY_TO_USER;
    file_->map.reset();
    return 0;
}

int Driver::readBlocks(std::uint32_t argument)
{
    ReadBlocks record{};
    if (!take(argument, record))
        return QUENDREL_COPY_FROM_USER;
    const auto area = file_->areas.find(record.data);
    const std::uint64_t end = std::uint64_t{record.startBlockNum} + record.numBlocks;
    if ((file_->state != QUENDREL_STATE_SNAPSHOT && file_->state != QUENDREL_STATE_MAP_LOADED) || end > blocks_ ||
        (file_->state == QUENDREL_STATE_MAP_LOADED && end > file_->map->size()) || area == file_->areas.end() ||
        std::size_t{record.numBlocks} * block_size_ > area->second.size() * page)
        return QUENDREL_REFUSED;
    reads_.push_back({record.startBlockNum, record.numBlocks});
    int result = 0;
    for (std::uint32_t i = 0; i < record.numBlocks; ++i) {
        std::byte* to = area->second[std::size_t{i} * block_size_ / page] + std::size_t{i} * block_size_ % page;
        const std::uint32_t block = record.startBlockNum + i;
        const bool bad = unreadable == block;
        const bool kept = file_->state != QUENDREL_STATE_MAP_LOADED || (*file_->map)[block];
        if (bad)
            std::memset(to, 0, block_size_);
        else
            std::memcpy(to, (kept ? file_->frozen : disk_).data() + std::size_t{block} * block_size_, block_size_);
        if (file_->state == QUENDREL_STATE_MAP_LOADED) {
            file_->cached.erase(block);
            (*file_->map)[block] = false;
        }
        result = bad ? static_cast<int>(QUENDREL_READ_ERROR) : result;
    }
    return result;
}

} // namespace fake
