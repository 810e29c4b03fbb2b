/* SPDX-License-Identifier: GPL-2.0-only */
// A listening Unix socket, and the taking of connections when the host is short of something.
//
// The socket appears under its name with its final owner and mode: it is made under another name first. A connection
// that cannot be taken, because descriptors or memory have run out, stays in the kernel's queue; whoever listens then
// waits a little before it tries again, and says so at most once a second.
#pragma once

#include "base/descriptor.h"

#include <sys/types.h>

#include <chrono>
#include <functional>
#include <initializer_list>
#include <mutex>
#include <string>
#include <string_view>

namespace quendreld
{

// Lines that somebody outside could cause by the thousand: at most one a second; the next one tells how many were left
// out. A line for which there is no memory is left out as well.
class QuietReport
{
  public:
    explicit QuietReport(std::function<void(std::string_view)> report) : report_(std::move(report)) {}
    void operator()(std::string_view line) noexcept { (*this)({line}); } // from any thread
    void operator()(std::initializer_list<std::string_view> parts) noexcept;

  private:
    std::function<void(std::string_view)> report_;
    std::mutex mutex_; // guards what follows; innermost but for the log's
    std::chrono::steady_clock::time_point next_{};
    unsigned left_out_ = 0;
};

class Listener
{
  public:
    struct Options {
        std::string path;
        int type = 0;             // SOCK_STREAM, SOCK_SEQPACKET
        gid_t group = gid_t(-1);  // -1: the process's own
        bool credentials = false; // every packet carries its sender's (SO_PASSCRED)
        std::function<void(std::string_view)> report = [](std::string_view) {};
    };
    static constexpr std::size_t longest_path = 103; // sun_path, less what the other name adds

    explicit Listener(Options options); // mode 0660; throws std::system_error
    ~Listener();                        // takes the name away

    // The next connection (close-on-exec), or nothing: `wake` was called, or it could not be taken.
    base::Descriptor accept();
    // Makes the accept under way, or else the next one, come back. From any thread.
    void wake();

  private:
    void rest(int ms);

    const std::string path_;
    base::Descriptor socket_;
    base::Descriptor wake_; // an eventfd
    QuietReport report_;
};

} // namespace quendreld
