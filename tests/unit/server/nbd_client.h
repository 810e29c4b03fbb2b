/* SPDX-License-Identifier: GPL-2.0-only */
// A bare NBD client for tests: sends any bytes, and tells what came back. Reads give up after ten seconds.
#pragma once

#include "base/descriptor.h"
#include "nbd/protocol.h"

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace nbd_client
{

namespace wire = quendreld::nbd;
using Bytes = std::vector<std::byte>;

struct OptionAnswer {
    std::uint32_t option;
    wire::OptionReply type;
    Bytes data;
};

struct Reply {
    std::uint64_t cookie = 0;
    wire::Error error = wire::Error::none;
    wire::Chunk chunk = wire::Chunk::none; // none: a simple reply
    std::uint64_t offset = 0;              // of offset_data
    Bytes data;
};

template <typename... Words> Bytes words(Words... word)
{
    Bytes bytes((sizeof(Words) + ... + 0));
    std::byte* at = bytes.data();
    ((at = wire::store(at, word)), ...);
    return bytes;
}
Bytes text(const std::string& s);
Bytes operator+(Bytes a, const Bytes& b);

class Client
{
  public:
    explicit Client(base::Descriptor socket) : socket_(std::move(socket)) {}
    static Client connect(const std::string& path);
    bool connect_to(const std::string& path);

    int fd() const { return socket_.get(); }
    void close() { socket_.reset(); }
    bool send(const Bytes& bytes);                   // false: the server has gone
    std::optional<Bytes> receive(std::size_t bytes); // nothing: the connection ended before that
    bool ended(); // the server has closed the connection, and nothing is left to read

    // ---- Handshake
    bool greet(std::uint32_t flags = wire::handshake_fixed_newstyle | wire::handshake_no_zeroes);
    void send_option(wire::Option option, const Bytes& data = {});
    std::optional<OptionAnswer> option_answer();
    // The answers to one option, up to the one that ends it.
    std::vector<OptionAnswer> ask(wire::Option option, const Bytes& data = {});
    // All of it, up to the first request.
    bool begin(const std::string& name = "", bool structured = false, bool allocation = false);

    // ---- Requests
    void request(wire::Command command, std::uint64_t cookie, std::uint64_t offset, std::uint32_t length,
                 std::uint16_t flags = 0, const Bytes& data = {});
    // `read_bytes`: what a successful simple reply is followed by.
    std::optional<Reply> reply(std::size_t read_bytes = 0);
    Reply ask(wire::Command command, std::uint64_t offset, std::uint32_t length, std::uint16_t flags = 0,
              const Bytes& data = {});

  private:
    base::Descriptor socket_;
    std::uint64_t cookie_ = 0x1000;
};

Bytes go_data(const std::string& name, const std::vector<wire::Info>& infos = {});
Bytes context_data(const std::string& name, const std::vector<std::string>& queries);

} // namespace nbd_client
