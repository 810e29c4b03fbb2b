/* SPDX-License-Identifier: GPL-2.0-only */
// A disk as the fronts (NBD and FUSE) see it: byte ranges in, results out.
//
// A request that reaches over the border of a partition is cut there before it enters the disk's queue: whoever
// watches the queue assigns a request to the partition its first sector lies in, and on a machine whose partitions
// are devices of their own no request ever crosses a border. One that was cut while the borders changed is cut again.
//
// A change of what describes the disk (its tables, the first blocks of its file systems) is noticed: before such a
// request is answered, the disk counts it.
#pragma once

#include "borders.h"
#include "hosted.h"

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <vector>

namespace quendreld
{

// It must stay alive, and its data in place, until done is called.
struct IoRequest {
    hosted::Op op = hosted::Op::read;
    bool fua = false;
    bool may_unmap = false;
    std::uint64_t offset = 0; // bytes, a multiple of 512
    std::uint64_t bytes = 0;  // a multiple of 512; 0 for flush
    std::byte* data = nullptr;
    void (*done)(IoRequest* r, int error) = nullptr; // 0 or a negative errno; from any thread, or inside submit

    // the disk's from submit to done
    hosted::GuestRequest guest;
    std::atomic<unsigned> parts = 0;
    std::atomic<int> error = 0;
    class ServedDisk* disk = nullptr;
    bool describes = false; // a change of what describes the disk
};

class ServedDisk
{
  public:
    explicit ServedDisk(std::shared_ptr<hosted::Disk> disk, bool read_only = false);

    const std::string& name() const { return disk_->name(); }
    std::uint64_t size() const { return size_; }
    bool read_only() const { return read_only_; }
    const std::shared_ptr<hosted::Disk>& disk() const { return disk_; }
    std::uint32_t block_size() const { return disk_->store().logical_block_size(); } // bytes

    // A range outside the disk or off the 512-byte grid ends with -EINVAL, a change of a read-only disk with -EROFS.
    void submit(IoRequest* r);
    // The same, waiting for the result.
    int run(hosted::Op op, std::uint64_t offset, std::uint64_t bytes, std::byte* data = nullptr, bool fua = false,
            bool may_unmap = false);

    // What of a range is data and what are holes, in order, at most `most` pieces from its start; neighbours differ. 0,
    // -EINVAL for an empty range or one outside the disk, or what the host answers.
    int extents(std::uint64_t offset, std::uint64_t bytes, std::size_t most, std::vector<hosted::Extent>& into) const;
    // Asks the host to have a range at hand; does not wait for it. 0 or -EINVAL.
    int prefetch(std::uint64_t offset, std::uint64_t bytes) const;

    // Puts another table in place of the disk's.
    void set_table(const hosted::PartitionTable& table);
    // How often what describes the disk was changed.
    std::uint64_t descriptions() const { return descriptions_.load(); }
    void describe_anew(); // counts as one
    // Called at each, from the thread that ends the request: it must not wait. Set before the first request.
    void set_watcher(std::function<void()> watcher) { watcher_ = std::move(watcher); }

  private:
    bool inside(std::uint64_t offset, std::uint64_t bytes) const { return offset <= size_ && bytes <= size_ - offset; }
    void set_borders(const hosted::PartitionTable& table);
    void send(IoRequest* r);
    void send_parts(IoRequest* r, std::uint64_t from, std::uint64_t to);
    static void whole_done(hosted::GuestRequest* guest, int error);
    static void part_done(hosted::GuestRequest* guest, int error);

    std::shared_ptr<hosted::Disk> disk_;
    std::uint64_t size_;
    bool read_only_;
    Borders borders_;
    std::atomic<std::uint64_t> descriptions_ = 0;
    std::function<void()> watcher_;
};

} // namespace quendreld
