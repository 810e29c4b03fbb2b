// SPDX-License-Identifier: GPL-2.0-only
#include "device_catalog.h"

#include "failure.h"

#include <nlohmann/json.hpp>

#include <sys/stat.h>
#include <sys/sysmacros.h>

namespace qbackup
{
namespace
{

constexpr int known_version = 1;

std::optional<quendrel::DeviceNumber> parseNumber(const std::string& text)
{
    unsigned major_number = 0;
    unsigned minor_number = 0;
    int used = 0;
    if (std::sscanf(text.c_str(), "%u:%u%n", &major_number, &minor_number, &used) != 2 ||
        static_cast<std::size_t>(used) != text.size())
        return std::nullopt;
    return quendrel::DeviceNumber{major_number, minor_number};
}

bool isSocket(const fs::path& path)
{
    struct stat st {
    };
    return ::stat(path.c_str(), &st) == 0 && S_ISSOCK(st.st_mode);
}

} // namespace

DeviceCatalog::DeviceCatalog(const fs::path& control, HostBlocks host) : host_{std::move(host)}
{
    if (!isSocket(control)) {
        for (const dev_t number : host_.mounted())
            if (auto device = describe({major(number), minor(number)}))
                devices_.push_back(std::move(*device));
        return;
    }
    run_directory_ = fs::absolute(control).parent_path();
    load(run_directory_ / "disks.json");
}

void DeviceCatalog::load(const fs::path& disks_json)
try {
    const auto document = nlohmann::json::parse(readText(disks_json));
    if (document.at("version").get<int>() != known_version)
        throw Failure{Exit::refused, disks_json.string() + " is of a version that this program does not know; use "
                                                           "daemon and qbackup of the same release"};
    offers_take_over_ = document.value("takeOver", false);
    for (const auto& disk : document.at("disks")) {
        // Null when the daemon offers no file for this host's loop driver.
        const bool has_file = disk.contains("file") && disk.at("file").is_string();
        const std::string file = has_file ? disk.at("file").get<std::string>() : "";
        Device whole;
        whole.name = disk.at("name");
        whole.contents.file = file;
        whole.number = {disk.at("major").get<std::uint32_t>(), disk.at("minor").get<std::uint32_t>()};
        whole.bytes = disk.at("bytes");
        whole.instance = disk.value("instance", "");
        whole.holds = disk.value("holds", "");
        whole.type = disk.value("type", "");
        whole.blockSize = disk.value("blockSize", 0U);
        if (!file.empty())
            whole.hostDevices = host_.loopsOver(file, 0);
        std::vector<Device> parts;
        for (const auto& entry : disk.value("partitions", nlohmann::json::array())) {
            Device part;
            part.name = entry.at("name");
            part.number = {entry.at("major").get<std::uint32_t>(), entry.at("minor").get<std::uint32_t>()};
            part.bytes = entry.at("sectors").get<std::uint64_t>() * 512;
            part.instance = entry.value("instance", "");
            part.holds = entry.value("holds", "");
            part.type = entry.value("type", "");
            part.blockSize = entry.value("blockSize", 0U);
            part.contents = {file, entry.at("start").get<std::uint64_t>() * 512};
            if (!file.empty())
                part.hostDevices = host_.loopsOver(file, entry.at("start").get<std::uint64_t>());
            whole.partitions.push_back(part.name);
            parts.push_back(std::move(part));
        }
        devices_.push_back(std::move(whole));
        devices_.insert(devices_.end(), parts.begin(), parts.end());
    }
} catch (const nlohmann::json::exception& error) {
    throw Failure{Exit::refused, "cannot understand " + disks_json.string() + ": " + error.what() +
                                     "; start the daemon again so that it writes the file anew"};
}

Device DeviceCatalog::find(const std::string& text) const
{
    if (run_directory_.empty())
        return findOnHost(text);
    const std::string name = text.starts_with("/dev/") ? text.substr(5) : text;
    const auto number = parseNumber(text);
    std::string names;
    for (const Device& device : devices_) {
        if (device.name == name || (number && device.number == *number))
            return device;
        // The loop device of an attached disk names the same device as the daemon's own name.
        if (const auto node = blockNumber(text); node && device.hostDevices.contains(*node))
            return device;
        names += (names.empty() ? "" : ", ") + device.name;
    }
    throw Failure{Exit::refused,
                  "the daemon serves no device " + text + "; it has " + (names.empty() ? "none" : names)};
}

Device DeviceCatalog::findOnHost(const std::string& text) const
{
    auto number = parseNumber(text);
    if (!number) {
        const fs::path dev{"/dev"};
        const std::vector<fs::path> places = text.find('/') == std::string::npos
                                                 ? std::vector{dev / text, dev / "mapper" / text}
                                                 : std::vector{fs::path{text}};
        std::optional<dev_t> node;
        for (std::size_t i = 0; i < places.size() && !node; ++i)
            node = blockNumber(places[i]);
        if (!node)
            throw Failure{Exit::refused, places[0].string() +
                                             " is not a block device; name one as sda1, 8:1, /dev/sda1, "
                                             "/dev/disk/by-uuid/... or /dev/mapper/..."};
        number = {major(*node), minor(*node)};
    }
    if (auto device = describe(*number))
        return std::move(*device);
    throw Failure{Exit::refused, "this machine has no block device " + text};
}

std::optional<Device> DeviceCatalog::describe(quendrel::DeviceNumber number) const
{
    const dev_t on_host = makedev(number.major, number.minor);
    const auto node = host_.node(on_host);
    if (!node)
        return std::nullopt;
    Device device;
    device.name = node->name;
    device.number = number;
    device.bytes = node->bytes;
    device.partitions = node->partitions;
    device.holders = node->holders;
    device.hostDevices = {on_host};
    if (const auto mounts = host_.mountsOf(on_host); !mounts.empty())
        device.type = mounts.front().type;
    return device;
}

} // namespace qbackup
