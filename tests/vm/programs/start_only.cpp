// Starts a backup of a device, asks what can be asked before a snapshot, and closes it: what a lock checker can watch
// before the first freeze, after which an old kernel's checker is silent.
//
//   start_only CONTROL MAJOR MINOR
#include "client/control_device.h"

#include <cstdio>
#include <cstdlib>
#include <exception>

int main(int argc, char** argv)
{
    if (argc != 4) {
        std::fprintf(stderr, "usage: start_only CONTROL MAJOR MINOR\n");
        return 2;
    }
    try {
        const quendrel::DeviceNumber device{static_cast<std::uint32_t>(std::atoi(argv[2])),
                                            static_cast<std::uint32_t>(std::atoi(argv[3]))};
        quendrel::ControlDevice control(argv[1]);
        const auto geometry = control.blockSize(device);
        control.start(device, geometry.sizeKiB / (geometry.blockSize / 1024), 1000);
        const auto state = control.state();
        const auto area = control.map(state.mapBytes);
        std::printf("state %u, first byte %d\n", state.state, static_cast<int>(area.data()[0]));
        control.autoMapState();
        control.sync();
        return state.state == QUENDREL_STATE_STARTED ? 0 : 1;
    } catch (const std::exception& error) {
        std::fprintf(stderr, "start_only: %s\n", error.what());
        return 1;
    }
}
