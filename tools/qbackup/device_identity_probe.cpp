// SPDX-License-Identifier: GPL-2.0-only
// What a device is known by, as its blocks and the kernel tell.
#include "device_identity.h"

#include <blkid/blkid.h>

#include <fcntl.h>

#include <fstream>
#include <memory>
#include <type_traits>

namespace qbackup
{
namespace
{

struct FreeProbe {
    void operator()(blkid_probe probe) const noexcept { blkid_free_probe(probe); }
};
using Probe = std::unique_ptr<std::remove_pointer_t<blkid_probe>, FreeProbe>;

Probe probeOf(int fd, std::uint64_t start, std::uint64_t bytes)
{
    Probe probe{blkid_new_probe()};
    if (!probe || blkid_probe_set_device(probe.get(), fd, static_cast<blkid_loff_t>(start), static_cast<blkid_loff_t>(bytes)) != 0)
        return {};
    return probe;
}

void note(DeviceIdentity& identity, const char* name, const char* value)
{
    if (value != nullptr && *value != '\0')
        identity.marks[name] = value;
}

void noteFileSystem(DeviceIdentity& identity, int fd, std::uint64_t start, std::uint64_t bytes)
{
    const Probe probe = probeOf(fd, start, bytes);
    if (!probe)
        return;
    blkid_probe_enable_superblocks(probe.get(), 1);
    blkid_probe_set_superblocks_flags(probe.get(), BLKID_SUBLKS_UUID);
    const char* value = nullptr;
    if (blkid_do_safeprobe(probe.get()) == 0 && blkid_probe_lookup_value(probe.get(), "UUID", &value, nullptr) == 0)
        note(identity, "fileSystem", value);
}

// Of the partition that begins `start` bytes into the disk.
void notePartition(DeviceIdentity& identity, int disk, std::uint64_t start)
{
    const Probe probe = probeOf(disk, 0, 0);
    if (!probe)
        return;
    blkid_probe_enable_partitions(probe.get(), 1);
    const blkid_partlist list = blkid_probe_get_partitions(probe.get());
    for (int i = 0; list != nullptr && i < blkid_partlist_numof_partitions(list); ++i) {
        const blkid_partition part = blkid_partlist_get_partition(list, i);
        if (static_cast<std::uint64_t>(blkid_partition_get_start(part)) * 512 == start)
            note(identity, "partition", blkid_partition_get_uuid(part));
    }
}

void noteLine(DeviceIdentity& identity, const char* name, const fs::path& file)
{
    std::ifstream in{file};
    std::string line;
    std::getline(in, line);
    line.erase(0, line.find_first_not_of(' '));
    line.erase(line.find_last_not_of(" \n") + 1);
    note(identity, name, line.c_str());
}

std::uint64_t numberIn(const fs::path& file)
{
    std::ifstream in{file};
    std::uint64_t number = 0;
    in >> number;
    return number;
}

} // namespace

DeviceIdentity identityOf(const Device& device, const fs::path& sys)
{
    DeviceIdentity identity;
    if (!device.contents.file.empty()) {
        const base::Descriptor fd{::open(device.contents.file.c_str(), O_RDONLY | O_CLOEXEC)};
        if (fd) {
            noteFileSystem(identity, fd.get(), device.contents.start, device.bytes);
            if (device.contents.start != 0)
                notePartition(identity, fd.get(), device.contents.start);
        }
        // Disks made of one template are the same by all other marks.
        identity.marks["served"] = device.name;
        return identity;
    }
    if (device.hostDevices.empty() || !device.instance.empty()) {
        identity.marks["served"] = device.name;
        return identity;
    }
    const fs::path place = sys / "dev/block" / toString(device.number);
    noteLine(identity, "mapped", place / "dm/uuid");
    std::error_code error;
    const bool partition = fs::exists(place / "partition", error);
    // A copy of a disk on another one has all other marks.
    if (const fs::path disk = partition ? fs::canonical(place, error).parent_path() : place; !error) {
        for (const char* file : {"wwid", "device/wwid"})
            noteLine(identity, "wwid", disk / file);
        for (const char* file : {"serial", "device/serial"})
            noteLine(identity, "serial", disk / file);
    }
    const auto open = [](const fs::path& sysfs) {
        // Names that somebody gave stand elsewhere in /dev; the kernel's own is what udev makes.
        return base::Descriptor{::open(("/dev" / fs::path{fs::canonical(sysfs).filename()}).c_str(), O_RDONLY | O_CLOEXEC)};
    };
    if (!fs::exists(place, error))
        return identity;
    if (const base::Descriptor fd = open(place))
        noteFileSystem(identity, fd.get(), 0, 0);
    if (partition)
        if (const base::Descriptor disk = open(fs::canonical(place).parent_path()))
            notePartition(identity, disk.get(), numberIn(place / "start") * 512);
    return identity;
}

} // namespace qbackup
