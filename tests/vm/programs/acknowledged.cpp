// SPDX-License-Identifier: GPL-2.0-only
// Overwrites blocks of a file at random while some of the writes may fail, until a file named STOP is there; then reads
// all blocks. A block must have what the last successful write put there, or what a failed write after that one tried
// to. Fails if it has anything else: then a write that was acknowledged is lost.
//
//   acknowledged FILE BLOCKS STOP [forgetful]     forgetful: leaves out one write, to see that it is noticed
#include <fcntl.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <random>
#include <vector>

namespace
{

constexpr std::size_t kBlock = 4096;
constexpr std::size_t kSector = 512;

// What a sector begins with; the rest of it is zero.
struct Stamp {
    std::uint64_t block;
    std::uint64_t write;

    bool operator==(const Stamp&) const = default;
};

// The writes that may be seen in a block: the last that succeeded, and those that failed since.
using Candidates = std::vector<std::uint64_t>;

alignas(kBlock) std::array<char, kBlock> buffer;

void fill(Stamp stamp)
{
    buffer.fill(0);
    for (std::size_t at = 0; at < kBlock; at += kSector)
        std::memcpy(buffer.data() + at, &stamp, sizeof stamp);
}

off_t place(std::uint64_t block) { return static_cast<off_t>(block * kBlock); }

bool is_right(std::uint64_t block, const Candidates& candidates)
{
    for (std::size_t at = 0; at < kBlock; at += kSector) {
        Stamp seen{};
        std::memcpy(&seen, buffer.data() + at, sizeof seen);
        bool found = false;
        for (const std::uint64_t write : candidates)
            found = found || seen == Stamp{block, write};
        if (!found) {
            std::printf("block %llu, sector %zu: it has write %llu of block %llu; the last that succeeded was %llu, "
                        "and %zu failed after it\n",
                        static_cast<unsigned long long>(block), at / kSector,
                        static_cast<unsigned long long>(seen.write), static_cast<unsigned long long>(seen.block),
                        static_cast<unsigned long long>(candidates.front()), candidates.size() - 1);
            return false;
        }
    }
    return true;
}

} // namespace

int main(int argc, char** argv)
{
    if (argc < 4) {
        std::fprintf(stderr, "usage: acknowledged FILE BLOCKS STOP [forgetful]\n");
        return 2;
    }
    const int file = ::open(argv[1], O_RDWR | O_CREAT | O_DIRECT | O_CLOEXEC, 0600);
    if (file < 0) {
        std::perror(argv[1]);
        return 1;
    }
    const auto blocks = static_cast<std::uint64_t>(std::atoi(argv[2]));
    std::uint64_t writes = 0;
    std::vector<Candidates> state;
    for (std::uint64_t block = 0; block < blocks; ++block) {
        fill({block, ++writes});
        if (::pwrite(file, buffer.data(), kBlock, place(block)) != static_cast<ssize_t>(kBlock)) {
            std::perror("the first writes");
            return 1;
        }
        state.push_back({writes});
    }
    ::fsync(file);
    std::printf("begins\n");
    std::fflush(stdout);

    std::minstd_rand random{4711};
    std::uint64_t failures = 0;
    std::uint64_t forgotten = argc > 4 ? 100 : 0;
    while (::access(argv[3], F_OK) != 0) {
        const std::uint64_t block = random() % blocks;
        fill({block, ++writes});
        if (forgotten != 0 && --forgotten == 0) {
            state[block] = {writes};
            break;
        }
        if (::pwrite(file, buffer.data(), kBlock, place(block)) == static_cast<ssize_t>(kBlock)) {
            state[block] = {writes};
        } else {
            state[block].push_back(writes);
            ++failures;
        }
        ::usleep(500);
    }
    std::uint64_t lost = 0;
    for (std::uint64_t block = 0; block < blocks; ++block) {
        if (::pread(file, buffer.data(), kBlock, place(block)) != static_cast<ssize_t>(kBlock)) {
            std::printf("block %llu cannot be read: %s\n", static_cast<unsigned long long>(block),
                        std::strerror(errno));
            ++lost;
        } else if (!is_right(block, state[block])) {
            ++lost;
        }
    }
    std::printf("%llu writes, %llu of them failed; %llu blocks are wrong\n", static_cast<unsigned long long>(writes),
                static_cast<unsigned long long>(failures), static_cast<unsigned long long>(lost));
    return lost == 0 ? 0 : 1;
}
