/* SPDX-License-Identifier: GPL-2.0-only */
// Shows a backup as a block device over NBD, for reading: the image with all that it lies over.
#pragma once

#include "failure.h"
#include "repository.h"

#include <functional>
#include <string>

namespace qbackup
{

// Serves on the Unix socket `socket` until `stop` is raised. `ready` is called with the URI once clients can connect.
// Throws Failure.
void serveBackup(const StoredBackup& found, const fs::path& socket, const StopSignal& stop,
                 const std::function<void(const std::string& uri)>& ready);

} // namespace qbackup
