/* SPDX-License-Identifier: GPL-2.0-only */
// The control device on a Unix socket: who may connect, how many at a time, and a thread for each.
//
// - The socket is 0660, of the daemon's user and a group. Besides, a peer is let in only as root, as the daemon's
//   own user, or as a member of that group, and only if its process can be seen from here.
// - A session uses the memory of the process that connected, or of one of the same user (a child that inherited the
//   socket) that has taken over since. Every packet carries its sender's process id; one that another process sent ends
//   the session.
// - Unless told otherwise one client is in at a time, as an open or a close of the device ends whatever backup runs.
//   A client whose predecessor has hung up already waits for its close; any other gets -EBUSY.
#pragma once

#include "client_threads.h"
#include "device_observer.h"

#include <sys/socket.h>
#include <sys/types.h>

#include <condition_variable>
#include <functional>
#include <mutex>
#include <string>
#include <vector>

namespace quendreld
{

class ControlServer
{
  public:
    struct Options {
        std::string socket;      // its path
        gid_t group = gid_t(-1); // -1: the daemon's own
        bool multi_client = false;
        unsigned most_clients = 32;
        DeviceObserver* observer = nullptr; // of what the clients do; lives longer than the server
        std::function<void(std::string_view)> report = [](std::string_view) {}; // a line for the log
    };

    explicit ControlServer(Options options); // throws std::system_error
    ~ControlServer();                        // cuts every client off, waits for their files to be closed

    unsigned clients() const; // sessions with an open file

  private:
    class Connection;

    ClientThreads::Options client_options();
    void serve(int socket);
    void converse(int socket, const ucred& peer); // with a client that is in
    bool enter(int socket);                   // false: busy
    void leave(int socket);

    const Options options_;
    QuietReport quietly_;
    mutable std::mutex mutex_; // guards what follows; innermost
    std::condition_variable left_;
    std::vector<int> inside_; // sockets of the clients that hold (or open) the device
    bool stop_ = false;
    ClientThreads clients_; // last: its threads use all of the above
};

} // namespace quendreld
