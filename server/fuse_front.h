/* SPDX-License-Identifier: GPL-2.0-only */
// The disks as files: a FUSE file system with one file a disk, for this host's loop driver.
//
// - Every request is asynchronous: the receiving threads hand it to the disk and go on; the completion replies.
// - Files bypass the page cache, so that what is written here and what is written over NBD never disagree.
// - The data of a request lies on a page boundary (a store with O_DIRECT needs that): a receive buffer is placed so
//   that the payload of a write, which follows 80 bytes of headers, begins on one.
// - Punched holes read as zeros afterwards, as a file system promises; on the disk that is write-zeroes that may
//   unmap.
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

    struct Impl;

  private:
    std::unique_ptr<Impl> impl_;
};

} // namespace quendreld
