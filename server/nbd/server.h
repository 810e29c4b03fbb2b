/* SPDX-License-Identifier: GPL-2.0-only */
// The NBD front: a Unix socket, and a Connection with a thread of its own for each client, up to a bound. Clients
// beyond it wait until another one leaves.
//
// All connections see one disk behind one store, so a flush on any of them covers the writes that were answered on
// all.
#pragma once

#include "listener.h"
#include "nbd/connection.h"

#include <condition_variable>
#include <list>
#include <mutex>
#include <string>
#include <thread>

namespace quendreld::nbd
{

class Server
{
  public:
    struct Options {
        std::string socket;      // its path
        gid_t group = gid_t(-1); // -1: the daemon's own
        unsigned most_connections = 64;
        std::function<void(std::string_view)> report = [](std::string_view) {}; // a line for the log
    };

    // The disks outlive it. Throws std::system_error.
    Server(Exports exports, Options options);
    // Completes and answers what was accepted; a client that does not take its answers is cut off soon.
    ~Server();

    unsigned connections() const;

  private:
    struct Client {
        std::unique_ptr<Connection> connection;
        bool finished = false;
        std::thread thread;
    };

    void listen_loop();
    void take(base::Descriptor socket);
    void serve(Client& client);
    void reap();

    const unsigned most_connections_;
    QuietReport quietly_;
    Shared shared_;
    Listener listener_;
    mutable std::mutex mutex_; // guards what follows; before a connection's own
    std::condition_variable left_;
    std::list<Client> clients_;
    bool stop_ = false;
    std::thread thread_;
};

} // namespace quendreld::nbd
