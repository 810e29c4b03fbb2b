/* SPDX-License-Identifier: GPL-2.0-only */
// The operations of the FUSE front that reach a disk's data.
//
// - Every request is asynchronous: the thread that received it hands it to the disk; the completion replies.
// - Punched holes read as zeros afterwards, as a file system promises; on the disk that is write-zeroes that may
//   unmap.
// They may throw std::bad_alloc, before they have handed anything over.
#pragma once

#define FUSE_USE_VERSION 314
#include <fuse3/fuse_lowlevel.h>

#include <cstddef>

namespace quendreld::fuse_io
{

void read(fuse_req_t request, fuse_ino_t inode, std::size_t bytes, off_t offset, fuse_file_info*);
void write(fuse_req_t request, fuse_ino_t inode, const char* data, std::size_t bytes, off_t offset, fuse_file_info*);
void fallocate(fuse_req_t request, fuse_ino_t inode, int mode, off_t offset, off_t bytes, fuse_file_info*);
void fsync(fuse_req_t request, fuse_ino_t inode, int only_data, fuse_file_info*);

} // namespace quendreld::fuse_io
