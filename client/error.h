/* SPDX-License-Identifier: GPL-2.0-only */
// The one way this library reports failure.
//
// An Error says which command failed, on what device, with which code and what the code means, and what can be done
// about it. Codes are the driver's own small positive numbers (quendrel_result) or negative errno values; failures of
// the library itself (a socket that cannot be reached, a reply of a wrong size) carry negative errno values as well.
#pragma once

#include <stdexcept>
#include <string>
#include <string_view>

namespace quendrel
{

class Error : public std::runtime_error
{
  public:
    // `command` as in "StartBackup", `device` as in "8:1", or empty when the command is for no device in particular;
    // `via` is the path of the control device or socket. `note` is added at the end; empty for none.
    Error(std::string_view command, std::string_view device, std::string_view via, int code,
          std::string_view note = {});

    const std::string& command() const noexcept { return command_; }
    const std::string& device() const noexcept { return device_; }
    const std::string& via() const noexcept { return via_; }
    // A quendrel_result, or a negative errno.
    int code() const noexcept { return code_; }

  private:
    std::string command_;
    std::string device_;
    std::string via_;
    int code_;
};

// What a code means and what to do about it, for the command it came from; one sentence or two, no full stop at the
// end. Never empty.
std::string codeText(std::string_view command, int code);

// What a state of a backup means (quendrel_state), and what to do when it is a failed one.
std::string stateText(unsigned state);

} // namespace quendrel
