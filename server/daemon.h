/* SPDX-License-Identifier: GPL-2.0-only */
// The daemon's inside: the hosted kernel with its disks and the driver, and everything that stands in front of it.
//
// Order of building: disks, driver, disk files (FUSE), file systems, NBD, control socket. Taking down ends the control
// clients first, as a backup under way may hold requests of the others.
#pragma once

#include "config.h"
#include "control_server.h"
#include "contents_keeper.h"
#include "fuse_front.h"
#include "liveness.h"
#include "log_file.h"
#include "nbd/server.h"
#include "run_dir.h"
#include "served_disk.h"

#include <atomic>
#include <condition_variable>
#include <memory>
#include <mutex>
#include <string_view>
#include <thread>
#include <vector>

namespace quendreld
{

class Daemon
{
  public:
    // Starts everything. Throws std::exception with a message for the user; what was started is taken down again.
    // `guardian`: its socket, or none.
    Daemon(Config config, const RunDir& run, base::Descriptor guardian);
    ~Daemon(); // ends, if end was not called

    // Ends clients (a backup under way is detached), answers what was accepted, writes out what is mounted here, makes
    // the disks durable. The result tells, in lines, what could not be made durable; mostly it is empty.
    std::string end();

    bool alive(); // the disks answered since the last call; of one thread

    void report(std::string_view line); // into the log

  private:
    void add_disks();
    void make_backup_lock();
    void describe(); // in RUN/disks.json, and to the service manager
    void try_to_describe();
    void described_anew(unsigned disk);
    void flush_failed(const std::string& disk, int error);
    void tell_news();
    void write_out_mounts();
    std::string take_down();

    const Config config_;
    const RunDir& run_;
    // What is taken away at the end, made before: that shall need no memory.
    const std::string disks_json_ = run_.here(run_.disks_json());
    const std::string disk_files_ = run_.here(run_.disks());
    std::unique_ptr<LogFile> log_;
    std::shared_ptr<Guardian> guardian_;
    std::vector<std::unique_ptr<ServedDisk>> disks_;
    bool driver_loaded_ = false;
    std::mutex describe_; // one writing of the description at a time; after a look's lock
    std::thread herald_;  // describes the disks when a thread that must not wait has news of a failed flush
    std::unique_ptr<Liveness> liveness_;
    std::mutex news_mutex_; // guards what follows; innermost
    std::condition_variable news_came_;
    bool flush_failed_ = false;
    bool herald_ends_ = false;
    std::unique_ptr<ContentsKeeper> contents_;
    std::atomic<ContentsKeeper*> contents_there_ = nullptr; // the same, for the disks' threads, which are there before
    std::unique_ptr<FuseFront> fuse_;
    std::unique_ptr<nbd::Server> nbd_;
    std::unique_ptr<ControlServer> control_;
    bool ended_ = false;
};

} // namespace quendreld
