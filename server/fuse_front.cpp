// SPDX-License-Identifier: GPL-2.0-only
#include "fuse_front.h"

#include "fuse_buffers.h"

#define FUSE_USE_VERSION 314
#include <fcntl.h>
#include <fuse3/fuse_lowlevel.h>
#include <linux/fuse.h>
#include <pthread.h>
#include <sys/mount.h>
#include <sys/stat.h>

#include <array>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <mutex>
#include <new>
#include <stdexcept>
#include <system_error>
#include <thread>

namespace quendreld
{

namespace
{

using hosted::Op;

constexpr std::size_t page = 4096;
constexpr std::size_t sector = 512;
constexpr std::size_t most_payload = 1 << 20;
constexpr std::size_t write_headers = sizeof(fuse_in_header) + sizeof(fuse_write_in);
// A receive buffer: headers in the tail of the first page, payload from the second on, and the room that libfuse
// adds to the largest payload.
constexpr std::size_t receive_bytes = page + most_payload + page;
constexpr std::size_t small_bytes = 64 << 10;
constexpr unsigned most_small = 256;
constexpr unsigned most_large = 24;
constexpr unsigned first_threads = 2;
constexpr unsigned most_threads = 12;
constexpr int wake_signal = SIGUSR1;
constexpr fuse_ino_t first_disk_inode = 2;
constexpr double for_ever = 86400;

} // namespace

struct FuseFront::Impl {
    std::vector<ServedDisk*> disks;
    std::string mount_point;
    std::function<void(std::string_view)> report;
    timespec started{};
    fuse_session* session = nullptr;
    BufferPool small{small_bytes, most_small};
    BufferPool large{receive_bytes, most_large + most_threads};

    std::mutex mutex; // guards threads; innermost
    std::vector<std::thread> threads;
    std::atomic<unsigned> idle = 0;          // threads in receive
    std::atomic<std::uint64_t> received = 0; // requests
    std::thread supervisor;
    std::mutex within_sectors; // one read-modify-write of a part of a sector at a time; before the buffers'
    std::atomic<unsigned> alive = 0;
    std::atomic<bool> stop = false;
    std::atomic<long> in_flight = 0;

