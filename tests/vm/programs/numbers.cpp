// SPDX-License-Identifier: GPL-2.0-only
// What the driver calls a disk whose real number does not fit its tables is nothing that a program meets.
//
//   numbers CONTROL MAJOR:MINOR BLOCKS
//
// Answers have the real number however little of them is asked for, and the driver's own names no device.
#include "control_file.h"

#include <algorithm>
#include <array>

namespace
{

// The first words of an answer of which only so many bytes are asked for, behind which nothing may be written.
template <typename Ask> std::array<std::uint32_t, 2> first_words(std::uint32_t bytes, Ask ask)
{
    static std::byte* const place = low_memory(4096);
    std::memset(place, 0xEE, 64);
    ask(address(place), bytes);
    if (std::any_of(place + bytes, place + 64, [](std::byte b) { return b != std::byte{0xEE}; }))
        fail("more than " + std::to_string(bytes) + " bytes were written");
    std::array<std::uint32_t, 2> words{};
    std::memcpy(words.data(), place, std::min<std::size_t>(bytes, sizeof words));
    return words;
}

} // namespace

int main(int argc, char** argv)
{
    std::uint32_t major = 0, minor = 0;
    if (argc != 4 || std::sscanf(argv[2], "%u:%u", &major, &minor) != 2) {
        std::fprintf(stderr, "usage: numbers CONTROL MAJOR:MINOR BLOCKS\n");
        return 2;
    }
    const ControlFile file{argv[1]};
    file.start(argv[2], static_cast<std::uint32_t>(std::strtoul(argv[3], nullptr, 10)));
    demand(file.snapshot({}), QUENDREL_OK, "SnapShot");
    const auto check = [&](const char* name, auto ask) {
        for (const std::uint32_t bytes : {0u, 4u, 6u, 8u, 12u}) {
            const auto words = first_words(bytes, ask);
            const std::string what = std::string{name} + " of " + std::to_string(bytes) + " bytes";
            if (bytes >= 4)
                demand(words[0], major, what + ", its first word,");
            if (bytes == 6)
                demand(words[1], minor & 0xffff, what + ", its half second word,");
            if (bytes >= 8)
                demand(words[1], minor, what + ", its second word,");
        }
    };
    check("GetState", [&](std::uint32_t to, std::uint32_t bytes) {
        demand(file.command_with(QUENDREL_GET_STATE, GetState{to, bytes}), QUENDREL_OK, "GetState");
    });
    check("GetAutoMapState", [&](std::uint32_t to, std::uint32_t bytes) {
        demand(file.command_with(QUENDREL_GET_AUTOMAP_STATE, GetAutoMapState{to, bytes}), QUENDREL_OK, "GetAutoMapState");
    });
    check("GetBlockSize", [&](std::uint32_t to, std::uint32_t bytes) {
        demand(file.command_with(QUENDREL_GET_BLOCK_SIZE, GetBlockSize{major, minor, to, bytes}), QUENDREL_OK,
               "GetBlockSize");
    });
    for (std::uint32_t own = 0; own < 256; ++own) {
        static std::byte* const place = low_memory(4096);
        if (file.command_with(QUENDREL_GET_BLOCK_SIZE, GetBlockSize{0, own, address(place), sizeof(BlockSize)}) ==
            QUENDREL_OK)
            fail("0:" + std::to_string(own) + " is a device");
    }
    std::printf("real numbers only\n");
    return 0;
}
