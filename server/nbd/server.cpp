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
      clients_(client_options(options))
{
}

// Member by member: when an initializer of an aggregate throws, this compiler destroys some members twice.
ClientThreads::Options Server::client_options(const Options& options)
{
    ClientThreads::Options threads;
    threads.listener.path = options.socket;
    threads.listener.type = SOCK_STREAM;
    threads.listener.group = options.group;
    threads.listener.report = options.report;
    threads.thread_name = "nbd";
    threads.client_name = "an NBD client";
    threads.when_full = "all " + std::to_string(options.most_connections) +
                        " NBD connections are taken; the next client waits until one ends";
    threads.most = options.most_connections;
    threads.make = [this](base::Descriptor socket) { return make_client(std::move(socket)); };
    return threads;
}

std::unique_ptr<ClientThreads::Client> Server::make_client(base::Descriptor socket)
{
    base::Descriptor wake(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK));
    if (!wake)
        throw std::system_error(errno, std::generic_category(), "eventfd");
    return std::make_unique<Client>(std::move(socket), std::move(wake), shared_);
}

} // namespace quendreld::nbd
