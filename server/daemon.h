/* SPDX-License-Identifier: GPL-2.0-only */
// The daemon's inside: the hosted kernel with its disks and the driver, and everything that stands in front of it
// except NBD, which belongs to the program this is loaded into.
//
// Order of building, which taking down reverses: disks, driver, file systems, disk files (FUSE), control socket.
#pragma once

#include "config.h"
#include "control_server.h"
#include "file_systems.h"
#include "fuse_front.h"
#include "log_file.h"
#include "run_dir.h"
#include "served_disk.h"

#include <memory>
#include <mutex>
#include <string_view>
#include <vector>

namespace quendreld
{

class Daemon
{
  public:
    // Starts everything. Throws std::exception with a message for the user; what was started is taken down again.
    explicit Daemon(Config config);
    // Ends clients (a backup under way is detached), writes out what is mounted here, makes the disks durable.
    ~Daemon();

    // The served disks, in order. Valid as long as the daemon.
    const std::vector<std::unique_ptr<ServedDisk>>& disks() const { return disks_; }
    ServedDisk* find(std::string_view name) const; // "": the first; null: none of that name

    void report(std::string_view line); // into the log

  private:
    void add_disks();
    void look_for_file_systems(); // and describe the disks anew when something changed
    void write_out_mounts();
    void take_down();

    const Config config_;
    const RunDir run_;
    std::unique_ptr<LogFile> log_;
    std::shared_ptr<Guardian> guardian_;
    std::vector<std::unique_ptr<ServedDisk>> disks_;
    bool driver_loaded_ = false;
    std::mutex describe_; // one look at a time; outermost
    std::unique_ptr<FileSystems> file_systems_;
    std::unique_ptr<FuseFront> fuse_;
    std::unique_ptr<ControlServer> control_;
};

} // namespace quendreld
