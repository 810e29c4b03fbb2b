/* SPDX-License-Identifier: GPL-2.0-only */
// Unix sockets by name: to listen on and to connect to.
#pragma once

#include "base/descriptor.h"
#include "files.h"

namespace qbackup
{

// A listening socket that only this user can connect to. Throws Failure.
base::Descriptor listenOn(const fs::path& path);
// None, and errno is set, when nobody listens there.
base::Descriptor connectTo(const fs::path& path);

// A listening socket whose name goes with it. One that a dead program left is replaced.
class NamedSocket
{
  public:
    // Throws Failure, also when somebody listens there.
    explicit NamedSocket(fs::path path);
    ~NamedSocket();
    NamedSocket(const NamedSocket&) = delete;
    NamedSocket& operator=(const NamedSocket&) = delete;

    int fd() const noexcept { return listening_.get(); }

  private:
    fs::path path_;
    base::Descriptor listening_;
};

} // namespace qbackup
