/* SPDX-License-Identifier: GPL-2.0-only */
// A bare client of the control socket: packets as bytes, replies as they come.
#pragma once

#include "base/descriptor.h"
#include "client/socket_protocol.h"

#include <cstdint>
#include <optional>
#include <string>

namespace control_rig
{

namespace wire = quendrel::wire;
using base::Descriptor;

// Memory of this process below 4 GiB, as a command's arguments have to be.
class LowPage
{
  public:
    LowPage();
    ~LowPage();
    LowPage(const LowPage&) = delete;
    std::uint32_t address() const { return std::uint32_t(reinterpret_cast<std::uintptr_t>(at_)); }
    template <typename T> T& as() { return *static_cast<T*>(at_); }

  private:
    void* at_;
};

class Client
{
  public:
    explicit Client(const std::string& socket);
    int fd() const { return fd_.get(); }
    bool connected() const { return bool(fd_); }
    void close() { fd_.reset(); }

    bool send(const void* bytes, std::size_t count);
    bool send(const wire::Request& request) { return send(&request, sizeof request); }
    // The next reply; nothing when the server has ended the connection. `passed`: the descriptor that came along.
    std::optional<wire::Reply> receive(Descriptor* passed = nullptr);
    std::optional<wire::Reply> ask(const wire::Request& request, Descriptor* passed = nullptr)
    {
        if (!send(request))
            return std::nullopt;
        return receive(passed);
    }
    std::optional<wire::Reply> ioctl(std::uint32_t command, std::uint32_t argument)
    {
        return ask({wire::Kind::ioctl, command, argument, 0, 0});
    }

  private:
    Descriptor fd_;
};

} // namespace control_rig
