/* SPDX-License-Identifier: GPL-2.0-only */
// The daemon's log, RUN/log: one line a message, with the time in front.
//
// A line may be printed by a thread that serves a disk, or under a lock of the driver, so printing never waits for
// the log's file system: lines go to a queue that a thread of its own writes out. When the queue is full lines are
// dropped and counted, and the count is written in their place.
#pragma once

#include "base/descriptor.h"

#include <condition_variable>
#include <deque>
#include <mutex>
#include <string>
#include <string_view>
#include <thread>

namespace quendreld
{

class LogFile
{
  public:
    // Appends to `path`; with `echo` every line goes to standard error too. Throws std::system_error.
    LogFile(const std::string& path, bool echo);
    ~LogFile(); // writes out what is queued

    // One line, with or without its line end, with or without the kernel's priority marker "<n>".
    void print(std::string_view line) noexcept;

  private:
    void run();

    base::Descriptor fd_;
    bool echo_;
    std::deque<std::string> writing_; // of the thread alone; here because even an empty one takes memory
    std::mutex mutex_;                // guards what follows; innermost
    std::condition_variable wake_;
    std::deque<std::string> lines_;
    std::size_t dropped_ = 0;
    bool stop_ = false;
    std::thread thread_;
};

} // namespace quendreld
