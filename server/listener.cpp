// SPDX-License-Identifier: GPL-2.0-only
#include "listener.h"

#include <poll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>

#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <new>
#include <system_error>

namespace quendreld
{

namespace
{

constexpr int rest_ms = 100; // before a connection that could not be taken is tried again

[[noreturn]] void fail(const std::string& what) { throw std::system_error(errno, std::generic_category(), what); }

base::Descriptor listening_socket(const Listener::Options& options)
{
    const std::string next = options.path + ".new";
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    if (next.size() >= sizeof address.sun_path) {
        errno = ENAMETOOLONG;
        fail(options.path + ": cannot make the socket");
    }
    std::memcpy(address.sun_path, next.c_str(), next.size() + 1);
    ::unlink(next.c_str());
    base::Descriptor fd(::socket(AF_UNIX, options.type | SOCK_CLOEXEC, 0));
    const int credentials = options.credentials;
    if (!fd || ::setsockopt(fd.get(), SOL_SOCKET, SO_PASSCRED, &credentials, sizeof credentials) != 0 ||
        ::bind(fd.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0 ||
        ::chown(next.c_str(), uid_t(-1), options.group) != 0 || ::chmod(next.c_str(), 0660) != 0 ||
        ::listen(fd.get(), 64) != 0 || ::rename(next.c_str(), options.path.c_str()) != 0) {
        const int error = errno;
        ::unlink(next.c_str());
        errno = error;
        fail(options.path + ": cannot make the socket");
    }
    return fd;
}

} // namespace

void QuietReport::operator()(std::initializer_list<std::string_view> parts) noexcept
{
    const auto now = std::chrono::steady_clock::now();
    std::lock_guard lock(mutex_);
    ++left_out_;
    if (now < next_)
        return;
    next_ = now + std::chrono::seconds(1);
    try {
        std::string line;
        for (const std::string_view part : parts)
            line += part;
        if (left_out_ > 1)
            line += " (and " + std::to_string(left_out_ - 1) + " times more)";
        report_(line);
        left_out_ = 0;
    } catch (const std::bad_alloc&) {
    }
}

Listener::Listener(Options options)
    : path_(options.path), socket_(listening_socket(options)), wake_(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)),
      report_(std::move(options.report))
{
    if (!wake_)
        fail("eventfd");
}

Listener::~Listener() { ::unlink(path_.c_str()); }

void Listener::wake()
{
    const std::uint64_t one = 1;
    [[maybe_unused]] const auto written = ::write(wake_.get(), &one, sizeof one);
}

void Listener::rest(int ms)
{
    pollfd p{wake_.get(), POLLIN, 0};
    ::poll(&p, 1, ms);
}

base::Descriptor Listener::accept()
{
    pollfd polls[2] = {{wake_.get(), POLLIN, 0}, {socket_.get(), POLLIN, 0}};
    if (::poll(polls, 2, -1) < 0)
        return {};
    if (polls[0].revents) {
        std::uint64_t count;
        [[maybe_unused]] const auto got = ::read(wake_.get(), &count, sizeof count);
        return {};
    }
    base::Descriptor connection(::accept4(socket_.get(), nullptr, nullptr, SOCK_CLOEXEC));
    if (!connection && errno != EINTR && errno != ECONNABORTED && errno != EAGAIN) {
        report_({path_, ": cannot take a connection: ", std::strerror(errno), "; it waits"});
        rest(rest_ms);
    }
    return connection;
}

} // namespace quendreld
