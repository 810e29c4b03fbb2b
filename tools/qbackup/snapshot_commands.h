/* SPDX-License-Identifier: GPL-2.0-only */
// The commands that a job runs around the snapshot of a device: one that makes what writes there ready for it, and one
// that lets that go on. The one behind it is run exactly once when the one before it was started, whatever came of
// that.
#pragma once

#include "failure.h"
#include "timed_command.h"

#include <chrono>
#include <map>
#include <optional>
#include <string>
#include <vector>

namespace qbackup
{

struct CommandsAround {
    std::vector<std::string> before; // empty: none
    std::vector<std::string> after;
    std::chrono::seconds timeout{60}; // for each
    bool any() const noexcept { return !before.empty() || !after.empty(); }
};

class SnapshotCommands
{
  public:
    // `stop` ends the one before the snapshot, and not the other one.
    SnapshotCommands(const CommandsAround& commands, const std::string& job, const std::string& device,
                     const StopSignal& stop);

    // Throws Failure when it does not do well in time, Interrupted.
    void before();
    void after() noexcept;
    // Why the latter did not do well.
    const std::optional<std::string>& problem() const noexcept { return problem_; }

  private:
    const CommandsAround& commands_;
    std::string device_;
    std::map<std::string, std::string> environment_;
    const StopSignal& stop_;
    bool due_ = false; // the one behind the snapshot
    std::optional<std::string> problem_;
};

} // namespace qbackup
