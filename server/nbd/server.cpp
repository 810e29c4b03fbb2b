// SPDX-License-Identifier: GPL-2.0-only
#include "nbd/server.h"

#include <sys/eventfd.h>
#include <sys/socket.h>

#include <cerrno>
#include <system_error>

namespace quendreld::nbd
{

namespace
{

class Client final : public ClientThreads::Client
{
  public:
    Client(base::Descriptor socket, base::Descriptor wake, Shared& shared)
        : connection_(std::move(socket), std::move(wake), shared)
    {
    }
    void serve() override { connection_.run(); }
    void hang_up() override { connection_.hang_up(); }

  private:
    Connection connection_;
};

} // namespace

Server::Server(Exports exports, Options options)
    : quietly_(options.report), shared_{std::move(exports), {}, [this](std::string_view line) { quietly_(line); }},
      clients_({
          .listener = {.path = options.socket, .type = SOCK_STREAM, .group = options.group, .report = options.report},
          .thread_name = "nbd",
          .client_name = "an NBD client",
          .when_full = "all " + std::to_string(options.most_connections) +
                       " NBD connections are taken; the next client waits until one ends",
          .most = options.most_connections,
          .make = [this](base::Descriptor socket) { return make_client(std::move(socket)); },
      })
{
}

std::unique_ptr<ClientThreads::Client> Server::make_client(base::Descriptor socket)
{
    base::Descriptor wake(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK));
    if (!wake)
        throw std::system_error(errno, std::generic_category(), "eventfd");
    return std::make_unique<Client>(std::move(socket), std::move(wake), shared_);
}

} // namespace quendreld::nbd
