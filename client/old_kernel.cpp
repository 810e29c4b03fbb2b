// SPDX-License-Identifier: GPL-2.0-only
// fstat() for static 32-bit programs on kernels before 2.6.39.
//
// The C library asks every kernel without statx for fstatat64(fd, "", AT_EMPTY_PATH), and those kernels refuse the flag.
// The linker sends the library's own calls here (--wrap in CMakeLists.txt); fstat64 is there on every kernel.
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cstring>

static_assert(sizeof(time_t) == 8 && sizeof(off_t) == 8, "the library's own structure: _TIME_BITS and _FILE_OFFSET_BITS are 64");

namespace
{

// struct stat64 of the kernel's interface for i386.
struct [[gnu::packed]] KernelStat {
    unsigned long long dev;
    unsigned char pad0[4];
    unsigned long ino_low;
    unsigned mode, nlink;
    unsigned long uid, gid;
    unsigned long long rdev;
    unsigned char pad3[4];
    long long size;
    unsigned long blksize;
    unsigned long long blocks;
    unsigned long atime, atime_nsec, mtime, mtime_nsec, ctime, ctime_nsec;
    unsigned long long ino;
};
static_assert(sizeof(KernelStat) == 96);

timespec at(unsigned long seconds, unsigned long nanoseconds)
{
    timespec result{};
    result.tv_sec = static_cast<long>(seconds);
    result.tv_nsec = static_cast<long>(nanoseconds);
    return result;
}

} // namespace

extern "C" int __real___fstatat64_time64(int fd, const char* path, struct stat* to, int flags);

extern "C" int __wrap___fstatat64_time64(int fd, const char* path, struct stat* to, int flags)
{
    if (!(flags & AT_EMPTY_PATH) || path[0] != '\0')
        return __real___fstatat64_time64(fd, path, to, flags);
    KernelStat from;
    if (::syscall(SYS_fstat64, fd, &from) != 0)
        return -1;
    std::memset(to, 0, sizeof *to);
    to->st_dev = from.dev;
    to->st_ino = from.ino;
    to->st_mode = from.mode;
    to->st_nlink = from.nlink;
    to->st_uid = from.uid;
    to->st_gid = from.gid;
    to->st_rdev = from.rdev;
    to->st_size = from.size;
    to->st_blksize = static_cast<blksize_t>(from.blksize);
    to->st_blocks = static_cast<blkcnt_t>(from.blocks);
    to->st_atim = at(from.atime, from.atime_nsec);
    to->st_mtim = at(from.mtime, from.mtime_nsec);
    to->st_ctim = at(from.ctime, from.ctime_nsec);
    return 0;
}
