// SPDX-License-Identifier: GPL-2.0-only
#include "timed_command.h"

#include "child_process.h"

#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstring>
#include <thread>

namespace qbackup
{
namespace
{

using Clock = std::chrono::steady_clock;

// Between asking and killing.
constexpr auto grace = std::chrono::seconds{5};
// Something may stand still for as long as the command takes.
constexpr auto between_looks = std::chrono::milliseconds{5};

} // namespace

TimedCommand::TimedCommand(const std::vector<std::string>& words, const std::map<std::string, std::string>& environment)
{
    const int error = spawn(pid_, words, {.output = STDERR_FILENO}, environment);
    if (error != 0)
        throw Failure{Exit::failed, "cannot start " + words[0] + ": " + errnoText(error)};
}

TimedCommand::~TimedCommand()
{
    if (pid_ > 0) {
        ::kill(-pid_, SIGKILL);
        endsWithin(grace, nullptr);
    }
}

bool TimedCommand::hasEnded() const
{
    siginfo_t info{};
    return ::waitid(P_PID, static_cast<id_t>(pid_), &info, WEXITED | WNOHANG | WNOWAIT) != 0 || info.si_pid == pid_;
}

bool TimedCommand::endsWithin(std::chrono::milliseconds most, const StopSignal* stop) const
{
    const auto end = Clock::now() + most;
    while (!hasEnded()) {
        if (Clock::now() >= end || (stop != nullptr && *stop != 0))
            return false;
        std::this_thread::sleep_for(between_looks);
    }
    return true;
}

bool TimedCommand::endGroup()
{
    ::kill(-pid_, SIGTERM);
    endsWithin(grace, nullptr);
    // Also what it has started and left behind.
    ::kill(-pid_, SIGKILL);
    return endsWithin(grace, nullptr);
}

std::optional<std::string> TimedCommand::wait(std::chrono::seconds most, const StopSignal* stop)
{
    const bool in_time = endsWithin(most, stop);
    if (!in_time && !endGroup()) {
        pid_ = -1; // the kernel does not let it go
        return "does not end, not even when it is killed";
    }
    int status = 0;
    pid_t got = 0;
    do
        got = ::waitpid(pid_, &status, 0);
    while (got < 0 && errno == EINTR);
    pid_ = -1;
    if (!in_time) {
        if (stop != nullptr)
            throwIfStopped(*stop);
        return "took longer than " + std::to_string(most.count()) + " s and was ended";
    }
    if (got < 0)
        return "has ended, and nobody knows how: " + errnoText(errno);
    if (WIFSIGNALED(status))
        return "was ended by signal " + std::to_string(WTERMSIG(status)) + " (" + strsignal(WTERMSIG(status)) + ")";
    if (WEXITSTATUS(status) != 0)
        return "ended with exit code " + std::to_string(WEXITSTATUS(status));
    return std::nullopt;
}

void expectCommand(const std::string& name)
{
    const bool is_path = name.find('/') != std::string::npos;
    if (is_path ? ::access(name.c_str(), X_OK) != 0 : !isInstalled(name))
        throw Failure{Exit::refused,
                      "there is no command " + name + (is_path ? ", or this user may not run it" : " in PATH")};
}

} // namespace qbackup
