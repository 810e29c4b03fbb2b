/* SPDX-License-Identifier: GPL-2.0-only */
// Where the story's blocks are written: an NBD export (nbd_target.cpp), or a file or block device of this machine
// (path_target.cpp). A build has one of them.
#pragma once

#include <cstdint>
#include <memory>
#include <span>
#include <string>

class BlockTarget
{
  public:
    virtual ~BlockTarget() = default;
    // The bytes have reached the target's end when it returns. Throws std::exception.
    virtual void write(std::uint64_t offset, std::span<const char> bytes) = 0;
};

// `name`: an NBD URI, or a path. Throws std::exception.
std::unique_ptr<BlockTarget> open_block_target(const std::string& name);
