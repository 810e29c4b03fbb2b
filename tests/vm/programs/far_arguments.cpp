// SPDX-License-Identifier: GPL-2.0-only
// Gives commands arguments above 4 GiB, where a 64-bit program's memory may lie and the driver's pointers do not reach.
//
//   far_arguments CONTROL
//
// What ignores its argument answers as it does to a small one. What reads a record, or writes to the argument, fails,
// and does not take the low half of the address for the whole: good memory lies there, and must stay as it is.
#include "quendrel/2.6/quendrel.h"

#include <fcntl.h>
#include <sys/ioctl.h>
#include <sys/mman.h>

#include <array>
#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace
{

struct Case {
    const char* name;
    unsigned command;
    int answer;
};

constexpr std::array kIgnoring{
    Case{"NoLoadFromAutoMap", QUENDREL_NO_LOAD_FROM_AUTOMAP, QUENDREL_OK},
    Case{"NoStartAutoMap", QUENDREL_NO_START_AUTOMAP, QUENDREL_OK},
    Case{"Sync", QUENDREL_SYNC, QUENDREL_OK},
    Case{"Shutdown", QUENDREL_SHUTDOWN, QUENDREL_OK},
    Case{"Reserved16", QUENDREL_RESERVED16, QUENDREL_GOING_AWAY},
    Case{"number 11", QUENDREL_COMMAND(11, 1, 4), QUENDREL_UNKNOWN_COMMAND},
    Case{"GetState of another size", QUENDREL_COMMAND(3, 1, 12), QUENDREL_UNKNOWN_COMMAND},
};

constexpr std::array kUsing{
    Case{"GetBlockSize", QUENDREL_GET_BLOCK_SIZE, QUENDREL_COPY_FROM_USER},
    Case{"StartBackup", QUENDREL_START_BACKUP, QUENDREL_COPY_FROM_USER},
    Case{"SnapShot", QUENDREL_SNAPSHOT, QUENDREL_COPY_FROM_USER},
    Case{"GetState", QUENDREL_GET_STATE, QUENDREL_COPY_FROM_USER},
    Case{"GetAutoMapState", QUENDREL_GET_AUTOMAP_STATE, QUENDREL_COPY_FROM_USER},
    Case{"LoadBlockMap", QUENDREL_LOAD_BLOCK_MAP, QUENDREL_COPY_FROM_USER},
    Case{"GetAutoMap", QUENDREL_GET_AUTOMAP, QUENDREL_COPY_FROM_USER},
    Case{"GetDirtyBlock", QUENDREL_GET_DIRTY_BLOCK, QUENDREL_COPY_FROM_USER},
    Case{"ReadBlocks", QUENDREL_READ_BLOCKS, QUENDREL_COPY_FROM_USER},
    Case{"GetVersionMajor", QUENDREL_GET_VERSION_MAJOR, QUENDREL_COPY_TO_USER},
    Case{"GetVersionMinor", QUENDREL_GET_VERSION_MINOR, QUENDREL_COPY_TO_USER},
};

int g_failures = 0;

void demand(int fd, const Case& tried, std::uint64_t argument)
{
    int answer = ::ioctl(fd, tried.command, argument);
    if (answer < 0)
        answer = -errno;
    if (answer == tried.answer)
        return;
    std::fprintf(stderr, "%s at %#llx answered %d, not %d\n", tried.name, static_cast<unsigned long long>(argument),
                 answer, tried.answer);
    ++g_failures;
}

} // namespace

int main(int argc, char** argv)
{
    if (argc != 2 || sizeof(long) != 8) {
        std::fprintf(stderr, "usage: far_arguments CONTROL, a 64-bit program\n");
        return 2;
    }
    const int fd = ::open(argv[1], O_RDWR | O_CLOEXEC);
#ifdef MAP_32BIT
    void* low = ::mmap(nullptr, 4096, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS | MAP_32BIT, -1, 0);
#else
    void* low = MAP_FAILED;
#endif
    if (fd < 0 || low == MAP_FAILED) {
        std::perror("far_arguments");
        return 2;
    }
    // As a record it would be read without an error; as its pointers it leads back to itself.
    std::array<std::uint32_t, 1024> filling{};
    filling.fill(static_cast<std::uint32_t>(reinterpret_cast<std::uintptr_t>(low)));
    std::memcpy(low, filling.data(), sizeof filling);

    const std::uint64_t here = reinterpret_cast<std::uintptr_t>(low);
    for (const std::uint64_t upper : {0x1ull, 0x7fffull, 0x80000000ull, 0xffffffffull}) {
        for (const Case& ignoring : kIgnoring)
            for (const std::uint64_t argument :
                 {std::uint64_t{0}, here, upper << 32, upper << 32 | here, ~std::uint64_t{0}})
                demand(fd, ignoring, argument);
        for (const Case& using_it : kUsing)
            demand(fd, using_it, upper << 32 | here);
    }
    if (std::memcmp(low, filling.data(), sizeof filling) != 0) {
        std::fprintf(stderr, "the memory at the low half of the address was written to\n");
        ++g_failures;
    }
    std::printf("%d failures\n", g_failures);
    return g_failures == 0 ? 0 : 1;
}
