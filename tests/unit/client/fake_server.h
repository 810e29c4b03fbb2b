/* SPDX-License-Identifier: GPL-2.0-only */
// A control socket with a fake driver behind it: one connection at a time, transfer memory whose pages are handed out
// from the top down so that neighbours in an area are not neighbours in the file.
#pragma once

#include "client/socket_protocol.h"
#include "fake_driver.h"

#include <atomic>
#include <filesystem>
#include <functional>
#include <thread>

namespace fake
{

class Server
{
  public:
    Server(Driver& driver, const std::filesystem::path& socket);
    ~Server();
    Server(const Server&) = delete;
    Server& operator=(const Server&) = delete;

    // Lets a test answer a request itself: gives the packet to send, or an empty one to end the connection. Called
    // for requests of this kind only.
    Hook<std::vector<std::byte>(const quendrel::wire::Request&)> instead;
    std::atomic<quendrel::wire::Kind> instead_of{};
    std::atomic<std::uint32_t> version{quendrel::wire::protocol_version};
    std::atomic<bool> close_slowly{false};
    std::atomic<int> connections{0}; // closed again, wholly

  private:
    void serve();
    void serveOne(int connection);
    bool answer(int connection, const quendrel::wire::Request& request);
    quendrel::wire::Reply makeMapping(const quendrel::wire::Request& request);

    Driver& driver_;
    std::filesystem::path path_;
    int listener_;
    int memory_;
    std::byte* transfer_;
    std::map<std::uint32_t, std::vector<std::uint32_t>> used_; // pages of the areas by address
    std::vector<std::uint32_t> free_;
    std::thread thread_; // last: uses all of the above
};

} // namespace fake
