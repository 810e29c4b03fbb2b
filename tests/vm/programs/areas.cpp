// SPDX-License-Identifier: GPL-2.0-only
// Maps transfer areas of a backup that it starts, and looks at what the kernel gives.
//
//   areas CONTROL MAJOR:MINOR BLOCKS WHAT
//
//   zeroed    both areas, of the largest size, hold nothing but zeros
#include "client/control_device.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <string>

namespace
{

using quendrel::ControlDevice;
using quendrel::DeviceNumber;
using quendrel::TransferArea;

[[noreturn]] void fail(const std::string& what)
{
    std::fprintf(stderr, "areas: %s\n", what.c_str());
    std::exit(1);
}

void zeroed(ControlDevice& control)
{
    const std::size_t bytes = control.state().mapBytes;
    const TransferArea areas[] = {control.map(bytes), control.map(bytes)};
    for (const TransferArea& area : areas) {
        const auto data = area.data();
        const auto other = std::find_if(data.begin(), data.end(), [](std::byte b) { return b != std::byte{0}; });
        if (data.size() != bytes || other != data.end())
            fail("byte " + std::to_string(other - data.begin()) + " of an area is not zero");
    }
    std::printf("%zu bytes of zeros\n", 2 * bytes);
}

} // namespace

int main(int argc, char** argv)
try {
    DeviceNumber device;
    if (argc != 5 || std::sscanf(argv[2], "%u:%u", &device.major, &device.minor) != 2) {
        std::fprintf(stderr, "usage: areas CONTROL MAJOR:MINOR BLOCKS WHAT\n");
        return 2;
    }
    ControlDevice control{argv[1]};
    control.start(device, static_cast<std::uint32_t>(std::atoi(argv[3])), 4096);
    const std::string what = argv[4];
    if (what == "zeroed")
        zeroed(control);
    else
        fail("there is no " + what);
    return 0;
} catch (const quendrel::Error& error) {
    fail(error.what());
}
