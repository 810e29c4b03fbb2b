// SPDX-License-Identifier: GPL-2.0-only
// Has so much memory, and uses all of it again and again, so that it must be swapped out and in for others to have some.
// The kernel must not end it to help itself.
//
//   hog MIB
#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <vector>

int main(int argc, char** argv)
{
    const std::size_t bytes = argc == 2 ? std::strtoul(argv[1], nullptr, 10) << 20 : 0;
    if (bytes == 0) {
        std::fprintf(stderr, "usage: hog MIB\n");
        return 2;
    }
    std::FILE* adjustment = std::fopen("/proc/self/oom_score_adj", "w");
    if (!adjustment || std::fputs("-1000", adjustment) < 0 || std::fclose(adjustment) != 0) {
        std::perror("oom_score_adj");
        return 1;
    }
    std::vector<unsigned char> memory(bytes);
    for (unsigned char round = 1;; ++round) {
        for (std::size_t at = 0; at < bytes; at += 4096)
            memory[at] = round;
        // One processor of two must not be all its own.
        const timespec pause{0, 100'000'000};
        nanosleep(&pause, nullptr);
    }
}
