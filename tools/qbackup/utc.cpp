// SPDX-License-Identifier: GPL-2.0-only
#include "utc.h"

#include <chrono>
#include <ctime>

namespace qbackup
{

std::string utcNow(const char* format)
{
    // Not time(): the C library answers that from a clock that kernels before 2.6.32 do not have, and does not notice.
    const std::time_t seconds = std::chrono::system_clock::to_time_t(std::chrono::system_clock::now());
    std::tm utc{};
    ::gmtime_r(&seconds, &utc);
    char text[32];
    return {text, std::strftime(text, sizeof text, format, &utc)};
}

} // namespace qbackup
