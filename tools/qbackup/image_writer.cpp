// SPDX-License-Identifier: GPL-2.0-only
#include "image_writer.h"

#include "data_file.h"
#include "failure.h"

#include <fcntl.h>

#include <algorithm>

namespace qbackup
{
namespace
{

constexpr std::uint32_t most_zeros = 1u << 30; // in one piece

} // namespace

ImageWriter::ImageWriter(const fs::path& image, const fs::path& sums, ZerosAre zeros)
    : path_{image}, image_{image, OpenImage::For::writing}, zeros_are_{zeros}
{
    if (!sums.empty())
        sums_.emplace(sums);
    for (Slot& slot : slots_)
        slot.data.resize(image_piece_bytes);
}

void ImageWriter::put(std::uint64_t offset, std::span<const std::byte> bytes)
{
    while (!bytes.empty()) {
        // To the next border of what an image keeps apart.
        const auto part = bytes.first(std::min<std::size_t>(bytes.size(), image_granule_bytes - offset % image_granule_bytes));
        if (allZero(part))
            putZeros(offset, part.size());
        else
            addData(offset, part);
        offset += part.size();
        bytes = bytes.subspan(part.size());
    }
}

void ImageWriter::putZeros(std::uint64_t offset, std::uint64_t bytes)
{
    endData();
    received_ += bytes;
    while (bytes != 0) {
        if (zeros_.bytes != 0 && (zeros_.offset + zeros_.bytes != offset || zeros_.bytes == most_zeros))
            endZeros();
        if (zeros_.bytes == 0)
            zeros_.offset = offset;
        const auto part = static_cast<std::uint32_t>(std::min<std::uint64_t>(bytes, most_zeros - zeros_.bytes));
        zeros_.bytes += part;
        offset += part;
        bytes -= part;
    }
}

std::string ImageWriter::finish()
{
    endData();
    endZeros();
    for (Slot& slot : slots_)
        settle(slot);
    image_.flush();
    image_.finish();
    // Its length, too.
    File{path_, O_RDONLY}.sync();
    return sums_ ? sums_->finish() : "";
}

void ImageWriter::settle(Slot& slot)
{
    if (slot.request != 0)
        image_.wait(slot.request);
    slot.request = 0;
}

void ImageWriter::nextSlot()
{
    slot_ = (slot_ + 1) % slots_.size();
    settle(current());
}

void ImageWriter::addData(std::uint64_t offset, std::span<const std::byte> part)
{
    endZeros();
    if (data_size_ != 0 && (data_at_ + data_size_ != offset || offset % image_piece_bytes == 0))
        endData();
    if (data_size_ == 0)
        data_at_ = offset;
    std::copy(part.begin(), part.end(), current().data.begin() + data_size_);
    data_size_ += static_cast<std::uint32_t>(part.size());
    received_ += part.size();
}

void ImageWriter::endData()
{
    if (data_size_ == 0)
        return;
    const std::span<const std::byte> bytes{current().data.data(), data_size_};
    if (sums_)
        addPieces(*sums_, data_at_, bytes);
    current().request = image_.write(data_at_, bytes);
    data_bytes_ += bytes.size();
    data_size_ = 0;
    nextSlot();
}

void ImageWriter::endZeros()
{
    if (zeros_.bytes == 0)
        return;
    zeros_.zeros = true;
    if (sums_)
        sums_->add(zeros_);
    if (zeros_are_ == ZerosAre::written) {
        current().request = image_.zero(zeros_.offset, zeros_.bytes);
        nextSlot();
    }
    zeros_ = {};
}

} // namespace qbackup
