// SPDX-License-Identifier: GPL-2.0-only
#include "preflight.h"

#include "failure.h"

#include <sys/stat.h>
#include <sys/statvfs.h>
#include <unistd.h>

namespace qbackup
{
namespace
{

std::string listed(const std::vector<std::string>& names)
{
    std::string text;
    for (const std::string& name : names)
        text += (text.empty() ? "" : ", ") + name;
    return text;
}

std::string refusal(const Device& device, const std::string& place, const std::string& role)
{
    return role + " " + place + " lies on " + device.name +
           ", the device to be backed up: writing there would change what is being copied, and would wait for ever "
           "while its file system is frozen. Choose a place on another device";
}

bool overlaps(const std::set<dev_t>& a, const std::set<dev_t>& b)
{
    for (const dev_t device : a)
        if (b.contains(device))
            return true;
    return false;
}

std::uint64_t freeBytes(const fs::path& path)
{
    struct statvfs info {
    };
    if (::statvfs(path.c_str(), &info) != 0)
        return ~0ULL;
    return std::uint64_t{info.f_bavail} * info.f_frsize;
}

} // namespace

std::optional<std::string> unfitBlockSize(const std::string& name, std::uint32_t block_size)
{
    if (block_size >= 512 && block_size <= 4096 && 4096 % block_size == 0)
        return std::nullopt;
    return name + " has a file system with blocks of " + std::to_string(block_size) +
           " bytes; the driver handles blocks of 512 to 4096 bytes";
}

void refuseUnfitDevice(const Device& device)
{
    // The driver would only say that nothing is mounted.
    if (device.blockSize != 0)
        if (const auto problem = unfitBlockSize(device.name, device.blockSize))
            throw Failure{Exit::refused, *problem};
    if (device.holds == "swap")
        throw Failure{Exit::refused, device.name + " is swap space: there is nothing in it to back up"};
    if (!device.holds.empty())
        throw Failure{Exit::refused, device.name + " holds no file system but " + device.holds +
                                         ", which the driver cannot freeze; back up what lies on it where it is in use"};
    if (!device.partitions.empty())
        throw Failure{Exit::refused, device.name +
                                         " is a whole disk with partitions, and its writes belong to them; "
                                         "back up its partitions one by one: " +
                                         listed(device.partitions)};
    if (!device.holders.empty() && device.type.empty())
        throw Failure{Exit::refused, device.name + " has no file system mounted and is a part of " +
                                         listed(device.holders) + "; back up what is mounted there"};
}

void refuseUnfitFileSystem(const Device& device)
{
    // It may span several devices, and freezes none of them by itself.
    if (device.type == "btrfs")
        throw Failure{Exit::refused, device.name +
                                         " is mounted as btrfs, which cannot be frozen through its device; the driver "
                                         "backs up ext2, ext3, ext4 and xfs"};
}

void refuseOnDevice(const Device& device, const HostBlocks& host, const fs::path& place, const std::string& role)
{
    if (!place.empty() && overlaps(host.underlying(place), device.hostDevices))
        throw Failure{Exit::refused, refusal(device, place.string(), role)};
}

void refuseOutputOnDevice(const Device& device, const HostBlocks& host)
{
    for (const int fd : {STDOUT_FILENO, STDERR_FILENO}) {
        struct stat st {
        };
        if (::fstat(fd, &st) != 0 || !S_ISREG(st.st_mode))
            continue;
        const fs::path link = "/proc/self/fd/" + std::to_string(fd);
        std::error_code error;
        const fs::path file = fs::read_symlink(link, error);
        if (!error)
            refuseOnDevice(device, host, file, fd == STDOUT_FILENO ? "standard output" : "the log on standard error");
    }
}

std::optional<std::string> checkSpace(const Device& device, const HostBlocks& host, const fs::path& target)
{
    const std::uint64_t available = freeBytes(target);
    for (const dev_t node : device.hostDevices) {
        for (const auto& mounted : host.mountsOf(node)) {
            struct stat st {
            };
            struct statvfs info {
            };
            // Another file system may be mounted over it.
            if (::stat(mounted.point.c_str(), &st) != 0 || st.st_dev != node ||
                ::statvfs(mounted.point.c_str(), &info) != 0)
                continue;
            const std::uint64_t used = std::uint64_t{info.f_blocks - info.f_bfree} * info.f_frsize;
            if (used > available)
                throw Failure{Exit::refused, "a full backup of " + device.name + " does not fit: its file system has " +
                                                 formatBytes(used) + " in use and " + target.string() + " has " +
                                                 formatBytes(available) +
                                                 " free. Free some space there or choose another target"};
        }
    }
    if (device.bytes > available)
        return target.string() + " has " + formatBytes(available) + " free; a full backup of " + device.name +
               " needs up to " + formatBytes(device.bytes) + " (runs of zeros take no space)";
    return std::nullopt;
}

} // namespace qbackup
