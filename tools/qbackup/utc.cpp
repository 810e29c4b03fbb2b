// SPDX-License-Identifier: GPL-2.0-only
#include "utc.h"

#include <array>
#include <chrono>
#include <ctime>

namespace qbackup
{
namespace
{

std::string written(std::time_t when, const char* format)
{
    std::tm utc{};
    ::gmtime_r(&when, &utc);
    std::array<char, 64> text{};
    return {text.data(), std::strftime(text.data(), text.size(), format, &utc)};
}

} // namespace

std::string utcNow(const char* format)
{
    // Not time(): the C library answers that from a clock that kernels before 2.6.32 do not have, and does not notice.
    return written(std::chrono::system_clock::to_time_t(std::chrono::system_clock::now()), format);
}

std::optional<Utc> utcOf(const std::string& text)
{
    for (const char* format : {"%Y-%m-%dT%H:%M:%S", "%Y-%m-%dT%H:%M", "%Y-%m-%d %H:%M:%S", "%Y-%m-%d %H:%M", "%Y-%m-%d"}) {
        std::tm time{};
        const char* rest = ::strptime(text.c_str(), format, &time);
        if (rest == nullptr)
            continue;
        const bool utc = *rest == 'Z';
        if (rest[utc ? 1 : 0] != '\0')
            continue;
        if (std::string{format} == "%Y-%m-%d") {
            time.tm_hour = 23;
            time.tm_min = 59;
        }
        // A day is its end, and so is a minute.
        if (!std::string{format}.ends_with("%S"))
            time.tm_sec = 59;
        time.tm_isdst = -1;
        // The 30th of February is a day of March to these.
        const std::tm asked = time;
        const std::time_t when = utc ? ::timegm(&time) : std::mktime(&time);
        if (when == -1 || time.tm_mday != asked.tm_mday || time.tm_mon != asked.tm_mon)
            return std::nullopt;
        return Utc{written(when, "%Y-%m-%dT%H:%M:%SZ"), written(when, "%Y%m%dT%H%M%SZ")};
    }
    return std::nullopt;
}

} // namespace qbackup
