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
        if (piece->offset + piece->bytes > bytes_ || (piece->zeros && !isZero(piece->offset, piece->bytes)))
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

MergedLayers::MergedLayers(std::vector<std::unique_ptr<LayerReader>> layers)
{
    for (auto& layer : layers) {
        auto piece = layer->next();
        layers_.push_back({std::move(layer), piece});
    }
}

std::optional<LayerReader::Piece> MergedLayers::next()
{
    // What the piece before has covered; only now, as its data had to stay.
    for (Layer& layer : layers_)
        while (layer.piece && layer.piece->offset < done_) {
            Piece& piece = *layer.piece;
            const std::uint64_t covered = std::min(piece.bytes, done_ - piece.offset);
            if (covered == piece.bytes) {
                layer.piece = layer.reader->next();
                continue;
            }
            piece = {piece.offset + covered, piece.bytes - covered, piece.data.empty() ? piece.data : piece.data.subspan(covered)};
        }
    const Layer* first = nullptr;
    for (const Layer& layer : layers_)
        if (layer.piece && (first == nullptr || layer.piece->offset < first->piece->offset))
            first = &layer;
    if (first == nullptr)
        return std::nullopt;
    // The newest of those that begin there stands first. Up to where a newer one begins.
    Piece piece = *first->piece;
    for (const Layer& layer : layers_) {
        if (&layer == first)
            break;
        if (layer.piece)
            piece.bytes = std::min(piece.bytes, layer.piece->offset - piece.offset);
    }
    if (!piece.data.empty())
        piece.data = piece.data.first(piece.bytes);
    done_ = piece.offset + piece.bytes;
    return piece;
}

} // namespace qbackup
