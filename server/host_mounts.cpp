// SPDX-License-Identifier: GPL-2.0-only
#include "host_mounts.h"

#include <dirent.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <memory>
#include <sstream>

namespace quendreld
{

namespace fs = std::filesystem;

namespace
{

// The names in a directory; none when it cannot be read. The standard library's iterator ends the process when it finds
// no memory for a name.
std::vector<std::string> names_in(const std::string& directory)
{
    const std::unique_ptr<DIR, int (*)(DIR*)> open(::opendir(directory.c_str()), ::closedir);
    std::vector<std::string> names;
    while (const dirent* entry = open ? ::readdir(open.get()) : nullptr)
        if (entry->d_name[0] != '.')
            names.push_back(entry->d_name);
    return names;
}

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

// mountinfo writes space, tab, newline and backslash as three octal digits.
std::string unescape(const std::string& text)
{
    std::string out;
    for (std::size_t i = 0; i < text.size(); ++i) {
        if (text[i] == '\\' && i + 3 < text.size()) {
            out += char(std::strtol(text.substr(i + 1, 3).c_str(), nullptr, 8));
            i += 3;
        } else {
            out += text[i];
        }
    }
    return out;
}

} // namespace

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
    std::ifstream in("/proc/self/mountinfo");
    for (std::string line; std::getline(in, line);) {
        std::istringstream words(line);
        std::string id, parent, number, root, point, word, type, source;
        words >> id >> parent >> number >> root >> point;
        while (words >> word && word != "-") {
        }
        words >> type >> source;
        unsigned major = 0, minor = 0;
        std::sscanf(number.c_str(), "%u:%u", &major, &minor);
        bool ours = major == device.major && minor == device.minor;
        if (!ours && source.rfind("/dev/", 0) == 0) {
            struct stat status;
            ours = ::stat(unescape(source).c_str(), &status) == 0 && S_ISBLK(status.st_mode) &&
                   status.st_rdev == makedev(device.major, device.minor);
        }
        if (ours)
            points.push_back(unescape(point));
    }
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

} // namespace quendreld
