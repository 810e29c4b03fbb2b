// SPDX-License-Identifier: GPL-2.0-only
#include "command.h"

#include "common.h"
#include "mounted_backup.h"
#include "output.h"
#include "qemu_image.h"
#include "repository.h"

#include <fcntl.h>
#include <poll.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <memory>
#include <string>
#include <utility>

namespace qbackup
{
namespace
{

struct Options {
    fs::path from;
    std::string at; // time or id; empty: the newest
    fs::path directory;
    unsigned partition = 0;
    bool fuse = false;
};

// The process that stays. It tells its parent of the start with one line: nothing when the files can be read, else the
// exit code and why not.
[[noreturn]] void stay(const MountJob& job, const StopSignal& stop, int parent)
{
    ::setsid();
    if (::chdir("/") != 0)
        ::_exit(1);
    const int nothing = ::open("/dev/null", O_RDWR);
    for (const int fd : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO})
        ::dup2(nothing, fd);
    bool told = false;
    const auto tell = [&](const std::string& line) {
        if (std::exchange(told, true))
            return;
        const std::string text = line + "\n";
        [[maybe_unused]] const ssize_t sent =
            ::write(parent, text.data(), text.size()); // to nobody when the parent was killed
        ::close(parent);
    };
    int exit = 0;
    try {
        mountBackup(job, stop, [&] { tell(""); });
    } catch (const Failure& failure) {
        exit = failure.exitCode();
        tell(std::to_string(exit) + " " + failure.what());
    } catch (const std::exception& error) {
        exit = 1;
        tell(std::string{"1 "} + error.what());
    }
    ::_exit(exit);
}

// What the process that stays has to say; nothing when it has said nothing.
std::string heardFrom(int fd, pid_t child, const StopSignal& stop)
{
    std::string text;
    for (std::array<char, 512> part{};;) {
        if (stop.load(std::memory_order_relaxed) != 0) {
            ::kill(child, SIGTERM);
            throwIfStopped(stop);
        }
        pollfd waiting{fd, POLLIN, 0};
        if (::poll(&waiting, 1, 100) <= 0)
            continue;
        const ssize_t got = ::read(fd, part.data(), part.size());
        if (got < 0 && errno == EINTR)
            continue;
        if (got <= 0)
            return text;
        text.append(part.data(), static_cast<std::size_t>(got));
    }
}

int mount(const Context& context, const Options& options)
{
    requireQemu();
    const StoredBackup backup = findBackup(options.from, options.at);
    std::error_code error;
    const fs::path directory = fs::canonical(options.directory, error);
    if (error)
        throw Failure{exitOf(error.value(), Exit::refused),
                      "cannot mount on " + options.directory.string() + ": " + error.message()};
    // It stays when this program ends, and goes elsewhere.
    const MountJob job{readBackup(fs::absolute(backup.path)), directory, options.partition, options.fuse};
    std::array<int, 2> ends{};
    if (::pipe2(ends.data(), O_CLOEXEC) != 0)
        throw Failure{Exit::failed, "cannot make a pipe: " + errnoText(errno)};
    base::Descriptor reading{ends[0]};
    base::Descriptor writing{ends[1]};
    const pid_t child = ::fork();
    if (child < 0)
        throw Failure{Exit::failed, "cannot start another process: " + errnoText(errno)};
    if (child == 0)
        stay(job, context.stop, writing.get());
    writing.reset();
    const std::string heard = heardFrom(reading.get(), child, context.stop);
    if (heard.empty())
        throw Failure{Exit::failed, "the process that was to serve the backup has ended early; 'qbackup umount " +
                                        directory.string() + "' takes away what it may have left"};
    if (heard != "\n")
        throw Failure{static_cast<Exit>(std::stoi(heard)),
                      heard.substr(heard.find(' ') + 1, heard.size() - heard.find(' ') - 2)};
    if (context.json)
        print({{"ok", true}, {"id", job.backup.manifest.id}, {"directory", directory.string()}});
    else
        std::printf("%s is mounted on %s, for reading; 'qbackup umount %s' ends that\n", job.backup.manifest.id.c_str(),
                    directory.c_str(), directory.c_str());
    return static_cast<int>(Exit::ok);
}

int umount(const Context& context, const fs::path& directory)
{
    unmountBackup(directory);
    if (context.json)
        print({{"ok", true}, {"directory", directory.string()}});
    return static_cast<int>(Exit::ok);
}

} // namespace

void addMount(CLI::App& app, Context& context)
{
    const auto options = std::make_shared<Options>();
    CLI::App* command = app.add_subcommand("mount", "Mount a backup of images, for reading, to copy files out of it");
    command->add_option("BACKUP,--from", options->from, "Backup, TARGET/HOST/DEVICE, or TARGET when it has one device")
        ->required();
    command->add_option("DIR", options->directory, "Directory to mount on")->required();
    addAt(*command, options->at);
    command->add_option("--partition", options->partition, "Of a backup of a whole disk: the number of the partition")
        ->check(CLI::Range(1u, 128u));
    command->add_flag("--fuse", options->fuse, "Without a loop device, by fuse2fs, as without root (ext2, ext3, ext4)");
    command->callback(
        [&context, options] { context.chosen = [&context, options] { return mount(context, *options); }; });
}

void addUmount(CLI::App& app, Context& context)
{
    const auto directory = std::make_shared<fs::path>();
    CLI::App* command = app.add_subcommand("umount", "Unmount what mount has mounted");
    command->add_option("DIR", *directory, "The directory")->required();
    command->callback(
        [&context, directory] { context.chosen = [&context, directory] { return umount(context, *directory); }; });
}

} // namespace qbackup
