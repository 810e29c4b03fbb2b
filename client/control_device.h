/* SPDX-License-Identifier: GPL-2.0-only */
// The control device, typed: what a backup program does with the driver, the same over a device node and over the
// daemon's socket.
//
// A ControlDevice is one open file and so at most one backup. A backup ends when the file is closed: when the
// ControlDevice and every TransferArea made from it are gone, in whatever order they go. Areas are unmapped before the
// file is closed. One thread at a time uses a ControlDevice and its areas' making and unmapping; the contents of an
// area may be read by any thread while no read into that area is under way.
//
// Every function throws Error; one whose success still leaves something to be checked says so.
#pragma once

#include "bitmap.h"
#include "error.h"
#include "transport.h"
#include "quendrel.h"

#include <array>
#include <cstdint>
#include <memory>
#include <optional>
#include <span>
#include <string>

namespace quendrel
{

struct DeviceNumber {
    std::uint32_t major = 0;
    std::uint32_t minor = 0;
    bool operator==(const DeviceNumber&) const = default;
    auto operator<=>(const DeviceNumber&) const = default;
};
// "8:1"
std::string toString(DeviceNumber device);

using SessionKey = std::array<std::uint8_t, QUENDREL_KEY_BYTES>;

struct BlockGeometry {
    std::uint32_t blockSize = 0; // bytes
    std::uint32_t sizeKiB = 0;   // of the partition, low 32 bits
};

struct BackupState {
    DeviceNumber device;
    std::uint32_t state = 0; // quendrel_state
    std::uint32_t blockSize = 0;
    std::uint32_t mapBytes = 0; // largest transfer mapping
};

struct TrackingState {
    DeviceNumber device;
    bool inSync = false; // false as well when the device is not tracked
    std::uint32_t blocks = 0;
    std::uint32_t bytes = 0;
    SessionKey key{};
};

struct Version {
    std::uint32_t major = 0;
    std::uint32_t minor = 0;
};

// Where a read puts its blocks: block i of a read lies at data() + i x block size. Moved, never copied.
class TransferArea
{
  public:
    TransferArea() noexcept = default;
    ~TransferArea() { release(); }
    TransferArea(TransferArea&& other) noexcept;
    TransferArea& operator=(TransferArea&& other) noexcept;
    TransferArea(const TransferArea&) = delete;
    TransferArea& operator=(const TransferArea&) = delete;

    std::span<const std::byte> data() const noexcept { return {data_, bytes_}; }
    // Unmaps it now.
    void release() noexcept;

  private:
    friend class ControlDevice;
    TransferArea(std::shared_ptr<Transport> transport, std::byte* data, std::size_t bytes) noexcept;

    std::shared_ptr<Transport> transport_;
    std::byte* data_ = nullptr;
    std::size_t bytes_ = 0;
};

class ControlDevice
{
  public:
    // Opens the character device node or the socket at `path`. Opening and closing the control device detaches a
    // backup that another program is running: hold whatever lock your programs agree on first.
    explicit ControlDevice(const std::string& path);
    // Over a transport of the caller's; `path` is for messages.
    ControlDevice(std::unique_ptr<Transport> transport, std::string path);

    const std::string& path() const noexcept { return path_; }

    // The block size of the file system on the device, and the device's size. Works with and without a backup.
    BlockGeometry blockSize(DeviceNumber device);
    // Starts the file's backup: `totalBlocks` blocks of the file system's size, at most `maxCacheBlocks` of which are
    // kept in memory when they are overwritten during the backup. The state is then 2. A handle whose start failed has
    // to be closed and opened anew.
    void start(DeviceNumber device, std::uint32_t totalBlocks, std::uint32_t maxCacheBlocks);
    // Takes the snapshot. Success says only that nothing went wrong: the state is 4 when it was taken and still 2 when
    // the device's tracking is in sync under another key than `key`. Where it is not tracked any key gives 4.
    void snapshot(const SessionKey& key);
    BackupState state();
    // The tracking session of the device named in start().
    TrackingState autoMapState();
    // At the snapshot, restart the device's tracking whatever the key.
    void noLoadFromAutoMap();
    // At the snapshot, end the device's tracking.
    void noStartAutoMap();
    // The set of blocks that will be read; the state is then 6.
    void loadBlockMap(const Bitmap& map);
    // The blocks changed since the previous snapshot, handed out once after a snapshot, before a map is loaded.
    // Nothing when the snapshot did not continue an earlier one. `blocks` as in start().
    std::optional<Bitmap> autoMap(std::uint32_t blocks);
    // A block that was overwritten since the snapshot and waits in the cache; nothing when there is none. State 6 only.
    std::optional<std::uint32_t> dirtyBlock();
    // At most two areas at a time, of at most state().mapBytes bytes, once the backup is started.
    TransferArea map(std::size_t bytes);
    // Reads `count` blocks from `first` on into the area. QUENDREL_READ_ERROR: some could not be read and are zeros.
    void readBlocks(std::uint32_t first, std::uint32_t count, const TransferArea& area);
    Version version();
    // After a fork: this process gives the commands from now on; the other one may take over again. The file is closed
    // when the last of them has closed it, or has ended. Over a socket only where the daemon offers it.
    void takeOver();
    // How many files of the control device have been closed, or nothing when that is not told. The close of any file,
    // an idle one too, detaches the backup that runs on another: what is written from then on is not saved, and nothing
    // else shows it.
    std::optional<std::uint64_t> closes() const { return transport_->closes(); }
    // Flushes the device named in start().
    void sync();
    // Ends all tracking, of every device.
    void shutdown();

  private:
    int issue(std::uint32_t number, std::uint32_t argument) { return transport_->command(number, argument); }
    void check(int result, const char* command) const;
    template <typename Record> Record* record(std::size_t offset = 0) noexcept;
    std::uint32_t word(const char* command, std::uint32_t number);

    std::shared_ptr<Transport> transport_;
    std::string path_;
    std::string device_; // of start(), for messages
    LowMemory records_;  // one page: the record of the command at 0, what it points to at 64
};

} // namespace quendrel
