/* SPDX-License-Identifier: GPL-2.0-only */
// Starting and stopping the daemon: everything that is checked and prepared before the process begins, so that
// a mistake of the caller is answered at once and in words.
#pragma once

#include "config.h"

#include <functional>
#include <string>
#include <vector>

namespace quendreld
{

// Checks each path: a regular file or block device of a usable size, readable and (unless read_only) writable, not
// named twice, not in use at this moment (the daemon locks it), not a loop device's backing file, and, unless `raw` says
// that the bytes are the disk's whatever they look like, not a container that holds a disk. The result: absolute paths.
// Throws std::runtime_error that names the path and what to do.
std::vector<std::string> check_images(const std::vector<std::string>& paths, bool read_only, bool raw = false);

// Becomes the daemon (foreground), or starts one and returns when it is ready; `started` is called when it is. The
// result is an exit status. Throws std::runtime_error when it could not be started; the message of what went wrong
// inside is part of it. The images have been checked. To be called while the process has one thread.
int launch(const Config& config, const std::function<void()>& started);

// Ends the daemon of a run directory and waits until it is gone. Throws std::runtime_error when none runs, when a
// disk is mounted on this host (unless `force`), when it does not end, or when it ended without having made everything
// durable.
void stop_daemon(const std::string& run_dir, bool force);

} // namespace quendreld
