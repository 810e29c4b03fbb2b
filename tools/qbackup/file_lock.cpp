// SPDX-License-Identifier: GPL-2.0-only
#include "file_lock.h"

#include <sys/file.h>

#include <algorithm>
#include <cerrno>
#include <thread>

namespace qbackup
{

bool takeLock(const File& file, const Patience& patience)
{
    constexpr auto between = std::chrono::milliseconds{20};
    // `status` holds the lock for a moment to see whether it is free; that must not stop a backup.
    constexpr auto least = std::chrono::milliseconds{200};
    const auto end = std::chrono::steady_clock::now() + std::max<std::chrono::milliseconds>(least, patience.most);
    while (::flock(file.fd(), LOCK_EX | LOCK_NB) != 0) {
        if (errno != EWOULDBLOCK && errno != EINTR)
            throw Failure{Exit::failed, "cannot lock " + file.path().string() + ": " + errnoText(errno)};
        if (std::chrono::steady_clock::now() >= end)
            return false;
        if (patience.stop != nullptr)
            throwIfStopped(*patience.stop);
        std::this_thread::sleep_for(between);
    }
    return true;
}

} // namespace qbackup
