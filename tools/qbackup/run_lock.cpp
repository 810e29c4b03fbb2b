// SPDX-License-Identifier: GPL-2.0-only
#include "run_lock.h"

#include "failure.h"
#include "utc.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdio>

namespace qbackup
{
namespace
{

std::string describe(const File& file)
{
    std::string text(std::min<std::uint64_t>(file.size(), 4096), '\0');
    file.readAt(0, std::as_writable_bytes(std::span{text}));
    while (!text.empty() && text.back() == '\n')
        text.pop_back();
    return text.empty() ? "a process that has not said yet who it is" : text;
}

// The process that took the lock is gone: a child of it has the lock.
bool holderHasEnded(const File& file)
{
    int pid = 0;
    return std::sscanf(describe(file).c_str(), "process %d,", &pid) == 1 && ::kill(pid, 0) != 0 && errno == ESRCH;
}

// A lock in a directory where everybody can make files is no lock: anybody could hold it for ever.
File openOrCreate(const fs::path& path)
{
    const fs::path directory = path.parent_path();
    if (::mkdir(directory.c_str(), 0755) != 0 && errno != EEXIST)
        throw Failure{exitOf(errno), "cannot make " + directory.string() + " for the lock: " + errnoText(errno) +
                                         ". Whoever may use the control device only by its group needs the lock to be "
                                         "there; a run as root makes it"};
    struct stat st {
    };
    if (::stat(directory.c_str(), &st) == 0 && (st.st_mode & S_IWOTH) != 0)
        throw Failure{Exit::refused, directory.string() + ", where the lock " + path.string() +
                                         " stands, may be written by everybody; take that permission away (chmod o-w)"};
    std::error_code error;
    return File{path, O_RDWR | O_NOFOLLOW | (fs::exists(path, error) ? 0 : O_CREAT), 0660};
}

bool isOwner(const File& file)
{
    struct stat st {
    };
    return ::fstat(file.fd(), &st) == 0 && st.st_uid == ::geteuid();
}

} // namespace

RunLock::RunLock(const fs::path& lock_file, const std::string& purpose, const fs::path& control,
                 const Patience& patience)
    : file_{openOrCreate(lock_file)}
{
    if (struct stat st{}; !control.empty() && ::stat(control.c_str(), &st) == 0 && isOwner(file_)) {
        // A failure means that the group stays what it was: nobody gets more than they had.
        if (::fchown(file_.fd(), static_cast<uid_t>(-1), st.st_gid) == 0)
            ::fchmod(file_.fd(), 0660);
    }
    // What a killed run has left brings its ledger to the end, which takes as long as the driver's snapshot.
    constexpr auto leftover = std::chrono::seconds{30};
    if (!takeLock(file_, patience) && !(holderHasEnded(file_) && takeLock(file_, {leftover, patience.stop})))
        throw Failure{Exit::busy, "another qbackup is running: " + describe(file_) + " (lock " + lock_file.string() +
                                      "). Wait for it to end, or give --wait"};
    file_.truncate(0);
    file_.writeAt(0, asBytes("process " + std::to_string(::getpid()) + ", " + purpose + ", since " +
                             utcNow("%Y-%m-%dT%H:%M:%SZ") + "\n"));
}

std::optional<std::string> RunLock::holder(const fs::path& lock_file)
{
    std::error_code error;
    if (!fs::exists(lock_file, error))
        return std::nullopt;
    const File file{lock_file, O_RDONLY | O_NOFOLLOW};
    if (::flock(file.fd(), LOCK_SH | LOCK_NB) == 0)
        return std::nullopt; // unlocked again as the file closes
    return describe(file);
}

fs::path RunLock::placeFor(const fs::path& control)
{
    struct stat st {
    };
    const fs::path path = fs::absolute(control);
    if (::stat(path.c_str(), &st) == 0 && S_ISSOCK(st.st_mode))
        return path.parent_path() / "qbackup.lock";
    // Whatever a node is called, there is one driver behind all of them.
    return "/run/quendrel/qbackup.lock";
}

} // namespace qbackup
