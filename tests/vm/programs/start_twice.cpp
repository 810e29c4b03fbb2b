// SPDX-License-Identifier: GPL-2.0-only
// Brings one file of the control device into a state, starts a second backup on it, and demands that this is answered
// "busy" and changes nothing. Then it ends as it is told, with the file open.
//
//   start_twice CONTROL MAJOR:MINOR BLOCKS FILE STATE END
//
//   FILE    on the mounted device; it is written to where a state needs that
//   STATE   refused (the device has nothing mounted), failed (a start with no blocks), started, snapshot, loaded,
//           exhausted (a block was overwritten that could not be kept)
//   END     close, or killed
#include "client/control_device.h"

#include <fcntl.h>
#include <unistd.h>

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

namespace
{

using quendrel::ControlDevice;
using quendrel::DeviceNumber;

[[noreturn]] void fail(const std::string& what)
{
    std::fprintf(stderr, "start_twice: %s\n", what.c_str());
    std::exit(1);
}

// The code of a start, 0 when it succeeds.
int start(ControlDevice& control, DeviceNumber device, std::uint32_t blocks, std::uint32_t cache_blocks)
{
    try {
        control.start(device, blocks, cache_blocks);
        return 0;
    } catch (const quendrel::Error& error) {
        return error.code();
    }
}

void overwrite(const char* file)
{
    const std::vector<char> bytes(1 << 20, 'x');
    const int fd = ::open(file, O_WRONLY | O_CREAT | O_CLOEXEC, 0600);
    if (fd < 0 || ::write(fd, bytes.data(), bytes.size()) != static_cast<ssize_t>(bytes.size()) || ::fsync(fd) != 0)
        fail(std::string{"cannot write "} + file + ": " + std::strerror(errno));
    ::close(fd);
}

std::uint32_t reach(const std::string& state, ControlDevice& control, DeviceNumber device, std::uint32_t blocks, const char* file)
{
    const bool startable = state != "refused" && state != "failed";
    const int wanted = startable ? 0 : state == "refused" ? QUENDREL_NOT_MOUNTED : QUENDREL_REFUSED;
    const std::uint32_t cache_blocks = state == "exhausted" ? 0 : 4096;
    if (const int code = start(control, device, state == "failed" ? 0 : blocks, cache_blocks); code != wanted)
        fail("the first start answered " + std::to_string(code) + ", not " + std::to_string(wanted));
    if (!startable)
        return state == "refused" ? QUENDREL_STATE_IDLE : QUENDREL_STATE_STARTING;
    if (state == "started")
        return QUENDREL_STATE_STARTED;
    control.noLoadFromAutoMap();
    control.snapshot({});
    if (state == "exhausted") {
        overwrite(file);
        return QUENDREL_STATE_CACHE_EXHAUSTED;
    }
    if (state == "snapshot")
        return QUENDREL_STATE_SNAPSHOT;
    control.loadBlockMap(quendrel::Bitmap{blocks, true});
    return QUENDREL_STATE_MAP_LOADED;
}

} // namespace

int main(int argc, char** argv)
try {
    DeviceNumber device;
    if (argc != 7 || std::sscanf(argv[2], "%u:%u", &device.major, &device.minor) != 2) {
        std::fprintf(stderr, "usage: start_twice CONTROL MAJOR:MINOR BLOCKS FILE STATE END\n");
        return 2;
    }
    const auto blocks = static_cast<std::uint32_t>(std::atoi(argv[3]));
    const std::string state = argv[5];
    ControlDevice control{argv[1]};
    const std::uint32_t expected = reach(state, control, device, blocks, argv[4]);
    for (int again = 0; again < 2; ++again) {
        if (const std::uint32_t now = control.state().state; now != expected)
            fail("the state is " + std::to_string(now) + ", not " + std::to_string(expected));
        if (const int code = start(control, device, blocks, 4096); code != QUENDREL_BUSY)
            fail("a second start answered " + std::to_string(code));
    }
    if (const std::uint32_t now = control.state().state; now != expected)
        fail("the second start changed the state to " + std::to_string(now));
    std::printf("%s: busy, and state %u stays\n", state.c_str(), expected);
    std::fflush(stdout);
    if (std::string{argv[6]} == "killed")
        std::raise(SIGKILL);
    return 0;
} catch (const quendrel::Error& error) {
    fail(error.what());
}
