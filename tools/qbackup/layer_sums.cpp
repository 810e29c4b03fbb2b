// SPDX-License-Identifier: GPL-2.0-only
#include "layer_sums.h"

#include "failure.h"
#include "manifest.h"

#include <fcntl.h>

#include <algorithm>
#include <cstring>
#include <new>

namespace qbackup
{
namespace
{

constexpr std::size_t record_bytes = 32;
constexpr std::size_t buffer_bytes = record_bytes * 4096;
enum Kind : std::uint64_t { data = 1, zeros = 2 };

void putNumber(std::vector<std::byte>& to, std::uint64_t number, unsigned bytes)
{
    for (unsigned i = 0; i < bytes; ++i)
        to.push_back(static_cast<std::byte>(number >> (8 * i)));
}

std::uint64_t getNumber(std::span<const std::byte> from)
{
    std::uint64_t number = 0;
    for (std::size_t i = from.size(); i-- > 0;)
        number = number << 8 | std::to_integer<std::uint64_t>(from[i]);
    return number;
}

std::string text(XXH128_hash_t hash)
{
    XXH128_canonical_t canonical;
    XXH128_canonicalFromHash(&canonical, hash);
    return toHex(canonical.digest);
}

} // namespace

SumsWriter::SumsWriter(const fs::path& path) : file_{path, O_WRONLY | O_CREAT | O_EXCL}, state_{XXH3_createState()}
{
    if (!state_)
        throw std::bad_alloc{};
    XXH3_128bits_reset(state_.get());
    waiting_.reserve(buffer_bytes);
}

void SumsWriter::add(const LayerPiece& piece)
{
    putNumber(waiting_, piece.offset, 8);
    putNumber(waiting_, piece.bytes, 4);
    putNumber(waiting_, piece.zeros ? Kind::zeros : Kind::data, 4);
    XXH128_canonical_t canonical{};
    if (!piece.zeros)
        XXH128_canonicalFromHash(&canonical, piece.hash);
    for (const unsigned char byte : canonical.digest)
        waiting_.push_back(std::byte{byte});
    if (waiting_.size() >= buffer_bytes)
        put();
}

void SumsWriter::put()
{
    XXH3_128bits_update(state_.get(), waiting_.data(), waiting_.size());
    file_.writeAt(written_, waiting_);
    written_ += waiting_.size();
    waiting_.clear();
}

std::string SumsWriter::finish()
{
    put();
    file_.sync();
    file_.close();
    return text(XXH3_128bits_digest(state_.get()));
}

void addPieces(SumsWriter& sums, std::uint64_t offset, std::span<const std::byte> data)
{
    while (!data.empty()) {
        const auto part = data.first(std::min<std::size_t>(data.size(), cell_bytes - offset % cell_bytes));
        sums.add({offset, static_cast<std::uint32_t>(part.size()), false, XXH3_128bits(part.data(), part.size())});
        offset += part.size();
        data = data.subspan(part.size());
    }
}

SumsReader::SumsReader(const fs::path& path, const std::string& hash)
    : file_{path, O_RDONLY}, size_{file_.size()}, buffer_(buffer_bytes)
{
    const std::unique_ptr<XXH3_state_t, FreeHashState> state{XXH3_createState()};
    if (!state)
        throw std::bad_alloc{};
    XXH3_128bits_reset(state.get());
    for (std::uint64_t at = 0; at < size_;) {
        const auto piece = std::span{buffer_}.first(static_cast<std::size_t>(std::min<std::uint64_t>(buffer_.size(), size_ - at)));
        file_.readAt(at, piece);
        XXH3_128bits_update(state.get(), piece.data(), piece.size());
        at += piece.size();
    }
    if (text(XXH3_128bits_digest(state.get())) != hash || size_ % record_bytes != 0)
        throw Failure{Exit::damaged, path.string() + " is damaged: it does not match the hash in the manifest"};
}

std::optional<LayerPiece> SumsReader::next()
{
    if (left_.empty()) {
        const auto piece = std::span{buffer_}.first(static_cast<std::size_t>(std::min<std::uint64_t>(buffer_.size(), size_ - at_)));
        if (piece.empty())
            return std::nullopt;
        file_.readAt(at_, piece);
        at_ += piece.size();
        left_ = piece;
    }
    const auto record = left_.first(record_bytes);
    left_ = left_.subspan(record_bytes);
    LayerPiece piece;
    piece.offset = getNumber(record.first(8));
    piece.bytes = static_cast<std::uint32_t>(getNumber(record.subspan(8, 4)));
    const std::uint64_t kind = getNumber(record.subspan(12, 4));
    piece.zeros = kind == Kind::zeros;
    XXH128_canonical_t canonical;
    std::memcpy(canonical.digest, record.data() + 16, sizeof canonical.digest);
    piece.hash = XXH128_hashFromCanonical(&canonical);
    if (piece.bytes == 0 || piece.offset < covered_ || piece.offset + piece.bytes < piece.offset ||
        (kind != Kind::zeros && (kind != Kind::data || piece.offset % cell_bytes + piece.bytes > cell_bytes)))
        throw Failure{Exit::damaged, file_.path().string() + " has a record that cannot be"};
    covered_ = piece.offset + piece.bytes;
    return piece;
}

} // namespace qbackup
