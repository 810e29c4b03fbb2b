// SPDX-License-Identifier: GPL-2.0-only
#include "nbd/server.h"

#include <pthread.h>
#include <sys/eventfd.h>
#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <exception>

namespace quendreld::nbd
{

Server::Server(Exports exports, Options options)
    : most_connections_(options.most_connections),
      quietly_(options.report), shared_{std::move(exports), {}, [this](std::string_view line) { quietly_(line); }},
      listener_({.path = options.socket, .type = SOCK_STREAM, .group = options.group, .report = options.report})
{
    thread_ = std::thread([this] { listen_loop(); });
}

Server::~Server()
{
    {
        std::lock_guard lock(mutex_);
        stop_ = true;
        for (Client& client : clients_)
            if (!client.finished)
                client.connection->hang_up();
    }
    left_.notify_all();
    listener_.wake();
    thread_.join();
    for (Client& client : clients_)
        client.thread.join();
}

unsigned Server::connections() const
{
    std::lock_guard lock(mutex_);
    return unsigned(std::count_if(clients_.begin(), clients_.end(), [](const Client& c) { return !c.finished; }));
}

void Server::listen_loop()
{
    pthread_setname_np(pthread_self(), "nbd-listen");
    for (;;) {
        reap();
        {
            std::unique_lock lock(mutex_);
            if (!stop_ && clients_.size() >= most_connections_) {
                quietly_("all " + std::to_string(most_connections_) +
                         " NBD connections are taken; the next client waits until one ends");
                left_.wait(lock, [this] {
                    return stop_ || std::any_of(clients_.begin(), clients_.end(), [](auto& c) { return c.finished; });
                });
            }
            if (stop_)
                return;
            if (clients_.size() >= most_connections_)
                continue;
        }
        if (base::Descriptor socket = listener_.accept())
            take(std::move(socket));
    }
}

void Server::take(base::Descriptor socket)
{
    base::Descriptor wake(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK));
    if (!wake)
        return quietly_(std::string("an NBD client was turned away: ") + std::strerror(errno));
    std::list<Client> one;
    try {
        one.emplace_back().connection = std::make_unique<Connection>(std::move(socket), std::move(wake), shared_);
        std::lock_guard lock(mutex_);
        if (stop_)
            return;
        Client& client = one.front();
        client.thread = std::thread([this, &client] { serve(client); });
        clients_.splice(clients_.end(), one);
    } catch (const std::exception& error) { // no thread, no memory
        quietly_(std::string("an NBD client was turned away: ") + error.what());
    }
}

void Server::serve(Client& client)
{
    pthread_setname_np(pthread_self(), "nbd");
    client.connection->run();
    // Under the lock to the end: afterwards the server may be gone.
    std::lock_guard lock(mutex_);
    client.finished = true;
    left_.notify_all();
    listener_.wake();
}

// Joins the threads of those that have left.
void Server::reap()
{
    std::list<Client> left;
    {
        std::lock_guard lock(mutex_);
        for (auto at = clients_.begin(); at != clients_.end();) {
            const auto next = std::next(at);
            if (at->finished)
                left.splice(left.end(), clients_, at);
            at = next;
        }
    }
    for (Client& client : left)
        client.thread.join();
}

} // namespace quendreld::nbd
