/* SPDX-License-Identifier: GPL-2.0-only */
// Reads what an image holds itself, each piece checked by its hash; and what several of them hold together.
#pragma once

#include "layer_sums.h"
#include "merged.h"
#include "qemu_image.h"
#include "stored_backup.h"

#include <deque>
#include <memory>
#include <optional>
#include <vector>

namespace qbackup
{

// Reads ahead: the requests for the next pieces are on their way while one is looked at.
class ImageLayer : public LayerReader
{
  public:
    // `bytes`: of the device. Throws Failure (damaged), also when the image holds what the sums do not name.
    // `ahead`: pieces that are asked for at once.
    ImageLayer(const fs::path& image, const fs::path& sums, const std::string& sums_hash, std::uint64_t bytes, std::size_t ahead = 64);
    std::optional<Piece> next() override;

  private:
    struct Request {
        LayerPiece piece;
        std::vector<std::byte> data;
        std::int64_t request;
    };

    void fill();
    bool isZero(std::uint64_t offset, std::uint64_t bytes);
    bool holdsZeros(std::uint64_t offset, std::uint64_t bytes);
    void expectNothingElse(SumsReader sums);

    fs::path path_;
    std::uint64_t bytes_;
    std::size_t most_ahead_;
    SumsReader sums_;
    std::deque<Request> ahead_; // a deque: the data stays where it is
    bool handed_out_ = false;   // the first one
    OpenImage image_;           // behind what it reads into: ends before that goes
    OpenImage::Layout layout_;
    std::size_t next_zeros_ = 0; // where in the layout's zeros
};

// Layers as one: of each block the newest that one of them has.
using MergedLayers = Merged<std::unique_ptr<LayerReader>, LayerReader::Piece>;
LayerReader::Piece cut(const LayerReader::Piece& piece, std::uint64_t from, std::uint64_t bytes);

} // namespace qbackup
