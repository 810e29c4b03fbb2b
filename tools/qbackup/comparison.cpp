// SPDX-License-Identifier: GPL-2.0-only
#include "comparison.h"

#include "data_file.h"
#include "failure.h"
#include "layer_sums.h"

#include <algorithm>
#include <utility>

namespace qbackup
{

Comparison::Comparison(const Repository& repository, const StoredBackup& earlier)
    : block_size_{earlier.manifest.blockSize}, images_{repository.images(earlier)}, changed_{earlier.manifest.blocks}
{
    known_.emplace(mergedExtents(repository.chain(earlier)));
    earlier_.emplace(images_.front(), OpenImage::For::reading, std::span{images_}.subspan(1));
    piece_ = nextPiece();
}

Comparison::~Comparison() = default;

void Comparison::put(std::uint32_t first, std::span<const std::byte> blocks, const Hold&)
{
    std::uint64_t at = std::uint64_t{first} * block_size_;
    if (!now_.empty() && at != piece_->offset + now_.size())
        compareStart();
    while (!blocks.empty()) {
        while (piece_ && piece_->offset + piece_->bytes <= at)
            piece_ = nextPiece();
        // A full backup tells of every block; what it does not tell of is new.
        if (!piece_ || piece_->offset > at) {
            const std::size_t part = piece_ ? std::min<std::uint64_t>(blocks.size(), piece_->offset - at) : blocks.size();
            passOn(at, blocks.first(part));
            at += part;
            blocks = blocks.subspan(part);
            continue;
        }
        if (now_.empty() && piece_->offset < at)
            piece_ = Extent{at, piece_->offset + piece_->bytes - at, piece_->zeros, std::nullopt};
        const std::uint64_t rest = piece_->offset + piece_->bytes - at;
        // Zeros may be many, and are compared as they come, but a granule only when all of it has.
        const std::size_t part = std::min<std::uint64_t>({blocks.size(), rest, piece_->zeros ? cell_bytes - at % cell_bytes : rest});
        now_.insert(now_.end(), blocks.begin(), blocks.begin() + static_cast<std::ptrdiff_t>(part));
        at += part;
        blocks = blocks.subspan(part);
        if (part == rest) {
            compare(now_);
            now_.clear();
            piece_ = nextPiece();
        } else if (piece_->zeros && at % image_granule_bytes == 0) {
            compareStart();
        }
    }
}

// The next one that ends with a granule, so that each granule is passed on whole or not at all: an image keeps nothing apart
// that is smaller. Pieces that meet within one, as older images have, are one then.
std::optional<Extent> Comparison::nextPiece()
{
    const auto next = [this] { return rest_ ? std::exchange(rest_, std::nullopt) : known_->next(); };
    std::optional<Extent> piece = next();
    if (!piece)
        return std::nullopt;
    const std::uint64_t beyond = (piece->offset + piece->bytes) % image_granule_bytes;
    if (beyond != 0 && beyond < piece->bytes && piece->zeros) {
        rest_ = Extent{piece->offset + piece->bytes - beyond, beyond, true, std::nullopt};
        piece->bytes -= beyond;
        return piece;
    }
    while (const std::uint64_t over = (piece->offset + piece->bytes) % image_granule_bytes) {
        const std::optional<Extent> more = next();
        if (!more || more->offset != piece->offset + piece->bytes) {
            rest_ = more;
            break;
        }
        const std::uint64_t part = std::min(more->bytes, image_granule_bytes - over);
        if (part < more->bytes)
            rest_ = Extent{more->offset + part, more->bytes - part, more->zeros, std::nullopt};
        *piece = Extent{piece->offset, piece->bytes + part, piece->zeros && more->zeros, std::nullopt};
    }
    return piece;
}

// Of the piece only what has come: the rest of it is not known by the piece's hash.
void Comparison::compareStart()
{
    const Extent whole = *piece_;
    piece_ = Extent{whole.offset, now_.size(), whole.zeros, std::nullopt};
    compare(now_);
    piece_ = Extent{whole.offset + now_.size(), whole.bytes - now_.size(), whole.zeros, std::nullopt};
    now_.clear();
}

const quendrel::Bitmap& Comparison::finish()
{
    if (!now_.empty())
        compareStart();
    return changed_;
}

// `now` is all of piece_.
void Comparison::compare(std::span<const std::byte> now)
{
    if (piece_->zeros ? allZero(now) : piece_->hash && XXH128_isEqual(XXH3_128bits(now.data(), now.size()), *piece_->hash))
        return;
    before_.assign(now.size(), std::byte{0});
    if (!piece_->zeros)
    try {
        earlier_->wait(earlier_->read(piece_->offset, before_));
    } catch (const Failure& failure) {
        throw Failure{static_cast<Exit>(failure.exitCode()), std::string{failure.what()} + ". Nothing can be compared with that; take a full backup (--mode full)"};
    }
    for (std::size_t at = 0; at < now.size();) {
        const std::size_t part = std::min<std::size_t>(now.size() - at, image_granule_bytes - (piece_->offset + at) % image_granule_bytes);
        if (!std::ranges::equal(now.subspan(at, part), std::span{before_}.subspan(at, part)))
            passOn(piece_->offset + at, now.subspan(at, part));
        at += part;
    }
}

void Comparison::passOn(std::uint64_t offset, std::span<const std::byte> blocks)
{
    const auto first = static_cast<std::uint32_t>(offset / block_size_);
    for (std::uint32_t i = 0; i < blocks.size() / block_size_; ++i)
        changed_.set(first + i);
    out_->put(first, blocks, nullptr);
}

} // namespace qbackup
