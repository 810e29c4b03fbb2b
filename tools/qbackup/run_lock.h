/* SPDX-License-Identifier: GPL-2.0-only */
// One qbackup at a time on one control device.
//
// Opening the control device detaches a backup that another program is running, so the lock is taken before the
// device is opened and held until it is closed. The lock is flock() on a file that names its holder; it goes with the
// process, however that ends, or with the child that ends what may not be interrupted (snapshot.h): that one is waited
// for a while.
#pragma once

#include "file_lock.h"

#include <optional>
#include <string>

namespace qbackup
{

class RunLock
{
  public:
    // Throws Failure (busy) that says who holds it. `purpose` is what others are told, as in "backup of sda1".
    // Whoever may use the control device by its group, when one is given, may use the lock too.
    RunLock(const fs::path& lock_file, const std::string& purpose, const fs::path& control = {},
            const Patience& patience = {});

    // What the present holder says of itself; nothing when nobody holds the lock.
    static std::optional<std::string> holder(const fs::path& lock_file);
    // The lock file for a control device: beside a daemon's socket, in /run/quendrel for a device node.
    static fs::path placeFor(const fs::path& control);

  private:
    File file_;
};

} // namespace qbackup
