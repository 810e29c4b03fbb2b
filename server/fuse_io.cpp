// SPDX-License-Identifier: GPL-2.0-only
#include "fuse_io.h"

#include "fuse_files.h"

#include <fcntl.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <memory>
#include <utility>

namespace quendreld
{

namespace
{

using hosted::Op;

constexpr std::size_t sector = 512;

struct FuseIo : IoRequest {
    ~FuseIo()
    {
        if (buffer)
            pool->give(buffer);
    }
    FuseFiles* files;
    fuse_req_t request;
    BufferPool* pool = nullptr;
    std::byte* buffer = nullptr;
    std::size_t skip = 0;   // read: bytes before those asked for
    std::size_t wanted = 0; // read, write: bytes asked for
};

void io_done(IoRequest* r, int error)
{
    std::unique_ptr<FuseIo> io(static_cast<FuseIo*>(r));
    if (error)
        fuse_reply_err(io->request, -error);
    else if (io->op == Op::read)
        fuse_reply_buf(io->request, reinterpret_cast<const char*>(io->data + io->skip), io->wanted);
    else if (io->op == Op::write)
        fuse_reply_write(io->request, io->wanted);
    else
        fuse_reply_err(io->request, 0);
    FuseFiles* files = io->files;
    io.reset();
    files->in_flight.fetch_sub(1);
}

std::unique_ptr<FuseIo> make_io(fuse_req_t request, Op op, std::uint64_t offset, std::uint64_t bytes)
{
    auto io = std::make_unique<FuseIo>();
    io->files = &FuseFiles::of(request);
    io->request = request;
    io->op = op;
    io->offset = offset;
    io->bytes = bytes;
    io->done = io_done;
    return io;
}

void submit(ServedDisk& disk, std::unique_ptr<FuseIo> io)
{
    io->files->in_flight.fetch_add(1);
    disk.submit(io.release()); // io_done deletes it
}

// A write that begins or ends inside a sector: the sectors are read, changed and written. The loop driver never does
// this, people with dd do. Two such writes exclude each other; a whole-sector write to the same sectors at the same
// time is the writers' own race.
void write_within_sectors(FuseFiles& files, ServedDisk& disk, fuse_req_t request, const char* data, std::size_t bytes,
                          std::uint64_t offset)
{
    if (offset > disk.size() || bytes > disk.size() - offset) {
        fuse_reply_err(request, ENOSPC);
        return;
    }
    const std::size_t skip = offset % sector;
    const std::size_t covering = (skip + bytes + sector - 1) / sector * sector;
    const std::uint64_t start = offset - skip;
    std::byte* buffer = files.large.take();
    int error;
    {
        std::lock_guard lock(files.within_sectors);
        error = disk.run(Op::read, start, sector, buffer);
        if (!error && covering > sector)
            error = disk.run(Op::read, start + covering - sector, sector, buffer + covering - sector);
        if (!error) {
            std::memcpy(buffer + skip, data, bytes);
            error = disk.run(Op::write, start, covering, buffer);
        }
    }
    files.large.give(buffer);
    error ? fuse_reply_err(request, -error) : fuse_reply_write(request, bytes);
}

} // namespace

void fuse_io::read(fuse_req_t request, fuse_ino_t inode, std::size_t bytes, off_t offset, fuse_file_info*)
{
    FuseFiles& files = FuseFiles::of(request);
    ServedDisk* disk = files.disk_of(inode);
    if (!disk || std::uint64_t(offset) >= disk->size()) {
        disk ? fuse_reply_buf(request, nullptr, 0) : fuse_reply_err(request, EBADF);
        return;
    }
    bytes = std::min<std::uint64_t>({bytes, ReceiveBuffer::most_payload, disk->size() - std::uint64_t(offset)});
    // A reader may ask for any bytes; the disk knows sectors.
    const std::size_t skip = std::size_t(offset) % sector;
    const std::size_t covering = (skip + bytes + sector - 1) / sector * sector;
    auto io = make_io(request, Op::read, std::uint64_t(offset) - skip, covering);
    io->skip = skip;
    io->wanted = bytes;
    io->pool = covering <= files.small.bytes() ? &files.small : &files.large;
    io->buffer = io->data = io->pool->take();
    submit(*disk, std::move(io));
}

void fuse_io::write(fuse_req_t request, fuse_ino_t inode, const char* data, std::size_t bytes, off_t offset,
                    fuse_file_info*)
{
    FuseFiles& files = FuseFiles::of(request);
    ServedDisk* disk = files.disk_of(inode);
    if (!disk) {
        fuse_reply_err(request, EBADF);
        return;
    }
    if ((std::uint64_t(offset) | bytes) % sector)
        return write_within_sectors(files, *disk, request, data, bytes, std::uint64_t(offset));
    auto io = make_io(request, Op::write, std::uint64_t(offset), bytes);
    io->wanted = bytes;
    if (bytes <= files.small.bytes()) {
        // Copying a little is cheaper than receiving the next request into a cold buffer.
        io->pool = &files.small;
        io->buffer = io->data = files.small.take();
        std::memcpy(io->buffer, data, bytes);
    } else {
        io->pool = &files.large;
        io->buffer = ReceiveBuffer::keep();
        io->data = reinterpret_cast<std::byte*>(const_cast<char*>(data));
    }
    submit(*disk, std::move(io));
}

void fuse_io::fallocate(fuse_req_t request, fuse_ino_t inode, int mode, off_t offset, off_t bytes, fuse_file_info*)
{
    ServedDisk* disk = FuseFiles::of(request).disk_of(inode);
    if (!disk) {
        fuse_reply_err(request, EBADF);
        return;
    }
    const bool punch = mode & FALLOC_FL_PUNCH_HOLE;
    const bool zero = mode & FALLOC_FL_ZERO_RANGE;
    if (!punch && !zero) {
        fuse_reply_err(request, EOPNOTSUPP);
        return;
    }
    auto io = make_io(request, Op::write_zeroes, std::uint64_t(offset), std::uint64_t(bytes));
    io->may_unmap = punch;
    submit(*disk, std::move(io));
}

void fuse_io::fsync(fuse_req_t request, fuse_ino_t inode, int, fuse_file_info*)
{
    ServedDisk* disk = FuseFiles::of(request).disk_of(inode);
    if (!disk) {
        fuse_reply_err(request, EBADF);
        return;
    }
    submit(*disk, make_io(request, Op::flush, 0, 0));
}

} // namespace quendreld
