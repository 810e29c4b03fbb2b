/* SPDX-License-Identifier: GPL-2.0-only */
// A command of the user's: a program with its arguments, run without a shell in a process group of its own, for a
// limited time. It reads nothing, and what it prints goes to standard error.
#pragma once

#include "failure.h"

#include <sys/types.h>

#include <chrono>
#include <map>
#include <optional>
#include <string>
#include <vector>

namespace qbackup
{

class TimedCommand
{
  public:
    // Starts it. `environment`: beside this program's own. Throws Failure.
    TimedCommand(const std::vector<std::string>& words, const std::map<std::string, std::string>& environment);
    // Kills its group if it still runs.
    ~TimedCommand();
    TimedCommand(const TimedCommand&) = delete;
    TimedCommand& operator=(const TimedCommand&) = delete;

    // Waits until it has ended. After `most`, or when `stop` is set, its group is asked to end, and killed a little
    // later. What went wrong, as "ended with exit code 3"; nothing when it has done well. Throws Interrupted.
    std::optional<std::string> wait(std::chrono::seconds most, const StopSignal* stop);

  private:
    // Looks, and leaves it to be waited for: until then nobody else gets its number, which is its group's.
    bool hasEnded() const;
    bool endsWithin(std::chrono::milliseconds most, const StopSignal* stop) const;
    bool endGroup();

    pid_t pid_ = -1; // none: it has been waited for
};

// Whether a command can be started by that name: that of a file, or of one in PATH. Throws Failure (refused) when not.
void expectCommand(const std::string& name);

} // namespace qbackup
