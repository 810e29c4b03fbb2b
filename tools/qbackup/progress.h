/* SPDX-License-Identifier: GPL-2.0-only */
// What a long run shows on standard error: a bar on a terminal, else a line now and then; nothing when quiet.
#pragma once

#include <chrono>
#include <cstdint>
#include <string>

namespace qbackup
{

// What a bar's line says. `columns`: of the terminal, of which it leaves the last one free, as a line that wraps cannot be
// written over; what does not fit goes, first the bar, then the numbers, then the end of the line.
std::string barLine(const std::string& what, double part, const std::string& numbers, const std::string& left, unsigned columns);

class Progress
{
  public:
    enum class Style { none, lines, bar };

    explicit Progress(Style style) : style_{style} {}
    // A bar when standard error is a terminal, lines otherwise.
    static Style styleFor(bool quiet);

    // One line for the person watching, as "backing up sda1 in full: ...".
    void say(const std::string& line);
    // Something that asks for attention; shown even when quiet.
    void warn(const std::string& line);
    void begin(const std::string& what, std::uint64_t total_bytes);
    void advance(std::uint64_t bytes);
    void end();

  private:
    using Clock = std::chrono::steady_clock;

    void show(Clock::time_point now);
    void clearBar();

    Style style_;
    std::string what_;
    std::uint64_t total_ = 0;
    std::uint64_t done_ = 0;
    Clock::time_point started_;
    Clock::time_point next_;
    bool bar_shown_ = false;
};

} // namespace qbackup
