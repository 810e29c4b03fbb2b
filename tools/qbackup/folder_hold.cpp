// SPDX-License-Identifier: GPL-2.0-only
#include "folder_hold.h"

#include "image_backup.h"

#include <fcntl.h>
#include <sys/file.h>

#include <algorithm>
#include <cerrno>
#include <thread>

namespace qbackup
{
namespace
{

// A file, as network file systems lock nothing else.
fs::path fileIn(const fs::path& folder) { return folder / hold_name; }

} // namespace

base::Descriptor holdForReading(const fs::path& folder)
{
    base::Descriptor fd{::open(fileIn(folder).c_str(), O_RDONLY | O_CLOEXEC)};
    // Who copies a folder may leave it out.
    if (!fd && errno == ENOENT && !imageIds(folder).empty())
        fd.reset(::open(fileIn(folder).c_str(), O_RDONLY | O_CREAT | O_CLOEXEC, 0640));
    if (!fd && errno != ENOENT && errno != EROFS && errno != EACCES && errno != EPERM)
        throw Failure{Exit::failed, "cannot open " + fileIn(folder).string() + ": " + errnoText(errno)};
    if (fd && ::flock(fd.get(), LOCK_SH | LOCK_NB) != 0 && errno == EWOULDBLOCK)
        throw Failure{Exit::busy, "backups are being dropped from " + folder.string() + "; try again when that prune has ended"};
    return fd;
}

base::Descriptor holdForChanging(const fs::path& folder, const Patience& patience)
{
    const File file{fileIn(folder), O_RDWR | O_CREAT};
    base::Descriptor fd{::fcntl(file.fd(), F_DUPFD_CLOEXEC, 0)};
    const auto end = std::chrono::steady_clock::now() + patience.most;
    while (::flock(fd.get(), LOCK_EX | LOCK_NB) != 0) {
        if (errno != EWOULDBLOCK && errno != EINTR)
            throw Failure{Exit::failed, "cannot lock " + file.path().string() + ": " + errnoText(errno)};
        if (std::chrono::steady_clock::now() >= end)
            throw Failure{Exit::busy, "a backup in " + folder.string() +
                                          " is being read: restored, verified, compared, served or mounted. Wait for that to end, or give --wait"};
        if (patience.stop != nullptr)
            throwIfStopped(*patience.stop);
        std::this_thread::sleep_for(std::chrono::milliseconds{50});
    }
    return fd;
}

} // namespace qbackup
