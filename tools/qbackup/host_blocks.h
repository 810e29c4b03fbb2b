// What this host knows about block devices: which ones a path lies on, which of its loop devices stand over a disk
// that the daemon serves, what is mounted.
//
// Reads sysfs and mountinfo only; opens no device. The places are parameters so that tests can show a host of their
// own.
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
    explicit HostBlocks(fs::path sys = "/sys", fs::path mountinfo = "/proc/self/mountinfo");

    // Every block device that the file or directory at `path` lies on: that of its file system, and, through loop
    // devices and device-mapper layers, those below it. Empty when the file system is on no block device.
    std::set<dev_t> underlying(const fs::path& path) const;
    // The loop devices that stand over `file`, or, when `start` is not 0, their partitions that begin at sector
    // `start`.
    std::set<dev_t> loopsOver(const fs::path& file, std::uint64_t start) const;
    // Where the device is mounted; nothing when it is not.
    std::optional<fs::path> mountPoint(dev_t device) const;

    struct Node {
        std::string name; // "sda1"
        std::uint64_t bytes = 0;
        bool partitioned = false; // a whole disk with partitions
    };
    // Nothing when the host has no such device.
    std::optional<Node> node(dev_t device) const;

  private:
    struct Mount {
        dev_t device;
        std::string root;
        fs::path point;
        fs::path source;
    };
    std::vector<Mount> mounts() const;
    fs::path sysDirectory(dev_t device) const;
    void addPath(const fs::path& path, const std::vector<Mount>& mounts, std::set<dev_t>& found) const;
    void addDevice(dev_t device, const std::vector<Mount>& mounts, std::set<dev_t>& found) const;

    fs::path sys_;
    fs::path mountinfo_;
};

// The device number of a block device node; nothing when `path` is none.
std::optional<dev_t> blockNumber(const fs::path& path);

} // namespace qbackup
