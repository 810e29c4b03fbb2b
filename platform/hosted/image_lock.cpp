// SPDX-License-Identifier: GPL-2.0-only
#include "image_lock.h"

#include <cerrno>
#include <fcntl.h>
#include <initializer_list>
#include <sys/file.h>

namespace hosted
{

namespace
{

constexpr int used_row = 100, unshared_row = 200;
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
    if (::flock(fd, (read_only ? LOCK_SH : LOCK_EX) | LOCK_NB) != 0 && errno == EWOULDBLOCK)
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

} // namespace hosted
