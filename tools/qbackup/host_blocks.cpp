// SPDX-License-Identifier: GPL-2.0-only
#include "host_blocks.h"

#include <sys/stat.h>
#include <sys/sysmacros.h>

#include <algorithm>
#include <fstream>
#include <iterator>
#include <sstream>

namespace qbackup
{
namespace
{

std::string firstLine(const fs::path& path)
{
    std::ifstream in{path};
    std::string line;
    std::getline(in, line);
    return line;
}

std::optional<dev_t> parseNumber(const std::string& text)
{
    unsigned major_number = 0;
    unsigned minor_number = 0;
    if (std::sscanf(text.c_str(), "%u:%u", &major_number, &minor_number) != 2)
        return std::nullopt;
    return makedev(major_number, minor_number);
}

// Mountinfo writes blanks and backslashes as three octal digits.
std::string unescape(const std::string& text)
{
    std::string out;
    for (std::size_t i = 0; i < text.size(); ++i) {
        if (text[i] == '\\' && i + 3 < text.size()) {
            out += static_cast<char>(std::stoi(text.substr(i + 1, 3), nullptr, 8));
            i += 3;
        } else {
            out += text[i];
        }
    }
    return out;
}

// `path`, or the nearest directory above it that exists.
fs::path nearest(fs::path path)
{
    std::error_code error;
    path = fs::absolute(path, error);
    while (!fs::exists(path, error) && path.has_relative_path())
        path = path.parent_path();
    return path;
}

std::optional<dev_t> fileSystemOf(const fs::path& path)
{
    struct stat st {
    };
    if (::stat(path.c_str(), &st) != 0)
        return std::nullopt;
    return st.st_dev;
}

// The value of a file system's option, as overlays have them; nothing when it is not there.
std::optional<std::string> option(const std::string& options, const std::string& name)
{
    std::istringstream fields{options};
    for (std::string field; std::getline(fields, field, ',');)
        if (field.starts_with(name + "="))
            return unescape(field.substr(name.size() + 1));
    return std::nullopt;
}

std::vector<std::string> namesIn(const fs::path& directory)
{
    std::vector<std::string> names;
    std::error_code error;
    for (fs::directory_iterator entry{directory, error}, end; !error && entry != end; entry.increment(error))
        names.push_back(entry->path().filename().string());
    std::sort(names.begin(), names.end());
    return names;
}

// Device-mapper numbers change from one start to the next, the names of its devices do not.
std::string nameOf(const fs::path& sys_directory)
{
    const std::string given = firstLine(sys_directory / "dm" / "name");
    const bool usable = !given.empty() && given.find('/') == std::string::npos && given.front() != '.';
    return usable ? given : sys_directory.filename().string();
}

bool sameFile(const fs::path& a, const fs::path& b)
{
    struct stat first {
    };
    struct stat second {
    };
    return ::stat(a.c_str(), &first) == 0 && ::stat(b.c_str(), &second) == 0 && first.st_dev == second.st_dev &&
           first.st_ino == second.st_ino;
}

} // namespace

std::optional<dev_t> blockNumber(const fs::path& path)
{
    struct stat st {
    };
    if (::stat(path.c_str(), &st) != 0 || !S_ISBLK(st.st_mode))
        return std::nullopt;
    return st.st_rdev;
}

HostBlocks::HostBlocks(fs::path sys, fs::path mountinfo, fs::path boot_id)
    : sys_{std::move(sys)}, mountinfo_{std::move(mountinfo)}, boot_id_{std::move(boot_id)}
{
}

fs::path HostBlocks::sysDirectory(dev_t device) const
{
    const fs::path link =
        sys_ / "dev" / "block" / (std::to_string(major(device)) + ":" + std::to_string(minor(device)));
    std::error_code error;
    const fs::path real = fs::canonical(link, error);
    return error ? fs::path{} : real;
}

std::vector<HostBlocks::Mount> HostBlocks::mounts() const
{
    std::vector<Mount> result;
    std::ifstream in{mountinfo_};
    for (std::string line; std::getline(in, line);) {
        std::istringstream fields{line};
        std::string id, parent, number, root, point, word, type, source, options;
        fields >> id >> parent >> number >> root >> point;
        while (fields >> word && word != "-")
            ;
        fields >> type >> source >> options;
        if (const auto device = parseNumber(number))
            result.push_back({*device, unescape(root), unescape(point), type, unescape(source), options});
    }
    return result;
}

bool HostBlocks::isMountPoint(const fs::path& path) const
{
    const auto all = mounts();
    return std::any_of(all.begin(), all.end(), [&](const Mount& mount) { return mount.point == path; });
}

std::set<dev_t> HostBlocks::underlying(const fs::path& path) const
{
    Walk walk{mounts(), {}, {}};
    addPath(path, walk);
    return walk.found;
}

void HostBlocks::addPath(const fs::path& path, Walk& walk) const
{
    const fs::path there = nearest(path);
    std::error_code error;
    if (const auto device = fileSystemOf(there))
        addFileSystem(*device, walk);
    // A file on an overlay may bear a number that no mount has; its directory never does.
    if (!fs::is_directory(there, error))
        if (const auto device = fileSystemOf(there.parent_path()))
            addFileSystem(*device, walk);
}

void HostBlocks::addFileSystem(dev_t device, Walk& walk) const
{
    if (major(device) != 0)
        addDevice(device, walk);
    for (std::size_t i = 0; i < walk.mounts.size(); ++i) {
        const Mount mount = walk.mounts[i];
        if (mount.device != device)
            continue;
        // Some file systems (btrfs) show a number of their own; their mount names the device.
        if (const auto source = blockNumber(mount.source))
            addDevice(*source, walk);
        // What is written to an overlay goes to its upper directory, by a name of whoever mounted it: in a container
        // that may mean nothing.
        if (mount.type == "overlay" && walk.overlays.insert(device).second)
            for (const char* name : {"upperdir", "workdir"})
                if (const auto below = option(mount.options, name); below && fileSystemOf(*below))
                    addPath(*below, walk);
    }
}

void HostBlocks::addDevice(dev_t device, Walk& walk) const
{
    if (!walk.found.insert(device).second)
        return;
    const fs::path directory = sysDirectory(device);
    if (directory.empty())
        return;
    std::error_code error;
    const fs::path disk = fs::exists(directory / "partition", error) ? directory.parent_path() : directory;
    if (const std::string backing = firstLine(disk / "loop" / "backing_file"); !backing.empty())
        addPath(backing, walk);
    for (const std::string& slave : namesIn(disk / "slaves"))
        if (const auto number = parseNumber(firstLine(disk / "slaves" / slave / "dev")))
            addDevice(*number, walk);
}

std::set<dev_t> HostBlocks::loopsOver(const fs::path& file, std::uint64_t start) const
{
    std::set<dev_t> found;
    std::error_code error;
    for (fs::directory_iterator entry{sys_ / "block", error}, end; !error && entry != end; entry.increment(error)) {
        const std::string backing = firstLine(entry->path() / "loop" / "backing_file");
        if (backing.empty() || (backing != file.string() && !sameFile(backing, file)))
            continue;
        if (start == 0) {
            if (const auto number = parseNumber(firstLine(entry->path() / "dev")))
                found.insert(*number);
            continue;
        }
        std::error_code inner;
        for (fs::directory_iterator part{entry->path(), inner}, last; !inner && part != last; part.increment(inner))
            if (firstLine(part->path() / "start") == std::to_string(start))
                if (const auto number = parseNumber(firstLine(part->path() / "dev")))
                    found.insert(*number);
    }
    return found;
}

std::vector<HostBlocks::Mounted> HostBlocks::mountsOf(dev_t device) const
{
    std::vector<Mounted> result;
    for (const Mount& mount : mounts())
        if (mount.device == device || blockNumber(mount.source) == device)
            result.push_back({mount.point, mount.type});
    return result;
}

std::set<dev_t> HostBlocks::mounted() const
{
    std::set<dev_t> result;
    for (const Mount& mount : mounts()) {
        if (major(mount.device) != 0)
            result.insert(mount.device);
        else if (const auto source = blockNumber(mount.source))
            result.insert(*source);
    }
    return result;
}

std::optional<HostBlocks::Node> HostBlocks::node(dev_t device) const
{
    const fs::path directory = sysDirectory(device);
    if (directory.empty())
        return std::nullopt;
    Node result{nameOf(directory), 0, {}, {}};
    const std::string sectors = firstLine(directory / "size");
    result.bytes = sectors.empty() ? 0 : std::strtoull(sectors.c_str(), nullptr, 10) * 512;
    std::error_code error;
    for (const std::string& name : namesIn(directory))
        if (fs::exists(directory / name / "partition", error))
            result.partitions.push_back(name);
    for (const std::string& name : namesIn(directory / "holders"))
        result.holders.push_back(nameOf(fs::weakly_canonical(directory / "holders" / name, error)));
    return result;
}

std::string HostBlocks::instance(dev_t device) const
{
    std::string text = "boot " + firstLine(boot_id_);
    describe(device, text, 0);
    return text;
}

std::optional<std::string> HostBlocks::written(dev_t device) const
{
    const fs::path directory = sysDirectory(device);
    std::error_code error;
    const fs::path disk = fs::exists(directory / "partition", error) ? directory.parent_path() : directory;
    if (directory.empty() || firstLine(disk / "queue" / "iostats") != "1")
        return std::nullopt;
    // Documentation/block/stat.rst: from 0 on, 4 to 6 are writes, their merges and their sectors, 8 what is in flight, 11
    // to 13 as 4 to 6 for discards, which kernels before 4.18 count as writes.
    std::istringstream in{firstLine(directory / "stat")};
    const std::vector<std::uint64_t> all{std::istream_iterator<std::uint64_t>{in}, {}};
    if (all.size() < 11 || all[4] == 0 || all[8] != 0)
        return std::nullopt;
    std::string text;
    for (const std::size_t i : {4, 5, 6, 11, 12, 13})
        text += (text.empty() ? "" : " ") + std::to_string(i < all.size() ? all[i] : 0);
    return text;
}

void HostBlocks::describe(dev_t device, std::string& text, unsigned depth) const
{
    text += (depth == 0 ? "; " : " over ") + std::to_string(major(device)) + ":" + std::to_string(minor(device));
    fs::path disk = sysDirectory(device);
    if (disk.empty()) {
        text += " gone";
        return;
    }
    std::error_code error;
    if (fs::exists(disk / "partition", error)) {
        text += " from sector " + firstLine(disk / "start");
        disk = disk.parent_path();
    }
    // Every disk that appears, and every change of a medium or of a loop device's file, gets a sequence number that was
    // never used since the kernel started. Kernels before 5.15 have none; there the directory's number has to do.
    if (const std::string sequence = firstLine(disk / "diskseq"); !sequence.empty()) {
        text += " disk " + sequence;
    } else if (struct stat st{}; ::stat(disk.c_str(), &st) == 0) {
        text += " directory " + std::to_string(st.st_ino);
    }
    for (const char* name : {"serial", "wwid", "device/serial", "device/wwid", "dm/uuid"})
        if (const std::string value = firstLine(disk / name); !value.empty())
            text += std::string{" "} + name + " " + value;
    // A logical volume can be laid over other disks while it is in use. Paths of a multipath device, and members of a
    // RAID array, come and go without the contents being others.
    const std::string uuid = firstLine(disk / "dm" / "uuid");
    const bool layered = fs::exists(disk / "dm", error) && !uuid.starts_with("mpath-");
    constexpr unsigned deepest = 16;
    if (!layered || depth >= deepest)
        return;
    for (const std::string& slave : namesIn(disk / "slaves"))
        if (const auto number = parseNumber(firstLine(disk / "slaves" / slave / "dev")))
            describe(*number, text, depth + 1);
}

} // namespace qbackup
