// SPDX-License-Identifier: GPL-2.0-only
#include "nbd_client.h"

#include <gtest/gtest.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>

#include <cerrno>
#include <cstring>

namespace nbd_client
{

namespace
{

constexpr int patience_ms = 10'000;

template <typename T> T take(const Bytes& from, std::size_t at) { return wire::load<T>(from.data() + at); }

} // namespace

Bytes text(const std::string& s)
{
    const auto* bytes = reinterpret_cast<const std::byte*>(s.data());
    return Bytes(bytes, bytes + s.size());
}

Bytes operator+(Bytes a, const Bytes& b)
{
    a.insert(a.end(), b.begin(), b.end());
    return a;
}

Client Client::connect(const std::string& path)
{
    Client client(base::Descriptor(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0)));
    EXPECT_TRUE(client.connect_to(path)) << std::strerror(errno);
    return client;
}

bool Client::connect_to(const std::string& path)
{
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::strncpy(address.sun_path, path.c_str(), sizeof address.sun_path - 1);
    return ::connect(fd(), reinterpret_cast<sockaddr*>(&address), sizeof address) == 0;
}

bool Client::send(const Bytes& bytes)
{
    for (std::size_t sent = 0; sent < bytes.size();) {
        const ssize_t put = ::send(fd(), bytes.data() + sent, bytes.size() - sent, MSG_NOSIGNAL);
        if (put < 0)
            return false;
        sent += std::size_t(put);
    }
    return true;
}

std::optional<Bytes> Client::receive(std::size_t bytes)
{
    Bytes all(bytes);
    for (std::size_t got = 0; got < bytes;) {
        pollfd p{fd(), POLLIN, 0};
        if (::poll(&p, 1, patience_ms) <= 0) {
            ADD_FAILURE() << "the server says nothing";
            return std::nullopt;
        }
        const ssize_t part = ::recv(fd(), all.data() + got, bytes - got, 0);
        if (part <= 0)
            return std::nullopt;
        got += std::size_t(part);
    }
    return all;
}

bool Client::ended()
{
    pollfd p{fd(), POLLIN, 0};
    char byte;
    return ::poll(&p, 1, patience_ms) > 0 && ::recv(fd(), &byte, 1, 0) <= 0;
}

bool Client::greet(std::uint32_t flags)
{
    const auto greeting = receive(18);
    if (!greeting)
        return false;
    EXPECT_EQ(take<std::uint64_t>(*greeting, 0), wire::magic_begin);
    EXPECT_EQ(take<std::uint64_t>(*greeting, 8), wire::magic_option);
    EXPECT_EQ(take<std::uint16_t>(*greeting, 16), 3);
    return send(words(flags));
}

void Client::send_option(wire::Option option, const Bytes& data)
{
    send(words(wire::magic_option, std::uint32_t(option), std::uint32_t(data.size())) + data);
}

std::optional<OptionAnswer> Client::option_answer()
{
    const auto header = receive(20);
    if (!header)
        return std::nullopt;
    EXPECT_EQ(take<std::uint64_t>(*header, 0), wire::magic_option_reply);
    auto data = receive(take<std::uint32_t>(*header, 16));
    if (!data)
        return std::nullopt;
    return OptionAnswer{take<std::uint32_t>(*header, 8), wire::OptionReply(take<std::uint32_t>(*header, 12)),
                        std::move(*data)};
}

std::vector<OptionAnswer> Client::ask(wire::Option option, const Bytes& data)
{
    send_option(option, data);
    std::vector<OptionAnswer> answers;
    while (auto answer = option_answer()) {
        EXPECT_EQ(answer->option, std::uint32_t(option));
        answers.push_back(std::move(*answer));
        const auto type = answers.back().type;
        if (type == wire::OptionReply::ack || std::uint32_t(type) & 0x80000000)
            break;
    }
    return answers;
}

bool Client::begin(const std::string& name, bool structured, bool allocation)
{
    if (!greet())
        return false;
    if (structured)
        ask(wire::Option::structured_reply);
    if (allocation)
        ask(wire::Option::set_meta_context, context_data(name, {"base:allocation"}));
    const auto answers = ask(wire::Option::go, go_data(name));
    return !answers.empty() && answers.back().type == wire::OptionReply::ack;
}

void Client::request(wire::Command command, std::uint64_t cookie, std::uint64_t offset, std::uint32_t length,
                     std::uint16_t flags, const Bytes& data)
{
    send(words(wire::magic_request, flags, std::uint16_t(command), cookie, offset, length) + data);
}

std::optional<Reply> Client::reply(std::size_t read_bytes)
{
    const auto magic = receive(4);
    if (!magic)
        return std::nullopt;
    Reply reply;
    if (take<std::uint32_t>(*magic, 0) == wire::magic_simple_reply) {
        const auto rest = receive(12);
        if (!rest)
            return std::nullopt;
        reply.error = wire::Error(take<std::uint32_t>(*rest, 0));
        reply.cookie = take<std::uint64_t>(*rest, 4);
        if (reply.error == wire::Error::none)
            reply.data = receive(read_bytes).value_or(Bytes());
        return reply;
    }
    EXPECT_EQ(take<std::uint32_t>(*magic, 0), wire::magic_chunk);
    const auto rest = receive(16);
    if (!rest)
        return std::nullopt;
    EXPECT_EQ(take<std::uint16_t>(*rest, 0), wire::chunk_done);
    reply.chunk = wire::Chunk(take<std::uint16_t>(*rest, 2));
    reply.cookie = take<std::uint64_t>(*rest, 4);
    auto data = receive(take<std::uint32_t>(*rest, 12));
    if (!data)
        return std::nullopt;
    if (reply.chunk == wire::Chunk::error) {
        reply.error = wire::Error(take<std::uint32_t>(*data, 0));
    } else if (reply.chunk == wire::Chunk::offset_data) {
        reply.offset = take<std::uint64_t>(*data, 0);
        reply.data.assign(data->begin() + 8, data->end());
    } else {
        reply.data = std::move(*data);
    }
    return reply;
}

Reply Client::ask(wire::Command command, std::uint64_t offset, std::uint32_t length, std::uint16_t flags,
                  const Bytes& data)
{
    request(command, ++cookie_, offset, length, flags, data);
    auto answer = reply(command == wire::Command::read ? length : 0);
    if (!answer) {
        ADD_FAILURE() << "the connection ended instead of an answer";
        return {};
    }
    EXPECT_EQ(answer->cookie, cookie_);
    return std::move(*answer);
}

Bytes go_data(const std::string& name, const std::vector<wire::Info>& infos)
{
    Bytes data = words(std::uint32_t(name.size())) + text(name) + words(std::uint16_t(infos.size()));
    for (const wire::Info info : infos)
        data = data + words(std::uint16_t(info));
    return data;
}

Bytes context_data(const std::string& name, const std::vector<std::string>& queries)
{
    Bytes data = words(std::uint32_t(name.size())) + text(name) + words(std::uint32_t(queries.size()));
    for (const std::string& query : queries)
        data = data + words(std::uint32_t(query.size())) + text(query);
    return data;
}

} // namespace nbd_client
