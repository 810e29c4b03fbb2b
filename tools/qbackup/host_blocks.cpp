#include "host_blocks.h"

#include <sys/stat.h>
#include <sys/sysmacros.h>

#include <fstream>
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

// The number of the device that `path` lies on, or that of the nearest directory above it that exists.
std::optional<dev_t> fileSystemOf(fs::path path)
{
    std::error_code error;
    path = fs::absolute(path, error);
    for (;;) {
        struct stat st {
        };
        if (::stat(path.c_str(), &st) == 0)
            return st.st_dev;
        if (!path.has_relative_path())
            return std::nullopt;
        path = path.parent_path();
    }
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

HostBlocks::HostBlocks(fs::path sys, fs::path mountinfo) : sys_{std::move(sys)}, mountinfo_{std::move(mountinfo)} {}

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
        std::string id, parent, number, root, point, word, type, source;
        fields >> id >> parent >> number >> root >> point;
        while (fields >> word && word != "-")
            ;
        fields >> type >> source;
        if (const auto device = parseNumber(number))
            result.push_back({*device, unescape(root), unescape(point), unescape(source)});
    }
    return result;
}

std::set<dev_t> HostBlocks::underlying(const fs::path& path) const
{
    std::set<dev_t> found;
    addPath(path, mounts(), found);
    return found;
}

void HostBlocks::addPath(const fs::path& path, const std::vector<Mount>& mounts, std::set<dev_t>& found) const
{
    const auto device = fileSystemOf(path);
    if (!device)
        return;
    if (major(*device) != 0)
        addDevice(*device, mounts, found);
    // Some file systems (btrfs) show a number of their own; their mount names the device.
    for (const Mount& mount : mounts)
        if (mount.device == *device)
            if (const auto source = blockNumber(mount.source))
                addDevice(*source, mounts, found);
}

void HostBlocks::addDevice(dev_t device, const std::vector<Mount>& mounts, std::set<dev_t>& found) const
{
    if (!found.insert(device).second)
        return;
    const fs::path directory = sysDirectory(device);
    if (directory.empty())
        return;
    std::error_code error;
    const fs::path disk = fs::exists(directory / "partition", error) ? directory.parent_path() : directory;
    if (const std::string backing = firstLine(disk / "loop" / "backing_file"); !backing.empty())
        addPath(backing, mounts, found);
    for (fs::directory_iterator slave{disk / "slaves", error}, end; !error && slave != end; slave.increment(error))
        if (const auto number = parseNumber(firstLine(slave->path() / "dev")))
            addDevice(*number, mounts, found);
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

std::optional<fs::path> HostBlocks::mountPoint(dev_t device) const
{
    for (const Mount& mount : mounts())
        if (mount.device == device || blockNumber(mount.source) == device)
            return mount.point;
    return std::nullopt;
}

std::optional<HostBlocks::Node> HostBlocks::node(dev_t device) const
{
    const fs::path directory = sysDirectory(device);
    if (directory.empty())
        return std::nullopt;
    Node result{directory.filename().string(), 0, false};
    const std::string sectors = firstLine(directory / "size");
    result.bytes = sectors.empty() ? 0 : std::strtoull(sectors.c_str(), nullptr, 10) * 512;
    std::error_code error;
    for (fs::directory_iterator entry{directory, error}, end; !error && entry != end; entry.increment(error))
        if (fs::exists(entry->path() / "partition", error))
            result.partitioned = true;
    return result;
}

} // namespace qbackup
