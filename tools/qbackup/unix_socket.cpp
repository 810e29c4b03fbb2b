// SPDX-License-Identifier: GPL-2.0-only
#include "unix_socket.h"

#include "failure.h"

#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>

#include <cerrno>
#include <cstring>

namespace qbackup
{
namespace
{

sockaddr_un addressOf(const fs::path& path)
{
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    if (path.native().size() >= sizeof address.sun_path)
        throw Failure{Exit::refused, path.string() + " is too long for the name of a socket (107 bytes); choose a shorter one"};
    std::memcpy(address.sun_path, path.c_str(), path.native().size() + 1);
    return address;
}

} // namespace

base::Descriptor listenOn(const fs::path& path)
{
    const sockaddr_un address = addressOf(path);
    base::Descriptor fd{::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0)};
    // The mode is the socket's at its making: nobody gets in before.
    const mode_t mask = ::umask(0077);
    const bool bound = fd && ::bind(fd.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0;
    const int problem = errno;
    ::umask(mask);
    if (!bound)
        throw Failure{exitOf(problem, Exit::refused), "cannot make the socket " + path.string() + ": " + errnoText(problem)};
    if (::listen(fd.get(), 16) != 0)
        throw Failure{Exit::failed, "cannot listen on " + path.string() + ": " + errnoText(errno)};
    return fd;
}

base::Descriptor connectTo(const fs::path& path)
{
    const sockaddr_un address = addressOf(path);
    base::Descriptor fd{::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0)};
    if (fd && ::connect(fd.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) {
        const int problem = errno;
        fd.reset();
        errno = problem;
    }
    return fd;
}

NamedSocket::NamedSocket(fs::path path) : path_{std::move(path)}
{
    std::error_code error;
    if (fs::is_socket(path_, error)) {
        if (connectTo(path_))
            throw Failure{Exit::refused, "another program listens on " + path_.string() + "; choose another name"};
        if (errno == ECONNREFUSED)
            fs::remove(path_, error);
    }
    listening_ = listenOn(path_);
}

NamedSocket::~NamedSocket()
{
    std::error_code error;
    fs::remove(path_, error);
}

} // namespace qbackup
