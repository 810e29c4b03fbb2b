// SPDX-License-Identifier: GPL-2.0-only
#include "destination.h"

#include "data_file.h"
#include "dead_files.h"
#include "failure.h"
#include "host_blocks.h"

#include "base/image_lock.h"

#include <fcntl.h>
#include <linux/fs.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <vector>

namespace qbackup
{
namespace
{

// A shorter run of zeros is written: that is one step instead of several.
constexpr std::uint64_t shortest_zeros = 64u << 10;
// Where file systems, partition tables and volume managers have what they are known by, at both ends.
constexpr std::uint64_t signature_bytes = 1u << 20;

bool holdsNothing(const File& file, std::uint64_t from, std::uint64_t bytes)
{
    std::vector<std::byte> piece(bytes);
    file.readAt(from, piece);
    return allZero(piece);
}

// Nothing was ever written to it: it is one hole.
bool isHole(const fs::path& path)
{
    const File file{path, O_RDONLY};
    return ::lseek(file.fd(), 0, SEEK_DATA) < 0 && errno == ENXIO;
}

} // namespace

Destination::Destination(const fs::path& to, std::uint64_t bytes, bool force) : Destination{to}
{
    struct stat st {
    };
    const bool exists = ::stat(to.c_str(), &st) == 0;
    if (exists && S_ISBLK(st.st_mode)) {
        openDevice(bytes, force);
        return;
    }
    if (exists && !S_ISREG(st.st_mode))
        throw Failure{Exit::refused, to.string() + " is neither a file nor a block device"};
    if (exists) {
        // What it is a link to is replaced, not the link.
        to_ = fs::canonical(to);
        holdImage();
    }
    if (exists && st.st_size > 0 && !force && !isHole(to))
        throw Failure{Exit::refused, to.string() + " exists and is not empty; name another file, or give --force to "
                                                   "replace it"};
    openImage(bytes, exists);
    if (exists) {
        // It stays whose it was; a failure means that nobody gets more than they had.
        if (::fchown(file_.fd(), st.st_uid, st.st_gid) == 0)
            ::fchmod(file_.fd(), st.st_mode & 07777);
    }
}

Destination::~Destination()
{
    std::error_code error;
    if (!temporary_.empty())
        fs::remove(temporary_, error);
}

// Refuses an image that is in use, and keeps others from using it.
void Destination::holdImage()
{
    const HostBlocks host;
    struct stat st {
    };
    if (::stat(to_.c_str(), &st) == 0)
        for (const auto& mounted : host.mountsOf(st.st_dev))
            if (mounted.type == "fuse.disks")
                throw Failure{Exit::refused, to_.string() + " is a disk that quendreld serves; restore to a file or a "
                                                            "device, and have the daemon serve that"};
    if (!host.loopsOver(fs::absolute(to_), 0).empty())
        throw Failure{Exit::refused, "a loop device stands over " + to_.string() + "; take it away first (losetup -d)"};
    replaced_.reset(::open(to_.c_str(), O_RDONLY | O_CLOEXEC));
    if (!replaced_)
        throw Failure{exitOf(errno), "cannot open " + to_.string() + ": " + errnoText(errno)};
    if (const std::string held = base::lock_image(replaced_.get(), false); !held.empty())
        throw Failure{Exit::refused, to_.string() + " is in use: " + held};
}

void Destination::openImage(std::uint64_t bytes, bool replaced)
{
    const fs::path directory = to_.has_parent_path() ? to_.parent_path() : fs::path{"."};
    const std::string begin = "." + to_.filename().string() + ".partial-";
    removeDeadFiles(directory, begin);
    const fs::path made = directory / (begin + std::to_string(::getpid()));
    // In the place of another it is nobody else's until it has that one's mode.
    file_ = File{made, O_RDWR | O_CREAT | O_EXCL, replaced ? 0600u : 0666u};
    temporary_ = made; // not before: one that is there already is not this one's
    file_.truncate(bytes);
}

void Destination::openDevice(std::uint64_t bytes, bool force)
{
    device_ = true;
    // The kernel does not take such a device for one in use.
    if (!HostBlocks{}.loopsOver(fs::canonical(to_), 0).empty())
        throw Failure{Exit::refused, "a loop device stands over " + to_.string() + "; take it away first (losetup -d)"};
    // The kernel refuses an exclusive opening of a device that is mounted or otherwise in use.
    base::Descriptor device{::open(to_.c_str(), O_RDWR | O_EXCL | O_CLOEXEC)};
    if (!device && errno == EBUSY)
        throw Failure{Exit::refused, to_.string() + " is mounted or in use; unmount it before restoring to it"};
    device.reset();
    file_ = File{to_, O_RDWR | O_EXCL};
    if (const std::string held = base::lock_image(file_.fd(), false); !held.empty())
        throw Failure{Exit::refused, to_.string() + " is in use: " + held};
    const off_t end = ::lseek(file_.fd(), 0, SEEK_END);
    if (end < 0 || static_cast<std::uint64_t>(end) < bytes)
        throw Failure{Exit::refused, to_.string() + " has " + std::to_string(end) + " bytes; the backup needs " +
                                         std::to_string(bytes)};
    const auto size = static_cast<std::uint64_t>(end);
    const std::uint64_t looked = std::min(signature_bytes, size);
    if (!force && !(holdsNothing(file_, 0, looked) && holdsNothing(file_, size - looked, looked)))
        throw Failure{Exit::refused, to_.string() + " holds data; name another device, or give --force to overwrite it"};
}

void Destination::put(std::uint64_t offset, std::span<const std::byte> bytes, std::uint32_t block_size)
{
    std::size_t from = 0; // of the piece to write
    std::size_t at = 0;
    const auto write = [&](std::size_t to) {
        if (to > from)
            file_.writeAt(offset + from, bytes.subspan(from, to - from));
    };
    while (at < bytes.size()) {
        std::size_t zeros = at;
        while (zeros < bytes.size() && allZero(bytes.subspan(zeros, block_size)))
            zeros += block_size;
        const bool untouched = !temporary_.empty() && offset + at >= zero_from_;
        if (zeros > at && (untouched || zeros - at >= shortest_zeros)) {
            write(at);
            if (!untouched)
                makeZero(offset + at, zeros - at);
            from = zeros;
        }
        at = std::min(zeros + block_size, bytes.size());
    }
    write(bytes.size());
    zero_from_ = std::max(zero_from_, offset + bytes.size());
}

void Destination::putZeros(std::uint64_t offset, std::uint64_t bytes)
{
    if (temporary_.empty() || offset < zero_from_)
        makeZero(offset, bytes);
}

void Destination::makeZero(std::uint64_t offset, std::uint64_t bytes)
{
    if (can_make_zeros_) {
        const std::uint64_t range[2] = {offset, bytes};
        const int result = device_ ? ::ioctl(file_.fd(), BLKZEROOUT, range)
                                   : ::fallocate(file_.fd(), FALLOC_FL_PUNCH_HOLE | FALLOC_FL_KEEP_SIZE,
                                                 static_cast<off_t>(offset), static_cast<off_t>(bytes));
        if (result == 0)
            return;
        // Such as a disk whose sectors are larger than the blocks.
        can_make_zeros_ = false;
    }
    const std::vector<std::byte> zeros(std::min<std::uint64_t>(bytes, signature_bytes));
    for (std::uint64_t done = 0; done < bytes; done += zeros.size())
        file_.writeAt(offset + done, std::span{zeros}.first(std::min<std::uint64_t>(zeros.size(), bytes - done)));
}

void Destination::finish()
{
    file_.sync();
    file_.close();
    if (temporary_.empty())
        return;
    // A file that has appeared meanwhile is nobody's to replace. Some file systems cannot tell.
    if (replaced_) {
        moveFile(temporary_, to_);
    } else if (::renameat2(AT_FDCWD, temporary_.c_str(), AT_FDCWD, to_.c_str(), RENAME_NOREPLACE) != 0) {
        if (errno == EEXIST)
            throw Failure{Exit::refused, to_.string() + " has appeared meanwhile; name another file, or restore again with "
                                                        "--force to replace it"};
        if (errno != EINVAL && errno != ENOSYS)
            throw Failure{exitOf(errno), "cannot give " + to_.string() + " its name: " + errnoText(errno)};
        moveFile(temporary_, to_);
    }
    temporary_.clear();
    syncDirectory(to_.has_parent_path() ? to_.parent_path() : fs::path{"."});
}

} // namespace qbackup
