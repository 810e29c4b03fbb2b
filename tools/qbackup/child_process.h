/* SPDX-License-Identifier: GPL-2.0-only */
// Another program, run as a child; what it prints is kept.
#pragma once

#include "base/descriptor.h"

#include <sys/types.h>

#include <map>
#include <string>
#include <vector>

namespace qbackup
{

class ChildProcess
{
  public:
    // Looks for words[0] in PATH. `inherited`: becomes descriptor 3 there; -1: none. Throws Failure: refused, with
    // `package` in the text, when the program is not there.
    ChildProcess(const std::vector<std::string>& words, const std::string& package, int inherited = -1);
    // Kills it if it still runs.
    ~ChildProcess();
    ChildProcess(const ChildProcess&) = delete;
    ChildProcess& operator=(const ChildProcess&) = delete;

    bool running();
    // Until it has ended. Whether it did so with exit code 0.
    bool wait();
    // Its last words on standard error, one line.
    std::string said() const;
    std::vector<std::string> linesSaid() const; // all that it has written to it
    // What it has printed on standard output.
    std::string output() const;

  private:
    void reap(int options);

    pid_t pid_ = -1; // none: it has been waited for
    bool ended_well_ = false;
    base::Descriptor output_;
    base::Descriptor errors_;
};

// The command that has a program find the listening socket that it inherits as descriptor 3, as one does that a service
// manager hands its socket. It is killed when the thread ends that has started it.
std::vector<std::string> withSocket(const std::vector<std::string>& words);

// A command that is killed when the thread ends that has started it.
std::vector<std::string> endingWithThis(const std::vector<std::string>& words);

struct Streams {
    int output;         // becomes its standard output; its standard input is empty
    int errors = 2;     // its standard error
    int inherited = -1; // becomes descriptor 3 there; -1: none
};
// Starts a program, looked for in PATH, in a group of its own: what ends this program from a terminal is for this program to
// pass on. Signals are as at the start of any program. `environment`: beside this program's own. An error number, or 0.
int spawn(pid_t& pid, const std::vector<std::string>& words, const Streams& streams,
          const std::map<std::string, std::string>& environment = {});

// Whether a program is to be found in PATH.
bool isInstalled(const std::string& program);

} // namespace qbackup
