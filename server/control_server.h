/* SPDX-License-Identifier: GPL-2.0-only */
// The control device on a Unix socket: who may connect, how many at a time, and a thread for each.
//
// - The socket is 0660, of the daemon's user and a group. Besides, a peer is let in only as root, as the daemon's
//   own user, or as a member of that group, and only if its process can be seen from here.
// - A session uses the memory of the process that connected. Every packet carries its sender's process id; one that
//   another process sent (a child that inherited the socket) ends the session.
// - Unless told otherwise one client is in at a time, as an open or a close of the device ends whatever backup runs.
//   A client whose predecessor has hung up already waits for its close; any other gets -EBUSY.
#pragma once

#include "base/descriptor.h"
#include "device_observer.h"
#include "listener.h"

#include <sys/types.h>

#include <condition_variable>
#include <functional>
#include <list>
#include <mutex>
#include <string>
#include <thread>

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
    struct Client {
        base::Descriptor socket;
        bool inside = false;   // holds (or opens) the device
        bool finished = false; // the thread is about to end
        std::thread thread;
    };

    void listen_loop();
    void take(base::Descriptor socket);
    void reap();
    void serve(Client& client);
    bool enter(Client& client); // false: busy
    void leave(Client& client);

    std::size_t most_threads() const { return 2 * std::size_t(options_.most_clients); }

    const Options options_;
    QuietReport quietly_;
    Listener listener_;
    mutable std::mutex mutex_; // guards the clients' flags, clients_ and stop_; outermost
    std::condition_variable changed_;
    std::list<Client> clients_;
    bool stop_ = false;
    std::thread thread_;
};

} // namespace quendreld
