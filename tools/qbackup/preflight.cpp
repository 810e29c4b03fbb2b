#include "preflight.h"

#include "failure.h"

#include <sys/stat.h>
#include <sys/statvfs.h>
#include <unistd.h>

namespace qbackup
{
namespace
{

constexpr std::uint32_t number_limit = 256;

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

void refuseUnfitDevice(const Device& device)
{
    const auto [major_number, minor_number] = device.number;
    if (major_number >= number_limit || minor_number >= number_limit) {
        std::string text = device.name + " has device number " + toString(device.number) +
                           ", and the driver takes only major and minor numbers below 256.";
        if (major_number == 259)
            text += " Major 259 is what today's kernels give to NVMe disks and to partitions added with partx: such "
                    "a device cannot be backed up this way.";
        throw Failure{Exit::refused, text + " Use a device with smaller numbers (sd, vd, loop, md, dm)"};
    }
    if (!device.partitions.empty()) {
        std::string names;
        for (const std::string& name : device.partitions)
            names += (names.empty() ? "" : ", ") + name;
        throw Failure{Exit::refused, device.name +
                                         " is a whole disk with partitions, and its writes belong to them; "
                                         "back up its partitions one by one: " +
                                         names};
    }
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
        const auto mounted = host.mountPoint(node);
        struct statvfs info {
        };
        if (!mounted || ::statvfs(mounted->c_str(), &info) != 0)
            continue;
        const std::uint64_t used = std::uint64_t{info.f_blocks - info.f_bfree} * info.f_frsize;
        if (used > available)
            throw Failure{Exit::refused, "a full backup of " + device.name + " does not fit: its file system has " +
                                             formatBytes(used) + " in use and " + target.string() + " has " +
                                             formatBytes(available) +
                                             " free. Free some space there or choose another target"};
    }
    if (device.bytes > available)
        return target.string() + " has " + formatBytes(available) + " free; a full backup of " + device.name +
               " needs up to " + formatBytes(device.bytes) + " (runs of zeros take no space)";
    return std::nullopt;
}

} // namespace qbackup
