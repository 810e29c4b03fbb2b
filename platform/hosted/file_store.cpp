// SPDX-License-Identifier: GPL-2.0-only
// A disk that is a raw image file or a block device of this host.
//
// Through the page cache a write is a copy and is made at once, and so is a read that the cache holds, unless it is
// long and its submitter has more to do: then a thread of the pool makes it. Everything else is asynchronous: reads and
// writes by io_uring, or a pool of threads where the host has none; flushes, discards and write-zeroes by a small pool.
// With O_DIRECT, memory that is not aligned goes through a bounce buffer, and requests whose place or size is not
// aligned go through the page cache, which the kernel keeps coherent.
//
// A kernel tells of a failed write-back once to each open file description, and then takes the pages for clean. So
// flushes have a description of their own, from which no durable write takes an error away, go one at a time, and the
// first error is kept: every later flush is answered with it.
#include "base/descriptor.h"
#include "base/image_lock.h"
#include "hosted.h"
#include "ring.h"
#include "worker_pool.h"

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <fcntl.h>
#include <linux/falloc.h>
#include <linux/fs.h>
#include <mutex>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <system_error>
#include <unistd.h>

namespace hosted
{

namespace
{

constexpr std::size_t direct_alignment = 4096;
constexpr std::size_t most_pieces = 1024; // IOV_MAX
constexpr std::size_t most_pieces_at_once = 256; // as many as bios are merged into one request
// From here on a copy takes longer than its handing over to another thread.
constexpr std::uint64_t long_copy = 128 << 10;

[[noreturn]] void fail(int error, const std::string& path, const std::string& what)
{
    throw std::system_error(error, std::generic_category(), path + ": " + what);
}

struct Free {
    void operator()(void* p) const { std::free(p); }
};
using AlignedBuffer = std::unique_ptr<std::byte, Free>;

// One asynchronous request on its way.
struct Transfer {
    Ring::Transfer ring{};
    StoreRequest* request = nullptr;
    std::vector<iovec> pieces;
    AlignedBuffer bounce;
};

class FileStore final : public Store
{
  public:
    FileStore(const std::string& path, const FileStoreOptions& options);
    ~FileStore() override { drain(); }

    std::uint64_t size() const override { return size_; }
    std::string path() const override { return "/proc/self/fd/" + std::to_string(cached_.get()); }
    void submit(StoreRequest* r) noexcept override;
    int flush_error() const override { return flush_error_.load(); }
    std::uint32_t logical_block_size() const override { return logical_block_size_; }
    int extents(std::uint64_t offset, std::uint64_t bytes, std::size_t most, std::vector<Extent>& into) override;
    void prefetch(std::uint64_t offset, std::uint64_t bytes) override
    {
        ::posix_fadvise(cached_.get(), off_t(offset), off_t(bytes), POSIX_FADV_WILLNEED);
    }
    void drain() override
    {
        while (in_flight_.load(std::memory_order_acquire) != 0) {
            timespec pause{0, 20000};
            nanosleep(&pause, nullptr);
        }
    }

  private:
    bool aligned(const StoreRequest& r) const
    {
        return r.offset % direct_alignment == 0 && r.bytes % direct_alignment == 0;
    }
    bool try_at_once(const StoreRequest& r) const;
    bool try_ring(StoreRequest* r);
    void hand_to_ring(StoreRequest* r, bool& taken);
    void carry_out(StoreRequest* r) noexcept; // on a thread of the pool
    void finish(StoreRequest* r, int error)
    {
        r->done(r, error);
        in_flight_.fetch_sub(1, std::memory_order_release);
    }
    // Everything below waits and returns 0 or a negative errno.
    int perform(const StoreRequest& r);
    int transfer(const StoreRequest& r) const;
    int make_durable();
    int zero(const StoreRequest& r);
    int write_out_zeroes(const StoreRequest& r) const;

