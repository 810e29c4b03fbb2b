/* SPDX-License-Identifier: GPL-2.0-only */
// The guardian: a small process that freezes and thaws mounted file systems for the daemon.
//
// A file system that stays frozen after the daemon died would hang every writer on this host for good. So the one
// that freezes is not the daemon but a process of its own: it serves no disk (freezing flushes through the daemon,
// and whoever serves must not wait for that), it knows which freezes are its own, and when its socket ends it thaws
// them and leaves. It is forked before the daemon has threads.
#pragma once

#include "base/descriptor.h"

#include <mutex>
#include <string>

namespace quendreld
{

// Forks the guardian; the result is the daemon's end of the socket, inherited over exec. Throws std::system_error.
// The guardian holds no other descriptor; of all signals only SIGKILL ends it.
base::Descriptor start_guardian();

// The daemon's side. Any thread may call; one request is under way at a time.
class Guardian
{
  public:
    explicit Guardian(base::Descriptor socket) : socket_(std::move(socket)) {}

    // Freezes the file system that an open directory lies in; the guardian keeps it open until the thaw. 0 or a negative
    // errno: -EBUSY when it is frozen already (and is left so), -EPIPE when the guardian is gone, -ECONNRESET when it
    // went with the question, which it may have acted on.
    int freeze(int directory, unsigned& id);
    int thaw(unsigned id); // what freeze answered with id

  private:
    int ask(unsigned operation, unsigned& id, int fd);

    std::mutex mutex_; // one request at a time; innermost
    base::Descriptor socket_;
};

} // namespace quendreld
