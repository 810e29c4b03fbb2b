/* SPDX-License-Identifier: GPL-2.0-only */
// The NBD protocol's numbers, and big-endian words in byte buffers. Source: the protocol's own document,
// doc/proto.md of NetworkBlockDevice/nbd.
#pragma once

#include <bit>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string_view>
#include <type_traits>

namespace quendreld::nbd
{

// ---- Handshake

constexpr std::uint64_t magic_begin = 0x4e42444d41474943;  // "NBDMAGIC"
constexpr std::uint64_t magic_option = 0x49484156454f5054; // "IHAVEOPT"
constexpr std::uint64_t magic_option_reply = 0x3e889045565a9;

constexpr std::uint16_t handshake_fixed_newstyle = 1;
constexpr std::uint16_t handshake_no_zeroes = 2;

enum class Option : std::uint32_t {
    export_name = 1,
    abort = 2,
    list = 3,
    starttls = 5,
    info = 6,
    go = 7,
    structured_reply = 8,
    list_meta_context = 9,
    set_meta_context = 10,
};

enum class OptionReply : std::uint32_t {
    ack = 1,
    server = 2,
    info = 3,
    meta_context = 4,
    unsupported = 0x80000001,
    policy = 0x80000002,
    invalid = 0x80000003,
    unknown = 0x80000006,
    too_big = 0x80000009,
};

enum class Info : std::uint16_t { export_size = 0, name = 1, block_size = 3 };

enum ExportFlag : std::uint16_t {
    has_flags = 1 << 0,
    read_only = 1 << 1,
    send_flush = 1 << 2,
    send_fua = 1 << 3,
    send_trim = 1 << 5,
    send_write_zeroes = 1 << 6,
    send_df = 1 << 7,
    can_multi_conn = 1 << 8,
    send_cache = 1 << 10,
    send_fast_zero = 1 << 11,
};

constexpr std::string_view allocation_context = "base:allocation";
constexpr std::uint32_t allocation_id = 1;
constexpr std::uint32_t state_hole = 1;
constexpr std::uint32_t state_zero = 2;

// ---- Transmission

constexpr std::uint32_t magic_request = 0x25609513;
constexpr std::uint32_t magic_simple_reply = 0x67446698;
constexpr std::uint32_t magic_chunk = 0x668e33ef;
constexpr std::size_t request_bytes = 28;
constexpr std::size_t simple_reply_bytes = 16;
constexpr std::size_t chunk_bytes = 20; // of its header

enum class Command : std::uint16_t {
    read = 0,
    write = 1,
    disconnect = 2,
    flush = 3,
    trim = 4,
    cache = 5,
    write_zeroes = 6,
    block_status = 7,
};

enum CommandFlag : std::uint16_t {
    command_fua = 1 << 0,
    command_no_hole = 1 << 1,
    command_df = 1 << 2,
    command_req_one = 1 << 3,
    command_fast_zero = 1 << 4,
};

constexpr std::uint16_t chunk_done = 1; // the last one of its reply
enum class Chunk : std::uint16_t { none = 0, offset_data = 1, block_status = 5, error = 0x8001 };

enum class Error : std::uint32_t {
    none = 0,
    perm = 1,
    io = 5,
    no_memory = 12,
    invalid = 22,
    no_space = 28,
    not_supported = 95,
};

// ---- Words

template <typename T> T big_endian(T value)
{
    static_assert(std::is_unsigned_v<T> && std::endian::native == std::endian::little);
    if constexpr (sizeof(T) == 2)
        return __builtin_bswap16(value);
    else if constexpr (sizeof(T) == 4)
        return __builtin_bswap32(value);
    else
        return __builtin_bswap64(value);
}

template <typename T> T load(const std::byte* from)
{
    T value;
    std::memcpy(&value, from, sizeof value);
    return big_endian(value);
}

// The place behind what was stored.
template <typename T> std::byte* store(std::byte* to, T value)
{
    value = big_endian(value);
    std::memcpy(to, &value, sizeof value);
    return to + sizeof value;
}
template <typename E>
requires std::is_enum_v<E> std::byte* store(std::byte* to, E value)
{
    return store(to, std::underlying_type_t<E>(value));
}

} // namespace quendreld::nbd
