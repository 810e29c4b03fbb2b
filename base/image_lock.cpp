// SPDX-License-Identifier: GPL-2.0-only
#include "base/image_lock.h"

#include <cerrno>
#include <chrono>
#include <fcntl.h>
#include <initializer_list>
#include <sys/file.h>
#include <sys/stat.h>
#include <thread>

namespace base
{

namespace
{

constexpr int used_row = 100, unshared_row = 200;
// The device manager locks a block device while it looks what is on it, which is whenever a writer has closed it.
constexpr auto between_looks = std::chrono::milliseconds(50);
constexpr int looks = 40;
constexpr int consistent_read = 0, write = 1, resize = 3;

struct flock byte_lock(short type, int byte)
{
    struct flock lock {
    };
    lock.l_type = type;
    lock.l_whence = SEEK_SET;
    lock.l_start = byte;
    lock.l_len = 1;
    return lock;
}

void take(int fd, int byte)
{
    struct flock lock = byte_lock(F_RDLCK, byte);
    ::fcntl(fd, F_OFD_SETLK, &lock);
}

bool held_by_another(int fd, int byte)
{
    struct flock lock = byte_lock(F_WRLCK, byte);
    return ::fcntl(fd, F_OFD_GETLK, &lock) == 0 && lock.l_type != F_UNLCK;
}

} // namespace

std::string lock_image(int fd, bool read_only)
{
    struct stat status;
    const bool block = ::fstat(fd, &status) == 0 && S_ISBLK(status.st_mode);
    const auto refused = [&] {
        return ::flock(fd, (read_only ? LOCK_SH : LOCK_EX) | LOCK_NB) != 0 && errno == EWOULDBLOCK;
    };
    bool locked_out = refused();
    for (int i = 0; locked_out && block && i < looks; ++i) {
        std::this_thread::sleep_for(between_looks);
        locked_out = refused();
    }
    if (locked_out)
        return "another program (a second daemon?) serves it already; stop that one first";
    // Taken first, then looked at: of two that come at once at least one sees the other.
    take(fd, used_row + consistent_read);
    if (!read_only)
        take(fd, used_row + write);
    take(fd, unshared_row + write);
    take(fd, unshared_row + resize);
    bool held = held_by_another(fd, unshared_row + consistent_read) ||
                (!read_only && held_by_another(fd, unshared_row + write));
    for (const int permission : {write, resize})
        held |= held_by_another(fd, used_row + permission);
    if (held)
        return "a virtual machine or another program of QEMU's has it open; end that one first";
    return {};
}

} // namespace base
