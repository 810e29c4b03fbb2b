// SPDX-License-Identifier: GPL-2.0-only
// Fuzzes an NBD connection: arbitrary bytes from the greeting on, arbitrary bytes after a good handshake, or requests
// that are whole but of any content. What must hold: the connection ends when its client has nothing more to say, every
// byte sent back belongs to a well-formed reply, each whole request gets exactly one, no crash, no sanitizer report.
#include "fuzz_input.h"
#include "nbd/connection.h"
#include "nbd/protocol.h"

#include <poll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>

#include <cerrno>
#include <cstring>
#include <map>
#include <memory>
#include <string>
#include <thread>
#include <vector>

namespace
{

using fuzz::Input;
using fuzz::require;
using namespace quendreld;
using Bytes = std::vector<std::byte>;

constexpr std::uint64_t kDiskBytes = 256 << 10;
constexpr std::size_t kMostPayload = 256 << 10; // of one input's writes, so that a run stays fast

template <typename... Words> void put(Bytes& to, Words... word)
{
    std::byte piece[(sizeof(Words) + ...)];
    std::byte* at = piece;
    ((at = nbd::store(at, word)), ...);
    to.insert(to.end(), piece, at);
}

struct Ground {
    Ground()
    {
        hosted::DiskConfig config;
        config.name = "sda";
        config.store = hosted::make_memory_store(kDiskBytes);
        config.partitions = {{1, 64, 128}};
        disk = std::make_unique<ServedDisk>(hosted::add_disk(std::move(config)));
        shared.exports = {disk.get()};
        shared.report = [](std::string_view) {};
    }
    std::unique_ptr<ServedDisk> disk;
    nbd::Shared shared;
};

// What a client that wants structured replies and the allocation says before its first request, or less.
Bytes handshake(bool structured, bool allocation)
{
    Bytes all;
    put(all, 3u);
    if (structured)
        put(all, nbd::magic_option, std::uint32_t(nbd::Option::structured_reply), 0u);
    if (allocation) {
        put(all, nbd::magic_option, std::uint32_t(nbd::Option::set_meta_context), 4u + 4 + 4 + 15, 0u, 1u, 15u);
        for (const char c : nbd::allocation_context)
            all.push_back(std::byte(c));
    }
    put(all, nbd::magic_option, std::uint32_t(nbd::Option::go), 6u, 0u, std::uint16_t(0));
    return all;
}

// Sends all of it, collects what comes back, to the end.
Bytes converse(int fd, const Bytes& all)
{
    Bytes back;
    std::size_t sent = 0;
    bool sending = true;
    for (;;) {
        if (sending && sent == all.size()) {
            ::shutdown(fd, SHUT_WR);
            sending = false;
        }
        pollfd p{fd, short(POLLIN | (sending ? POLLOUT : 0)), 0};
        int ready;
        do
            ready = ::poll(&p, 1, 20'000);
        while (ready < 0 && errno == EINTR); // the fuzzer's own timer
        require(ready > 0, "the connection goes on or ends");
        if (p.revents & (POLLIN | POLLHUP)) {
            std::byte part[65536];
            const ssize_t got = ::recv(fd, part, sizeof part, MSG_DONTWAIT);
            if (got == 0 || (got < 0 && errno == ECONNRESET))
                return back;
            if (got > 0)
                back.insert(back.end(), part, part + got);
        } else if (p.revents & POLLOUT) {
            const ssize_t put_bytes = ::send(fd, all.data() + sent, all.size() - sent, MSG_DONTWAIT | MSG_NOSIGNAL);
            if (put_bytes > 0)
                sent += std::size_t(put_bytes);
            else if (errno != EAGAIN)
                sending = false; // it has ended; what it said before can still be read
        }
    }
}

// Removes a handshake's answers from the front: the greeting, and option replies up to the last acknowledgement.
std::size_t skip_handshake(const Bytes& back, unsigned acknowledgements)
{
    std::size_t at = 18;
    while (acknowledgements) {
        require(back.size() >= at + 20, "the handshake is answered");
        require(nbd::load<std::uint64_t>(&back[at]) == nbd::magic_option_reply, "an option's answer has its magic");
        const auto type = nbd::OptionReply(nbd::load<std::uint32_t>(&back[at + 12]));
        acknowledgements -= type == nbd::OptionReply::ack;
        at += 20 + nbd::load<std::uint32_t>(&back[at + 16]);
    }
    return at;
}

struct Asked {
    nbd::Command command;
    std::uint32_t length;
};

void check_replies(const Bytes& back, std::size_t at, bool structured, std::map<std::uint64_t, Asked> asked)
{
    while (at < back.size()) {
        require(back.size() >= at + 16, "a reply is whole");
        const bool chunk = nbd::load<std::uint32_t>(&back[at]) == nbd::magic_chunk;
        require(chunk || nbd::load<std::uint32_t>(&back[at]) == nbd::magic_simple_reply, "a reply has its magic");
        const auto one = asked.find(nbd::load<std::uint64_t>(&back[at + 8]));
        require(one != asked.end(), "a reply answers a request, once");
        const bool read = one->second.command == nbd::Command::read;
        require(chunk == (structured && (read || one->second.command == nbd::Command::block_status)),
                "the reply's form is that agreed upon");
        if (chunk)
            at += nbd::chunk_bytes + nbd::load<std::uint32_t>(&back[at + 16]);
        else
            at += nbd::simple_reply_bytes +
                  (read && nbd::load<std::uint32_t>(&back[at + 4]) == 0 ? one->second.length : 0);
        asked.erase(one);
    }
    require(at == back.size(), "the last reply is whole");
    require(asked.empty(), "every request is answered");
}

Bytes requests(Input& in, std::map<std::uint64_t, Asked>& asked)
{
    Bytes all;
    std::size_t payload = 0;
    for (std::uint64_t cookie = 1; !in.empty(); ++cookie) {
        const auto what = in.word(1);
        auto command = nbd::Command(what % 10);
        if (command == nbd::Command::disconnect)
            command = nbd::Command::flush;
        const auto flags = std::uint16_t(what & 0x80 ? in.word(2) : 0);
        // Mostly near the disk and on its grid.
        std::uint64_t offset = std::uint64_t(in.word(2)) * (what & 0x40 ? 1 : 512) % (kDiskBytes + 4096);
        std::uint32_t length = in.word(2) * (what & 0x40 ? 1 : 512);
        if (what & 0x20) {
            offset = std::uint64_t(in.word()) << 32 | in.word();
            length = in.word();
        }
        if (command == nbd::Command::write) {
            length %= 64 << 10;
            if (payload + length > kMostPayload)
                command = nbd::Command::trim;
            else
                payload += length;
        }
        put(all, nbd::magic_request, flags, std::uint16_t(command), cookie, offset, length);
        if (command == nbd::Command::write)
            all.resize(all.size() + length, std::byte(what));
        asked[cookie] = {command, length};
    }
    return all;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    static Ground& ground = *new Ground; // lives as long as the process
    Input in(data, size);
    const u32 mode = in.word(1);
    const bool structured = mode & 4, allocation = structured && (mode & 8);
    Bytes all;
    std::map<std::uint64_t, Asked> asked;
    if (mode & 3)
        all = handshake(structured, allocation);
    if (mode & 2) {
        const Bytes more = requests(in, asked);
        all.insert(all.end(), more.begin(), more.end());
    } else {
        while (!in.empty())
            all.push_back(std::byte(in.word(1)));
    }

    int pair[2];
    require(::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, pair) == 0, "a pair of sockets");
    nbd::Connection connection(base::Descriptor(pair[0]), base::Descriptor(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)), ground.shared);
    std::thread thread([&] { connection.run(); });
    const base::Descriptor here(pair[1]);
    const Bytes back = converse(here.get(), all);
    thread.join();
    if (mode & 2)
        check_replies(back, skip_handshake(back, 1u + structured + allocation), structured, std::move(asked));
    return 0;
}
