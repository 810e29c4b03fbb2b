// SPDX-License-Identifier: GPL-2.0-only
#include "mounted_backup.h"

#include "child_process.h"
#include "file_lock.h"
#include "host_blocks.h"
#include "qemu_image.h"
#include "serve.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <csignal>
#include <cstdlib>
#include <memory>
#include <optional>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

namespace qbackup
{
namespace
{

using namespace std::chrono_literals;

constexpr auto tick = 50ms;
constexpr auto patience = 15s; // with programs that answer in a moment

bool isMounted(const fs::path& path) { return HostBlocks{}.isMountPoint(path); }

// Whether it comes true in time.
template <typename Condition> bool within(std::chrono::milliseconds time, const Condition& condition)
{
    for (const auto end = std::chrono::steady_clock::now() + time; !condition(); std::this_thread::sleep_for(tick))
        if (std::chrono::steady_clock::now() >= end)
            return false;
    return true;
}

// What it said when it failed. Throws nothing of its own.
std::optional<std::string> problemOf(const std::vector<std::string>& words, const std::string& package)
try {
    ChildProcess child{words, package};
    if (child.wait())
        return std::nullopt;
    return child.said();
} catch (const Failure& failure) {
    return failure.what();
}

void unmountLazily(const fs::path& path)
{
    if (isMounted(path))
        problemOf({"umount", "-l", path.string()}, "mount");
}

// Of this user alone.
void makeOwnDirectory(const fs::path& path)
{
    struct stat st {
    };
    if (::mkdir(path.c_str(), 0700) != 0 && errno != EEXIST)
        throw Failure{exitOf(errno, Exit::refused), "cannot make " + path.string() + ": " + errnoText(errno)};
    if (::lstat(path.c_str(), &st) != 0 || !S_ISDIR(st.st_mode) || st.st_uid != ::geteuid())
        throw Failure{Exit::refused, path.string() + " is in the way: it is no directory of this user; remove it"};
}

fs::path placeOfAll()
{
    if (::geteuid() == 0)
        return "/run/quendrel/mounts";
    if (const char* runtime = std::getenv("XDG_RUNTIME_DIR"); runtime != nullptr && *runtime != '\0')
        return fs::path{runtime} / "quendrel-mounts";
    return "/tmp/quendrel-mounts-" + std::to_string(::geteuid());
}

struct Place {
    explicit Place(const fs::path& directory)
        : folder{placeOfAll() / hashText(asBytes(directory.string())).substr(0, 16)}
    {
    }
    fs::path lock() const { return folder / "lock"; }
    fs::path disk() const { return folder / "disk"; }
    fs::path file() const { return disk() / "image"; }
    fs::path socket() const { return folder / "nbd.sock"; }
    // With the lock held.
    void remove() const
    {
        // The loop device lets go of the file a moment after its file system is gone.
        within(5s, [&] { return !isMounted(disk()) || !problemOf({"umount", disk().string()}, "mount"); });
        unmountLazily(disk());
        std::error_code error;
        fs::remove(disk(), error);
        fs::remove(socket(), error);
        fs::remove(lock(), error);
        fs::remove(folder, error);
    }

    fs::path folder;
};

std::string typeOf(const fs::path& file, std::uint64_t offset)
{
    ChildProcess blkid{{"/sbin/blkid", "-p", "-s", "TYPE", "-o", "value", "-O", std::to_string(offset), file.string()},
                       "util-linux"};
    blkid.wait();
    const std::string text = blkid.output();
    return text.substr(0, text.find('\n'));
}

struct Part {
    std::uint64_t offset = 0; // bytes
    std::uint64_t bytes = 0;
};

Part partitionIn(const fs::path& file, unsigned number)
{
    ChildProcess partx{{"partx", "--show", "--noheadings", "--output", "NR,START,SECTORS", file.string()},
                       "util-linux"};
    partx.wait();
    std::istringstream lines{partx.output()};
    std::string known;
    for (std::uint64_t nr = 0, start = 0, sectors = 0; lines >> nr >> start >> sectors;) {
        if (nr == number)
            return {start * 512, sectors * 512};
        known += (known.empty() ? "" : ", ") + std::to_string(nr);
    }
    throw Failure{Exit::refused, "the backup has no partition " + std::to_string(number) + "; it has " +
                                     (known.empty() ? "none" : known)};
}

// What to try one after the other: a journal that was not clean cannot be replayed on what is only read.
std::vector<std::string> optionsFor(const std::string& type)
{
    if (type.starts_with("ext"))
        return {"", ",noload"};
    if (type == "xfs")
        return {",nouuid", ",nouuid,norecovery"};
    return {""};
}

class Mount
{
  public:
    Mount(const MountJob& job, const Place& place) : job_{job}, place_{place} {}
    ~Mount()
    {
        if (isMounted(job_.directory) && problemOf({"umount", job_.directory.string()}, "mount"))
            unmountLazily(job_.directory);
    }
    Mount(const Mount&) = delete;
    Mount& operator=(const Mount&) = delete;

    void begin(const std::string& uri)
    {
        file_.emplace(endingWithThis({"nbdfuse", "-r", place_.file().string(), uri}), "libnbd-bin");
        std::error_code error;
        if (!within(patience, [&] { return fs::is_regular_file(place_.file(), error) || !file_->running(); }) ||
            !file_->running())
            throw Failure{Exit::failed, "nbdfuse does not show the backup as a file: " + file_->said()};
        const Part part = job_.partition == 0 ? Part{} : partitionIn(place_.file(), job_.partition);
        const std::string type = typeOf(place_.file(), part.offset);
        if (type.empty())
            throw Failure{Exit::refused,
                          "there is no file system in the backup" +
                              std::string{job_.partition == 0
                                              ? "; if it is of a disk with partitions, name one with --partition"
                                              : "'s partition"}};
        if (job_.fuse || ::geteuid() != 0)
            mountByFuse(type);
        else
            mountByKernel(type, part);
    }
    // Nothing of it has ended, and the directory is still mounted.
    bool stands() { return file_->running() && (!fuse_ || fuse_->running()) && isMounted(job_.directory); }

