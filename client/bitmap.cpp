// SPDX-License-Identifier: GPL-2.0-only
#include "client/bitmap.h"

#include <algorithm>
#include <bit>
#include <cstring>

namespace quendrel
{
namespace
{

// The eight bytes at byte `at` as a little-endian word. The memory is whole pages, so reading past the last used byte
// stays inside it; those bytes are zero.
std::uint64_t word_at(const std::byte* data, std::size_t at)
{
    std::uint64_t word;
    std::memcpy(&word, data + at, sizeof word);
    return word;
}

static_assert(std::endian::native == std::endian::little);

} // namespace

Bitmap::Bitmap(std::uint32_t blocks, bool all_set) : memory_{byteCount(blocks)}, blocks_{blocks}
{
    if (all_set) {
        std::memset(memory_.data(), 0xff, byteCount(blocks));
        clearSpareBits();
    }
}

void Bitmap::widen(std::uint32_t size) noexcept
{
    for (auto block = nextSet(0); block;) {
        const std::uint64_t begin = *block - *block % size;
        const auto end = static_cast<std::uint32_t>(std::min<std::uint64_t>(blocks_, begin + size));
        for (auto other = static_cast<std::uint32_t>(begin); other < end; ++other)
            set(other);
        if (end == blocks_)
            return;
        block = nextSet(end);
    }
}

void Bitmap::clearSpareBits() noexcept
{
    if (blocks_ % 8 != 0)
        bytes().back() &= static_cast<std::byte>((1u << (blocks_ % 8)) - 1);
}

bool Bitmap::test(std::uint32_t block) const noexcept
{
    return (memory_.data()[block / 8] & static_cast<std::byte>(1u << (block % 8))) != std::byte{0};
}

void Bitmap::set(std::uint32_t block) noexcept
{
    memory_.data()[block / 8] |= static_cast<std::byte>(1u << (block % 8));
}

void Bitmap::clear(std::uint32_t block) noexcept
{
    memory_.data()[block / 8] &= static_cast<std::byte>(~(1u << (block % 8)));
}

std::uint32_t Bitmap::count() const noexcept
{
    std::uint64_t sum = 0;
    for (std::size_t at = 0; at < byteCount(blocks_); at += 8)
        sum += static_cast<std::uint64_t>(std::popcount(word_at(memory_.data(), at)));
    return static_cast<std::uint32_t>(sum);
}

std::optional<std::uint32_t> Bitmap::nextSet(std::uint32_t from) const noexcept
{
    if (from >= blocks_)
        return std::nullopt;
    std::size_t at = from / 64 * 8;
    std::uint64_t word = word_at(memory_.data(), at) & (~0ULL << (from % 64));
    while (word == 0) {
        at += 8;
        if (at >= byteCount(blocks_))
            return std::nullopt;
        word = word_at(memory_.data(), at);
    }
    const std::uint64_t block = at * 8 + static_cast<std::uint64_t>(std::countr_zero(word));
    return block < blocks_ ? std::optional{static_cast<std::uint32_t>(block)} : std::nullopt;
}

std::optional<Bitmap::Run> Bitmap::nextRun(std::uint32_t from, std::uint32_t most) const noexcept
{
    const auto first = nextSet(from);
    if (!first)
        return std::nullopt;
    std::uint32_t count = 1;
    while (count < most && count < blocks_ - *first) {
        const std::uint32_t next = *first + count;
        if (next % 64 == 0 && most - count >= 64 && blocks_ - next >= 64 &&
            word_at(memory_.data(), next / 8) == ~0ULL) {
            count += 64;
            continue;
        }
        if (!test(next))
            break;
        ++count;
    }
    return Run{*first, count};
}

} // namespace quendrel
