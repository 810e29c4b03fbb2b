/* SPDX-License-Identifier: GPL-2.0-only */
// What was written to a device between one snapshot and the next, for as long as its tracking holds.
//
// A snapshot makes the driver give up its map and take a new key, so a run that dies behind it, or one to another target,
// would cost every other target its increment. What each snapshot hands out is kept here, before anything is done with it:
// links from one key to the next, without a gap. A backup that was taken at an older key gets the union of what follows.
//
// Nothing here is believed without the driver: the newest key has to be the driver's, or the ledger is begun anew. It need
// not outlive the machine's start, or the daemon's, as tracking does not either; so it lies where the run's lock does.
// One run at a time uses it, by that lock. Old links are united: there are never more than `most_links`, and of more than
// two never more than `most_bytes` of memory, as /run is.
#pragma once

#include "client/bitmap.h"
#include "client/control_device.h"
#include "files.h"

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace qbackup
{

class Ledger
{
  public:
    static constexpr std::size_t most_links = 32;
    static constexpr std::size_t most_keys = 4096; // by which something can be asked for

    // Of the device that is as `identity` says, which has so many blocks of that size: `directory` is for that device
    // alone. What is there of another identity or size, or damaged, is as nothing. Writes nothing.
    Ledger(fs::path directory, std::string identity, std::uint32_t block_size, std::uint32_t blocks,
           std::uint64_t most_bytes = 64 << 20);

    // The key of the newest snapshot; nothing when no snapshot is known.
    std::optional<quendrel::SessionKey> newest() const;
    // How much the host had counted right before that snapshot; nothing when that is not known.
    const std::optional<std::string>& written() const noexcept { return written_; }
    // A snapshot was taken of which nothing is known but its key. Throws Failure.
    void begin(const quendrel::SessionKey& key, std::optional<std::string> written = {});
    // A snapshot was taken with the newest key, and `changed` were written since that one. Throws Failure.
    void add(const quendrel::SessionKey& key, const quendrel::Bitmap& changed, std::optional<std::string> written = {});
    // What was written from the snapshot with that key to the newest; nothing when that is not known.
    std::optional<quendrel::Bitmap> since(const quendrel::SessionKey& key) const;

    // ---- to be looked at
    // Whatever device is in `directory`; nothing when there is none. Throws Failure (denied).
    static std::optional<Ledger> at(const fs::path& directory);
    const std::string& identity() const noexcept { return identity_; }
    std::uint32_t blockSize() const noexcept { return block_size_; }
    std::uint32_t blocks() const noexcept { return blocks_; }
    // When the newest snapshot was written down, UTC; empty: not known.
    const std::string& time() const noexcept { return time_; }
    struct Entry {
        quendrel::SessionKey from; // the oldest of those that were united
        quendrel::SessionKey to;
        std::size_t snapshots = 1; // that were united
        std::string time;          // when the last of them was written down, UTC; empty: not known
        std::optional<std::uint32_t> changed; // blocks; nothing when the map cannot be read
        std::uint64_t bytes = 0;   // on the disk
    };
    std::vector<Entry> entries() const; // the oldest first

  private:
    struct Link {
        std::vector<quendrel::SessionKey> from; // of several that were united: of all of them
        std::string map;                        // name of the file
        std::string hash;                       // of its contents
        std::string time{};                     // when it was written down, UTC; empty: not known
    };

    void load();
    void save();
    std::optional<quendrel::Bitmap> read(const Link& link) const;
    Link write(std::vector<quendrel::SessionKey> from, const quendrel::Bitmap& map);
    void uniteOldest();
    void makeDirectory() const;
    std::uint64_t allocated(const Link& link) const; // bytes
    std::uint64_t allocated() const;                 // by all maps

    fs::path directory_;
    std::string identity_;
    std::uint32_t block_size_;
    std::uint32_t blocks_;
    std::uint64_t most_bytes_;
    std::vector<Link> links_; // the oldest first
    std::optional<quendrel::SessionKey> newest_;
    std::optional<std::string> written_;
    std::string time_; // of newest_
    std::uint64_t next_map_ = 1;
};

} // namespace qbackup
