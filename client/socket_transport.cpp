// SPDX-License-Identifier: GPL-2.0-only
// The control device behind the daemon's socket (socket_protocol.h).
//
// The transfer memory is one file that the daemon hands over; a mapping is made of its pages, one by one, at the
// addresses that were reserved for it before the daemon was asked.
#include "base/descriptor.h"
#include "client/error.h"
#include "client/low_memory.h"
#include "client/socket_protocol.h"
#include "client/transport.h"

#include <sys/mman.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <map>
#include <utility>

namespace quendrel
{
namespace
{

constexpr std::size_t page = 4096;
// How long the close waits for the daemon to finish with the backup. Draining held writes takes as long as the disk.
constexpr int close_wait_seconds = 60;

class SocketTransport final : public Transport
{
  public:
    SocketTransport(base::Descriptor socket, pid_t owner) : socket_{std::move(socket)}, owner_{owner} {}
    SocketTransport(const SocketTransport&) = delete;
    SocketTransport& operator=(const SocketTransport&) = delete;

    // Ends the stream and waits for the daemon to close its side, which it does after the driver has closed the file:
    // whoever opens the control device next finds it free.
    ~SocketTransport() override
    {
        if (::getpid() != owner_)
            return;
        ::shutdown(socket_.get(), SHUT_WR);
        const timeval wait{close_wait_seconds, 0};
        ::setsockopt(socket_.get(), SOL_SOCKET, SO_RCVTIMEO, &wait, sizeof wait);
        char rest[16];
        for (;;) {
            const ssize_t got = ::recv(socket_.get(), rest, sizeof rest, 0);
            if (got == 0 || (got < 0 && errno != EINTR))
                break;
        }
    }

    int command(std::uint32_t number, std::uint32_t argument) override
    {
        wire::Reply reply;
        const int result = exchange({wire::Kind::ioctl, number, argument, 0, 0}, reply, nullptr);
        return result != 0 ? result : reply.result;
    }

    Mapping map(std::size_t bytes) override
    {
        if (bytes == 0 || bytes % page != 0 || bytes / page > wire::max_pages)
            return {-EINVAL, nullptr};
        LowMemory range{bytes, LowMemory::Access::reserve};
        wire::Reply reply;
        base::Descriptor memory;
        const wire::Request request{wire::Kind::mmap, range.address(), static_cast<std::uint32_t>(bytes), 1, 0};
        if (const int result = exchange(request, reply, &memory); result != 0)
            return {result, nullptr};
        if (reply.result != 0)
            return {reply.result, nullptr};
        if (reply.count != bytes / page || !memory)
            return {-EPROTO, nullptr};
        if (const int result = place(range, reply, memory.get()); result != 0) {
            tellUnmapped(std::move(range), bytes);
            return {result, nullptr};
        }
        std::byte* data = range.data();
        areas_.emplace(data, std::move(range));
        return {0, data};
    }

    void unmap(std::byte* data, std::size_t bytes) noexcept override
    {
        const auto area = areas_.find(data);
        if (area == areas_.end())
            return;
        LowMemory range = std::move(area->second);
        areas_.erase(area);
        tellUnmapped(std::move(range), bytes);
    }

    int takeOver() override
    {
        const pid_t before = std::exchange(owner_, ::getpid());
        wire::Reply reply;
        int result = exchange({wire::Kind::take_over, 0, 0, 0, 0}, reply, nullptr);
        if (result == 0)
            result = reply.result;
        if (result != 0)
            owner_ = before;
        return result;
    }

    // The reply to the connection itself: the result of the open.
    int receiveOpen(wire::Reply& reply) { return receive(reply, nullptr); }

