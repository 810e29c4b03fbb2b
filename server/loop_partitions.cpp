// SPDX-License-Identifier: GPL-2.0-only
#include "loop_partitions.h"

#include <fcntl.h>
#include <linux/blkpg.h>
#include <sys/ioctl.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <stdexcept>
#include <thread>

namespace quendreld
{

namespace
{

struct Place {
    unsigned number;
    std::uint64_t start, sectors;
    bool operator==(const Place&) const = default;
};
using Places = std::vector<Place>;

Places places_of(const DiskRecord& disk)
{
    Places places;
    for (const PartitionRecord& part : disk.partitions)
        places.push_back({part.minor - disk.minor, part.start, part.sectors});
    return places;
}

Places places_of(const HostLoop& loop)
{
    Places places;
    for (const HostDevice& device : loop.devices)
        if (device.partition != 0)
            places.push_back({device.partition, device.start, device.sectors});
    return places;
}

// On any loop device over the file.
Places places_here(const std::string& file)
{
    Places all;
    for (const HostLoop& loop : loops_over(file))
        for (const Place& place : places_of(loop))
            all.push_back(place);
    return all;
}

bool has(const Places& places, const Place& one)
{
    return std::find(places.begin(), places.end(), one) != places.end();
}

int change(int loop, int operation, const Place& place)
{
    blkpg_partition part{};
    part.pno = int(place.number);
    part.start = static_cast<long long>(place.start * 512);
    part.length = static_cast<long long>(place.sectors * 512);
    blkpg_ioctl_arg argument{operation, 0, sizeof part, &part};
    return ::ioctl(loop, BLKPG, &argument) == 0 ? 0 : -errno;
}

// 0 also when it is there already: whoever has changed the table may have told the host.
int add(int loop, const std::string& file, const Place& place)
{
    const int error = change(loop, BLKPG_ADD_PARTITION, place);
    return error == -EBUSY && has(places_here(file), place) ? 0 : error;
}

// 0 also when it is gone already.
int remove(int loop, const Place& place)
{
    const int error = change(loop, BLKPG_DEL_PARTITION, place);
    return error == -ENXIO ? 0 : error;
}

// True: it is the wanted one now, which begins where it does.
bool resize(int loop, const Place& place, const Places& wanted)
{
    const auto same = std::find_if(wanted.begin(), wanted.end(), [&](const Place& other) {
        return other.number == place.number && other.start == place.start;
    });
    return same != wanted.end() && change(loop, BLKPG_RESIZE_PARTITION, *same) == 0;
}

std::string not_followed(const HostLoop& loop, const Place& place, int error)
{
    return loop.node + "p" + std::to_string(place.number) + " does not follow the partition table: " +
           (error == -EBUSY ? "it is in use; detach the disk and attach it again when it is not"
                            : std::strerror(-error));
}

} // namespace

void add_partitions(int loop, const std::string& node, const DiskRecord& disk)
{
    const Places wanted = places_of(disk);
    for (const Place& place : wanted) {
        int error = add(loop, disk.file, place);
        for (int tries = 0; error == -EBUSY && tries < 40; ++tries) {
            for (const Place& other : places_here(disk.file))
                if (!has(wanted, other))
                    remove(loop, other);
            std::this_thread::sleep_for(std::chrono::milliseconds(50)); // its last user may be about to let it go
            error = add(loop, disk.file, place);
        }
        if (error)
            throw std::runtime_error(node + ": cannot add partition " + disk.name + std::to_string(place.number) +
                                     ": " + std::strerror(-error));
    }
}

std::vector<std::string> follow_table(const DiskRecord& disk)
{
    std::vector<std::string> problems;
    if (disk.file.empty())
        return problems;
    const Places wanted = places_of(disk);
    for (const HostLoop& loop : loops_over(disk.file)) {
        const base::Descriptor fd(::open(loop.node.c_str(), O_RDONLY | O_CLOEXEC));
        if (!fd) {
            problems.push_back(loop.node + ": cannot open: " + std::strerror(errno));
            continue;
        }
        std::vector<unsigned> taken; // numbers
        for (const Place& place : places_of(loop)) {
            if (!has(wanted, place) && !resize(fd.get(), place, wanted)) {
                const int error = remove(fd.get(), place);
                if (error == 0)
                    continue;
                problems.push_back(not_followed(loop, place, error));
            }
            taken.push_back(place.number);
        }
        for (const Place& place : wanted) {
            if (std::find(taken.begin(), taken.end(), place.number) != taken.end())
                continue;
            if (const int error = add(fd.get(), disk.file, place))
                problems.push_back(not_followed(loop, place, error));
        }
    }
    return problems;
}

void remove_partitions(int loop, const HostLoop& device, const std::string& disk)
{
    for (const Place& place : places_of(device)) {
        const int error = remove(loop, place);
        const std::string node = device.node + "p" + std::to_string(place.number);
        if (error == -EBUSY)
            throw std::runtime_error(disk + ": " + node + " is in use (open, or mounted in another mount namespace)");
        if (error)
            throw std::runtime_error(node + ": cannot remove the partition: " + std::strerror(-error));
    }
}

} // namespace quendreld
