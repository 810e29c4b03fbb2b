// SPDX-License-Identifier: GPL-2.0-only
#include "host_mounts.h"

#include <dirent.h>
#include <fcntl.h>
#include <libmount/libmount.h>
#include <linux/loop.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <memory>
#include <memory>

namespace quendreld
{

namespace fs = std::filesystem;

namespace
{

std::string line_of(const fs::path& path)
{
    std::ifstream in(path);
    std::string line;
    std::getline(in, line);
    return line;
}

std::uint64_t number_of(const fs::path& path) { return std::strtoull(line_of(path).c_str(), nullptr, 10); }

std::optional<HostDevice> device_of(const fs::path& directory)
{
    HostDevice device{};
    if (std::sscanf(line_of(directory / "dev").c_str(), "%u:%u", &device.major, &device.minor) != 2)
        return std::nullopt;
    device.node = "/dev/" + directory.filename().string();
    device.sectors = number_of(directory / "size");
    return device;
}

struct FreeTable {
    void operator()(libmnt_table* table) const { mnt_unref_table(table); }
};
using Table = std::unique_ptr<libmnt_table, FreeTable>;

// What is mounted in this process's view; null when that cannot be told.
Table mount_table() { return Table(mnt_new_table_from_file("/proc/self/mountinfo")); }

// By number or, for file systems with several devices, by the source that the table names.
bool lies_on(libmnt_fs* mounted, const HostDevice& device)
{
    const dev_t number = makedev(device.major, device.minor);
    if (mnt_fs_get_devno(mounted) == number)
        return true;
    const char* source = mnt_fs_get_srcpath(mounted);
    struct stat status;
    return source && std::strncmp(source, "/dev/", 5) == 0 && ::stat(source, &status) == 0 &&
           S_ISBLK(status.st_mode) && status.st_rdev == number;
}

// The mount that an open directory lies in is one of the device.
bool is_mount_of(int directory, const HostDevice& device)
{
    struct statx status;
    if (::statx(directory, "", AT_EMPTY_PATH, STATX_MNT_ID, &status) != 0 || !(status.stx_mask & STATX_MNT_ID))
        return false;
    const Table table = mount_table();
    const std::unique_ptr<libmnt_iter, decltype(&mnt_free_iter)> at(mnt_new_iter(MNT_ITER_FORWARD), mnt_free_iter);
    libmnt_fs* mounted = nullptr;
    while (table && at && mnt_table_next_fs(table.get(), at.get(), &mounted) == 0)
        if (std::uint64_t(mnt_fs_get_id(mounted)) == status.stx_mnt_id)
            return lies_on(mounted, device);
    return false;
}

bool is_over(const HostLoop& loop, const std::string& file)
{
    const base::Descriptor fd(::open(loop.node.c_str(), O_RDONLY | O_CLOEXEC));
    struct stat status;
    loop_info64 info{};
    return fd && ::stat(file.c_str(), &status) == 0 && ::ioctl(fd.get(), LOOP_GET_STATUS64, &info) == 0 &&
           info.lo_device == status.st_dev && info.lo_inode == status.st_ino;
}

} // namespace

std::vector<std::string> names_in(const std::string& directory)
{
    const std::unique_ptr<DIR, int (*)(DIR*)> open(::opendir(directory.c_str()), ::closedir);
    std::vector<std::string> names;
    while (const dirent* entry = open ? ::readdir(open.get()) : nullptr)
        if (entry->d_name[0] != '.')
            names.push_back(entry->d_name);
    return names;
}

std::vector<HostLoop> loops_over(const std::string& file)
{
    std::vector<HostLoop> loops;
    const fs::path all = "/sys/block";
    for (const std::string& name : names_in(all)) {
        const fs::path entry = all / name;
        if (name.rfind("loop", 0) != 0)
            continue;
        if (line_of(entry / "loop/backing_file") != file)
            continue;
        const std::uint64_t offset = number_of(entry / "loop/offset") / 512;
        auto whole = device_of(entry);
        if (!whole)
            continue;
        whole->start = offset;
        HostLoop loop{whole->node, unsigned(std::strtoul(name.c_str() + 4, nullptr, 10)), {*whole}};
        for (const std::string& part : names_in(entry)) {
            const fs::path child = entry / part;
            std::error_code error;
            if (!fs::exists(child / "partition", error))
                continue;
            auto device = device_of(child);
            if (!device)
                continue;
            device->partition = unsigned(number_of(child / "partition"));
            device->start = offset + number_of(child / "start");
            loop.devices.push_back(*device);
        }
        std::sort(loop.devices.begin(), loop.devices.end(),
                  [](const HostDevice& a, const HostDevice& b) { return a.partition < b.partition; });
        loops.push_back(std::move(loop));
    }
    return loops;
}

std::vector<std::string> mount_points_of(const HostDevice& device)
{
    std::vector<std::string> points;
    const Table table = mount_table();
    const std::unique_ptr<libmnt_iter, decltype(&mnt_free_iter)> at(mnt_new_iter(MNT_ITER_FORWARD), mnt_free_iter);
    libmnt_fs* mounted = nullptr;
    while (table && at && mnt_table_next_fs(table.get(), at.get(), &mounted) == 0)
        if (const char* point = mnt_fs_get_target(mounted); point && lies_on(mounted, device))
            points.push_back(point);
    return points;
}

std::vector<std::string> holders_of(const HostDevice& device)
{
    return names_in("/sys/dev/block/" + std::to_string(device.major) + ":" + std::to_string(device.minor) + "/holders");
}

std::optional<std::string> mount_point_at(const std::string& file, std::uint64_t start)
{
    for (const HostLoop& loop : loops_over(file)) {
        for (const HostDevice& device : loop.devices) {
            if (device.start != start)
                continue;
            const auto points = mount_points_of(device);
            if (!points.empty())
                return points.front();
        }
    }
    return std::nullopt;
}

std::optional<Mounted> open_mount_at(const std::string& file, std::uint64_t start)
{
    for (const HostLoop& loop : loops_over(file)) {
        for (const HostDevice& device : loop.devices) {
            if (device.start != start || !is_over(loop, file))
                continue;
            for (const std::string& point : mount_points_of(device)) {
                base::Descriptor fd(::open(point.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC | O_NOATIME));
                if (fd && is_mount_of(fd.get(), device))
                    return Mounted{point, std::move(fd)};
            }
        }
    }
    return std::nullopt;
}

} // namespace quendreld