  private:
    // Maps page i of the range from page reply.pages[i] of the transfer memory; neighbours in one call.
    static int place(const LowMemory& range, const wire::Reply& reply, int memory)
    {
        for (std::uint32_t i = 0; i < reply.count;) {
            std::uint32_t together = 1;
            while (i + together < reply.count && reply.pages[i + together] == reply.pages[i] + together)
                ++together;
            void* at = range.data() + i * page;
            if (::mmap(at, together * page, PROT_READ, MAP_PRIVATE | MAP_FIXED, memory,
                       static_cast<off_t>(reply.pages[i]) * static_cast<off_t>(page)) != at)
                return -errno;
            i += together;
        }
        return 0;
    }

    void tellUnmapped(LowMemory range, std::size_t bytes) noexcept
    {
        const std::uint32_t address = range.address();
        range = LowMemory{}; // unmapped before the daemon hears of it: it may give the pages to others at once
        wire::Reply reply;
        exchange({wire::Kind::munmap, address, static_cast<std::uint32_t>(bytes), 0, 0}, reply, nullptr);
    }

    int exchange(const wire::Request& request, wire::Reply& reply, base::Descriptor* passed) noexcept
    {
        if (::getpid() != owner_) // the daemon reads and writes the memory of the process that connected
            return -ECHILD;
        ssize_t sent;
        do
            sent = ::send(socket_.get(), &request, sizeof request, MSG_NOSIGNAL);
        while (sent < 0 && errno == EINTR);
        if (sent < 0)
            return -errno;
        return receive(reply, passed);
    }

    int receive(wire::Reply& reply, base::Descriptor* passed) noexcept
    {
        iovec piece{&reply, sizeof reply};
        alignas(cmsghdr) char control[CMSG_SPACE(sizeof(int))];
        msghdr message{};
        message.msg_iov = &piece;
        message.msg_iovlen = 1;
        ssize_t got;
        do { // a command that was sent has to be waited for: the daemon may still be using this process's memory
            message.msg_control = control;
            message.msg_controllen = sizeof control;
            got = ::recvmsg(socket_.get(), &message, MSG_CMSG_CLOEXEC);
        } while (got < 0 && errno == EINTR);
        if (got < 0)
            return -errno;
        base::Descriptor file;
        if (const cmsghdr* c = got > 0 ? CMSG_FIRSTHDR(&message) : nullptr;
            c != nullptr && c->cmsg_level == SOL_SOCKET && c->cmsg_type == SCM_RIGHTS) {
            int fd;
            std::memcpy(&fd, CMSG_DATA(c), sizeof fd);
            file.reset(fd);
        }
        if (got == 0)
            return -ECONNRESET;
        if (static_cast<std::size_t>(got) < wire::reply_header_bytes || reply.count > wire::max_pages ||
            static_cast<std::size_t>(got) != wire::reply_header_bytes + 4 * std::size_t{reply.count})
            return -EPROTO;
        if (reply.version != wire::protocol_version)
            return -EPROTONOSUPPORT;
        if (passed != nullptr)
            *passed = std::move(file);
        return 0;
    }

    base::Descriptor socket_;
    pid_t owner_; // the process that gives the commands
    std::map<std::byte*, LowMemory> areas_; // by first address; at most two
};

} // namespace

std::unique_ptr<Transport> openSocketTransport(const std::string& path)
{
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    if (path.size() >= sizeof address.sun_path)
        throw Error{"open", "", path, -ENAMETOOLONG, "Use a run directory with a shorter path"};
    std::memcpy(address.sun_path, path.c_str(), path.size() + 1);
    base::Descriptor socket{::socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0)};
    if (!socket)
        throw Error{"open", "", path, -errno};
    int connected;
    do
        connected = ::connect(socket.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address);
    while (connected != 0 && errno == EINTR);
    if (connected != 0)
        throw Error{"open", "", path, -errno};
    auto transport = std::make_unique<SocketTransport>(std::move(socket), ::getpid());
    wire::Reply reply;
    int result = transport->receiveOpen(reply);
    if (result == 0)
        result = reply.result;
    if (result != 0)
        throw Error{"open", "", path, result};
    return transport;
}

} // namespace quendrel
