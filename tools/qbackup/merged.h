/* SPDX-License-Identifier: GPL-2.0-only */
// Lists of pieces of a device as one: of each byte the newest piece that has it.
//
// A piece has `offset` and `bytes`; the sources give them in ascending order, none over another one of the same source.
#pragma once

#include <algorithm>
#include <cstdint>
#include <optional>
#include <utility>
#include <vector>

namespace qbackup
{

// `Source`: next() gives a std::optional<Piece>. cut(piece, from, bytes) gives a part of a piece, `from` bytes into it.
template <typename Source, typename Piece> class Merged
{
  public:
    // The newest first.
    explicit Merged(std::vector<Source> sources)
    {
        for (Source& source : sources)
            layers_.push_back({std::move(source), std::nullopt});
    }

    std::optional<Piece> next()
    {
        // What the piece before has covered; only now, as what it points to had to stay.
        for (Layer& layer : layers_) {
            if (!begun_)
                layer.piece = layer.source->next();
            while (layer.piece && layer.piece->offset < done_) {
                const std::uint64_t covered = std::min<std::uint64_t>(layer.piece->bytes, done_ - layer.piece->offset);
                layer.piece = covered == layer.piece->bytes ? layer.source->next() : cut(*layer.piece, covered, layer.piece->bytes - covered);
            }
        }
        begun_ = true;
        const Layer* first = nullptr;
        for (const Layer& layer : layers_)
            if (layer.piece && (first == nullptr || layer.piece->offset < first->piece->offset))
                first = &layer;
        if (first == nullptr)
            return std::nullopt;
        // The newest of those that begin there stands first. Up to where a newer one begins.
        std::uint64_t bytes = first->piece->bytes;
        for (const Layer& layer : layers_) {
            if (&layer == first)
                break;
            if (layer.piece)
                bytes = std::min<std::uint64_t>(bytes, layer.piece->offset - first->piece->offset);
        }
        Piece piece = bytes == first->piece->bytes ? *first->piece : cut(*first->piece, 0, bytes);
        done_ = piece.offset + piece.bytes;
        return piece;
    }

  private:
    struct Layer {
        Source source;
        std::optional<Piece> piece; // what is left of it
    };
    std::vector<Layer> layers_;
    std::uint64_t done_ = 0; // the device up to there
    bool begun_ = false;
};

} // namespace qbackup
