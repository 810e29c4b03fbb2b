// SPDX-License-Identifier: GPL-2.0-only
#include "control_server.h"

#include "control_session.h"

#include <poll.h>
#include <sys/socket.h>
#include <sys/syscall.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <exception>
#include <memory>
#include <optional>
#include <utility>

#ifndef SO_PEERPIDFD
#define SO_PEERPIDFD 77
#endif

namespace quendreld
{

namespace
{

constexpr auto close_patience = std::chrono::seconds(30); // for a client that hung up to be closed

bool member_of(int socket, gid_t group)
{
    std::vector<gid_t> groups(64);
    socklen_t bytes = socklen_t(groups.size() * sizeof(gid_t));
    if (::getsockopt(socket, SOL_SOCKET, SO_PEERGROUPS, groups.data(), &bytes) != 0) {
        if (errno != ERANGE)
            return false;
        groups.resize(bytes / sizeof(gid_t));
        if (::getsockopt(socket, SOL_SOCKET, SO_PEERGROUPS, groups.data(), &bytes) != 0)
            return false;
    }
    groups.resize(bytes / sizeof(gid_t));
    return std::find(groups.begin(), groups.end(), group) != groups.end();
}

bool may_enter(int socket, const ucred& peer, gid_t group)
{
    if (peer.pid <= 0)
        return false; // a process of another pid namespace: its memory cannot be named
    return peer.uid == 0 || peer.uid == ::geteuid() || peer.gid == group || member_of(socket, group);
}

// Of the peer, if `peer`: the kernel has known its process since it connected.
base::Descriptor pidfd_of(int socket, pid_t pid, bool peer)
{
    int fd = -1;
    socklen_t bytes = sizeof fd;
    if (peer && ::getsockopt(socket, SOL_SOCKET, SO_PEERPIDFD, &fd, &bytes) == 0)
        return base::Descriptor(fd);
    return base::Descriptor(int(::syscall(SYS_pidfd_open, pid, 0)));
}

// Throws std::system_error.
std::shared_ptr<hosted::AddressSpace> memory_of(int socket, pid_t pid, uid_t user, bool peer)
{
    const base::Descriptor pidfd = pidfd_of(socket, pid, peer);
    if (!pidfd && errno != ENOSYS)
        throw std::system_error(errno, std::generic_category(), "process " + std::to_string(pid));
    return hosted::process_memory(pid, pidfd.get(), user);
}

bool hung_up(int socket)
{
    pollfd p{socket, POLLRDHUP, 0};
    return ::poll(&p, 1, 0) > 0 && (p.revents & (POLLRDHUP | POLLHUP | POLLERR));
}

struct Packet {
    std::size_t bytes;
    pid_t sender;
    uid_t user; // who that is
};

// One packet. Nothing when the connection is over: end of file, a packet that is too large, descriptors passed along
// (there is no room for them, so the kernel has closed them).
std::optional<Packet> receive(int socket, std::byte* to, std::size_t room)
{
    iovec part{to, room};
    alignas(cmsghdr) char control[CMSG_SPACE(sizeof(ucred))];
    msghdr header{};
    header.msg_iov = &part;
    header.msg_iovlen = 1;
    header.msg_control = control;
    header.msg_controllen = sizeof control;
    ssize_t got;
    do {
        got = ::recvmsg(socket, &header, MSG_CMSG_CLOEXEC);
    } while (got < 0 && errno == EINTR);
    if (got <= 0 || (header.msg_flags & (MSG_TRUNC | MSG_CTRUNC)))
        return std::nullopt;
    const cmsghdr* c = CMSG_FIRSTHDR(&header);
    if (!c || c->cmsg_level != SOL_SOCKET || c->cmsg_type != SCM_CREDENTIALS)
        return std::nullopt;
    ucred from;
    std::memcpy(&from, CMSG_DATA(c), sizeof from);
    return Packet{std::size_t(got), from.pid, from.uid};
}

bool send(int socket, const ControlSession::Answer& answer)
{
    iovec part{const_cast<quendrel::wire::Reply*>(&answer.reply), answer.bytes};
    alignas(cmsghdr) char control[CMSG_SPACE(sizeof(int))] = {};
    msghdr header{};
    header.msg_iov = &part;
    header.msg_iovlen = 1;
    if (answer.pass_memory) {
        header.msg_control = control;
        header.msg_controllen = sizeof control;
        cmsghdr* c = CMSG_FIRSTHDR(&header);
        c->cmsg_level = SOL_SOCKET;
        c->cmsg_type = SCM_RIGHTS;
        c->cmsg_len = CMSG_LEN(sizeof(int));
        const int fd = hosted::transfer_memory_fd();
        std::memcpy(CMSG_DATA(c), &fd, sizeof fd);
    }
    ssize_t sent;
    do {
        sent = ::sendmsg(socket, &header, MSG_NOSIGNAL);
    } while (sent < 0 && errno == EINTR);
    return sent == ssize_t(answer.bytes);
}

} // namespace

// A connection. What it says and hears once it is in is the session's.
class ControlServer::Connection final : public ClientThreads::Client
{
  public:
    Connection(ControlServer& server, base::Descriptor socket) : server_(server), socket_(std::move(socket)) {}
    void serve() override
    {
        // The socket is closed later, when the thread is joined; the client hears of the end now.
        const struct End {
            Connection& of;
            ~End() { of.hang_up(); }
        } end{*this};
        server_.serve(socket_.get());
    }
    void hang_up() override { ::shutdown(socket_.get(), SHUT_RDWR); }
    void turned_away() override { send(socket_.get(), ControlSession::answer(-ENOMEM)); }

