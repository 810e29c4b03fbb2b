// SPDX-License-Identifier: GPL-2.0-only
#include "serving.h"

#include <fcntl.h>
#include <ftw.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <sstream>
#include <stdexcept>
#include <system_error>
#include <thread>

extern char** environ;

namespace serving
{

using namespace std::chrono_literals;

namespace
{

constexpr const char* watchdog_seconds = "1500";

std::vector<char*> argument_list(const std::vector<std::string>& words)
{
    std::vector<char*> list;
    for (const std::string& word : words)
        list.push_back(const_cast<char*>(word.c_str()));
    list.push_back(nullptr);
    return list;
}

void drain(int fd, std::string& to, bool& open)
{
    char part[4096];
    const ssize_t got = ::read(fd, part, sizeof part);
    if (got > 0)
        to.append(part, std::size_t(got));
    else if (got == 0 || errno != EINTR)
        open = false;
}

} // namespace

Outcome run(const std::vector<std::string>& words, std::chrono::seconds limit)
{
    int out[2], err[2];
    if (::pipe2(out, O_CLOEXEC) != 0 || ::pipe2(err, O_CLOEXEC) != 0)
        throw std::system_error(errno, std::generic_category(), "pipe");
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, 0, "/dev/null", O_RDONLY, 0);
    posix_spawn_file_actions_adddup2(&actions, out[1], 1);
    posix_spawn_file_actions_adddup2(&actions, err[1], 2);
    pid_t child = -1;
    const auto list = argument_list(words);
    const int error = ::posix_spawnp(&child, list[0], &actions, nullptr, list.data(), environ);
    posix_spawn_file_actions_destroy(&actions);
    ::close(out[1]);
    ::close(err[1]);
    Outcome outcome{127, {}, {}};
    if (error)
        outcome.err = words[0] + ": " + std::strerror(error);

    // The output of whatever the program leaves running is not waited for.
    const auto until = std::chrono::steady_clock::now() + limit;
    bool out_open = true, err_open = true, killed = false;
    int status = 0;
    bool ended = error != 0;
    while (!ended || out_open || err_open) {
        std::array<pollfd, 2> fds{pollfd{out_open ? out[0] : -1, POLLIN, 0}, pollfd{err_open ? err[0] : -1, POLLIN, 0}};
        const int ready = ::poll(fds.data(), fds.size(), ended ? 0 : 10);
        if (fds[0].revents)
            drain(out[0], outcome.out, out_open);
        if (fds[1].revents)
            drain(err[0], outcome.err, err_open);
        if (ended && ready <= 0)
            break;
        if (!ended && ::waitpid(child, &status, WNOHANG) == child)
            ended = true;
        if (!ended && !killed && std::chrono::steady_clock::now() > until) {
            killed = true;
            ::kill(child, SIGKILL);
        }
    }
    ::close(out[0]);
    ::close(err[0]);
    if (!error)
        outcome.status = killed ? -1 : WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
    return outcome;
}

std::string must_run(const std::vector<std::string>& words, std::chrono::seconds limit)
{
    const Outcome outcome = run(words, limit);
    if (outcome.status == 0)
        return outcome.out;
    std::string text;
    for (const std::string& word : words)
        text += word + " ";
    throw std::runtime_error(text + "ended with " + std::to_string(outcome.status) + ": " + outcome.out + outcome.err);
}

std::string no_loop_reason()
{
    if (::geteuid() != 0)
        return "not root";
    for (const char* path : {"/dev/fuse", "/dev/loop-control"})
        if (::access(path, R_OK | W_OK) != 0)
            return std::string(path) + ": " + std::strerror(errno);
    return {};
}

ScratchDir::ScratchDir()
{
    const char* parent = std::getenv("TMPDIR");
    std::string name = std::string(parent && *parent ? parent : "/var/tmp") + "/quendrel-test-XXXXXX";
    if (!::mkdtemp(name.data()))
        throw std::system_error(errno, std::generic_category(), name);
    path_ = name;
}

ScratchDir::~ScratchDir()
{
    // Stays on one file system: what is mounted below is not ours to empty.
    ::nftw(
        path_.c_str(),
        [](const char* path, const struct stat*, int, FTW*) {
            ::remove(path);
            return 0;
        },
        16, FTW_DEPTH | FTW_PHYS | FTW_MOUNT);
}

