/* SPDX-License-Identifier: GPL-2.0-only */
// A daemon's life in its process: made, ready, told to end, ended.
#pragma once

#include "base/descriptor.h"
#include "config.h"
#include "run_dir.h"

#include <functional>
#include <string>

namespace quendreld
{

// What RUN/ended says when everything went well. Any other text tells what did not.
constexpr const char* ended_well = "ok\n";

// Serves until SIGTERM, SIGINT, SIGQUIT or SIGHUP, then ends the daemon and leaves RUN/ended behind. `ready` is called
// once, when clients can come; a service manager is told by itself. The result is the process's exit status: 0, or 1 when
// something accepted may not be on its disk. To be called while the process has one thread, with the lock of `run` held,
// which outlives the call. Throws std::exception when the daemon cannot be made.
int run_service(const Config& config, const RunDir& run, const std::function<void()>& ready);

} // namespace quendreld