  private:
    void mountByKernel(const std::string& type, const Part& part)
    {
        std::string window;
        if (part.bytes != 0)
            window = ",offset=" + std::to_string(part.offset) + ",sizelimit=" + std::to_string(part.bytes);
        std::optional<std::string> problem;
        for (const std::string& options : optionsFor(type)) {
            problem = problemOf({"mount", "-t", type, "-o", "loop,ro,nosuid,nodev" + window + options,
                                 place_.file().string(), job_.directory.string()},
                                "mount");
            if (!problem)
                return;
        }
        throw Failure{Exit::failed, "cannot mount the " + type + " of the backup: " + *problem +
                                        ". 'qbackup serve' shows it as a block device"};
    }

    void mountByFuse(const std::string& type)
    {
        if (!type.starts_with("ext"))
            throw Failure{Exit::refused, "without root only ext2, ext3 and ext4 can be mounted, and this is " + type};
        if (job_.partition != 0)
            throw Failure{Exit::refused, "without root a partition of a disk cannot be mounted"};
        fuse_.emplace(
            endingWithThis({"fuse2fs", "-f", "-o", "ro,norecovery", place_.file().string(), job_.directory.string()}),
            "fuse2fs");
        if (!within(patience, [&] { return isMounted(job_.directory) || !fuse_->running(); }) || !fuse_->running())
            throw Failure{Exit::failed, "fuse2fs does not mount the backup: " + fuse_->said()};
    }

    const MountJob& job_;
    const Place& place_;
    std::optional<ChildProcess> file_; // nbdfuse
    std::optional<ChildProcess> fuse_; // fuse2fs
};

} // namespace

void mountBackup(const MountJob& job, const StopSignal& stop, const std::function<void()>& ready)
{
    if (!fs::is_directory(job.directory))
        throw Failure{Exit::refused, job.directory.string() + " is not a directory"};
    if (::geteuid() == 0) {
        std::error_code error;
        fs::create_directory("/run/quendrel", error);
    }
    const Place place{job.directory};
    makeOwnDirectory(place.folder.parent_path());
    makeOwnDirectory(place.folder);
    const File lock{place.lock(), O_RDWR | O_CREAT | O_NOFOLLOW, 0600};
    if (!takeLock(lock, {}))
        throw Failure{Exit::refused,
                      "a backup is mounted on " + job.directory.string() + " already; 'qbackup umount' ends that"};
    // What a killed one has left.
    if (isMounted(place.disk()))
        unmountLazily(job.directory);
    unmountLazily(place.disk());
    makeOwnDirectory(place.disk());
    const std::string number = std::to_string(::getpid()) + "\n";
    lock.truncate(0);
    lock.writeAt(0, asBytes(number));

    struct Leave {
        ~Leave() { place.remove(); }
        const Place& place;
    } leave{place};
    StopSignal ended{0};
    std::optional<Mount> mount;
    std::thread watch;
    std::exception_ptr problem;
    try {
        serveBackup(job.backup, place.socket(), ended, [&](const std::string& uri) {
            mount.emplace(job, place);
            mount->begin(uri);
            ready();
            watch = std::thread{[&] {
                while (stop.load(std::memory_order_relaxed) == 0 && ended.load(std::memory_order_relaxed) == 0 &&
                       mount->stands())
                    std::this_thread::sleep_for(4 * tick);
                ended = SIGTERM;
            }};
        });
    } catch (...) {
        problem = std::current_exception();
    }
    ended = SIGTERM;
    if (watch.joinable())
        watch.join();
    mount.reset();
    if (problem)
        std::rethrow_exception(problem);
}

void unmountBackup(const fs::path& named)
{
    // What is mounted there may not answer any more, so it is not looked at.
    fs::path absolute = fs::absolute(named).lexically_normal();
    if (!absolute.has_filename())
        absolute = absolute.parent_path(); // of "dir/"
    fs::path directory = fs::weakly_canonical(absolute.parent_path()) / absolute.filename();
    std::error_code error;
    if (!isPresent(Place{directory}.lock()))
        if (const fs::path canonical = fs::canonical(absolute, error); !error)
            directory = canonical;
    const Place place{directory};
    if (!isPresent(place.lock()))
        throw Failure{Exit::nothing, "no backup is mounted on " + directory.string() + " by this user"};
    const File lock{place.lock(), O_RDWR | O_NOFOLLOW};
    const bool dead = takeLock(lock, {});
    if (dead)
        unmountLazily(directory);
    else if (isMounted(directory))
        if (const auto problem = problemOf({"umount", directory.string()}, "mount"))
            throw Failure{Exit::refused, "cannot unmount " + directory.string() + ": " + *problem +
                                             ". End what uses it; 'fuser -vm " + directory.string() + "' names that"};
    if (!dead && !takeLock(lock, {patience})) {
        const pid_t stays = static_cast<pid_t>(std::strtol(readText(place.lock()).c_str(), nullptr, 10));
        if (stays > 1)
            ::kill(stays, SIGKILL); // what it has started goes with it
        if (!takeLock(lock, {patience}))
            throw Failure{Exit::failed, "process " + std::to_string(stays) + ", which served the backup on " +
                                            directory.string() + ", does not end"};
    }
    place.remove();
}

} // namespace qbackup
