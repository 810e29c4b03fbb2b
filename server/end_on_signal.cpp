// SPDX-License-Identifier: GPL-2.0-only
#include "end_on_signal.h"

#include <dirent.h>
#include <pthread.h>
#include <sys/socket.h>
#include <sys/un.h>

#include <chrono>
#include <csignal>
#include <cstddef>
#include <cstdlib>
#include <cstring>

namespace quendreld
{

namespace
{

constexpr auto patience = std::chrono::seconds(3);

sigset_t ending_signals()
{
    sigset_t set;
    sigemptyset(&set);
    for (int number : {SIGTERM, SIGINT, SIGQUIT, SIGHUP})
        sigaddset(&set, number);
    return set;
}

bool is_connection_of(int fd, const std::string& path)
{
    sockaddr_un address{};
    socklen_t bytes = sizeof address;
    int listening = 0;
    socklen_t length = sizeof listening;
    return ::getsockname(fd, reinterpret_cast<sockaddr*>(&address), &bytes) == 0 && address.sun_family == AF_UNIX &&
           path == std::string(address.sun_path, ::strnlen(address.sun_path, sizeof address.sun_path)) &&
           ::getsockopt(fd, SOL_SOCKET, SO_ACCEPTCONN, &listening, &length) == 0 && !listening;
}

// nbdkit does not show its connections, but they are descriptors of this process that bear the socket's name.
void shut_connections(const std::string& path, int how)
{
    DIR* directory = ::opendir("/proc/self/fd");
    if (!directory)
        return;
    while (const dirent* entry = ::readdir(directory)) {
        char* end = nullptr;
        const long fd = std::strtol(entry->d_name, &end, 10);
        if (*end == 0 && is_connection_of(int(fd), path))
            ::shutdown(int(fd), how);
    }
    ::closedir(directory);
}

} // namespace

EndOnSignal::EndOnSignal(std::string nbd_socket, void (*end)()) : nbd_socket_(std::move(nbd_socket)), end_(end)
{
    const sigset_t set = ending_signals();
    pthread_sigmask(SIG_BLOCK, &set, nullptr);
    thread_ = std::thread([this] { run(); });
}

EndOnSignal::~EndOnSignal()
{
    over_ = true;
    pthread_kill(thread_.native_handle(), SIGTERM);
    thread_.join();
}

void EndOnSignal::run()
{
    const sigset_t set = ending_signals();
    int number;
    sigwait(&set, &number);
    if (over_)
        return;
    end_();
    const auto until = std::chrono::steady_clock::now() + patience;
    while (!over_) {
        shut_connections(nbd_socket_, std::chrono::steady_clock::now() < until ? SHUT_RD : SHUT_RDWR);
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
}

} // namespace quendreld
