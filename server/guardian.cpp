// SPDX-License-Identifier: GPL-2.0-only
#include "guardian.h"

#include <fcntl.h>
#include <linux/fs.h>
#include <sys/ioctl.h>
#include <sys/prctl.h>
#include <sys/socket.h>

#include <cerrno>
#include <csignal>
#include <cstring>
#include <map>
#include <system_error>

namespace quendreld
{

namespace
{

constexpr unsigned op_freeze = 1;
constexpr unsigned op_thaw = 2;

struct Message {
    unsigned operation;
    unsigned id;
    int result;
};

int receive(int socket, Message& message, base::Descriptor& fd)
{
    iovec part{&message, sizeof message};
    alignas(cmsghdr) char control[CMSG_SPACE(sizeof(int))];
    msghdr header{};
    header.msg_iov = &part;
    header.msg_iovlen = 1;
    header.msg_control = control;
    header.msg_controllen = sizeof control;
    ssize_t got;
    do {
        got = ::recvmsg(socket, &header, MSG_CMSG_CLOEXEC);
    } while (got < 0 && errno == EINTR);
    if (got != sizeof message)
        return -EPIPE;
    for (cmsghdr* c = CMSG_FIRSTHDR(&header); c; c = CMSG_NXTHDR(&header, c)) {
        if (c->cmsg_level != SOL_SOCKET || c->cmsg_type != SCM_RIGHTS)
            continue;
        int received;
        std::memcpy(&received, CMSG_DATA(c), sizeof received);
        fd = base::Descriptor(received);
    }
    return 0;
}

int send(int socket, const Message& message, int fd)
{
    iovec part{const_cast<Message*>(&message), sizeof message};
    alignas(cmsghdr) char control[CMSG_SPACE(sizeof(int))] = {};
    msghdr header{};
    header.msg_iov = &part;
    header.msg_iovlen = 1;
    if (fd >= 0) {
        header.msg_control = control;
        header.msg_controllen = sizeof control;
        cmsghdr* c = CMSG_FIRSTHDR(&header);
        c->cmsg_level = SOL_SOCKET;
        c->cmsg_type = SCM_RIGHTS;
        c->cmsg_len = CMSG_LEN(sizeof(int));
        std::memcpy(CMSG_DATA(c), &fd, sizeof fd);
    }
    ssize_t sent;
    do {
        sent = ::sendmsg(socket, &header, MSG_NOSIGNAL);
    } while (sent < 0 && errno == EINTR);
    return sent == sizeof message ? 0 : -EPIPE;
}

[[noreturn]] void guard(int socket)
{
    ::prctl(PR_SET_NAME, "quendrel-guard");
    // Signals that end the daemon, from a terminal or a service manager, come to its whole group. They are what this
    // process is there to outlive.
    sigset_t all;
    sigfillset(&all);
    ::sigprocmask(SIG_SETMASK, &all, nullptr);
    // Of what was inherited only the socket stays open: a lock or a pipe held here would outlive the daemon.
    if (socket > 0)
        ::close_range(0, unsigned(socket) - 1, 0);
    ::close_range(unsigned(socket) + 1, ~0u, 0);
    if (::chdir("/") != 0)
        ::_exit(1);

    std::map<unsigned, base::Descriptor> frozen;
    unsigned next = 1;
    for (;;) {
        Message message;
        base::Descriptor fd;
        if (receive(socket, message, fd) != 0)
            break;
        message.result = -EINVAL;
        if (message.operation == op_freeze && fd) {
            // Noted first: what is frozen and not noted would stay so.
            message.id = next++;
            try {
                const auto noted = frozen.emplace(message.id, std::move(fd)).first;
                message.result = ::ioctl(noted->second.get(), FIFREEZE, 0) == 0 ? 0 : -errno;
                if (message.result != 0)
                    frozen.erase(noted);
            } catch (const std::bad_alloc&) {
                message.result = -ENOMEM;
            }
        } else if (message.operation == op_thaw) {
            const auto found = frozen.find(message.id);
            if (found != frozen.end()) {
                message.result = ::ioctl(found->second.get(), FITHAW, 0) == 0 ? 0 : -errno;
                frozen.erase(found);
            }
        }
        if (send(socket, message, -1) != 0)
            break;
    }
    for (auto& [id, fd] : frozen)
        ::ioctl(fd.get(), FITHAW, 0);
    ::_exit(0);
}

} // namespace

base::Descriptor start_guardian()
{
    int pair[2];
    if (::socketpair(AF_UNIX, SOCK_SEQPACKET, 0, pair) != 0)
        throw std::system_error(errno, std::generic_category(), "guardian: socketpair");
    base::Descriptor ours(pair[0]);
    const base::Descriptor guardians(pair[1]);
    const pid_t child = ::fork();
    if (child < 0)
        throw std::system_error(errno, std::generic_category(), "guardian: fork");
    if (child == 0)
        guard(guardians.get());
    return ours;
}

int Guardian::ask(unsigned operation, unsigned& id, int fd)
{
    std::lock_guard lock(mutex_);
    Message message{operation, id, 0};
    base::Descriptor none;
    if (send(socket_.get(), message, fd) != 0)
        return -EPIPE;
    if (receive(socket_.get(), message, none) != 0)
        return -ECONNRESET;
    id = message.id;
    return message.result;
}

int Guardian::freeze(int directory, unsigned& id)
{
    id = 0;
    return ask(op_freeze, id, directory);
}

int Guardian::thaw(unsigned id) { return ask(op_thaw, id, -1); }

} // namespace quendreld
