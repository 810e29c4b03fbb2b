/* SPDX-License-Identifier: GPL-2.0-only */
// What a layer holds, piece by piece, with the hash of each: the file that stands beside an image.
//
// Records of 32 bytes in ascending order of offset, numbers least significant byte first: offset (8 bytes), length (4),
// kind (4: 1 data, 2 zeros), hash (16: XXH3-128, most significant byte first; of zeros all 0). A piece of data lies within
// one cell, 128 KiB of the device: so much has to be read to change a part of it. The hash of the whole stands in the
// manifest.
#pragma once

#include "data_file.h"

#include <cstdint>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <vector>

namespace qbackup
{

constexpr std::uint32_t cell_bytes = 128u << 10;

struct LayerPiece {
    std::uint64_t offset = 0;
    std::uint32_t bytes = 0;
    bool zeros = false;
    XXH128_hash_t hash{}; // of data
};

// The part of a piece from byte `from` of it on; its hash is not known.
inline LayerPiece cut(const LayerPiece& piece, std::uint64_t from, std::uint64_t bytes)
{
    return {piece.offset + from, static_cast<std::uint32_t>(bytes), piece.zeros};
}

class SumsWriter
{
  public:
    explicit SumsWriter(const fs::path& path);
    void add(const LayerPiece& piece);
    // Makes the file durable; the hash of all of it.
    std::string finish();

  private:
    void put();

    File file_;
    std::unique_ptr<XXH3_state_t, FreeHashState> state_;
    std::vector<std::byte> waiting_;
    std::uint64_t written_ = 0;
};

// Adds data, cut at the borders of cells.
void addPieces(SumsWriter& sums, std::uint64_t offset, std::span<const std::byte> data);

class SumsReader
{
  public:
    // Reads all of the file once. Throws Failure (damaged) when its hash is not `hash`.
    SumsReader(const fs::path& path, const std::string& hash);
    // In the file's order; nothing at the end. Throws Failure (damaged) for a record that cannot be.
    std::optional<LayerPiece> next();

  private:
    File file_;
    std::uint64_t size_ = 0;
    std::uint64_t at_ = 0;
    std::uint64_t covered_ = 0; // of the device, by the pieces so far
    std::vector<std::byte> buffer_;
    std::span<const std::byte> left_; // of the buffer
};

} // namespace qbackup
