// SPDX-License-Identifier: GPL-2.0-only
// What lies on a disk: its partition table and its file systems, as libblkid sees them.
#include "base/descriptor.h"
#include "hosted.h"

#include <algorithm>
#include <blkid/blkid.h>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <system_error>
#include <unistd.h>

namespace hosted
{

namespace
{

constexpr std::size_t most_records = 128; // no kernel follows a longer chain

struct FreeProbe {
    void operator()(blkid_struct_probe* p) const { blkid_free_probe(p); }
};

// A file and libblkid's view of a part of it (bytes 0: to the end).
class Probe
{
  public:
    Probe(const std::string& path, std::uint64_t offset, std::uint64_t bytes)
        : fd_(open(path.c_str(), O_RDONLY | O_CLOEXEC))
    {
        if (!fd_)
            throw std::system_error(errno, std::generic_category(),
                                    path + ": cannot be read: check the path and its permissions");
        probe_.reset(blkid_new_probe());
        if (!probe_ || blkid_probe_set_device(probe_.get(), fd_.get(), blkid_loff_t(offset), blkid_loff_t(bytes)) != 0)
            throw std::system_error(errno ? errno : EINVAL, std::generic_category(),
                                    path + ": is neither an image nor a block device");
    }
    blkid_probe get() { return probe_.get(); }
    int fd() const { return fd_.get(); }

  private:
    base::Descriptor fd_;
    std::unique_ptr<blkid_struct_probe, FreeProbe> probe_; // uses fd_
};

std::optional<std::string> value(blkid_probe probe, const char* name)
{
    const char* text = nullptr;
    if (blkid_probe_lookup_value(probe, name, &text, nullptr) != 0)
        return std::nullopt;
    return text;
}

// libblkid gives the sector size for an XFS; the block size is in its super block, big-endian at byte 4.
std::optional<u32> xfs_block_size(int fd, std::uint64_t offset)
{
    unsigned char b[4];
    if (pread(fd, b, sizeof b, off_t(offset + 4)) != ssize_t(sizeof b))
        return std::nullopt;
    return u32(b[0]) << 24 | u32(b[1]) << 16 | u32(b[2]) << 8 | b[3];
}

void check_readable(int fd, sector_type at, const std::string& path)
{
    char sector[512];
    if (pread(fd, sector, sizeof sector, off_t(at * 512)) < 0)
        throw std::system_error(errno, std::generic_category(), path + ": sector " + std::to_string(at));
}

// The chain of records that describe the logical partitions of an extended one, the first of them at `start`. libblkid
// reads the chain too, and tells what it says but not where it lies.
void find_extended_records(blkid_probe probe, sector_type start, sector_type capacity, PartitionTable& table)
{
    const u32 sectors_a_block = blkid_probe_get_sectorsize(probe) / 512;
    for (sector_type at = start; at < capacity && table.records.size() < most_records;) {
        if (std::find(table.records.begin(), table.records.end(), at) != table.records.end()) {
            table.left_out.push_back("the extended boot record at sector " + std::to_string(at) +
                                     " is in the chain twice: what would follow is left out");
            return;
        }
        table.records.push_back(at);
        unsigned char record[512];
        if (pread(blkid_probe_get_fd(probe), record, sizeof record, off_t(at * 512)) != ssize_t(sizeof record) || record[510] != 0x55 ||
            record[511] != 0xAA)
            return;
        sector_type next = 0;
        for (const unsigned char* entry = record + 446; entry < record + 510; entry += 16) {
            const bool link = entry[4] == 0x05 || entry[4] == 0x0F || entry[4] == 0x85;
            const u32 offset = u32(entry[8]) | u32(entry[9]) << 8 | u32(entry[10]) << 16 | u32(entry[11]) << 24;
            if (link && next == 0)
                next = start + sector_type(offset) * sectors_a_block;
        }
        if (next == 0)
            return;
        at = next;
    }
}

void take(const PartitionSpec& spec, sector_type capacity, u32 minors, PartitionTable& table)
{
    const std::string name = "partition " + std::to_string(spec.index);
    if (spec.index >= minors) {
        table.left_out.push_back(name + " has no device number, left out");
        return;
    }
    if (spec.start >= capacity || spec.sectors > capacity - spec.start) {
        table.left_out.push_back(name + " ends after the disk, left out");
        return;
    }
    for (const PartitionSpec& other : table.partitions) {
        const bool overlaps = spec.start < other.start + other.sectors && other.start < spec.start + spec.sectors;
        if (overlaps || spec.index == other.index) {
            table.left_out.push_back(name + " lies over partition " + std::to_string(other.index) + ", left out");
            return;
        }
    }
    table.partitions.push_back(spec);
}

} // namespace

PartitionTable read_partition_table(const std::string& path, u32 minors, sector_type sectors)
{
    Probe probe(path, 0, 0);
    PartitionTable table;
    blkid_probe_enable_superblocks(probe.get(), 0);
    blkid_probe_enable_partitions(probe.get(), 1);
    // libblkid's answer is the same when there is none and when it could not look.
    const sector_type capacity = std::min(sectors, sector_type(blkid_probe_get_size(probe.get())) / 512);
    for (const sector_type at : {sector_type(0), capacity - 1})
        check_readable(probe.fd(), at, path);
    errno = 0;
    blkid_partlist list = blkid_probe_get_partitions(probe.get());
    if (!list && (errno == EIO || errno == ENOMEM))
        throw std::system_error(errno, std::generic_category(), path);
    if (!list)
        return table;
    const int n = blkid_partlist_numof_partitions(list);
    for (int i = 0; i < n; ++i) {
        blkid_partition p = blkid_partlist_get_partition(list, i);
        const PartitionSpec spec{u32(blkid_partition_get_partno(p)), sector_type(blkid_partition_get_start(p)),
                                 sector_type(blkid_partition_get_size(p))};
        // An extended partition is only the frame of the logical ones; the kernel gives it a stub of two sectors.
        if (blkid_partition_is_extended(p))
            find_extended_records(probe.get(), spec.start, capacity, table);
        else if (spec.index != 0 && spec.sectors != 0)
            take(spec, capacity, minors, table);
    }
    return table;
}

std::optional<PlaceInfo> probe_place(const std::string& path, std::uint64_t offset, std::uint64_t bytes)
{
    Probe probe(path, offset, bytes);
    blkid_probe_enable_partitions(probe.get(), 0);
    blkid_probe_enable_superblocks(probe.get(), 1);
    blkid_probe_set_superblocks_flags(probe.get(), BLKID_SUBLKS_TYPE | BLKID_SUBLKS_USAGE);
    check_readable(probe.fd(), offset / 512, path);
    errno = 0;
    const int found = blkid_do_safeprobe(probe.get());
    if (found == -1 && (errno == EIO || errno == ENOMEM))
        throw std::system_error(errno, std::generic_category(), path);
    if (found != 0)
        return std::nullopt;
    auto usage = value(probe.get(), "USAGE");
    auto type = value(probe.get(), "TYPE");
    if (!type)
        return std::nullopt;
    PlaceInfo info{!usage || *usage == "filesystem", *type, 0};
    if (auto size = value(probe.get(), "BLOCK_SIZE"))
        info.block_size = u32(std::strtoul(size->c_str(), nullptr, 10));
    if (*type == "xfs") {
        if (auto size = xfs_block_size(probe.fd(), offset))
            info.block_size = *size;
    }
    return info;
}

} // namespace hosted
