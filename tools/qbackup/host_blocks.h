/* SPDX-License-Identifier: GPL-2.0-only */
// What this host knows about block devices: which ones a path lies on, which of its loop devices stand over a disk
// that the daemon serves, what is mounted, and whether a device is still the one it was.
//
// Reads sysfs and /proc only; opens no device. The places are parameters so that tests can show a host of their own.
#pragma once

#include "files.h"

#include <sys/types.h>

#include <cstdint>
#include <optional>
#include <set>
#include <string>
#include <vector>

namespace qbackup
{

class HostBlocks
{
  public:
    explicit HostBlocks(fs::path sys = "/sys", fs::path mountinfo = "/proc/self/mountinfo",
                        fs::path boot_id = "/proc/sys/kernel/random/boot_id");

    // Every block device that the file or directory at `path` lies on: that of its file system, and, through overlays,
    // loop devices and device-mapper layers, those below it. Empty when the file system is on no block device.
    std::set<dev_t> underlying(const fs::path& path) const;
    // The loop devices that stand over `file`, or, when `start` is not 0, their partitions that begin at sector
    // `start`.
    std::set<dev_t> loopsOver(const fs::path& file, std::uint64_t start) const;
    struct Mounted {
        fs::path point;
        std::string type; // of the file system
    };
    // Where the device is mounted, in the order of mounting; empty when it is not.
    std::vector<Mounted> mountsOf(dev_t device) const;
    // Whether something is mounted right there; a look at the path itself may fail, or wait for who serves it.
    bool isMountPoint(const fs::path& path) const;
    // Every block device that is mounted.
    std::set<dev_t> mounted() const;

    struct Node {
        std::string name; // "sda1"; of a device-mapper device the name it was given
        std::uint64_t bytes = 0;
        std::vector<std::string> partitions; // of a whole disk
        std::vector<std::string> holders;    // devices made of this one: logical volumes, RAID arrays
    };
    // Nothing when the host has no such device.
    std::optional<Node> node(dev_t device) const;

    // What tells this device from any other that has had or will have its number, or that has its contents but was
    // away: the running kernel, the disk's sequence number, where the partition starts; of a logical volume, the same
    // of what it lies on. Two equal texts: the device was there all the time in between.
    std::string instance(dev_t device) const;

    // What has been written to the device and discarded, as the kernel counts it: two equal texts, of one instance, and
    // nothing was in between. A write is counted when it begins or when it has ended, by the device's kind, and the text
    // is nothing while something is under way. It is nothing, too, for a device whose counting is switched off, and for
    // one that has never counted a write: there are drivers that count none. What waits in a queue without having
    // begun is not seen; and who switches counting off and on again in between is not noticed.
    std::optional<std::string> written(dev_t device) const;

  private:
    struct Mount {
        dev_t device;
        std::string root;
        fs::path point;
        std::string type;
        fs::path source;
        std::string options; // of the file system itself; still escaped
    };
    // A walk down from a path: what was found, and the overlays that were walked through, by their numbers.
    struct Walk {
        std::vector<Mount> mounts;
        std::set<dev_t> found;
        std::set<dev_t> overlays;
    };
    std::vector<Mount> mounts() const;
    fs::path sysDirectory(dev_t device) const;
    void addPath(const fs::path& path, Walk& walk) const;
    void addFileSystem(dev_t device, Walk& walk) const;
    void addDevice(dev_t device, Walk& walk) const;
    void describe(dev_t device, std::string& text, unsigned depth) const;

    fs::path sys_;
    fs::path mountinfo_;
    fs::path boot_id_;
};

// The device number of a block device node; nothing when `path` is none.
std::optional<dev_t> blockNumber(const fs::path& path);

} // namespace qbackup
