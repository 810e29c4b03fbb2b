/* SPDX-License-Identifier: GPL-2.0-only */
// A backup as it is stored, whatever the format: what it is, how it comes into being, and how its data is read.
//
// A backup is a layer: the blocks that it holds lie over those of the one that it builds on. It is complete or it is not
// there, and what is complete is not changed by later ones.
#pragma once

#include "client/bitmap.h"
#include "failure.h"
#include "files.h"
#include "manifest.h"

#include <cstddef>
#include <cstdint>
#include <functional>
#include <optional>
#include <span>
#include <string>

namespace qbackup
{

// What a name begins with that is being made, or that a dead run left.
inline constexpr const char* partial_prefix = ".partial-";
// "000001-STAMP": what every backup's id begins with.
std::string numbered(std::uint32_t sequence, const std::string& stamp);

struct StoredBackup {
    fs::path path; // its directory, or its image
    Manifest manifest;
    std::string mark; // by which one that builds on it names it
};

struct DamagedBackup {
    fs::path path;
    std::string problem;
    Exit exit = Exit::damaged; // or another one when it could not be read
    bool newerFormat = false;  // than this program knows
};

// As long as somebody has a copy of it, what came with it stays as it is. Null: that is gone when the call returns.
using Hold = std::shared_ptr<const void>;

// Where the copied blocks of a backup go.
class BlockSink
{
  public:
    virtual ~BlockSink() = default;
    // Whole blocks, `first` being the number of the first one; each call's lie behind those of the call before. Throws
    // Failure.
    virtual void put(std::uint32_t first, std::span<const std::byte> blocks, const Hold& hold) = 0;
    // How many different holds it keeps at most when it waits for more blocks.
    virtual std::size_t mostHeld() const noexcept { return 0; }
};

// A backup in the making. Destroyed without commit() it leaves nothing behind.
class PendingBackup : public BlockSink
{
  public:
    // Called between the steps of commit() with the step's name; for tests that end the process there.
    using Watcher = std::function<void(const char* step)>;

    // Before the first put(): `manifest` says what the backup builds on and of what size all is. Throws Failure.
    virtual void start(const Manifest& manifest, const std::optional<StoredBackup>& parent) = 0;
    // Completes the manifest (id and sequence, sizes, hashes) and puts the backup in place. `map` has to hold exactly
    // the blocks that were put. Throws Failure.
    virtual StoredBackup commit(Manifest manifest, const quendrel::Bitmap& map, const Watcher& watcher) = 0;
};

// Reads what a backup holds itself, from its start to its end, and checks it.
class LayerReader
{
  public:
    struct Piece {
        std::uint64_t offset = 0; // of the device, in bytes
        std::uint64_t bytes = 0;
        std::span<const std::byte> data; // valid until the next call; empty: zeros
    };
    virtual ~LayerReader() = default;
    // Pieces in ascending order; nothing at the end. Throws Failure (damaged) before it would hand out what is not what was
    // stored.
    virtual std::optional<Piece> next() = 0;
};

} // namespace qbackup
