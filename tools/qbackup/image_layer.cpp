// SPDX-License-Identifier: GPL-2.0-only
#include "image_layer.h"

#include "failure.h"

#include <algorithm>

namespace qbackup
{
namespace
{

std::uint64_t roundedUp(std::uint64_t bytes)
{
    return (bytes + image_granule_bytes - 1) / image_granule_bytes * image_granule_bytes;
}

Failure damage(const fs::path& path, const LayerPiece& piece)
{
    return Failure{Exit::damaged, path.string() + " is damaged between byte " + std::to_string(piece.offset) + " and byte " +
                                      std::to_string(piece.offset + piece.bytes) + " of the disk"};
}

} // namespace

ImageLayer::ImageLayer(const fs::path& image, const fs::path& sums, const std::string& sums_hash, std::uint64_t bytes, std::size_t ahead)
    : path_{image}, bytes_{bytes}, most_ahead_{ahead}, sums_{sums, sums_hash}, image_{image, OpenImage::For::reading}, layout_{image_.layout()}
{
    // A device need not end with a sector.
    if (image_.size() != (bytes + 511) / 512 * 512)
        throw Failure{Exit::damaged, image.string() + " is damaged: it is of a disk of " + std::to_string(image_.size()) + " bytes, and not of " +
                                         std::to_string(bytes)};
    expectNothingElse(SumsReader{sums, sums_hash});
}

std::optional<LayerReader::Piece> ImageLayer::next()
{
    if (handed_out_)
        ahead_.pop_front();
    handed_out_ = false;
    fill();
    if (ahead_.empty())
        return std::nullopt;
    const Request& first = ahead_.front();
    handed_out_ = true;
    if (!first.piece.zeros) {
        image_.wait(first.request);
        if (!XXH128_isEqual(XXH3_128bits(first.data.data(), first.data.size()), first.piece.hash))
            throw damage(path_, first.piece);
    }
    return Piece{first.piece.offset, first.piece.bytes, first.data};
}

void ImageLayer::fill()
{
    while (ahead_.size() < most_ahead_) {
        const std::optional<LayerPiece> piece = sums_.next();
        if (!piece)
            return;
        if (piece->offset + piece->bytes > bytes_ || (piece->zeros && !holdsZeros(piece->offset, piece->bytes)))
            throw damage(path_, *piece);
        ahead_.push_back({*piece, std::vector<std::byte>(piece->zeros ? 0 : piece->bytes), 0});
        if (!piece->zeros)
            ahead_.back().request = image_.read(piece->offset, ahead_.back().data);
    }
}

// By what QEMU says of it; asked about in ascending order.
bool ImageLayer::isZero(std::uint64_t offset, std::uint64_t bytes)
{
    const auto& zeros = layout_.zeros;
    while (next_zeros_ < zeros.size() && zeros[next_zeros_].offset + zeros[next_zeros_].bytes <= offset)
        ++next_zeros_;
    return next_zeros_ < zeros.size() && zeros[next_zeros_].offset <= offset &&
           zeros[next_zeros_].offset + zeros[next_zeros_].bytes >= offset + bytes;
}

// Where zeros begin or end in the midst of a granule that has data, too, QEMU says nothing of them: they are read. No image is
// written so any more.
bool ImageLayer::holdsZeros(std::uint64_t offset, std::uint64_t bytes)
{
    const std::uint64_t end = offset + bytes;
    const std::uint64_t first = std::min(roundedUp(offset), end);
    const std::uint64_t last = std::max(first, end - end % image_granule_bytes);
    const auto isZeroOrReadsSo = [&](std::uint64_t from, std::uint64_t to) {
        if (from == to || isZero(from, to - from))
            return true;
        std::vector<std::byte> data(to - from);
        image_.wait(image_.read(from, data));
        return allZero(data);
    };
    return isZeroOrReadsSo(offset, first) && (first == last || isZero(first, last - first)) && isZeroOrReadsSo(last, end);
}

// What the image has but the sums do not would be in whatever is read through it.
void ImageLayer::expectNothingElse(SumsReader sums)
{
    std::optional<LayerPiece> piece = sums.next();
    for (const OpenImage::Part& part : layout_.own) {
        std::uint64_t at = part.offset;
        const std::uint64_t end = part.offset + part.bytes;
        while (at < end) {
            while (piece && roundedUp(piece->offset + piece->bytes) <= at)
                piece = sums.next();
            if (!piece || piece->offset > at)
                throw Failure{Exit::damaged, path_.string() + " is damaged: it has data at byte " + std::to_string(at) +
                                                 " of the disk, where nothing was stored"};
            at = roundedUp(piece->offset + piece->bytes);
        }
    }
}

LayerReader::Piece cut(const LayerReader::Piece& piece, std::uint64_t from, std::uint64_t bytes)
{
    return {piece.offset + from, bytes, piece.data.empty() ? piece.data : piece.data.subspan(from, bytes)};
}

} // namespace qbackup
