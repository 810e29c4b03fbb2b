// SPDX-License-Identifier: GPL-2.0-only
#include "log_file.h"

#include <fcntl.h>
#include <sys/time.h>

#include <cerrno>
#include <cstdio>
#include <ctime>
#include <system_error>

namespace quendreld
{

namespace
{

constexpr std::size_t most_lines = 4096;

std::string time_now()
{
    timeval now;
    ::gettimeofday(&now, nullptr);
    tm parts;
    ::gmtime_r(&now.tv_sec, &parts);
    char text[64];
    std::snprintf(text, sizeof text, "%04d-%02d-%02dT%02d:%02d:%02d.%03dZ ", parts.tm_year + 1900, parts.tm_mon + 1,
                  parts.tm_mday, parts.tm_hour, parts.tm_min, parts.tm_sec, int(now.tv_usec / 1000));
    return text;
}

void put(int fd, const std::string& text)
{
    // A log that cannot be written is no reason to stop serving disks.
    [[maybe_unused]] const auto written = ::write(fd, text.data(), text.size());
}

void put(int fd, std::size_t dropped)
try {
    put(fd, time_now() + std::to_string(dropped) + " lines dropped here\n");
} catch (const std::bad_alloc&) { // the next ones are told of
}

} // namespace

LogFile::LogFile(const std::string& path, bool echo)
    : fd_(::open(path.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_NOFOLLOW | O_CLOEXEC, 0640)), echo_(echo)
{
    if (!fd_)
        throw std::system_error(errno, std::generic_category(), path + ": cannot open the log");
    thread_ = std::thread([this] { run(); });
}

LogFile::~LogFile()
{
    {
        std::lock_guard lock(mutex_);
        stop_ = true;
    }
    wake_.notify_one();
    thread_.join();
}

void LogFile::print(std::string_view line) noexcept
try {
    if (line.size() >= 3 && line[0] == '<' && line[2] == '>')
        line.remove_prefix(3);
    while (!line.empty() && line.back() == '\n')
        line.remove_suffix(1);
    std::string text = time_now();
    text += line;
    text += '\n';
    {
        std::lock_guard lock(mutex_);
        if (lines_.size() >= most_lines) {
            ++dropped_;
            return;
        }
        lines_.push_back(std::move(text));
    }
    wake_.notify_one();
} catch (const std::bad_alloc&) {
    std::lock_guard lock(mutex_);
    ++dropped_;
}

void LogFile::run()
{
    std::unique_lock lock(mutex_);
    for (;;) {
        wake_.wait(lock, [this] { return stop_ || !lines_.empty(); });
        if (lines_.empty())
            return;
        writing_.swap(lines_);
        const std::size_t dropped = std::exchange(dropped_, 0);
        lock.unlock();
        for (const std::string& line : writing_) {
            put(fd_.get(), line);
            if (echo_)
                put(STDERR_FILENO, line);
        }
        writing_.clear();
        if (dropped)
            put(fd_.get(), dropped);
        lock.lock();
    }
}

} // namespace quendreld
