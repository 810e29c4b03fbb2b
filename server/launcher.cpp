// SPDX-License-Identifier: GPL-2.0-only
#include "launcher.h"

#include "attach.h"
#include "listener.h"
#include "run_dir.h"
#include "service.h"

#include "base/image_lock.h"

#include <fcntl.h>
#include <linux/fs.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>

#include <cerrno>
#include <climits>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <iostream>
#include <set>
#include <stdexcept>
#include <string_view>
#include <system_error>

namespace quendreld
{

namespace fs = std::filesystem;

namespace
{

constexpr int stop_patience_ms = 90'000;

std::runtime_error failure(const std::string& what, int error)
{
    return std::runtime_error(what + ": " + std::strerror(error));
}

std::uint64_t size_of(int fd, const struct stat& status, const std::string& path)
{
    if (S_ISREG(status.st_mode))
        return std::uint64_t(status.st_size);
    std::uint64_t bytes = 0;
    if (::ioctl(fd, BLKGETSIZE64, &bytes) != 0)
        throw failure(path + ": cannot read its size", errno);
    return bytes;
}

struct Container {
    const char* name;
    std::uint64_t at;
    std::string_view magic;
    const char* advice;
};

using namespace std::string_view_literals;
constexpr const char* convert = "convert it (qemu-img convert -O raw) and serve the result";
constexpr Container containers[] = {
    {"a qcow2 image", 0, "QFI\xfb"sv, convert},
    {"a VMDK image", 0, "KDMV"sv, convert},
    {"a VMDK image", 0, "COWD"sv, convert},
    {"the description of a VMDK image", 0, "# Disk DescriptorFile"sv, convert},
    {"a VHDX image", 0, "vhdxfile"sv, convert},
    {"a VHD image", 0, "conectix"sv, convert},
    {"a VDI image", 64, "\x7f\x10\xda\xbe"sv, convert},
    {"a QED image", 0, "QED\0"sv, convert},
    {"a LUKS container", 0, "LUKS\xba\xbe"sv, "open it (cryptsetup open) and serve the device that this makes"},
};

// A container's bytes are not the disk's: what a guest wrote to it would be found nowhere.
void check_format(int fd, const std::string& path)
{
    char head[128] = {};
    if (::pread(fd, head, sizeof head, 0) < 0)
        throw failure(path + ": cannot read", errno);
    for (const Container& one : containers)
        if (std::string_view(head + one.at, one.magic.size()) == one.magic)
            throw std::runtime_error(path + ": is " + one.name + " and not a raw disk; " + one.advice +
                                     ", or serve it as it is with --format raw");
}

// Two writers that know nothing of each other: the loop driver takes no lock.
void check_loops(const struct stat& status, const std::string& path, bool read_only)
{
    std::error_code error;
    for (const auto& entry : fs::directory_iterator("/sys/block", error)) {
        const std::string name = entry.path().filename();
        if (!name.starts_with("loop") || !fs::exists(entry.path() / "loop", error))
            continue;
        std::string backing = read_file(entry.path() / "loop/backing_file");
        while (!backing.empty() && backing.back() == '\n')
            backing.pop_back();
        struct stat other;
        if (::stat(backing.c_str(), &other) != 0 || other.st_dev != status.st_dev || other.st_ino != status.st_ino)
            continue;
        if (read_only && read_file(entry.path() / "ro").starts_with("1"))
            continue;
        throw std::runtime_error(path + ": is the file behind /dev/" + name +
                                 ", which writes to it too; detach that first (losetup -d /dev/" + name +
                                 "), or serve /dev/" + name);
    }
}

std::string check_image(const std::string& path, bool read_only, bool raw, std::set<std::pair<dev_t, ino_t>>& seen)
{
    char resolved[PATH_MAX];
    if (!::realpath(path.c_str(), resolved))
        throw failure(path + ": no such disk", errno);
    struct stat status;
    if (::stat(resolved, &status) != 0)
        throw failure(path, errno);
    if (!S_ISREG(status.st_mode) && !S_ISBLK(status.st_mode))
        throw std::runtime_error(path + ": is neither a disk image nor a block device");
    // O_EXCL on a block device fails when it, or a part of it, is mounted, and keeps it from being mounted; on a file
    // it means nothing.
    const int flags = (read_only ? O_RDONLY : O_RDWR) | (S_ISBLK(status.st_mode) ? O_EXCL : 0);
    base::Descriptor fd(::open(resolved, flags));
    if (!fd) {
        const int error = errno;
        if (error == EBUSY)
            throw std::runtime_error(path + ": in use (mounted, or part of another device)");
        throw failure(path + ": cannot open" + (read_only ? "" : " for writing (--read-only serves it unchanged)"),
                      error);
    }
    const std::uint64_t bytes = size_of(fd.get(), status, path);
    if (bytes == 0)
        throw std::runtime_error(path + ": is empty; a disk has at least one sector");
    if (bytes % 512)
        throw std::runtime_error(path + ": its size, " + std::to_string(bytes) +
                                 " bytes, is no multiple of 512; is it a disk image? (truncate -s makes it one)");
    const bool block = S_ISBLK(status.st_mode);
    if (!seen.insert({block ? status.st_rdev : status.st_dev, block ? 0 : status.st_ino}).second)
        throw std::runtime_error(path + ": named twice");
    if (const std::string held = base::lock_image(fd.get(), read_only); !held.empty())
        throw std::runtime_error(path + ": " + held);
    if (!block)
        check_loops(status, path, read_only);
    if (!raw)
        check_format(fd.get(), path);
    return resolved;
}

void check_lengths(const RunDir& run)
{
    if (run.control_socket().size() > Listener::longest_path)
        throw std::runtime_error(run.path() + ": the path is too long for a socket in it; choose a shorter one");
}

std::string last_lines(const std::string& path)
{
    std::string text;
    try {
        text = read_file(path);
    } catch (const std::system_error&) {
        return {};
    }
    return text.size() > 600 ? text.substr(text.size() - 600) : text;
}

// The background process: what it has to say before it is ready goes to `ready`.
[[noreturn]] void run_child(const Config& config, const RunDir& run, base::Descriptor ready)
{
    const auto tell = [&ready](const std::string& text) {
        [[maybe_unused]] const auto written = ::write(ready.get(), text.data(), text.size());
        ready.reset();
    };
    try {
        ::setsid();
        base::Descriptor null(::open("/dev/null", O_RDWR));
        base::Descriptor log(::open(run.here(run.log()).c_str(), O_WRONLY | O_CREAT | O_APPEND | O_NOFOLLOW, 0640));
        if (!null || !log)
            throw failure(run.log() + ": cannot open", errno);
        ::dup2(null.get(), 0);
        ::dup2(log.get(), 1);
        ::dup2(log.get(), 2);
        null.reset();
        log.reset();
        if (::chdir("/") != 0)
            throw failure("/", errno);
        run.write(run.pid(), std::to_string(::getpid()) + "\n");
        ::_exit(run_service(config, run, [&tell] { tell("ok\n"); }));
    } catch (const std::exception& error) {
        tell(error.what());
        ::_exit(1);
    }
}

} // namespace

std::vector<std::string> check_images(const std::vector<std::string>& paths, bool read_only, bool raw)
{
    if (paths.empty())
        throw std::runtime_error("no disk named; give an image file or a block device");
    if (paths.size() > most_disks)
        throw std::runtime_error("at most " + std::to_string(most_disks) + " disks in one daemon");
    std::set<std::pair<dev_t, ino_t>> seen;
    std::vector<std::string> resolved;
    for (const std::string& path : paths)
        resolved.push_back(check_image(path, read_only, raw, seen));
    return resolved;
}

int launch(const Config& config, const std::function<void()>& started)
{
    const RunDir run(config.run_dir, RunDir::Missing::is_made);
    check_lengths(run);
    const base::Descriptor lock = run.take();
    run.remove_stale();
    if (config.foreground) {
        run.write(run.pid(), std::to_string(::getpid()) + "\n");
        return run_service(config, run, started);
    }

    int pipe[2];
    if (::pipe2(pipe, O_CLOEXEC) != 0)
        throw failure("pipe", errno);
    base::Descriptor heard(pipe[0]), ready(pipe[1]);
    const pid_t child = ::fork();
    if (child < 0)
        throw failure("fork", errno);
    if (child == 0) {
        heard.reset();
        run_child(config, run, std::move(ready));
    }
    ready.reset();
    std::string message;
    char part[512];
    for (ssize_t got; (got = ::read(heard.get(), part, sizeof part)) != 0;) {
        if (got > 0)
            message.append(part, std::size_t(got));
        if (got < 0 && errno != EINTR)
            break;
        if (message == "ok\n")
            break;
    }
    if (message == "ok\n") {
        started();
        return 0;
    }
    ::waitpid(child, nullptr, 0);
    run.remove_stale();
    if (message.empty())
        message = "the server ended at once; the end of " + run.log() + ":\n" + last_lines(run.here(run.log()));
    throw std::runtime_error(message);
}

void stop_daemon(const std::string& run_dir, bool force)
{
    const RunDir run(run_dir);
    if (!run.taken())
        throw std::runtime_error(run_dir + ": no daemon runs there");
    const auto pid = run.owner();
    if (!pid)
        throw std::runtime_error(run.pid() + ": cannot be read; end the daemon by its process id");
    base::Descriptor process(int(::syscall(SYS_pidfd_open, *pid, 0)));
    if (!process)
        throw failure("process " + std::to_string(*pid), errno);

    std::vector<DiskRecord> disks;
    try {
        disks = disks_from_json(run.read(run.disks_json()));
    } catch (const std::exception&) {
        // still starting, or ending already: nothing can be attached
    }
    for (const DiskRecord& disk : disks) {
        if (force) {
            try {
                if (!users_of_disk(disk))
                    detach_disk(disk);
            } catch (const std::exception& error) {
                std::cerr << "quendreld: " << error.what() << "; stopping all the same\n";
            }
            continue;
        }
        if (const auto user = users_of_disk(disk))
            throw std::runtime_error(disk.name + ": " + *user + " (or stop with --force: later writes to it fail)");
        detach_disk(disk);
    }
    if (::syscall(SYS_pidfd_send_signal, process.get(), SIGTERM, nullptr, 0) != 0)
        throw failure("process " + std::to_string(*pid) + ": cannot end it", errno);
    pollfd ended{process.get(), POLLIN, 0};
    if (::poll(&ended, 1, stop_patience_ms) <= 0)
        throw std::runtime_error("process " + std::to_string(*pid) + " does not end; see " + run.log());
    std::string how;
    try {
        how = run.read(run.ended());
    } catch (const std::system_error&) {
        throw std::runtime_error("process " + std::to_string(*pid) +
                                 " died instead of ending; what was not flushed may be lost. See " + run.log());
    }
    if (how != ended_well)
        throw std::runtime_error("ended, but not everything is on disk:\n" + how);
}

} // namespace quendreld
