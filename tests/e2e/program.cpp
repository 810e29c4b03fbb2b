// SPDX-License-Identifier: GPL-2.0-only
#include "program.h"

#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>

#include <fstream>
#include <iterator>
#include <system_error>
#include <thread>

extern char** environ;

namespace serving
{

using namespace std::chrono_literals;

std::string read_text(const std::string& path)
{
    std::ifstream in(path, std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(in), {});
}

Program::Program(std::vector<std::string> words, std::string output) : output_(std::move(output))
{
    words.insert(words.begin(), {"setpriv", "--pdeathsig", "KILL"});
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    constexpr int flags = O_WRONLY | O_CREAT | O_TRUNC;
    posix_spawn_file_actions_addopen(&actions, 0, "/dev/null", O_RDONLY, 0);
    posix_spawn_file_actions_addopen(&actions, 1, (output_ + ".out").c_str(), flags, 0644);
    posix_spawn_file_actions_addopen(&actions, 2, (output_ + ".err").c_str(), flags, 0644);
    std::vector<char*> list;
    for (std::string& word : words)
        list.push_back(word.data());
    list.push_back(nullptr);
    const int error = ::posix_spawnp(&pid_, list[0], &actions, nullptr, list.data(), environ);
    posix_spawn_file_actions_destroy(&actions);
    if (error)
        throw std::system_error(error, std::generic_category(), words[0]);
}

Program::~Program()
{
    if (running()) {
        signal(SIGKILL);
        wait();
    }
}

void Program::note(int status)
{
    stopped_ = WIFSTOPPED(status);
    if (WIFEXITED(status) || WIFSIGNALED(status)) {
        ended_ = true;
        status_ = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
    }
}

bool Program::running()
{
    int status;
    if (!ended_ && ::waitpid(pid_, &status, WNOHANG | WUNTRACED) == pid_)
        note(status);
    return !ended_;
}

void Program::signal(int number)
{
    if (!ended_)
        ::kill(pid_, number);
    if (number == SIGCONT)
        stopped_ = false;
}

bool Program::stop()
{
    signal(SIGSTOP);
    while (running() && !stopped_)
        std::this_thread::sleep_for(1ms);
    return !ended_;
}

int Program::wait(std::chrono::seconds limit)
{
    const auto until = std::chrono::steady_clock::now() + limit;
    while (running()) {
        if (std::chrono::steady_clock::now() > until)
            return -1;
        std::this_thread::sleep_for(2ms);
    }
    return status_;
}

std::string Program::out() const { return read_text(output_ + ".out"); }

std::string Program::err() const { return read_text(output_ + ".err"); }

} // namespace serving
