// SPDX-License-Identifier: GPL-2.0-only
#include "run_dir.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/vfs.h>

#include <cerrno>
#include <cstdlib>
#include <fstream>
#include <nlohmann/json.hpp>
#include <sstream>
#include <stdexcept>
#include <system_error>

namespace quendreld
{

namespace
{

using ordered = nlohmann::ordered_json;

template <typename Value> std::string member(const char* name, const Value& value)
{
    return std::string("\"") + name + "\":" + nlohmann::json(value).dump();
}

std::string contents_members(const std::optional<FileSystemRecord>& file_system, const std::string& holds)
{
    const std::string other = holds.empty() ? "" : "," + member("holds", holds);
    if (!file_system)
        return other;
    return other + "," + member("type", file_system->type) + "," + member("blockSize", file_system->block_size);
}

void append(std::string& list, const std::string& element) { list += (list.empty() ? "" : ",") + element; }

std::optional<FileSystemRecord> file_system_of(const ordered& from)
{
    if (!from.contains("type"))
        return std::nullopt;
    return FileSystemRecord{from.at("type"), from.at("blockSize")};
}

// A process by this program's name, which everybody may read.
bool is_daemon(int process)
{
    std::ifstream in("/proc/" + std::to_string(process) + "/comm");
    std::string name;
    return std::getline(in, name) && name == "quendreld";
}

} // namespace

RunDir::RunDir(std::string path, Missing missing) : path_(std::move(path))
{
    if (missing == Missing::is_made && ::mkdir(path_.c_str(), 0755) != 0 && errno != EEXIST)
        throw std::system_error(errno, std::generic_category(), path_ + ": cannot make the run directory");
    directory_.reset(::open(path_.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
    if (!directory_ && errno == ENOENT && missing == Missing::stays) {
        at_ = path_;
        return;
    }
    if (!directory_ && (errno == ELOOP || errno == ENOTDIR))
        throw std::runtime_error(path_ + ": is no directory, or a symbolic link to one; name the directory itself");
    struct stat status;
    if (!directory_ || ::fstat(directory_.get(), &status) != 0)
        throw std::system_error(errno, std::generic_category(), path_ + ": cannot open the run directory");
    if (status.st_uid != ::geteuid() && status.st_uid != 0)
        throw std::runtime_error(path_ + ": belongs to user " + std::to_string(status.st_uid) +
                                 ", who could put anything there; use a directory of your own");
    if (status.st_mode & S_IWOTH)
        throw std::runtime_error(path_ + ": everybody may write there; use a directory of your own (chmod o-w)");
    if ((status.st_mode & S_IWGRP) && status.st_gid != ::getegid())
        throw std::runtime_error(path_ + ": group " + std::to_string(status.st_gid) +
                                 " may write there; use a directory of your own (chmod g-w)");
    at_ = "/proc/self/fd/" + std::to_string(directory_.get());
}

base::Descriptor RunDir::take() const
{
    base::Descriptor fd(::open(here(lock()).c_str(), O_RDWR | O_CREAT | O_NOFOLLOW, 0600));
    if (!fd)
        throw std::system_error(errno, std::generic_category(), lock() + ": cannot open the lock");
    ::fchmod(fd.get(), 0600); // who could open it could lock it
    // Whoever asks whether a daemon lives holds it for a moment.
    int locked = ::flock(fd.get(), LOCK_EX | LOCK_NB);
    for (int again = 0; locked != 0 && errno == EWOULDBLOCK && again < 10; ++again) {
        ::usleep(20'000);
        locked = ::flock(fd.get(), LOCK_EX | LOCK_NB);
    }
    if (locked == 0)
        return fd;
    if (errno != EWOULDBLOCK)
        throw std::system_error(errno, std::generic_category(), lock() + ": cannot lock");
    const auto pid = owner();
    throw std::runtime_error(path_ + ": a daemon" + (pid ? " (process " + std::to_string(*pid) + ")" : "") +
                             " already runs there; stop it with 'quendreld stop --run-dir " + path_ +
                             "' or choose another run directory");
}

bool RunDir::taken() const
{
    base::Descriptor fd(::open(here(lock()).c_str(), O_RDONLY | O_CLOEXEC));
    if (!fd && errno == EACCES) {
        const auto process = owner();
        return process && is_daemon(*process);
    }
    return fd && ::flock(fd.get(), LOCK_SH | LOCK_NB) != 0 && errno == EWOULDBLOCK;
}

std::optional<int> RunDir::owner() const
{
    std::ifstream in(here(pid()));
    int number = 0;
    if (in >> number && number > 0)
        return number;
    return std::nullopt;
}

void RunDir::remove_stale() const
{
    for (const std::string& path : {control_socket(), nbd_socket(), disks_json(), pid(), ended()})
        ::unlink(here(path).c_str());
    // A FUSE mount whose server died answers ENOTCONN; it goes away lazily, as a loop device may still hold it.
    struct stat status;
    const std::string mounted = here(disks());
    if (::stat(mounted.c_str(), &status) != 0 && errno == ENOTCONN)
        ::umount2(mounted.c_str(), MNT_DETACH);
}

void RunDir::write(const std::string& path, const std::string& text) const
try {
    write_file_whole(here(path), text);
} catch (const std::system_error& error) {
    throw std::system_error(error.code(), path + ": cannot write");
}

std::string RunDir::read(const std::string& path) const
try {
    return read_file(here(path));
} catch (const std::system_error& error) {
    throw std::system_error(error.code(), path + ": cannot read");
}

// Put together here: the library's destructor of a nested value ends the process when there is no memory.
std::string disks_to_json(const std::vector<DiskRecord>& disks)
{
    std::string all;
    for (const DiskRecord& disk : disks) {
        std::string parts;
        for (const PartitionRecord& part : disk.partitions)
            append(parts, "{" + member("name", part.name) + "," + member("major", part.major) + "," +
                              member("minor", part.minor) + "," + member("start", part.start) + "," +
                              member("sectors", part.sectors) + "," +
                              member("instance", part.instance) + contents_members(part.file_system, part.holds) + "}");
        append(all, "{" + member("name", disk.name) + "," + member("major", disk.major) + "," +
                        member("minor", disk.minor) + "," + member("bytes", disk.bytes) + "," +
                        (disk.file.empty() ? "\"file\":null" : member("file", disk.file)) + "," +
                        member("nbd", disk.nbd) +
                        (disk.flush_error.empty() ? "" : "," + member("flushError", disk.flush_error)) +
                        "," + member("sectorBytes", disk.sector_bytes) + "," + member("instance", disk.instance) +
                        contents_members(disk.file_system, disk.holds) + ",\"partitions\":[" + parts + "]}");
    }
    return "{\"version\":1,\"takeOver\":true,\"disks\":[" + all + "]}\n";
}

std::vector<DiskRecord> disks_from_json(const std::string& text)
{
    const ordered json = ordered::parse(text);
    if (json.at("version") != 1)
        throw std::runtime_error("disks.json: written by another version");
    std::vector<DiskRecord> disks;
    for (const ordered& entry : json.at("disks")) {
        DiskRecord disk{entry.at("name"),
                        entry.at("major"),
                        entry.at("minor"),
                        entry.at("bytes"),
                        {},
                        entry.at("nbd"),
                        entry.value("flushError", std::string()),
                        file_system_of(entry),
                        {},
                        entry.value("holds", std::string()),
                        entry.at("instance"),
                        entry.at("sectorBytes")};
        if (entry.at("file").is_string())
            disk.file = entry.at("file");
        for (const ordered& one : entry.at("partitions"))
            disk.partitions.push_back({one.at("name"), one.at("major"), one.at("minor"), one.at("start"),
                                       one.at("sectors"), file_system_of(one), one.at("instance"),
                                       one.value("holds", std::string())});
        disks.push_back(std::move(disk));
    }
    return disks;
}

void write_file_whole(const std::string& path, const std::string& text)
{
    const std::string next = path + ".new";
    base::Descriptor fd(::open(next.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_NOFOLLOW | O_CLOEXEC, 0644));
    if (!fd)
        throw std::system_error(errno, std::generic_category(), next + ": cannot create");
    if (::write(fd.get(), text.data(), text.size()) != ssize_t(text.size()))
        throw std::system_error(errno ? errno : ENOSPC, std::generic_category(), next + ": cannot write");
    if (::rename(next.c_str(), path.c_str()) != 0)
        throw std::system_error(errno, std::generic_category(), path + ": cannot replace");
}

std::string read_file(const std::string& path)
{
    std::ifstream in(path);
    if (!in)
        throw std::system_error(errno ? errno : ENOENT, std::generic_category(), path + ": cannot read");
    std::ostringstream text;
    text << in.rdbuf();
    return text.str();
}

} // namespace quendreld
