// SPDX-License-Identifier: GPL-2.0-only
#include "child_process.h"

#include "failure.h"

#include <fcntl.h>
#include <spawn.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <sstream>

extern char** environ;

namespace qbackup
{
namespace
{

struct SpawnSettings {
    SpawnSettings()
    {
        ::posix_spawn_file_actions_init(&actions);
        ::posix_spawnattr_init(&attributes);
    }
    ~SpawnSettings()
    {
        ::posix_spawn_file_actions_destroy(&actions);
        ::posix_spawnattr_destroy(&attributes);
    }
    SpawnSettings(const SpawnSettings&) = delete;
    SpawnSettings& operator=(const SpawnSettings&) = delete;

    posix_spawn_file_actions_t actions;
    posix_spawnattr_t attributes;
};

// This program's environment with that over it.
std::vector<std::string> environmentWith(const std::map<std::string, std::string>& more)
{
    std::vector<std::string> all;
    for (char** entry = environ; *entry != nullptr; ++entry)
        if (const std::string text = *entry; !more.contains(text.substr(0, text.find('='))))
            all.push_back(text);
    for (const auto& [name, value] : more)
        all.push_back(name + "=" + value);
    return all;
}

// As exec() wants it.
std::vector<char*> pointersTo(const std::vector<std::string>& words)
{
    std::vector<char*> pointers;
    for (const std::string& word : words)
        pointers.push_back(const_cast<char*>(word.c_str()));
    pointers.push_back(nullptr);
    return pointers;
}

std::string readFrom(int fd)
{
    const off_t size = ::lseek(fd, 0, SEEK_END);
    std::string text(size > 0 ? static_cast<std::size_t>(size) : 0, '\0');
    const ssize_t got = ::pread(fd, text.data(), text.size(), 0);
    text.resize(got > 0 ? static_cast<std::size_t>(got) : 0);
    return text;
}

} // namespace

ChildProcess::ChildProcess(const std::vector<std::string>& words, const std::string& package, int inherited)
    : output_{::memfd_create("stdout", MFD_CLOEXEC)}, errors_{::memfd_create("stderr", MFD_CLOEXEC)}
{
    if (!output_ || !errors_)
        throw Failure{Exit::failed, "cannot start " + words[0] + ": " + errnoText(errno)};
    const int error = spawn(pid_, words, {output_.get(), errors_.get(), inherited});
    if (error == 0)
        return;
    if (error == ENOENT)
        throw Failure{Exit::refused, words[0] + " is not installed; install the package " + package};
    throw Failure{Exit::failed, "cannot start " + words[0] + ": " + errnoText(error)};
}

ChildProcess::~ChildProcess()
{
    if (pid_ < 0)
        return;
    ::kill(pid_, SIGKILL);
    wait();
}

void ChildProcess::reap(int options)
{
    int status = 0;
    while (pid_ >= 0) {
        const pid_t got = ::waitpid(pid_, &status, options);
        if (got == 0)
            return;
        if (got < 0 && errno == EINTR)
            continue;
        ended_well_ = got == pid_ && WIFEXITED(status) && WEXITSTATUS(status) == 0;
        pid_ = -1;
    }
}

bool ChildProcess::running()
{
    reap(WNOHANG);
    return pid_ >= 0;
}

bool ChildProcess::wait()
{
    reap(0);
    return ended_well_;
}

std::string ChildProcess::output() const { return readFrom(output_.get()); }

std::vector<std::string> ChildProcess::linesSaid() const
{
    std::istringstream text{readFrom(errors_.get())};
    std::vector<std::string> lines;
    for (std::string line; std::getline(text, line);)
        if (!line.empty())
            lines.push_back(line);
    return lines;
}

std::string ChildProcess::said() const
{
    const std::vector<std::string> lines = linesSaid();
    return lines.empty() ? "it said nothing" : lines.back();
}

namespace
{

// `settings`: of the environment.
std::vector<std::string> guarded(const std::string& settings, const std::vector<std::string>& words)
{
    // It ends with this program even if it has not heard of a client yet: nobody else would end it. Only then is it looked
    // whether that has ended already.
    std::vector<std::string> all{"setpriv", "--pdeathsig", "KILL", "--", "sh", "-c",
                                 "[ \"$PPID\" = \"$1\" ] && shift && " + settings + "exec \"$@\"", "sh", std::to_string(::getpid())};
    all.insert(all.end(), words.begin(), words.end());
    return all;
}

} // namespace

std::vector<std::string> withSocket(const std::vector<std::string>& words) { return guarded("LISTEN_FDS=1 LISTEN_PID=$$ ", words); }
std::vector<std::string> endingWithThis(const std::vector<std::string>& words) { return guarded("", words); }

int spawn(pid_t& pid, const std::vector<std::string>& words, const Streams& streams,
          const std::map<std::string, std::string>& environment)
{
    SpawnSettings settings;
    ::posix_spawn_file_actions_addopen(&settings.actions, 0, "/dev/null", O_RDONLY, 0);
    ::posix_spawn_file_actions_adddup2(&settings.actions, streams.output, 1);
    ::posix_spawn_file_actions_adddup2(&settings.actions, streams.errors, 2);
    if (streams.inherited >= 0)
        ::posix_spawn_file_actions_adddup2(&settings.actions, streams.inherited, 3);
    ::posix_spawnattr_setflags(&settings.attributes, POSIX_SPAWN_SETPGROUP | POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF);
    sigset_t none;
    ::sigemptyset(&none);
    ::posix_spawnattr_setsigmask(&settings.attributes, &none);
    sigset_t defaults;
    ::sigemptyset(&defaults);
    ::sigaddset(&defaults, SIGPIPE);
    ::posix_spawnattr_setsigdefault(&settings.attributes, &defaults);
    const std::vector<std::string> all = environmentWith(environment);
    const int error = ::posix_spawnp(&pid, words[0].c_str(), &settings.actions, &settings.attributes, pointersTo(words).data(),
                                     pointersTo(all).data());
    if (error != 0)
        pid = -1;
    return error;
}

bool isInstalled(const std::string& program)
{
    const char* path = std::getenv("PATH");
    std::istringstream places{path != nullptr ? path : "/usr/local/bin:/usr/bin:/bin"};
    for (std::string place; std::getline(places, place, ':');)
        if (::access((place + "/" + program).c_str(), X_OK) == 0)
            return true;
    return false;
}

} // namespace qbackup
