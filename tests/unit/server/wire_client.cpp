// SPDX-License-Identifier: GPL-2.0-only
#include "wire_client.h"

#include <gtest/gtest.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <sys/un.h>

#include <cstdlib>
#include <cstring>

namespace control_rig
{

LowPage::LowPage() : at_(::mmap(nullptr, 4096, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS | MAP_32BIT, -1, 0))
{
    if (at_ == MAP_FAILED)
        std::abort();
}

LowPage::~LowPage() { ::munmap(at_, 4096); }

Client::Client(const std::string& socket) : fd_(::socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0))
{
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::strncpy(address.sun_path, socket.c_str(), sizeof address.sun_path - 1);
    if (::connect(fd_.get(), reinterpret_cast<sockaddr*>(&address), sizeof address) != 0)
        fd_.reset();
    const timeval patience{20, 0};
    if (fd_)
        ::setsockopt(fd_.get(), SOL_SOCKET, SO_RCVTIMEO, &patience, sizeof patience);
}

bool Client::send(const void* bytes, std::size_t count)
{
    return ::send(fd_.get(), bytes, count, MSG_NOSIGNAL) == ssize_t(count);
}

std::optional<wire::Reply> Client::receive(base::Descriptor* passed)
{
    wire::Reply reply{};
    iovec part{&reply, sizeof reply};
    alignas(cmsghdr) char control[CMSG_SPACE(sizeof(int))];
    msghdr header{};
    header.msg_iov = &part;
    header.msg_iovlen = 1;
    header.msg_control = control;
    header.msg_controllen = sizeof control;
    const ssize_t got = ::recvmsg(fd_.get(), &header, MSG_CMSG_CLOEXEC);
    if (got < ssize_t(wire::reply_header_bytes))
        return std::nullopt;
    for (cmsghdr* c = CMSG_FIRSTHDR(&header); c; c = CMSG_NXTHDR(&header, c)) {
        if (c->cmsg_type != SCM_RIGHTS)
            continue;
        int fd;
        std::memcpy(&fd, CMSG_DATA(c), sizeof fd);
        base::Descriptor owned(fd);
        if (passed)
            *passed = std::move(owned);
    }
    EXPECT_EQ(std::size_t(got), wire::reply_header_bytes + 4 * reply.count);
    EXPECT_EQ(reply.version, wire::protocol_version);
    return reply;
}

} // namespace control_rig