    void receive_loop();
    void supervise();
    void start_thread();
    ServedDisk* disk_of(fuse_ino_t inode) const
    {
        const auto index = inode - first_disk_inode;
        return inode >= first_disk_inode && index < disks.size() ? disks[index] : nullptr;
    }
    struct stat attributes(fuse_ino_t inode) const;
};

namespace
{

using Impl = FuseFront::Impl;

// The receive buffer of this thread; an operation that keeps it sets this to null and the loop takes another.
thread_local std::byte* receiving = nullptr;

std::byte* receive_start(std::byte* buffer) { return buffer + page - write_headers; }

struct FuseIo : IoRequest {
    Impl* front;
    fuse_req_t request;
    BufferPool* pool = nullptr;
    std::byte* buffer = nullptr;
    std::size_t skip = 0;   // read: bytes before those asked for
    std::size_t wanted = 0; // read, write: bytes asked for
};

Impl& front_of(fuse_req_t request) { return *static_cast<Impl*>(fuse_req_userdata(request)); }

void io_done(IoRequest* r, int error)
{
    auto* io = static_cast<FuseIo*>(r);
    if (error)
        fuse_reply_err(io->request, -error);
    else if (io->op == Op::read)
        fuse_reply_buf(io->request, reinterpret_cast<const char*>(io->data + io->skip), io->wanted);
    else if (io->op == Op::write)
        fuse_reply_write(io->request, io->wanted);
    else
        fuse_reply_err(io->request, 0);
    Impl* front = io->front;
    if (io->buffer)
        io->pool->give(io->buffer);
    delete io;
    front->in_flight.fetch_sub(1);
}

FuseIo* make_io(fuse_req_t request, Op op, std::uint64_t offset, std::uint64_t bytes)
{
    auto* io = new FuseIo;
    io->front = &front_of(request);
    io->request = request;
    io->op = op;
    io->offset = offset;
    io->bytes = bytes;
    io->done = io_done;
    io->front->in_flight.fetch_add(1);
    return io;
}

void do_init(void* data, fuse_conn_info* connection)
{
    (void)data;
    connection->max_write = most_payload;
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
    const Impl& front = front_of(request);
    if (parent == FUSE_ROOT_ID) {
        for (std::size_t i = 0; i < front.disks.size(); ++i) {
            if (front.disks[i]->name() != name)
                continue;
            fuse_entry_param entry{};
            entry.ino = first_disk_inode + i;
            entry.attr = front.attributes(entry.ino);
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
    const Impl& front = front_of(request);
    if (inode != FUSE_ROOT_ID && !front.disk_of(inode)) {
        fuse_reply_err(request, ENOENT);
        return;
    }
    const struct stat attributes = front.attributes(inode);
    fuse_reply_attr(request, &attributes, for_ever);
}

// A disk has one size, one owner and one mode. Times may be set and are not kept.
void do_setattr(fuse_req_t request, fuse_ino_t inode, struct stat* wanted, int which, fuse_file_info* file)
{
    const ServedDisk* disk = front_of(request).disk_of(inode);
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
    const Impl& front = front_of(request);
    std::vector<char> buffer(std::min<std::size_t>(size, 64 << 10));
    std::size_t used = 0;
    for (std::size_t i = std::size_t(offset); i < 2 + front.disks.size(); ++i) {
        const std::string name = i == 0 ? "." : i == 1 ? ".." : front.disks[i - 2]->name();
        const struct stat attributes = front.attributes(i < 2 ? fuse_ino_t(FUSE_ROOT_ID) : fuse_ino_t(i));
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
    const ServedDisk* disk = front_of(request).disk_of(inode);
    if (!disk) {
        fuse_reply_err(request, inode == FUSE_ROOT_ID ? EISDIR : ENOENT);
    } else if (disk->read_only() && (file->flags & O_ACCMODE) != O_RDONLY) {
        fuse_reply_err(request, EROFS);
    } else {
        file->direct_io = 1;
        fuse_reply_open(request, file);
    }
}

void do_read(fuse_req_t request, fuse_ino_t inode, std::size_t bytes, off_t offset, fuse_file_info*)
{
    Impl& front = front_of(request);
    ServedDisk* disk = front.disk_of(inode);
    if (!disk || std::uint64_t(offset) >= disk->size()) {
        disk ? fuse_reply_buf(request, nullptr, 0) : fuse_reply_err(request, EBADF);
        return;
    }
    bytes = std::min<std::uint64_t>({bytes, most_payload, disk->size() - std::uint64_t(offset)});
    // A reader may ask for any bytes; the disk knows sectors.
    const std::size_t skip = std::size_t(offset) % sector;
    const std::size_t covering = (skip + bytes + sector - 1) / sector * sector;
    FuseIo* io = make_io(request, Op::read, std::uint64_t(offset) - skip, covering);
    io->skip = skip;
    io->wanted = bytes;
    io->pool = covering <= small_bytes ? &front.small : &front.large;
    io->buffer = io->data = io->pool->take();
    disk->submit(io);
}

// A write that begins or ends inside a sector: the sectors are read, changed and written. The loop driver never does
// this, people with dd do. Two such writes exclude each other; a whole-sector write to the same sectors at the same
// time is the writers' own race.
void write_within_sectors(Impl& front, ServedDisk& disk, fuse_req_t request, const char* data, std::size_t bytes,
                          std::uint64_t offset)
{
    if (offset > disk.size() || bytes > disk.size() - offset) {
        fuse_reply_err(request, ENOSPC);
        return;
    }
    const std::size_t skip = offset % sector;
    const std::size_t covering = (skip + bytes + sector - 1) / sector * sector;
    const std::uint64_t start = offset - skip;
    std::byte* buffer = front.large.take();
    int error;
    {
        std::lock_guard lock(front.within_sectors);
        error = disk.run(Op::read, start, sector, buffer);
        if (!error && covering > sector)
            error = disk.run(Op::read, start + covering - sector, sector, buffer + covering - sector);
        if (!error) {
            std::memcpy(buffer + skip, data, bytes);
            error = disk.run(Op::write, start, covering, buffer);
        }
    }
    front.large.give(buffer);
    error ? fuse_reply_err(request, -error) : fuse_reply_write(request, bytes);
}

void do_write(fuse_req_t request, fuse_ino_t inode, const char* data, std::size_t bytes, off_t offset, fuse_file_info*)
{
    Impl& front = front_of(request);
    ServedDisk* disk = front.disk_of(inode);
    if (!disk) {
        fuse_reply_err(request, EBADF);
        return;
    }
    if ((std::uint64_t(offset) | bytes) % sector)
        return write_within_sectors(front, *disk, request, data, bytes, std::uint64_t(offset));
    FuseIo* io = make_io(request, Op::write, std::uint64_t(offset), bytes);
    io->wanted = bytes;
    if (bytes <= small_bytes) {
        // Copying a little is cheaper than receiving the next request into a cold buffer.
        io->pool = &front.small;
        io->buffer = io->data = front.small.take();
        std::memcpy(io->buffer, data, bytes);
    } else {
        io->pool = &front.large;
        io->buffer = receiving;
        io->data = reinterpret_cast<std::byte*>(const_cast<char*>(data));
        receiving = nullptr;
    }
    disk->submit(io);
}

void do_fallocate(fuse_req_t request, fuse_ino_t inode, int mode, off_t offset, off_t bytes, fuse_file_info*)
{
    ServedDisk* disk = front_of(request).disk_of(inode);
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
    FuseIo* io = make_io(request, Op::write_zeroes, std::uint64_t(offset), std::uint64_t(bytes));
    io->may_unmap = punch;
    disk->submit(io);
}

void do_fsync(fuse_req_t request, fuse_ino_t inode, int, fuse_file_info*)
{
    ServedDisk* disk = front_of(request).disk_of(inode);
    if (!disk) {
        fuse_reply_err(request, EBADF);
        return;
    }
    disk->submit(make_io(request, Op::flush, 0, 0));
}

// The loop driver offers discards only over a file system that states its block size.
void do_statfs(fuse_req_t request, fuse_ino_t)
{
    struct statvfs status {
    };
    status.f_bsize = page;
    status.f_frsize = page;
    status.f_namemax = 255;
    for (const ServedDisk* disk : front_of(request).disks)
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

fuse_lowlevel_ops operations()
{
    fuse_lowlevel_ops ops{};
    ops.init = do_init;
    ops.lookup = Guarded<do_lookup>::call;
    ops.getattr = Guarded<do_getattr>::call;
    ops.setattr = Guarded<do_setattr>::call;
    ops.readdir = Guarded<do_readdir>::call;
    ops.open = Guarded<do_open>::call;
    ops.read = Guarded<do_read>::call;
    ops.write = Guarded<do_write>::call;
    ops.fallocate = Guarded<do_fallocate>::call;
    ops.fsync = Guarded<do_fsync>::call;
    ops.statfs = Guarded<do_statfs>::call;
    return ops;
}

} // namespace

struct stat FuseFront::Impl::attributes(fuse_ino_t inode) const
{
    struct stat status {
    };
    status.st_ino = inode;
    status.st_uid = ::geteuid();
    status.st_gid = ::getegid();
    status.st_blksize = page;
    status.st_atim = status.st_mtim = status.st_ctim = started;
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

void FuseFront::Impl::start_thread()
{
    std::lock_guard lock(mutex);
    if (threads.size() >= most_threads || stop)
        return;
    alive.fetch_add(1);
    try {
        threads.emplace_back([this] {
            receive_loop();
            alive.fetch_sub(1);
        });
    } catch (const std::system_error&) { // those that there are go on
        alive.fetch_sub(1);
        if (threads.empty())
            throw;
    }
}

void FuseFront::Impl::receive_loop()
{
    pthread_setname_np(pthread_self(), "fuse");
    sigset_t wake;
    sigemptyset(&wake);
    sigaddset(&wake, wake_signal);
    pthread_sigmask(SIG_UNBLOCK, &wake, nullptr);
    const auto take = [this] {
        for (;;) {
            try {
                return large.take();
            } catch (const std::bad_alloc&) {
                std::this_thread::sleep_for(std::chrono::milliseconds(10)); // buffers in use come back
            }
        }
    };
    receiving = take();
    while (!stop && !fuse_session_exited(session)) {
        fuse_buf buffer{};
        buffer.mem = receive_start(receiving);
        idle.fetch_add(1);
        const int got = fuse_session_receive_buf(session, &buffer);
        idle.fetch_sub(1);
        if (got == -EINTR || got == -EAGAIN)
            continue;
        if (got <= 0)
            break;
        received.fetch_add(1, std::memory_order_relaxed);
        fuse_session_process_buf(session, &buffer);
        if (!receiving)
            receiving = take();
    }
    large.give(receiving);
    receiving = nullptr;
}

// Two threads keep two processors busy, as no request waits for its I/O. But a request may wait for something else: a
// write while a file system is frozen, a buffer. When all threads do, another has to receive, or reads would wait
// with them.
void FuseFront::Impl::supervise()
{
    std::uint64_t before = 0;
    while (!stop) {
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
        const std::uint64_t now = received.load(std::memory_order_relaxed);
        if (idle == 0 && now == before)
            start_thread();
        before = now;
    }
}

FuseFront::FuseFront(std::vector<ServedDisk*> disks, const std::string& mount_point,
                     std::function<void(std::string_view)> report)
    : impl_(std::make_unique<Impl>())
{
    Impl& impl = *impl_;
    impl.disks = std::move(disks);
    impl.mount_point = mount_point;
    impl.report = std::move(report);
    ::clock_gettime(CLOCK_REALTIME, &impl.started);
    if (::access("/dev/fuse", R_OK | W_OK) != 0)
        throw std::runtime_error(std::string("/dev/fuse: ") + std::strerror(errno) +
                                 "; load the fuse module or start with --no-fuse");
    if (::mkdir(mount_point.c_str(), 0755) != 0 && errno != EEXIST)
        throw std::runtime_error(mount_point + ": cannot make the mount point: " + std::strerror(errno));

    std::array<const char*, 3> words{"quendreld", "-o", "fsname=quendreld,subtype=disks"};
    fuse_args arguments = FUSE_ARGS_INIT(int(words.size()), const_cast<char**>(words.data()));
    const fuse_lowlevel_ops ops = operations();
    impl.session = fuse_session_new(&arguments, &ops, sizeof ops, &impl);
    fuse_opt_free_args(&arguments);
    if (!impl.session)
        throw std::runtime_error("FUSE: cannot make a session");
    if (fuse_session_mount(impl.session, mount_point.c_str()) != 0) {
        fuse_session_destroy(impl.session);
        throw std::runtime_error(mount_point + ": cannot mount the disk files here (is it a mount point already?)");
    }
    // A signal without restart gets a thread out of its read at the end.
    struct sigaction action {
    };
    action.sa_handler = [](int) {};
    ::sigaction(wake_signal, &action, nullptr);
    for (unsigned i = 0; i < first_threads; ++i)
        impl.start_thread();
    impl.supervisor = std::thread([&impl] { impl.supervise(); });
}

FuseFront::~FuseFront()
{
    Impl& impl = *impl_;
    if (::umount2(impl.mount_point.c_str(), MNT_DETACH) != 0 && errno != EINVAL)
        impl.report(impl.mount_point + ": cannot unmount: " + std::strerror(errno));
    impl.stop = true;
    impl.supervisor.join();
    while (impl.alive) {
        {
            std::lock_guard lock(impl.mutex);
            for (std::thread& thread : impl.threads)
                pthread_kill(thread.native_handle(), wake_signal);
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    for (std::thread& thread : impl.threads)
        thread.join();
    while (impl.in_flight)
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    fuse_session_destroy(impl.session);
}

} // namespace quendreld
