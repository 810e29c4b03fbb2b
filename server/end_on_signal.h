/* SPDX-License-Identifier: GPL-2.0-only */
// Ending on SIGTERM, SIGINT, SIGQUIT or SIGHUP, with clients connected.
//
// nbdkit by itself ends when its last client has left, and an idle client may stay for days. So the signals are
// taken by a thread of ours: it tells nbdkit to end, then closes the reading side of every NBD connection. What was
// asked before is still answered; a client that does not take its answers is cut off a little later.
#pragma once

#include <atomic>
#include <string>
#include <thread>

namespace quendreld
{

class EndOnSignal
{
  public:
    // Blocks the signals in the calling thread and so in all that it starts from now on: to be called before there
    // are other threads. `nbd_socket`: path of the listening socket; `end`: tells the server to end.
    EndOnSignal(std::string nbd_socket, void (*end)());
    ~EndOnSignal(); // the server has let go of its connections

  private:
    void run();

    const std::string nbd_socket_;
    void (*const end_)();
    std::atomic<bool> over_ = false;
    std::thread thread_;
};

} // namespace quendreld
