/* SPDX-License-Identifier: GPL-2.0-only */
// Where a restored device goes: an image file, which is there under its name when it is complete, or a block device.
//
// What is in use is never touched, whatever the user forces: a device that is mounted or held, an image that a daemon,
// a virtual machine or a loop device has, a daemon's own disk. What holds data is replaced only when that is forced.
// Zeros are made, not written, where the file system or the disk can.
#pragma once

#include "files.h"

#include <cstddef>
#include <cstdint>
#include <span>

#include <sys/types.h>

namespace qbackup
{

class Destination
{
  public:
    // `bytes`: what will be there. Throws Failure; nothing is changed then.
    Destination(const fs::path& to, std::uint64_t bytes, bool force);
    // Unless finish() was reached, an image in the making is removed.
    ~Destination();
    Destination(const Destination&) = delete;
    Destination& operator=(const Destination&) = delete;

    // `bytes` are whole blocks of `block_size`. What lies beyond the last one that was ever put is left as it is: zeros in
    // an image.
    void put(std::uint64_t offset, std::span<const std::byte> bytes, std::uint32_t block_size);
    void putZeros(std::uint64_t offset, std::uint64_t bytes);
    // Makes all durable, and an image visible.
    void finish();

  private:
    // What is made from here on goes again with a failure: the object is there.
    explicit Destination(const fs::path& to) : to_{to} {}
    void openImage(std::uint64_t bytes, bool force);
    void openDevice(std::uint64_t bytes, bool force);
    void holdImage();
    void makeZero(std::uint64_t offset, std::uint64_t bytes);

    fs::path to_;
    fs::path temporary_; // of an image in the making
    base::Descriptor replaced_; // with its locks; none: there was no file of that name
    File file_;
    std::uint64_t zero_from_ = 0; // of an image in the making: what lies behind was never written
    bool device_ = false;
    bool can_make_zeros_ = true;
};

} // namespace qbackup
