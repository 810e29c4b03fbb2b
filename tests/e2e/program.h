/* SPDX-License-Identifier: GPL-2.0-only */
// A program that runs beside the test: it can be watched, stopped, continued and killed at any moment.
#pragma once

#include <sys/types.h>

#include <chrono>
#include <string>
#include <vector>

namespace serving
{

class Program
{
  public:
    // Starts it (no shell). It does not outlive the thread that called this, however that ends. Its standard output and error go to `output`.out and `output`.err.
    Program(std::vector<std::string> words, std::string output);
    ~Program(); // kills what still runs
    Program(const Program&) = delete;
    Program& operator=(const Program&) = delete;

    pid_t pid() const { return pid_; }
    bool running();
    void signal(int number);
    // Sends SIGSTOP and waits until it has stopped. False: it had ended before.
    bool stop();
    // Waits for its end: its exit status, 128 + n when signal n ended it, -1 when the time is over.
    int wait(std::chrono::seconds limit = std::chrono::seconds(60));
    std::string out() const;
    std::string err() const;

  private:
    void note(int status); // of waitpid

    std::string output_;
    pid_t pid_ = -1;
    bool ended_ = false, stopped_ = false;
    int status_ = -1;
};

std::string read_text(const std::string& path); // empty when it cannot be read

} // namespace serving
