/* SPDX-License-Identifier: GPL-2.0-only */
// The NBD front: a Unix socket, and a Connection with a thread of its own for each client, up to a bound. Clients
// beyond it wait until another one leaves.
//
// All connections see one disk behind one store, so a flush on any of them covers the writes that were answered on
// all.
#pragma once

#include "client_threads.h"
#include "nbd/connection.h"

#include <memory>
#include <string>

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

    // The disks outlive it. Throws std::system_error. Destroying it completes and answers what was accepted; a client
    // that does not take its answers is cut off soon.
    Server(Exports exports, Options options);

    unsigned connections() const { return unsigned(clients_.clients()); }

  private:
    ClientThreads::Options client_options(const Options& options);
    std::unique_ptr<ClientThreads::Client> make_client(base::Descriptor socket);

    QuietReport quietly_;
    Shared shared_;
    ClientThreads clients_; // last: its threads use all of the above
};

} // namespace quendreld::nbd
