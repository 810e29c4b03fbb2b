// SPDX-License-Identifier: GPL-2.0-only
#include "folder_hold.h"

#include <fcntl.h>
#include <sys/file.h>

#include <algorithm>
#include <cerrno>
#include <thread>

namespace qbackup
{
namespace
{

base::Descriptor opened(const fs::path& folder)
{
    base::Descriptor fd{::open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC)};
    if (!fd)
        throw Failure{exitOf(errno), "cannot open " + folder.string() + ": " + errnoText(errno)};
    return fd;
}

} // namespace

base::Descriptor holdForReading(const fs::path& folder)
{
    base::Descriptor fd = opened(folder);
    if (::flock(fd.get(), LOCK_SH | LOCK_NB) != 0 && errno == EWOULDBLOCK)
        throw Failure{Exit::busy, "backups are being dropped from " + folder.string() + "; try again when that prune has ended"};
    return fd;
}

base::Descriptor holdForChanging(const fs::path& folder, const Patience& patience)
{
    base::Descriptor fd = opened(folder);
    const auto end = std::chrono::steady_clock::now() + patience.most;
    while (::flock(fd.get(), LOCK_EX | LOCK_NB) != 0 && errno == EWOULDBLOCK) {
        if (std::chrono::steady_clock::now() >= end)
            throw Failure{Exit::busy, "a backup in " + folder.string() +
                                          " is being restored, verified or served. Wait for that to end, or give --wait"};
        if (patience.stop != nullptr)
            throwIfStopped(*patience.stop);
        std::this_thread::sleep_for(std::chrono::milliseconds{50});
    }
    return fd;
}

} // namespace qbackup
