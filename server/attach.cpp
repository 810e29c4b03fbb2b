// SPDX-License-Identifier: GPL-2.0-only
#include "attach.h"

#include <fcntl.h>
#include <linux/blkpg.h>
#include <linux/loop.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>

#include <algorithm>
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

int partition_ioctl(int fd, int operation, unsigned number, std::uint64_t start = 0, std::uint64_t sectors = 0)
{
    blkpg_partition part{};
    part.pno = int(number);
    part.start = static_cast<long long>(start * 512);
    part.length = static_cast<long long>(sectors * 512);
    blkpg_ioctl_arg argument{operation, 0, sizeof part, &part};
    return ::ioctl(fd, BLKPG, &argument) == 0 ? 0 : -errno;
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

bool has_partition(const std::string& file, unsigned number, const PartitionRecord& part)
{
    for (const HostLoop& loop : loops_over(file))
        for (const HostDevice& device : loop.devices)
            if (device.partition == number && device.start == part.start && device.sectors == part.sectors)
                return true;
    return false;
}

// Adds a partition to a loop device that was just bound. What the device was before may have left partitions, which go
// when the last user of them does.
int add_partition(int loop, const DiskRecord& disk, const PartitionRecord& part)
{
    const unsigned number = part.minor - disk.minor;
    for (int tries = 0;; ++tries) {
        const int error = partition_ioctl(loop, BLKPG_ADD_PARTITION, number, part.start, part.sectors);
        if (error != -EBUSY || has_partition(disk.file, number, part))
            return error == -EBUSY ? 0 : error;
        if (tries == 40)
            return error;
        for (const HostLoop& bound : loops_over(disk.file))
            for (const HostDevice& device : bound.devices)
                if (device.partition && std::none_of(disk.partitions.begin(), disk.partitions.end(), [&](const auto& p) {
                        return p.minor - disk.minor == device.partition && p.start == device.start &&
                               p.sectors == device.sectors;
                    }))
                    partition_ioctl(loop, BLKPG_DEL_PARTITION, device.partition);
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
    }
}

// A partition that could not be taken away, or put there.
std::string not_followed(const HostLoop& loop, unsigned partition, int error)
{
    return loop.node + "p" + std::to_string(partition) + " does not follow the partition table: " +
           (error == -EBUSY ? "it is in use; detach the disk and attach it again when it is not"
                            : std::strerror(-error));
}

} // namespace

std::vector<std::string> follow_table(const DiskRecord& disk)
{
    std::vector<std::string> problems;
    if (disk.file.empty())
        return problems;
    for (const HostLoop& loop : loops_over(disk.file)) {
        base::Descriptor fd(::open(loop.node.c_str(), O_RDONLY | O_CLOEXEC));
        if (!fd) {
            problems.push_back(loop.node + ": cannot open: " + std::strerror(errno));
            continue;
        }
        std::vector<unsigned> there;
        for (const HostDevice& device : loop.devices) {
            if (device.partition == 0)
                continue;
            const auto same = std::find_if(disk.partitions.begin(), disk.partitions.end(), [&](const auto& part) {
                return part.minor - disk.minor == device.partition && part.start == device.start;
            });
            int error = 0;
            if (same != disk.partitions.end() && same->sectors == device.sectors) {
                there.push_back(device.partition);
            } else if (same != disk.partitions.end() &&
                       partition_ioctl(fd.get(), BLKPG_RESIZE_PARTITION, device.partition, same->start,
                                       same->sectors) == 0) {
                there.push_back(device.partition); // a partition that is in use may grow
            } else if ((error = partition_ioctl(fd.get(), BLKPG_DEL_PARTITION, device.partition)) != 0 &&
                       error != -ENXIO) {
                problems.push_back(not_followed(loop, device.partition, error));
                there.push_back(device.partition);
            }
        }
        for (const PartitionRecord& part : disk.partitions) {
            const unsigned number = part.minor - disk.minor;
            if (std::find(there.begin(), there.end(), number) != there.end())
                continue;
            int error = partition_ioctl(fd.get(), BLKPG_ADD_PARTITION, number, part.start, part.sectors);
            if (error == -EBUSY && has_partition(disk.file, number, part)) // whoever changed the table has added it
                error = 0;
            if (error)
                problems.push_back(not_followed(loop, number, error));
        }
    }
    return problems;
}

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
        for (const PartitionRecord& part : disk.partitions) {
            if (const int error = add_partition(loop.get(), disk, part)) {
                ::ioctl(loop.get(), LOOP_CLR_FD);
                fail(node + ": cannot add partition " + part.name, -error);
            }
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
        for (const HostDevice& device : loop.devices) {
            if (device.partition == 0)
                continue;
            const int error = partition_ioctl(fd.get(), BLKPG_DEL_PARTITION, device.partition);
            if (error == -EBUSY)
                throw std::runtime_error(disk.name + ": " + device.node +
                                         " is in use (open, or mounted in another mount namespace)");
            if (error && error != -ENXIO)
                fail(device.node + ": cannot remove the partition", -error);
        }
        ::fsync(fd.get());
        if (::ioctl(fd.get(), LOOP_CLR_FD) != 0)
            fail(loop.node + ": cannot detach", errno);
        any = true;
    }
    return any;
}

} // namespace quendreld
