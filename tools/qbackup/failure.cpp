// SPDX-License-Identifier: GPL-2.0-only
#include "failure.h"

#include <cerrno>
#include <cstring>

namespace qbackup
{

Interrupted::Interrupted(int signal)
    : Failure{128 + signal, std::string{"interrupted by signal "} + std::to_string(signal) + " (" + strsignal(signal) +
                                "); nothing was kept of this run"}
{
}

void throwIfStopped(const StopSignal& stop)
{
    if (const int signal = stop.load(std::memory_order_relaxed); signal != 0)
        throw Interrupted{signal};
}

Exit exitOf(int number, Exit otherwise) { return number == EACCES || number == EPERM ? Exit::denied : otherwise; }

std::string errnoText(int number) { return std::strerror(number); }

} // namespace qbackup
