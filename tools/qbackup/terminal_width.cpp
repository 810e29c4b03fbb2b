// SPDX-License-Identifier: GPL-2.0-only
#include "terminal_width.h"

#include <sys/ioctl.h>

#include <algorithm>
#include <cstdlib>

namespace qbackup
{

std::optional<unsigned> terminalColumns(int fd)
{
    const char* named = std::getenv("COLUMNS");
    if (const long columns = named != nullptr ? std::strtol(named, nullptr, 10) : 0; columns > 0)
        return static_cast<unsigned>(std::min(columns, 1000L));
    winsize size{};
    if (::ioctl(fd, TIOCGWINSZ, &size) == 0 && size.ws_col > 0)
        return size.ws_col;
    return std::nullopt;
}

} // namespace qbackup
