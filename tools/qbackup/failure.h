/* SPDX-License-Identifier: GPL-2.0-only */
// How qbackup fails: one exception with an exit code and a text for the person who reads it.
#pragma once

#include <atomic>
#include <stdexcept>
#include <string>

namespace qbackup
{

// The documented exit codes. An interrupted run ends with 128 + the signal's number.
enum class Exit {
    ok = 0,
    failed = 1,  // something went wrong on the way; nothing half-done is left behind
    usage = 2,   // bad arguments
    refused = 3, // refused before anything was started
    busy = 4,    // another backup runs
    damaged = 5, // a stored backup is damaged or its chain is incomplete
    warned = 6,  // done, but otherwise than asked for
    nothing = 7, // there is no backup where one was looked for
    denied = 8,  // no permission
};

// Says what happened, to what, and what to do next.
class Failure : public std::runtime_error
{
  public:
    Failure(Exit code, const std::string& text) : std::runtime_error{text}, code_{static_cast<int>(code)} {}
    int exitCode() const noexcept { return code_; }

  protected:
    Failure(int code, const std::string& text) : std::runtime_error{text}, code_{code} {}

  private:
    int code_;
};

class Interrupted : public Failure
{
  public:
    explicit Interrupted(int signal);
};

// The signal that asked the program to end, 0 while none did. Set by a signal handler, looked at between two steps.
using StopSignal = std::atomic<int>;
void throwIfStopped(const StopSignal& stop);

// "No space left on device" and the like, for messages.
std::string errnoText(int number);
// The exit code of a run that such an error ends: `denied`, or what is given.
Exit exitOf(int number, Exit otherwise = Exit::failed);

} // namespace qbackup
