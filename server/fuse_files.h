/* SPDX-License-Identifier: GPL-2.0-only */
// The file system of the FUSE front: one directory, one file a disk; its names and attributes, and what the requests
// for data (fuse_io.h) work on. Files bypass the page cache, so that what is written here and what is written over NBD
// never disagree.
#pragma once

#include "fuse_buffers.h"
#include "served_disk.h"

#define FUSE_USE_VERSION 314
#include <fuse3/fuse_lowlevel.h>
#include <sys/stat.h>

#include <atomic>
#include <ctime>
#include <mutex>
#include <vector>

namespace quendreld
{

class FuseFiles
{
  public:
    // The disks outlive it. `receivers`: the most threads that have a buffer of `large` to receive into.
    FuseFiles(std::vector<ServedDisk*> disks, unsigned receivers);

    // For a session whose user data is a FuseFiles.
    static fuse_lowlevel_ops operations();
    // Waits until every request has been replied to. No new ones may come.
    void wait_until_idle() const;

    // For the operations.
    static FuseFiles& of(fuse_req_t request) { return *static_cast<FuseFiles*>(fuse_req_userdata(request)); }
    ServedDisk* disk_of(fuse_ino_t inode) const; // null: none has this number
    struct stat attributes(fuse_ino_t inode) const;
    const std::vector<ServedDisk*> disks;
    BufferPool small;
    BufferPool large;          // whole receive buffers
    std::mutex within_sectors; // one read-modify-write of a part of a sector at a time; before the buffers'
    std::atomic<long> in_flight = 0;

  private:
    timespec started_{};
};

} // namespace quendreld
