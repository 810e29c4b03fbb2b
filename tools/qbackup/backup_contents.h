/* SPDX-License-Identifier: GPL-2.0-only */
// What a backup holds itself, as ranges of the device, and what it takes up, found without reading its data.
#pragma once

#include "merged.h"
#include "stored_backup.h"

#include <xxhash.h>

#include <cstdint>
#include <memory>
#include <optional>
#include <span>
#include <vector>

namespace qbackup
{

struct Extent {
    std::uint64_t offset = 0; // of the device, in bytes
    std::uint64_t bytes = 0;
    bool zeros = false;
    std::optional<XXH128_hash_t> hash{}; // of all of it; nothing when none is known
};
Extent cut(const Extent& extent, std::uint64_t from, std::uint64_t bytes);

class Extents
{
  public:
    virtual ~Extents() = default;
    // In ascending order, none over another; some may touch. Nothing at the end. Throws Failure (damaged).
    virtual std::optional<Extent> next() = 0;
};

// Throws Failure (damaged) when what tells of it is not what was stored.
std::unique_ptr<Extents> extentsOf(const StoredBackup& backup);

// Of several as one, the oldest first: of each byte the newest that has it.
using MergedExtents = Merged<std::unique_ptr<Extents>, Extent>;
MergedExtents mergedExtents(std::span<const StoredBackup> backups);

// What its files take on the disk, in bytes.
std::uint64_t allocatedBytes(const StoredBackup& backup);

} // namespace qbackup
