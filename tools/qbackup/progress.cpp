// SPDX-License-Identifier: GPL-2.0-only
#include "progress.h"

#include "files.h"
#include "terminal_width.h"

#include <unistd.h>

#include <algorithm>
#include <cstdio>

namespace qbackup
{
namespace
{

constexpr auto bar_interval = std::chrono::milliseconds{200};
constexpr auto line_interval = std::chrono::seconds{10};
constexpr std::size_t most_bar = 30;
constexpr std::size_t least_bar = 5;
constexpr unsigned usual_columns = 80;

} // namespace

std::string barLine(const std::string& what, double part, const std::string& numbers, const std::string& left, unsigned columns)
{
    const std::size_t room = columns > 1 ? columns - 1 : 1;
    char percent[8];
    std::snprintf(percent, sizeof percent, "%3.0f%%", part * 100);
    std::string line = what + " " + percent + " " + numbers + ", " + left;
    if (line.size() + least_bar + 3 <= room) {
        const std::size_t width = std::min(most_bar, room - line.size() - 3);
        std::string bar(width, ' ');
        for (std::size_t i = 0; i < width && static_cast<double>(i) < part * static_cast<double>(width); ++i)
            bar[i] = '#';
        line.insert(what.size() + 1, "[" + bar + "] ");
    } else if (line.size() > room) {
        line = what + " " + percent + ", " + left;
    }
    std::size_t end = std::min(line.size(), room);
    // Not in the midst of a character.
    while (end < line.size() && end > 0 && (static_cast<unsigned char>(line[end]) & 0xc0) == 0x80)
        --end;
    line.resize(end);
    return line;
}

Progress::Style Progress::styleFor(bool quiet)
{
    if (quiet)
        return Style::none;
    return ::isatty(STDERR_FILENO) == 1 ? Style::bar : Style::lines;
}

void Progress::say(const std::string& line)
{
    if (style_ == Style::none)
        return;
    clearBar();
    std::fprintf(stderr, "%s\n", line.c_str());
}

void Progress::warn(const std::string& line)
{
    clearBar();
    std::fprintf(stderr, "qbackup: warning: %s\n", line.c_str());
}

void Progress::begin(const std::string& what, std::uint64_t total_bytes)
{
    what_ = what;
    total_ = total_bytes;
    done_ = 0;
    started_ = Clock::now();
    next_ = started_ + (style_ == Style::bar ? Clock::duration{bar_interval} : Clock::duration{line_interval});
}

void Progress::advance(std::uint64_t bytes)
{
    done_ += bytes;
    if (style_ == Style::none)
        return;
    if (const auto now = Clock::now(); now >= next_) {
        show(now);
        next_ = now + (style_ == Style::bar ? Clock::duration{bar_interval} : Clock::duration{line_interval});
    }
}

void Progress::end()
{
    clearBar();
    if (style_ == Style::none)
        return;
    const std::chrono::duration<double> seconds = Clock::now() - started_;
    const double rate = seconds.count() > 0 ? static_cast<double>(done_) / seconds.count() : 0;
    std::fprintf(stderr, "%s: %s in %.1f s (%s/s)\n", what_.c_str(), formatBytes(done_).c_str(), seconds.count(),
                 formatBytes(static_cast<std::uint64_t>(rate)).c_str());
}

void Progress::show(Clock::time_point now)
{
    const double part = total_ == 0 ? 1.0 : static_cast<double>(done_) / static_cast<double>(total_);
    const std::chrono::duration<double> seconds = now - started_;
    const double left = part > 0 ? seconds.count() * (1 - part) / part : 0;
    const double rate = seconds.count() > 0 ? static_cast<double>(done_) / seconds.count() : 0;
    const std::string counts = formatBytes(done_) + " of " + formatBytes(total_) + ", " +
                               formatBytes(static_cast<std::uint64_t>(rate)) + "/s";
    if (style_ == Style::lines) {
        std::fprintf(stderr, "%s: %s (%.0f%%), about %.0f s left\n", what_.c_str(), counts.c_str(), part * 100, left);
        return;
    }
    char rest[48];
    std::snprintf(rest, sizeof rest, "%.0f s left", left);
    // It may be made wider or narrower meanwhile.
    const unsigned columns = terminalColumns(STDERR_FILENO).value_or(usual_columns);
    std::fprintf(stderr, "\r%s\033[K", barLine(what_, part, counts, rest, columns).c_str());
    bar_shown_ = true;
}

void Progress::clearBar()
{
    if (bar_shown_)
        std::fprintf(stderr, "\r\033[K");
    bar_shown_ = false;
}

} // namespace qbackup