    base::Descriptor cached_; // through the page cache
    base::Descriptor direct_; // past it; none unless asked for
    base::Descriptor flush_;  // for flushes alone
    std::uint64_t size_ = 0;
    bool read_only_;
    std::function<void(int)> flush_failed_;
    std::mutex flushing_;             // one flush at a time: held from the look at the error to its keeping; innermost
    std::atomic<int> flush_error_{0}; // of the first that failed, for good
    std::uint32_t logical_block_size_ = 512;
    std::atomic<long> in_flight_{0};
    std::unique_ptr<Ring> ring_;
    WorkerPool pool_; // last: its threads use all of the above
};

FileStore::FileStore(const std::string& path, const FileStoreOptions& options)
    : read_only_(options.read_only), flush_failed_(options.flush_failed), ring_(options.use_io_uring ? Ring::open() : nullptr), pool_(ring_ ? 4 : 16, [this](StoreRequest* r) { carry_out(r); })
{
    struct stat st;
    if (stat(path.c_str(), &st) != 0)
        fail(errno, path, "cannot be used as a disk: check the path");
    if (!S_ISREG(st.st_mode) && !S_ISBLK(st.st_mode))
        fail(EINVAL, path, "is neither an image file nor a block device: name one of these");
    int flags = (read_only_ ? O_RDONLY : O_RDWR) | O_CLOEXEC;
    // The kernel refuses this for a block device that is mounted or otherwise in use.
    int exclusive = S_ISBLK(st.st_mode) && !read_only_ ? O_EXCL : 0;
    cached_.reset(open(path.c_str(), flags | exclusive));
    if (!cached_ && errno == EBUSY)
        fail(EBUSY, path, "is in use: unmount it, or open it read-only");
    if (!cached_)
        fail(errno, path,
             read_only_ ? "cannot be read: check its permissions"
                        : "cannot be opened for writing: check its permissions, or open it read-only");
    if (const std::string held = base::lock_image(cached_.get(), read_only_); !held.empty())
        fail(EBUSY, path, held);
    if (options.direct) {
        direct_.reset(open(path.c_str(), flags | O_DIRECT));
        if (!direct_)
            fail(errno, path, "does not support direct I/O: serve it without");
    }
    flush_.reset(open(path.c_str(), flags));
    if (!flush_)
        fail(errno, path, "cannot be opened again");
    int block = 0;
    if (S_ISBLK(st.st_mode) && ioctl(cached_.get(), BLKSSZGET, &block) == 0 && block > 512)
        logical_block_size_ = std::uint32_t(block);
    if (S_ISBLK(st.st_mode)) {
        u64 bytes = 0;
        if (ioctl(cached_.get(), BLKGETSIZE64, &bytes) != 0)
            fail(errno, path, "the size of the device cannot be read");
        size_ = bytes;
    } else {
        size_ = std::uint64_t(st.st_size);
    }
    size_ -= size_ % 512;
    if (size_ == 0)
        fail(EINVAL, path, "is smaller than one sector: give it a size first");
}

void FileStore::submit(StoreRequest* r) noexcept
{
    r->quick_ways_failed = false;
    if (r->op != Op::flush && (r->bytes > size_ || r->offset > size_ - r->bytes)) {
        r->done(r, -EIO);
        return;
    }
    if (read_only_ && r->op != Op::read && r->op != Op::flush) {
        r->done(r, -EROFS);
        return;
    }
    if (r->more && r->op == Op::read && r->bytes >= long_copy && !direct_) {
        in_flight_.fetch_add(1, std::memory_order_relaxed);
        pool_.push(r);
        return;
    }
    if (try_at_once(*r)) {
        r->done(r, 0);
        return;
    }
    in_flight_.fetch_add(1, std::memory_order_relaxed);
    if (try_ring(r))
        return;
    r->quick_ways_failed = true;
    pool_.push(r);
}

void FileStore::carry_out(StoreRequest* r) noexcept
{
    if (r->quick_ways_failed)
        finish(r, perform(*r));
    else if (try_at_once(*r))
        finish(r, 0);
    else if (!try_ring(r))
        finish(r, perform(*r));
}

// Copies to or from the page cache, where that waits for nothing. False: not done.
bool FileStore::try_at_once(const StoreRequest& r) const
{
    bool transfer = r.op == Op::read || (r.op == Op::write && !r.fua);
    iovec pieces[most_pieces_at_once];
    if (!transfer || direct_ || r.pieces.size() > std::size(pieces))
        return false;
    ssize_t n;
    if (r.op == Op::write && r.pieces.size() == 1) {
        n = pwrite(cached_.get(), r.pieces[0].data, r.pieces[0].bytes, off_t(r.offset));
    } else {
        for (std::size_t i = 0; i < r.pieces.size(); ++i)
            pieces[i] = {r.pieces[i].data, r.pieces[i].bytes};
        const int count = int(r.pieces.size());
        n = r.op == Op::read ? preadv2(cached_.get(), pieces, count, off_t(r.offset), RWF_NOWAIT)
                             : pwritev(cached_.get(), pieces, count, off_t(r.offset));
    }
    if (n < 0 || std::uint64_t(n) != r.bytes)
        return false; // the slow way finds out why
    return true;
}

bool FileStore::try_ring(StoreRequest* r)
{
    if (!ring_ || (r->op != Op::read && r->op != Op::write) || r->pieces.size() > most_pieces)
        return false;
    bool taken = false;
    try {
        hand_to_ring(r, taken);
    } catch (const std::bad_alloc&) { // the slow way needs no memory
    }
    return taken;
}

void FileStore::hand_to_ring(StoreRequest* r, bool& taken)
{
    bool direct = direct_ && aligned(*r);
    auto owned = std::make_unique<Transfer>();
    Transfer* t = owned.get();
    bool bounce = false;
    t->pieces.reserve(r->pieces.size());
    for (const StoreRequest::Piece& p : r->pieces) {
        t->pieces.push_back({p.data, p.bytes});
        bounce |= direct && (reinterpret_cast<std::uintptr_t>(p.data) % 512 != 0 || p.bytes % 512 != 0);
    }
    if (bounce) {
        t->bounce.reset(static_cast<std::byte*>(std::aligned_alloc(direct_alignment, std::size_t(r->bytes))));
        if (!t->bounce)
            return;
        if (r->op == Op::write) {
            std::byte* at = t->bounce.get();
            for (const StoreRequest::Piece& p : r->pieces) {
                std::memcpy(at, p.data, p.bytes);
                at += p.bytes;
            }
        }
        t->pieces = {{t->bounce.get(), std::size_t(r->bytes)}};
    }
    t->request = r;
    t->ring.write = r->op == Op::write;
    t->ring.durable = r->fua;
    t->ring.fd = direct ? direct_.get() : cached_.get();
    t->ring.offset = r->offset;
    t->ring.pieces = t->pieces.data();
    t->ring.count = unsigned(t->pieces.size());
    t->ring.done = [this, t](long result) {
        std::unique_ptr<Transfer> self(t);
        StoreRequest* request = t->request;
        if (result < 0 || std::uint64_t(result) != request->bytes) {
            // Short, or refused in this form (an alignment that the device does not take): once more, step by step.
            request->quick_ways_failed = true;
            pool_.push(request);
            return;
        }
        if (t->bounce && request->op == Op::read) {
            const std::byte* at = t->bounce.get();
            for (const StoreRequest::Piece& p : request->pieces) {
                std::memcpy(p.data, at, p.bytes);
                at += p.bytes;
            }
        }
        finish(request, 0);
    };
    taken = ring_->submit(&t->ring);
    if (taken)
        owned.release(); // done deletes it
}

int FileStore::perform(const StoreRequest& r)
{
    switch (r.op) {
    case Op::read:
    case Op::write:
        return transfer(r);
    case Op::flush:
        return make_durable();
    case Op::discard:
    case Op::write_zeroes:
        return zero(r);
    }
    return -EINVAL;
}

int FileStore::make_durable()
{
    std::lock_guard lock(flushing_);
    if (const int before = flush_error_.load())
        return before;
    if (fdatasync(flush_.get()) == 0)
        return 0;
    const int error = -errno;
    flush_error_.store(error);
    try {
        if (flush_failed_)
            flush_failed_(error);
    } catch (const std::exception&) { // no memory to tell it with; the flush is answered all the same
    }
    return error;
}

int FileStore::transfer(const StoreRequest& r) const
{
    auto offset = off_t(r.offset);
    for (const StoreRequest::Piece& p : r.pieces) {
        for (u32 moved = 0; moved < p.bytes;) {
            std::byte* at = p.data + moved;
            std::size_t left = p.bytes - moved;
            iovec piece{at, left};
            ssize_t n = r.op == Op::read ? pread(cached_.get(), at, left, offset)
                                         : pwritev2(cached_.get(), &piece, 1, offset, r.fua ? RWF_DSYNC : 0);
            if (n < 0 && errno == EINTR)
                continue;
            if (n < 0)
                return -errno;
            if (n == 0)
                return -EIO; // the file became shorter
            moved += u32(n);
            offset += n;
        }
    }
    return 0;
}

int FileStore::zero(const StoreRequest& r)
{
    int hole = FALLOC_FL_PUNCH_HOLE | FALLOC_FL_KEEP_SIZE;
    int mode = r.op == Op::discard || r.may_unmap ? hole : FALLOC_FL_ZERO_RANGE | FALLOC_FL_KEEP_SIZE;
    int error = fallocate(cached_.get(), mode, off_t(r.offset), off_t(r.bytes)) == 0 ? 0 : -errno;
    // A discard is a hint. Zeros are not: what a device or a file system cannot do for us is written out.
    if (error == -EOPNOTSUPP || error == -EINVAL)
        error = r.op == Op::discard ? 0 : write_out_zeroes(r);
    if (error == 0 && r.fua)
        error = make_durable();
    return error;
}

int FileStore::write_out_zeroes(const StoreRequest& r) const
{
    static const std::byte zeroes[1 << 20] = {};
    for (std::uint64_t done = 0; done < r.bytes;) {
        std::size_t n = std::size_t(std::min<std::uint64_t>(sizeof zeroes, r.bytes - done));
        ssize_t written = pwrite(cached_.get(), zeroes, n, off_t(r.offset + done));
        if (written < 0 && errno == EINTR)
            continue;
        if (written <= 0)
            return written < 0 ? -errno : -EIO;
        done += std::uint64_t(written);
    }
    return 0;
}

int FileStore::extents(std::uint64_t offset, std::uint64_t bytes, std::size_t most, std::vector<Extent>& into)
{
    const std::uint64_t end = offset + bytes;
    while (offset < end && most) {
        const off_t data = lseek(cached_.get(), off_t(offset), SEEK_DATA);
        // A device, or a file system that knows no holes.
        if (data < 0 && errno != ENXIO)
            return Store::extents(offset, end - offset, most, into);
        // Holes are told in whole sectors, so that what is data stays data.
        std::uint64_t to = data < 0 ? end : std::uint64_t(data) / 512 * 512;
        const bool hole = to > offset;
        if (!hole) {
            const off_t next = lseek(cached_.get(), off_t(offset), SEEK_HOLE);
            if (next < 0 && errno != ENXIO)
                return -errno;
            to = next < 0 ? end : (std::uint64_t(next) + 511) / 512 * 512;
        }
        to = std::clamp(to, offset + 1, end);
        into.push_back({to - offset, hole});
        offset = to;
        --most;
    }
    return 0;
}

} // namespace

std::unique_ptr<Store> open_file_store(const std::string& path, FileStoreOptions options)
{
    return std::make_unique<FileStore>(path, options);
}

} // namespace hosted
