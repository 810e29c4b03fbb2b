// SPDX-License-Identifier: GPL-2.0-only
#include "memory_pressure.h"

#include <sys/prctl.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <fstream>

namespace quendreld
{

std::string spare_from_oom_killer()
{
    constexpr const char* file = "/proc/self/oom_score_adj";
    int now = 0;
    if (::geteuid() != 0 || (std::ifstream(file) >> now && now != 0))
        return {};
    errno = 0;
    if (std::ofstream(file) << -900 << std::flush)
        return {};
    return std::string("short memory may end this process (") + file + ": " + std::strerror(errno) + ")";
}

std::string allocate_without_disks()
{
    if (::prctl(PR_SET_IO_FLUSHER, 1, 0, 0, 0) == 0)
        return {};
    return std::string("memory may wait for the disks that are served here (PR_SET_IO_FLUSHER: ") +
           std::strerror(errno) + "); give it CAP_SYS_RESOURCE";
}

} // namespace quendreld
