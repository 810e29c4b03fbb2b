// SPDX-License-Identifier: GPL-2.0-only
// Maps transfer areas of a backup that it starts, and looks at what the kernel gives.
//
//   areas CONTROL MAJOR:MINOR BLOCKS WHAT
//
//   zeroed    both areas, of the largest size, hold nothing but zeros
//   behind    of twice as many blocks as the device has, the last 16 that it has can be read, and no others
//   bounded   there is room for one and a half areas of the largest size, and what a child maps still takes its part of
//   it
#include "client/control_device.h"

#include <poll.h>
#include <sys/wait.h>
#include <unistd.h>

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

// From one process to another: that something has come about.
class Pipe
{
  public:
    Pipe()
    {
        if (::pipe(ends_) != 0)
            fail("there is no pipe");
    }
    ~Pipe()
    {
        ::close(ends_[0]);
        ::close(ends_[1]);
    }
    Pipe(const Pipe&) = delete;
    Pipe& operator=(const Pipe&) = delete;
    // For the one who only waits, so that the other's end is noticed.
    void only_read()
    {
        ::close(ends_[1]);
        ends_[1] = -1;
    }
    void write() const
    {
        if (::write(ends_[1], "", 1) != 1)
            fail("the pipe is broken");
    }
    bool read() const
    {
        struct pollfd end = {.fd = ends_[0], .events = POLLIN, .revents = 0};
        char byte;
        return ::poll(&end, 1, 30'000) == 1 && ::read(ends_[0], &byte, 1) == 1;
    }

  private:
    int ends_[2];
};

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

// The result of making an area, given back at once.
int try_area(ControlDevice& control, std::size_t bytes)
{
    try {
        control.map(bytes);
        return QUENDREL_OK;
    } catch (const quendrel::Error& error) {
        return error.code();
    }
}

void demand(int result, int wanted, const std::string& what)
{
    if (result != wanted)
        fail(what + " answered " + std::to_string(result) + ", not " + std::to_string(wanted));
}

void bounded(ControlDevice& control)
{
    const std::size_t most = control.state().mapBytes;
    {
        const TransferArea first = control.map(most);
        demand(try_area(control, most), QUENDREL_NO_MEMORY, "a second area of the largest size");
        demand(try_area(control, most / 2), QUENDREL_OK, "one of half that size");
    }
    TransferArea area = control.map(most);
    Pipe touched;
    Pipe done;
    const pid_t child = ::fork();
    if (child < 0)
        fail("there is no child");
    if (child == 0) {
        for (std::size_t at = 0; at < most; at += 4096)
            (void)*static_cast<const volatile std::byte*>(area.data().data() + at);
        touched.write();
        done.only_read();
        done.read();
        ::_exit(0);
    }
    if (!touched.read())
        fail("the child does not touch the area");
    area.release();
    demand(try_area(control, most), QUENDREL_NO_MEMORY, "an area while a child maps the one before");
    demand(try_area(control, most / 2), QUENDREL_OK, "half an area while a child maps the one before");
    done.write();
    ::waitpid(child, nullptr, 0);
    demand(try_area(control, most), QUENDREL_OK, "an area after the child's end");
    std::printf("bounded\n");
}

// What a read of 16 blocks from there answers.
int try_read(ControlDevice& control, std::uint32_t first, const TransferArea& area)
{
    try {
        control.readBlocks(first, 16, area);
        return QUENDREL_OK;
    } catch (const quendrel::Error& error) {
        return error.code();
    }
}

void behind(ControlDevice& control, std::uint32_t blocks)
{
    control.noLoadFromAutoMap();
    control.snapshot({});
    const TransferArea area = control.map(control.state().mapBytes);
    demand(try_read(control, blocks / 2 - 16, area), QUENDREL_OK, "a read before the end");
    for (const std::uint32_t first : {blocks / 2 - 8, blocks / 2, blocks / 2 + 1000, blocks - 16})
        demand(try_read(control, first, area), QUENDREL_READ_ERROR, "a read from " + std::to_string(first));
    demand(try_read(control, blocks / 2 - 16, area), QUENDREL_OK, "one more read before the end");
    std::printf("not behind the end\n");
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
    const auto blocks = static_cast<std::uint32_t>(std::atoi(argv[3]));
    control.start(device, blocks, 4096);
    const std::string what = argv[4];
    if (what == "zeroed")
        zeroed(control);
    else if (what == "bounded")
        bounded(control);
    else if (what == "behind")
        behind(control, blocks);
    else
        fail("there is no " + what);
    return 0;
} catch (const quendrel::Error& error) {
    fail(error.what());
}