DosTable dos_table(const std::vector<Part>& parts)
{
    DosTable table{};
    const auto put = [&](std::size_t at, std::uint32_t value) {
        for (int i = 0; i < 4; ++i)
            table[at + std::size_t(i)] = static_cast<unsigned char>(value >> (8 * i));
    };
    put(440, 0x51454e44);
    for (std::size_t i = 0; i < parts.size(); ++i) {
        table[446 + 16 * i + 4] = parts[i].sectors ? 0x83 : 0;
        put(446 + 16 * i + 8, parts[i].start);
        put(446 + 16 * i + 12, parts[i].sectors);
    }
    table[510] = 0x55;
    table[511] = 0xaa;
    return table;
}

void make_image(const std::string& path, std::uint64_t bytes, const std::vector<Part>& parts)
{
    const DosTable table = dos_table(parts);
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    if (!parts.empty())
        out.write(reinterpret_cast<const char*>(table.data()), table.size());
    out.close();
    if (!out || ::truncate(path.c_str(), off_t(bytes)) != 0)
        throw std::system_error(errno, std::generic_category(), path);
}

Serving::Serving(std::vector<std::string> images, const std::string& run_dir, std::vector<std::string> options)
    : run_dir_(run_dir)
{
    int input[2];
    if (::pipe2(input, O_CLOEXEC) != 0)
        throw std::system_error(errno, std::generic_category(), "pipe");
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, input[0], 0);
    const std::vector<std::string> guard{watchdog(), run_dir_, watchdog_seconds};
    const int error =
        ::posix_spawn(&watchdog_, guard[0].c_str(), &actions, nullptr, argument_list(guard).data(), environ);
    posix_spawn_file_actions_destroy(&actions);
    ::close(input[0]);
    alive_ = input[1];
    if (error)
        throw std::system_error(error, std::generic_category(), guard[0]);

    std::vector<std::string> words{program()};
    words.insert(words.end(), images.begin(), images.end());
    words.insert(words.end(), {"--run-dir", run_dir_});
    words.insert(words.end(), options.begin(), options.end());
    try {
        must_run(words);
    } catch (...) {
        clean_up();
        throw;
    }
}

Serving::~Serving() { clean_up(); }

void Serving::clean_up()
{
    if (alive_ < 0)
        return;
    ::close(alive_);
    alive_ = -1;
    int status;
    ::waitpid(watchdog_, &status, 0);
}

pid_t Serving::pid() const
{
    std::ifstream in(run_dir_ + "/pid");
    pid_t number = -1;
    in >> number;
    return number;
}

std::string Serving::nbd(const std::string& disk) const
{
    return "nbd+unix:///" + disk + "?socket=" + run_dir_ + "/nbd.sock";
}

std::string Serving::log() const
{
    std::ifstream in(run_dir_ + "/log");
    std::ostringstream text;
    text << in.rdbuf();
    return text.str();
}

std::string Serving::attach(const std::string& disk)
{
    const std::string out = must_run({program(), "attach", disk, "--run-dir", run_dir_});
    const auto at = out.find("/dev/loop");
    if (at == std::string::npos)
        throw std::runtime_error("attach printed: " + out);
    return out.substr(at, out.find('\n', at) - at);
}

void Serving::detach(const std::string& disk) { must_run({program(), "detach", disk, "--run-dir", run_dir_}); }

void Serving::mount(const std::string& device, const std::string& at)
{
    ::mkdir(at.c_str(), 0755);
    must_run({"mount", device, at});
}

void Serving::unmount(const std::string& at) { must_run({"umount", at}); }

void Serving::stop() { must_run({program(), "stop", "--run-dir", run_dir_}, 120s); }

void Serving::kill_it()
{
    const pid_t daemon = pid();
    if (daemon <= 0)
        throw std::runtime_error(run_dir_ + ": no daemon");
    ::kill(daemon, SIGKILL);
    // The lock goes with the last descriptor of the process, after everything else of it.
    for (int i = 0; i < 1000; ++i) {
        if (run({"flock", "-n", "-s", run_dir_ + "/lock", "true"}).status == 0)
            return;
        std::this_thread::sleep_for(10ms);
    }
    throw std::runtime_error("process " + std::to_string(daemon) + " does not go away");
}

std::string Serving::program()
{
    const char* named = std::getenv("QUENDRELD");
    return named ? named : QUENDRELD_PROGRAM;
}

std::string Serving::watchdog() { return QUENDREL_SOURCE_DIR "/tests/e2e/watchdog"; }

} // namespace serving
