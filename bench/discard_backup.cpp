// SPDX-License-Identifier: GPL-2.0-only
// A backup program that keeps nothing, for runs side by side with other programs.
//
//   discard_backup CONTROL MAJOR MINOR track    takes a backup and closes it: the device is tracked from now on
//   discard_backup CONTROL MAJOR MINOR protect  takes a snapshot that wants every block, prints "ready", waits for the
//                                               end of standard input, prints "state N"
//   discard_backup CONTROL MAJOR MINOR read     reads every block once with both transfer areas in turn; prints
//                                               "BYTES SECONDS", the time being that of the reads alone
#include "client/control_device.h"

#include <algorithm>
#include <array>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <string>

using namespace quendrel;

namespace
{

constexpr std::uint32_t cache_bytes = 1u << 30; // most that saved blocks may take

void read_all(ControlDevice& control, std::uint32_t blocks, const BackupState& state)
{
    const std::array areas{control.map(state.mapBytes), control.map(state.mapBytes)};
    const std::uint32_t most = state.mapBytes / state.blockSize;
    const auto begin = std::chrono::steady_clock::now();
    unsigned turn = 0;
    for (std::uint32_t first = 0; first < blocks; first += most)
        control.readBlocks(first, std::min(most, blocks - first), areas[turn++ % 2]);
    const double seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - begin).count();
    std::printf("%llu %.6f\n", static_cast<unsigned long long>(blocks) * state.blockSize, seconds);
}

int run(const std::string& path, DeviceNumber device, const std::string& what)
{
    ControlDevice control(path);
    const BlockGeometry geometry = control.blockSize(device);
    const std::uint32_t blocks = geometry.sizeKiB / (geometry.blockSize / 1024);
    control.start(device, blocks, cache_bytes / geometry.blockSize);
    // Whatever was tracked before begins anew.
    control.noLoadFromAutoMap();
    control.snapshot(SessionKey{});
    const BackupState state = control.state();
    if (state.state != QUENDREL_STATE_SNAPSHOT) {
        std::fprintf(stderr, "discard_backup: no snapshot was taken, state %u\n", state.state);
        return 1;
    }
    if (what == "track") {
        const bool tracked = control.autoMapState().inSync;
        if (!tracked)
            std::fprintf(stderr, "discard_backup: the device is not tracked\n");
        return tracked ? 0 : 1;
    }
    control.loadBlockMap(Bitmap(blocks, true));
    if (what == "protect") {
        std::puts("ready");
        std::fflush(stdout);
        while (std::getchar() != EOF)
            ;
        std::printf("state %u\n", control.state().state);
        return 0;
    }
    read_all(control, blocks, state);
    return control.state().state == QUENDREL_STATE_MAP_LOADED ? 0 : 1;
}

} // namespace

int main(int argc, char** argv)
{
    const std::string what = argc == 5 ? argv[4] : "";
    if (what != "track" && what != "protect" && what != "read") {
        std::fprintf(stderr, "usage: discard_backup CONTROL MAJOR MINOR track|protect|read\n");
        return 2;
    }
    try {
        return run(argv[1],
                   {static_cast<std::uint32_t>(std::atoi(argv[2])), static_cast<std::uint32_t>(std::atoi(argv[3]))},
                   what);
    } catch (const std::exception& error) {
        std::fprintf(stderr, "discard_backup: %s\n", error.what());
        return 1;
    }
}