  private:
    ControlServer& server_;
    const base::Descriptor socket_;
};

ControlServer::ControlServer(Options options) : options_(std::move(options)), quietly_(options_.report), clients_(client_options())
{
}

ClientThreads::Options ControlServer::client_options()
{
    (void)hosted::transfer_memory_fd(); // made now: no client shall be the first to find that there is none
    // Member by member: when an initializer of an aggregate throws, this compiler destroys some members twice.
    ClientThreads::Options threads;
    threads.listener.path = options_.socket;
    threads.listener.type = SOCK_SEQPACKET;
    threads.listener.group = options_.group;
    threads.listener.credentials = true;
    threads.listener.report = options_.report;
    threads.thread_name = "control";
    threads.client_name = "a client of the control device";
    // Some more threads than can be inside, for those that are told that it is busy. When even these are taken, by
    // clients that hung up and are being closed, say, the next client waits.
    threads.most = 2 * std::size_t(options_.most_clients);
    threads.make = [this](base::Descriptor socket) { return std::make_unique<Connection>(*this, std::move(socket)); };
    return threads;
}

ControlServer::~ControlServer()
{
    {
        std::lock_guard lock(mutex_);
        stop_ = true;
    }
    left_.notify_all();
}

unsigned ControlServer::clients() const
{
    std::lock_guard lock(mutex_);
    return unsigned(inside_.size());
}

bool ControlServer::enter(int socket)
{
    const std::size_t most = options_.multi_client ? options_.most_clients : 1;
    const auto until = std::chrono::steady_clock::now() + close_patience;
    std::unique_lock lock(mutex_);
    while (!stop_) {
        if (inside_.size() < most) {
            inside_.push_back(socket);
            return true;
        }
        const auto leaving = std::size_t(std::count_if(inside_.begin(), inside_.end(), hung_up));
        if (inside_.size() - leaving >= most || std::chrono::steady_clock::now() >= until)
            return false;
        left_.wait_for(lock, std::chrono::milliseconds(50));
    }
    return false;
}

void ControlServer::leave(int socket)
{
    {
        std::lock_guard lock(mutex_);
        std::erase(inside_, socket);
    }
    left_.notify_all();
}

void ControlServer::serve(int socket)
{
    ucred peer{};
    socklen_t bytes = sizeof peer;
    const gid_t group = options_.group == gid_t(-1) ? ::getegid() : options_.group;
    if (::getsockopt(socket, SOL_SOCKET, SO_PEERCRED, &peer, &bytes) != 0 || !may_enter(socket, peer, group)) {
        send(socket, ControlSession::answer(-EACCES));
        return;
    }
    if (!enter(socket)) {
        send(socket, ControlSession::answer(-EBUSY));
        return;
    }
    try {
        converse(socket, peer);
    } catch (const std::exception&) { // no memory
        leave(socket);
        send(socket, ControlSession::answer(-ENOMEM));
        throw;
    }
    leave(socket);
}

void ControlServer::converse(int socket, const ucred& peer)
{
    std::shared_ptr<hosted::AddressSpace> memory;
    try {
        memory = memory_of(socket, peer.pid, peer.uid, true);
    } catch (const std::system_error& error) {
        quietly_(std::string("a client of the control device was turned away: ") + error.what());
        send(socket, ControlSession::answer(-EACCES));
        return;
    }
    ControlSession session(std::move(memory), !options_.multi_client, options_.observer);
    const int result = session.open();
    pid_t client = peer.pid;
    bool going = send(socket, ControlSession::answer(result)) && result == 0;
    // One byte more than a request, so that a longer packet shows.
    alignas(8) std::byte packet[sizeof(quendrel::wire::Request) + 1];
    while (going) {
        const auto got = receive(socket, packet, sizeof packet);
        if (!got)
            break;
        if (ControlSession::is_take_over(packet, got->bytes)) {
            // A program that only writes to a descriptor which it was given comes to no harm: what has other rights
            // than the user who connected is refused here as it is at the connection.
            try {
                // To root's connection the check of rights alone would let in programs of anybody.
                if (got->user != peer.uid)
                    throw std::system_error(EACCES, std::generic_category(), "it is of another user");
                session.take_over(memory_of(socket, got->sender, peer.uid, false));
            } catch (const std::system_error& error) {
                quietly_(std::string("a process that wanted to take over a client's connection was refused: ") + error.what());
                break;
            }
            client = got->sender;
            going = send(socket, ControlSession::answer(0));
            continue;
        }
        if (got->sender != client)
            break;
        const auto answer = session.handle(packet, got->bytes);
        going = answer && send(socket, *answer);
    }
}

} // namespace quendreld
