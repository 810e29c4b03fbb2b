// SPDX-License-Identifier: GPL-2.0-only
// Writes pairs of blocks: block n of one file, durably, and only then block n of another. Whether the disk got a flush
// between the two of each pair, the host reads from its log of the disk.
//
//   flush_pairs FILE FILE PAIRS [careless]      careless: without making the first durable, to see that it is noticed
#include <fcntl.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>

namespace
{

constexpr std::size_t kBlock = 4096;

int open_direct(const char* path)
{
    const int fd = ::open(path, O_WRONLY | O_DIRECT | O_CLOEXEC);
    if (fd < 0) {
        std::perror(path);
        std::exit(1);
    }
    return fd;
}

void write_block(int fd, char* block, unsigned number)
{
    std::memset(block, 0, kBlock);
    std::snprintf(block, kBlock, "pair %06u", number);
    if (::pwrite(fd, block, kBlock, static_cast<off_t>(number) * static_cast<off_t>(kBlock)) != static_cast<ssize_t>(kBlock)) {
        std::perror("writing a block");
        std::exit(1);
    }
}

} // namespace

int main(int argc, char** argv)
{
    if (argc < 4) {
        std::fprintf(stderr, "usage: flush_pairs FILE FILE PAIRS [careless]\n");
        return 2;
    }
    const std::unique_ptr<char, decltype(&std::free)> block{static_cast<char*>(std::aligned_alloc(kBlock, kBlock)), &std::free};
    const int first = open_direct(argv[1]);
    const int second = open_direct(argv[2]);
    const unsigned pairs = static_cast<unsigned>(std::atoi(argv[3]));
    for (unsigned number = 0; number < pairs; ++number) {
        write_block(first, block.get(), number);
        if (argc == 4 && ::fdatasync(first) != 0) {
            std::perror("fdatasync");
            return 1;
        }
        write_block(second, block.get(), number);
    }
    return 0;
}
