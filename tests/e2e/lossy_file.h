/* SPDX-License-Identifier: GPL-2.0-only */
// A file that forgets: what was written to it and not made durable by a later fsync can be taken away, as a power cut
// takes it from a disk and from the page cache. It can be slow, too. It is the only file of a FUSE file system that
// this process serves.
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>

namespace backup_rig
{

class LossyFile
{
  public:
    // Mounted on `mount_point`, which it makes. Of zeros; a whole number of pages.
    LossyFile(const std::string& mount_point, std::size_t bytes);
    ~LossyFile(); // unmounts; nobody may have it open
    LossyFile(const LossyFile&) = delete;
    LossyFile& operator=(const LossyFile&) = delete;

    std::string path() const;
    // Each write that comes from now on reaches the file only after that time.
    void make_slow(std::chrono::milliseconds delay);
    // No read and no write is answered until it is let go.
    void hang();
    void let_go();
    void fail_reads(std::uint64_t below); // of bytes before that one, with EIO; 0: none
    // About half of the pages that are not durable, chosen by `seed`, are again what they were when they last were. How
    // many. To be called when nobody has it open.
    std::size_t cut_power(std::uint64_t seed);

  private:
    struct Impl;
    std::unique_ptr<Impl> impl_;
};

} // namespace backup_rig
