/* SPDX-License-Identifier: GPL-2.0-only */
// Which devices can be backed up, and what a name on the command line stands for.
//
// Behind a daemon's socket the devices are those of disks.json in its run directory; behind a device node they are
// this host's own.
#pragma once

#include "client/control_device.h"
#include "host_blocks.h"

#include <optional>
#include <set>
#include <string>
#include <vector>

namespace qbackup
{

struct Device {
    std::string name; // "sda1"
    quendrel::DeviceNumber number;
    std::uint64_t bytes = 0;             // 0: not known, ask the driver
    std::string type;                    // of the file system; empty when not known
    std::string holds;                   // what it holds that is no file system, as a daemon tells it: "swap"
    std::uint32_t blockSize = 0;         // of the file system, in bytes; 0 when not known before the driver is asked
    std::vector<std::string> partitions; // of a whole disk: their names
    std::vector<std::string> holders;    // of a disk or partition: what it is a part of, as a logical volume
    std::string instance;                // behind a daemon: another one than before, another device
    struct Contents {
        fs::path file; // on this host; empty: none
        std::uint64_t start = 0; // bytes into it
    };
    Contents contents;                   // behind a daemon: where they can be read while it serves
    std::set<dev_t> hostDevices;         // the device as this host sees it: what is mounted when it is mounted here
};

class DeviceCatalog
{
  public:
    // `control`: the control device node or socket.
    DeviceCatalog(const fs::path& control, HostBlocks host);

    // `text`: "sda1", "8:1" or "/dev/sda1"; on this host any path that leads to a block device, too, and the name of a
    // device-mapper device. Throws Failure (refused) with the names that there are.
    Device find(const std::string& text) const;
    // The daemon's disks and partitions, in order; this host's mounted devices for a device node.
    const std::vector<Device>& listed() const noexcept { return devices_; }
    // The directory where the daemon keeps its files; empty for a device node.
    const fs::path& runDirectory() const noexcept { return run_directory_; }
    // Whether a child process may go on with the control device that its parent opened. An older daemon knows no such
    // thing.
    bool offersTakeOver() const noexcept { return offers_take_over_; }

  private:
    void load(const fs::path& disks_json);
    Device findOnHost(const std::string& text) const;
    std::optional<Device> describe(quendrel::DeviceNumber number) const;

    HostBlocks host_;
    fs::path run_directory_;
    bool offers_take_over_ = true;
    std::vector<Device> devices_;
};

} // namespace qbackup
