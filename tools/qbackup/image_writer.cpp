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

// To hold a whole batch for less is not worth it.
constexpr std::size_t least_direct_bytes = cell_bytes;
constexpr std::uint32_t most_zeros = 1u << 30; // in one piece

// What is compressed together is told together.
static_assert(image_cluster_bytes == cell_bytes);
constexpr std::array<std::byte, image_cluster_bytes> no_data{};

// Bytes from there to the next border of `unit`.
std::size_t leftIn(std::uint64_t unit, std::uint64_t offset) { return unit - offset % unit; }

// How far it goes on before a granule of zeros. A part of one is data: what comes beside it may be, and the image keeps
// nothing apart that is smaller.
std::size_t leadingData(std::uint64_t offset, std::span<const std::byte> bytes, std::uint32_t granule)
{
    std::size_t at = 0;
    while (at < bytes.size()) {
        const std::size_t part = std::min(bytes.size() - at, leftIn(granule, offset + at));
        if (part == granule && allZero(bytes.subspan(at, part)))
            break;
        at += part;
    }
    return at;
}

} // namespace

ImageWriter::ImageWriter(const fs::path& image, const fs::path& sums, ZerosAre zeros)
    : path_{image}, image_{image, OpenImage::For::writing}, zeros_are_{zeros}
{
    if (!sums.empty())
        sums_.emplace(sums);
}

ImageWriter::ImageWriter(const fs::path& image, const fs::path& sums, std::uint64_t device_bytes)
    : path_{image}, image_{image, OpenImage::For::compressing}, sums_{std::in_place, sums}, zeros_are_{ZerosAre::there},
      compressed_{device_bytes}, granule_{image_cluster_bytes}
{
}

void ImageWriter::put(std::uint64_t offset, std::span<const std::byte> bytes, const Hold& hold)
{
    while (!bytes.empty()) {
        const auto piece = bytes.first(std::min<std::size_t>(bytes.size(), image_piece_bytes - offset % image_piece_bytes));
        std::size_t done = leadingData(offset, piece, granule_);
        // What comes next may belong to the same cell as its end: then that is gathered.
        const std::size_t whole = done - (done == bytes.size() ? std::min<std::size_t>(done, (offset + done) % cell_bytes) : 0);
        if (done == 0) {
            done = granule_;
            putZeros(offset, done);
        } else if (hold && data_size_ == 0 && whole >= least_direct_bytes) {
            done = whole;
            sendHeld(offset, piece.first(done), hold);
        } else {
            addData(offset, piece.first(done));
        }
        offset += done;
        bytes = bytes.subspan(done);
    }
}

void ImageWriter::putZeros(std::uint64_t offset, std::uint64_t bytes)
{
    if (!compressed_) {
        addZeros(offset, bytes);
        return;
    }
    // The rest of a cluster that has begun with data, and the start of one that may yet have some.
    const std::uint64_t end = offset + bytes;
    const std::uint64_t first = std::min(end, offset + leftIn(image_cluster_bytes, offset) % image_cluster_bytes);
    const std::uint64_t last = std::max(first, end - end % image_cluster_bytes);
    const auto asData = [&](std::uint64_t from, std::uint64_t to) {
        if (from < to)
            addData(from, std::span{no_data}.first(to - from));
    };
    asData(offset, first);
    if (first < last)
        addZeros(first, last - first);
    asData(last, end);
}

void ImageWriter::addZeros(std::uint64_t offset, std::uint64_t bytes)
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
    if (compressed_)
        endCompressed(path_, *compressed_);
    // Its length, too.
    File{path_, O_RDONLY}.sync();
    return sums_ ? sums_->finish() : "";
}

void ImageWriter::settle(Slot& slot)
{
    if (slot.request != 0)
        image_.wait(slot.request);
    slot.request = 0;
    slot.hold.reset();
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
    if (data_size_ == 0) {
        data_at_ = offset;
        current().data.resize(image_piece_bytes);
    }
    std::copy(part.begin(), part.end(), current().data.begin() + data_size_);
    data_size_ += static_cast<std::uint32_t>(part.size());
    received_ += part.size();
}

void ImageWriter::endData()
{
    if (data_size_ == 0)
        return;
    // The device's last cluster need not be whole.
    const std::size_t padding = compressed_ ? leftIn(image_cluster_bytes, data_at_ + data_size_) % image_cluster_bytes : 0;
    std::fill_n(current().data.begin() + data_size_, padding, std::byte{0});
    send(data_at_, {current().data.data(), data_size_ + padding}, padding);
    data_size_ = 0;
}

// `padding`: so many of the bytes, at their end, are not the device's.
void ImageWriter::send(std::uint64_t offset, std::span<const std::byte> data, std::size_t padding)
{
    if (compressed_ && offset % image_cluster_bytes != 0)
        throw Failure{Exit::failed, "internal error: part of a cluster would be compressed, at byte " + std::to_string(offset)};
    const auto told = data.first(data.size() - padding);
    if (sums_)
        addPieces(*sums_, offset, told);
    current().request = image_.write(offset, data);
    data_bytes_ += told.size();
    nextSlot();
}

void ImageWriter::sendHeld(std::uint64_t offset, std::span<const std::byte> data, const Hold& hold)
{
    endZeros();
    received_ += data.size();
    current().hold = hold;
    send(offset, data);
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
