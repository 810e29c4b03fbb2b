// SPDX-License-Identifier: GPL-2.0-only
#include "data_file.h"

#include "failure.h"

#include <fcntl.h>

#include <algorithm>
#include <cstring>
#include <new>

namespace qbackup
{
namespace
{

constexpr std::size_t sum_bytes = sizeof(XXH128_canonical_t);
// Shorter runs of zeros are written: a hole saves nothing there and splits one write in two.
constexpr std::size_t shortest_hole = 64u << 10;
// The disk is started on what was written every so often, so that the fsync at the end has little left to wait for.
constexpr std::uint64_t flush_every = 64ULL << 20;

void appendSum(std::vector<std::byte>& sums, XXH128_hash_t hash)
{
    XXH128_canonical_t text;
    XXH128_canonicalFromHash(&text, hash);
    const auto* bytes = reinterpret_cast<const std::byte*>(text.digest);
    sums.insert(sums.end(), bytes, bytes + sum_bytes);
}

} // namespace

bool allZero(std::span<const std::byte> bytes) noexcept
{
    // The first byte is zero and every byte equals the one before it.
    return bytes.empty() ||
           (bytes[0] == std::byte{0} && std::memcmp(bytes.data(), bytes.data() + 1, bytes.size() - 1) == 0);
}

DataWriter::DataWriter(const fs::path& path) : file_{path, O_WRONLY | O_CREAT | O_EXCL}, state_{XXH3_createState()}
{
    if (!state_)
        throw std::bad_alloc{};
    XXH3_128bits_reset(state_.get());
}

void DataWriter::append(std::span<const std::byte> bytes, std::uint32_t block_size)
{
    hash(bytes);
    write(bytes, block_size);
}

void DataWriter::hash(std::span<const std::byte> bytes)
{
    while (!bytes.empty()) {
        const std::size_t part = std::min<std::size_t>(bytes.size(), segment_bytes - in_segment_);
        XXH3_128bits_update(state_.get(), bytes.data(), part);
        bytes = bytes.subspan(part);
        in_segment_ += static_cast<std::uint32_t>(part);
        if (in_segment_ == segment_bytes)
            endSegment();
    }
}

void DataWriter::endSegment()
{
    appendSum(sums_, XXH3_128bits_digest(state_.get()));
    XXH3_128bits_reset(state_.get());
    in_segment_ = 0;
}

void DataWriter::write(std::span<const std::byte> bytes, std::uint32_t block_size)
{
    std::size_t from = 0; // of the piece to write
    std::size_t at = 0;
    while (at < bytes.size()) {
        std::size_t zeros = at;
        while (zeros < bytes.size() &&
               allZero(bytes.subspan(zeros, std::min<std::size_t>(block_size, bytes.size() - zeros))))
            zeros = std::min<std::size_t>(zeros + block_size, bytes.size());
        if (zeros - at >= shortest_hole) {
            if (at > from)
                file_.writeAt(written_ + from, bytes.subspan(from, at - from));
            from = zeros;
        }
        at = std::min<std::size_t>(zeros + block_size, bytes.size());
    }
    if (from < bytes.size())
        file_.writeAt(written_ + from, bytes.subspan(from));
    written_ += bytes.size();
    if (written_ - flushed_ >= flush_every) {
        ::sync_file_range(file_.fd(), static_cast<off64_t>(flushed_), static_cast<off64_t>(written_ - flushed_),
                          SYNC_FILE_RANGE_WRITE);
        flushed_ = written_;
    }
}

std::vector<std::byte> DataWriter::finish()
{
    if (in_segment_ != 0)
        endSegment();
    file_.truncate(written_);
    file_.sync();
    file_.close();
    return std::move(sums_);
}

DataReader::DataReader(const fs::path& path, std::vector<std::byte> sums, std::uint64_t data_bytes,
                       std::uint32_t segment)
    : file_{path, O_RDONLY}, sums_{std::move(sums)}, buffer_(segment), bytes_{data_bytes}
{
    ::posix_fadvise(file_.fd(), 0, 0, POSIX_FADV_SEQUENTIAL);
    if (segment == 0 || sums_.size() != (bytes_ + segment - 1) / segment * sum_bytes)
        throw Failure{Exit::damaged, (path.parent_path() / "sums").string() + " does not have one hash a segment"};
    if (file_.size() != bytes_)
        throw Failure{Exit::damaged, path.string() + " has " + std::to_string(file_.size()) + " bytes, but " +
                                         std::to_string(bytes_) + " were written"};
}

std::span<const std::byte> DataReader::next()
{
    const std::size_t part = std::min<std::uint64_t>(buffer_.size(), bytes_ - at_);
    if (part == 0)
        return {};
    const std::span<std::byte> piece{buffer_.data(), part};
    file_.readAt(at_, piece);
    std::vector<std::byte> sum;
    appendSum(sum, XXH3_128bits(piece.data(), piece.size()));
    if (std::memcmp(sum.data(), sums_.data() + at_ / buffer_.size() * sum_bytes, sum_bytes) != 0)
        throw Failure{Exit::damaged, file_.path().string() + " is damaged between byte " + std::to_string(at_) +
                                         " and byte " + std::to_string(at_ + part)};
    at_ += part;
    return piece;
}

} // namespace qbackup
