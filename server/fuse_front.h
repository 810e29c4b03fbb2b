/* SPDX-License-Identifier: GPL-2.0-only */
// The disks as files: a FUSE file system with one file a disk, for this host's loop driver.
//
// Here are its mount and the threads that receive requests; fuse_files.h and fuse_io.h have what these ask for,
// fuse_buffers.h where their data lies.
#pragma once

#include "served_disk.h"

#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

namespace quendreld
{

class FuseFront
{
  public:
    // Mounts on `mount_point` (made if missing) and starts serving. The disks outlive it. Throws std::runtime_error
    // that says what is missing.
    FuseFront(std::vector<ServedDisk*> disks, const std::string& mount_point,
              std::function<void(std::string_view)> report);
    // Unmounts (lazily, when a loop device still holds a file) and stops serving; waits for requests under way.
    ~FuseFront();

  private:
    struct Impl;
    std::unique_ptr<Impl> impl_;
};

} // namespace quendreld
