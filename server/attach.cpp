// SPDX-License-Identifier: GPL-2.0-only
#include "attach.h"

#include "loop_partitions.h"

#include <fcntl.h>
#include <linux/loop.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>

#include <cerrno>
#include <chrono>
#include <cstring>
#include <fstream>
#include <stdexcept>
#include <thread>

namespace quendreld
{

namespace
{

[[noreturn]] void fail(const std::string& what, int error)
{
    throw std::runtime_error(what + ": " + std::strerror(error));
}

// devtmpfs makes nodes at once and udev a little later; where neither runs the node is made here.
void wait_for_node(const HostDevice& device)
{
    for (int i = 0; i < 50; ++i) {
        struct stat status;
        if (::stat(device.node.c_str(), &status) == 0)
            return;
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    ::mknod(device.node.c_str(), S_IFBLK | 0600, makedev(device.major, device.minor));
}

base::Descriptor bind_free_loop(const std::string& file, int backing, bool read_only, std::uint32_t sector_bytes, std::string& node)
{
    base::Descriptor control(::open("/dev/loop-control", O_RDWR | O_CLOEXEC));
    if (!control)
        fail("/dev/loop-control: cannot open (root, and the loop module, are needed)", errno);
    for (int tries = 0; tries < 20; ++tries) {
        const int number = ::ioctl(control.get(), LOOP_CTL_GET_FREE);
        if (number < 0)
            fail("no free loop device", errno);
        node = "/dev/loop" + std::to_string(number);
        wait_for_node({node, 7, unsigned(number), 0, 0, 0});
        base::Descriptor loop(::open(node.c_str(), (read_only ? O_RDONLY : O_RDWR) | O_CLOEXEC));
        if (!loop)
            fail(node + ": cannot open", errno);
        loop_config config{};
        config.fd = unsigned(backing);
        config.block_size = sector_bytes;
        config.info.lo_flags = LO_FLAGS_DIRECT_IO | (read_only ? unsigned(LO_FLAGS_READ_ONLY) : 0u);
        std::strncpy(reinterpret_cast<char*>(config.info.lo_file_name), file.c_str(), LO_NAME_SIZE - 1);
        if (::ioctl(loop.get(), LOOP_CONFIGURE, &config) == 0)
            return loop;
        if (errno != EBUSY)
            fail(node + ": cannot attach " + file, errno); // busy: somebody else took it first
    }
    throw std::runtime_error("no free loop device: others keep taking them; try again");
}

std::string swap_or_holder(const HostDevice& device)
{
    for (const std::string& holder : holders_of(device))
        return device.node + " is used by " + holder;
    std::ifstream in("/proc/swaps");
    for (std::string line; std::getline(in, line);)
        if (line.rfind(device.node + " ", 0) == 0)
            return device.node + " is used as swap";
    return {};
}

} // namespace

HostLoop attach_disk(const DiskRecord& disk, bool read_only)
{
    if (disk.file.empty())
        throw std::runtime_error(disk.name + ": the daemon serves no disk files (see its log); use " + disk.nbd);
    auto loops = loops_over(disk.file);
    if (loops.empty()) {
        base::Descriptor backing(::open(disk.file.c_str(), (read_only ? O_RDONLY : O_RDWR) | O_CLOEXEC));
        if (!backing)
            fail(disk.file + ": cannot open", errno);
        std::string node;
        base::Descriptor loop = bind_free_loop(disk.file, backing.get(), read_only, disk.sector_bytes, node);
        // Linux 6.1 means to look for partitions when the device is opened next, and takes away those that it knows of. So
        // it is opened before there are any.
        base::Descriptor(::open(node.c_str(), O_RDONLY | O_CLOEXEC));
        try {
            add_partitions(loop.get(), node, disk);
        } catch (...) {
            ::ioctl(loop.get(), LOOP_CLR_FD);
            throw;
        }
        loops = loops_over(disk.file);
        if (loops.empty())
            throw std::runtime_error(node + ": was taken away while it was being attached");
    }
    for (const HostDevice& device : loops.front().devices)
        wait_for_node(device);
    return loops.front();
}

std::optional<std::string> users_of_disk(const DiskRecord& disk)
{
    if (disk.file.empty())
        return std::nullopt;
    for (const HostLoop& loop : loops_over(disk.file)) {
        for (const HostDevice& device : loop.devices) {
            const auto points = mount_points_of(device);
            if (!points.empty())
                return device.node + " is mounted on " + points.front() + "; unmount it first: umount " +
                       points.front();
            if (const std::string user = swap_or_holder(device); !user.empty())
                return user + "; end that first";
        }
    }
    return std::nullopt;
}

bool detach_disk(const DiskRecord& disk)
{
    if (disk.file.empty())
        return false;
    if (const auto user = users_of_disk(disk))
        throw std::runtime_error(disk.name + ": " + *user);
    bool any = false;
    for (const HostLoop& loop : loops_over(disk.file)) {
        base::Descriptor fd(::open(loop.node.c_str(), O_RDONLY | O_CLOEXEC));
        if (!fd)
            fail(loop.node + ": cannot open", errno);
        remove_partitions(fd.get(), loop, disk.name);
        ::fsync(fd.get());
        if (::ioctl(fd.get(), LOOP_CLR_FD) != 0)
            fail(loop.node + ": cannot detach", errno);
        any = true;
    }
    return any;
}

} // namespace quendreld
