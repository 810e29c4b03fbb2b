// SPDX-License-Identifier: GPL-2.0-only
#include "fuse_files.h"

#include "fuse_io.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <new>
#include <string>
#include <thread>

namespace quendreld
{

namespace
{

constexpr std::size_t page = 4096;
constexpr std::size_t small_bytes = 64 << 10;
constexpr unsigned most_small = 256;
constexpr unsigned most_large = 24;
constexpr fuse_ino_t first_disk_inode = 2;
constexpr double for_ever = 86400;

void do_init(void* data, fuse_conn_info* connection)
{
    (void)data;
    connection->max_write = ReceiveBuffer::most_payload;
    connection->max_readahead = 0;
    connection->max_background = 128;
    connection->congestion_threshold = 127;
    connection->want |= connection->capable & FUSE_CAP_ASYNC_DIO;
    // Data has to arrive in our aligned buffers, and the files' sizes never change.
    connection->want &= ~(FUSE_CAP_SPLICE_READ | FUSE_CAP_SPLICE_WRITE | FUSE_CAP_SPLICE_MOVE |
                          FUSE_CAP_AUTO_INVAL_DATA | FUSE_CAP_WRITEBACK_CACHE);
}

void do_lookup(fuse_req_t request, fuse_ino_t parent, const char* name)
{
    const FuseFiles& files = FuseFiles::of(request);
    if (parent == FUSE_ROOT_ID) {
        for (std::size_t i = 0; i < files.disks.size(); ++i) {
            if (files.disks[i]->name() != name)
                continue;
            fuse_entry_param entry{};
            entry.ino = first_disk_inode + i;
            entry.attr = files.attributes(entry.ino);
            entry.attr_timeout = for_ever;
            entry.entry_timeout = for_ever;
            fuse_reply_entry(request, &entry);
            return;
        }
    }
    fuse_reply_err(request, ENOENT);
}

void do_getattr(fuse_req_t request, fuse_ino_t inode, fuse_file_info*)
{
    const FuseFiles& files = FuseFiles::of(request);
    if (inode != FUSE_ROOT_ID && !files.disk_of(inode)) {
        fuse_reply_err(request, ENOENT);
        return;
    }
    const struct stat attributes = files.attributes(inode);
    fuse_reply_attr(request, &attributes, for_ever);
}

// A disk has one size, one owner and one mode. Times may be set and are not kept.
void do_setattr(fuse_req_t request, fuse_ino_t inode, struct stat* wanted, int which, fuse_file_info* file)
{
    const ServedDisk* disk = FuseFiles::of(request).disk_of(inode);
    if ((which & (FUSE_SET_ATTR_MODE | FUSE_SET_ATTR_UID | FUSE_SET_ATTR_GID)) ||
        ((which & FUSE_SET_ATTR_SIZE) && (!disk || std::uint64_t(wanted->st_size) != disk->size()))) {
        fuse_reply_err(request, EPERM);
        return;
    }
    do_getattr(request, inode, file);
}

void do_readdir(fuse_req_t request, fuse_ino_t inode, std::size_t size, off_t offset, fuse_file_info*)
{
    if (inode != FUSE_ROOT_ID) {
        fuse_reply_err(request, ENOTDIR);
        return;
    }
    const FuseFiles& files = FuseFiles::of(request);
    std::vector<char> buffer(std::min<std::size_t>(size, 64 << 10));
    std::size_t used = 0;
    for (std::size_t i = std::size_t(offset); i < 2 + files.disks.size(); ++i) {
        const std::string name = i == 0 ? "." : i == 1 ? ".." : files.disks[i - 2]->name();
        const struct stat attributes = files.attributes(i < 2 ? fuse_ino_t(FUSE_ROOT_ID) : fuse_ino_t(i));
        const std::size_t need = fuse_add_direntry(request, buffer.data() + used, buffer.size() - used, name.c_str(),
                                                   &attributes, off_t(i + 1));
        if (need > buffer.size() - used)
            break;
        used += need;
    }
    fuse_reply_buf(request, buffer.data(), used);
}

void do_open(fuse_req_t request, fuse_ino_t inode, fuse_file_info* file)
{
    const ServedDisk* disk = FuseFiles::of(request).disk_of(inode);
    if (!disk) {
        fuse_reply_err(request, inode == FUSE_ROOT_ID ? EISDIR : ENOENT);
    } else if (disk->read_only() && (file->flags & O_ACCMODE) != O_RDONLY) {
        fuse_reply_err(request, EROFS);
    } else {
        file->direct_io = 1;
        fuse_reply_open(request, file);
    }
}

// The loop driver offers discards only over a file system that states its block size.
void do_statfs(fuse_req_t request, fuse_ino_t)
{
    struct statvfs status {
    };
    status.f_bsize = page;
    status.f_frsize = page;
    status.f_namemax = 255;
    for (const ServedDisk* disk : FuseFiles::of(request).disks)
        status.f_blocks += disk->size() / page;
    fuse_reply_statfs(request, &status);
}

// An exception must not travel through libfuse; what throws here is memory.
template <auto operation> struct Guarded;
template <typename... Arguments, void (*operation)(fuse_req_t, Arguments...)> struct Guarded<operation> {
    static void call(fuse_req_t request, Arguments... arguments)
    {
        try {
            operation(request, arguments...);
        } catch (const std::bad_alloc&) {
            fuse_reply_err(request, ENOMEM);
        }
    }
};

} // namespace

FuseFiles::FuseFiles(std::vector<ServedDisk*> disks, unsigned receivers)
    : disks(std::move(disks)), small(small_bytes, most_small), large(ReceiveBuffer::bytes, most_large + receivers)
{
    ::clock_gettime(CLOCK_REALTIME, &started_);
}

void FuseFiles::wait_until_idle() const
{
    while (in_flight)
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
}

ServedDisk* FuseFiles::disk_of(fuse_ino_t inode) const
{
    const auto index = inode - first_disk_inode;
    return inode >= first_disk_inode && index < disks.size() ? disks[index] : nullptr;
}

struct stat FuseFiles::attributes(fuse_ino_t inode) const
{
    struct stat status {
    };
    status.st_ino = inode;
    status.st_uid = ::geteuid();
    status.st_gid = ::getegid();
    status.st_blksize = page;
    status.st_atim = status.st_mtim = status.st_ctim = started_;
    if (const ServedDisk* disk = disk_of(inode)) {
        status.st_mode = S_IFREG | (disk->read_only() ? 0400 : 0600);
        status.st_nlink = 1;
        status.st_size = off_t(disk->size());
        status.st_blocks = blkcnt_t(disk->size() / 512);
    } else {
        status.st_mode = S_IFDIR | 0755;
        status.st_nlink = 2;
    }
    return status;
}

fuse_lowlevel_ops FuseFiles::operations()
{
    fuse_lowlevel_ops ops{};
    ops.init = do_init;
    ops.lookup = Guarded<do_lookup>::call;
    ops.getattr = Guarded<do_getattr>::call;
    ops.setattr = Guarded<do_setattr>::call;
    ops.readdir = Guarded<do_readdir>::call;
    ops.open = Guarded<do_open>::call;
    ops.read = Guarded<fuse_io::read>::call;
    ops.write = Guarded<fuse_io::write>::call;
    ops.fallocate = Guarded<fuse_io::fallocate>::call;
    ops.fsync = Guarded<fuse_io::fsync>::call;
    ops.statfs = Guarded<do_statfs>::call;
    return ops;
}

} // namespace quendreld
