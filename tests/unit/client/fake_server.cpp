// SPDX-License-Identifier: GPL-2.0-only
#include "fake_server.h"

#include <sys/mman.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <chrono>
#include <cstring>
#include <stdexcept>

namespace fake
{
namespace
{

using namespace quendrel;
constexpr std::size_t page = 4096;
constexpr std::uint32_t transfer_pages = 2 * wire::max_pages;

void sendReply(int connection, const wire::Reply& reply, int fd)
{
    iovec piece{const_cast<wire::Reply*>(&reply), wire::reply_header_bytes + 4 * std::size_t{reply.count}};
    msghdr message{};
    message.msg_iov = &piece;
    message.msg_iovlen = 1;
    alignas(cmsghdr) char control[CMSG_SPACE(sizeof fd)]{};
    if (fd >= 0) {
        message.msg_control = control;
        message.msg_controllen = sizeof control;
        cmsghdr* header = CMSG_FIRSTHDR(&message);
        header->cmsg_level = SOL_SOCKET;
        header->cmsg_type = SCM_RIGHTS;
        header->cmsg_len = CMSG_LEN(sizeof fd);
        std::memcpy(CMSG_DATA(header), &fd, sizeof fd);
    }
    ::sendmsg(connection, &message, MSG_NOSIGNAL);
}

// The process that sent it; 0 when there is no more.
pid_t receive(int connection, wire::Request& request)
{
    iovec piece{&request, sizeof request};
    alignas(cmsghdr) char control[CMSG_SPACE(sizeof(ucred))];
    msghdr message{};
    message.msg_iov = &piece;
    message.msg_iovlen = 1;
    message.msg_control = control;
    message.msg_controllen = sizeof control;
    const cmsghdr* header;
    if (::recvmsg(connection, &message, 0) != sizeof request || (header = CMSG_FIRSTHDR(&message)) == nullptr)
        return 0;
    ucred from{};
    std::memcpy(&from, CMSG_DATA(header), sizeof from);
    return from.pid;
}

} // namespace

Server::Server(Driver& driver, const std::filesystem::path& socket) : driver_{driver}, path_{socket}
{
    listener_ = ::socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0);
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::strncpy(address.sun_path, path_.c_str(), sizeof address.sun_path - 1);
    if (::bind(listener_, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0 ||
        ::listen(listener_, 4) != 0)
        throw std::runtime_error{"cannot listen at " + path_.string()};
    memory_ = ::memfd_create("transfer", MFD_CLOEXEC);
    if (::ftruncate(memory_, transfer_pages * page) != 0)
        throw std::runtime_error{"no transfer memory"};
    transfer_ =
        static_cast<std::byte*>(::mmap(nullptr, transfer_pages * page, PROT_READ | PROT_WRITE, MAP_SHARED, memory_, 0));
    for (std::uint32_t i = 0; i < transfer_pages; ++i)
        free_.push_back(i);
    thread_ = std::thread{[this] { serve(); }};
}

Server::~Server()
{
    ::shutdown(listener_, SHUT_RDWR);
    thread_.join();
    ::close(listener_);
    ::munmap(transfer_, transfer_pages * page);
    ::close(memory_);
    std::filesystem::remove(path_);
}

void Server::serve()
{
    for (;;) {
        const int connection = ::accept4(listener_, nullptr, nullptr, SOCK_CLOEXEC);
        if (connection < 0)
            return;
        serveOne(connection);
        ::close(connection);
        ++connections;
    }
}

void Server::serveOne(int connection)
{
    ucred peer{};
    socklen_t length = sizeof peer;
    ::getsockopt(connection, SOL_SOCKET, SO_PEERCRED, &peer, &length);
    const int on = 1;
    ::setsockopt(connection, SOL_SOCKET, SO_PASSCRED, &on, sizeof on);
    wire::Reply opened{driver_.open(peer.pid), version, 0, {}};
    sendReply(connection, opened, -1);
    if (opened.result != 0)
        return;
    wire::Request request{};
    while (const pid_t sender = receive(connection, request)) {
        if (request.kind == wire::Kind::take_over && !instead.get())
            driver_.takeOver(peer.pid = sender);
        if ((sender != peer.pid && request.kind != wire::Kind::take_over) || !answer(connection, request))
            break;
    }
    if (close_slowly)
        std::this_thread::sleep_for(std::chrono::milliseconds{300});
    driver_.close();
    for (auto& [address, pages] : used_)
        free_.insert(free_.end(), pages.rbegin(), pages.rend());
    used_.clear();
}

bool Server::answer(int connection, const wire::Request& request)
{
    const auto call = instead.get();
    if (call && request.kind == instead_of) {
        const auto packet = (*call)(request);
        ::send(connection, packet.data(), packet.size(), MSG_NOSIGNAL);
        return !packet.empty();
    }
    wire::Reply reply{0, version, 0, {}};
    int fd = -1;
    switch (request.kind) {
    case wire::Kind::ioctl:
        reply.result = driver_.command(request.a, request.b);
        break;
    case wire::Kind::mmap:
        reply = makeMapping(request);
        fd = reply.result == 0 ? memory_ : -1;
        break;
    case wire::Kind::munmap: {
        driver_.unmap(request.a);
        auto& pages = used_[request.a];
        free_.insert(free_.end(), pages.rbegin(), pages.rend());
        used_.erase(request.a);
        break;
    }
    case wire::Kind::take_over:
        break;
    default:
        return false;
    }
    sendReply(connection, reply, fd);
    return true;
}

wire::Reply Server::makeMapping(const wire::Request& request)
{
    wire::Reply reply{0, version, 0, {}};
    std::vector<std::byte*> pages;
    for (std::uint32_t i = 0; i < request.b / page; ++i) {
        reply.pages[i] = free_[free_.size() - 1 - i];
        pages.push_back(transfer_ + std::size_t{reply.pages[i]} * page);
    }
    reply.result = driver_.map(request.a, pages);
    if (reply.result != 0)
        return reply;
    reply.count = request.b / page;
    used_[request.a].assign(reply.pages, reply.pages + reply.count);
    free_.resize(free_.size() - reply.count);
    return reply;
}

} // namespace fake
