/* SPDX-License-Identifier: GPL-2.0-only */
// A driver made of memory, for the tests of its users: one disk, its tracking session, one open file at a time.
//
// It speaks the records and result codes of quendrel.h, reads and writes the caller's memory the way the daemon does
// (process_vm_readv and process_vm_writev, so that a bad address is a result and no crash), keeps the point in time as
// a copy of the whole disk (which it shows, as the driver, of a block that is wanted and was not read yet), and writes down
// what it was asked.
#pragma once

#include "hook.h"

#include "client/control_device.h"

#include <sys/types.h>

#include <atomic>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <set>
#include <span>
#include <string>
#include <utility>
#include <vector>

namespace fake
{

class Driver
{
  public:
    Driver(quendrel::DeviceNumber number, std::uint32_t block_size, std::uint32_t blocks);

    // ---- the machine behind it
    // Fills a block with bytes made from `seed`; tracked.
    void write(std::uint32_t block, unsigned seed);
    void writeZeros(std::uint32_t block);
    // What lies at `offset`, a multiple of the block size; tracked.
    void writeAt(std::uint64_t offset, std::span<const std::byte> data);
    std::vector<std::byte> contents() const;
    std::uint64_t bytes() const { return disk_.size(); }
    // The contents at the last snapshot.
    std::vector<std::byte> frozen() const;

    // ---- what the tests turn
    int open_result = 0;
    std::atomic<bool> mounted{true};
    std::optional<std::uint64_t> closes; // what it tells of closed files
    Hook<void(std::uint32_t number)> before; // called before each command, without the lock
    std::atomic<int> busy_starts{0};         // so many starts are refused, as while another backup is being closed
    std::optional<std::uint32_t> unreadable; // reading this block gives 12
    void loseTracking();                     // as after a failure: out of sync
    void forget();                           // as after loading the driver anew
    void replaceKey();
    void fail(std::uint32_t state); // the running backup's state, if one runs

    // ---- what the tests ask afterwards
    struct Read {
        std::uint32_t first;
        std::uint32_t count;
        bool operator==(const Read&) const = default;
    };
    std::vector<Read> reads() const;
    void saveStray(std::uint32_t block); // as when its save met its read
    std::size_t cached() const; // blocks that were saved and not read yet
    std::size_t mostCached() const; // of all backups
    std::vector<std::string> events() const; // commands by name, "map", "unmap", "close"
    void clearEvents();
    bool isOpen() const;

    // ---- one open file
    int open(pid_t client);
    void close();
    void takeOver(pid_t client); // whose memory counts from now on
    int command(std::uint32_t number, std::uint32_t argument);
    // `pages`: where the blocks of a read into the area at `address` go, 4096 bytes each.
    int map(std::uint32_t address, std::vector<std::byte*> pages);
    void unmap(std::uint32_t address);

  private:
    struct File {
        pid_t client = 0;
        std::uint32_t state = 0;
        bool no_load = false;
        bool no_start = false;
        bool named = false; // StartBackup named the device
        std::optional<std::vector<bool>> map;
        std::vector<std::byte> frozen;
        // Saved, and not read yet. With a loaded map only what it wants is saved, and a block that was read is not wanted.
        std::set<std::uint32_t> cached;
        std::uint32_t most_cached = 0;
        std::map<std::uint32_t, std::vector<std::byte*>> areas;
    };
    struct Tracking {
        bool in_sync = false;
        quendrel::SessionKey key{};
        std::vector<bool> map;
    };

    template <typename T> bool take(std::uint32_t address, T& record) const;
    bool takeBytes(std::uint32_t address, void* to, std::size_t bytes) const;
    bool giveBytes(std::uint32_t address, const void* from, std::size_t bytes) const;
    int run(std::uint32_t number, std::uint32_t argument);
    int getBlockSize(std::uint32_t argument);
    int start(std::uint32_t argument);
    int snapshot(std::uint32_t argument);
    int getState(std::uint32_t argument);
    int getAutoMapState(std::uint32_t argument);
    int loadBlockMap(std::uint32_t argument);
    int getAutoMap(std::uint32_t argument);
    int readBlocks(std::uint32_t argument);
    void newKey();
    void put(std::uint32_t block, const std::vector<std::byte>& data);
    void save(std::uint32_t block);

    mutable std::mutex mutex_; // guards everything below
    quendrel::DeviceNumber number_;
    std::uint32_t block_size_;
    std::uint32_t blocks_;
    std::vector<std::byte> disk_;
    std::vector<std::byte> last_frozen_;
    std::optional<Tracking> tracking_;
    std::optional<File> file_;
    std::vector<Read> reads_;
    std::size_t most_cached_ = 0;
    std::vector<std::string> events_;
    unsigned keys_ = 0;
};

// The driver in the same process.
std::unique_ptr<quendrel::Transport> connect(Driver& driver);

} // namespace fake
