// SPDX-License-Identifier: GPL-2.0-only
// printk, into a ring of lines that tests and users read.
#include "task.h"

#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <deque>
#include <mutex>

namespace
{

constexpr std::size_t ring_lines = 65536;

struct Log {
    std::mutex mutex; // guards the rest; innermost, printk is allowed with any lock held
    std::deque<std::string> lines;
    std::shared_ptr<std::function<void(std::string_view)>> sink;
};
Log& the_log()
{
    static hosted::Immortal<Log> log;
    return log.get();
}

// The same format with %p as %lx: one rendering of pointers, hexadecimal without prefix.
std::string plain_pointers(const char* format)
{
    std::string out(format);
    for (std::size_t at = 0; (at = out.find('%', at)) != std::string::npos; at += 2) {
        if (at + 1 < out.size() && out[at + 1] == 'p')
            out.replace(at, 2, "%lx");
    }
    return out;
}

} // namespace

// May be called with any lock held and by what knows no exceptions: a line for which there is no memory is lost.
int printk(const char* format, ...)
try {
    static_assert(sizeof(void*) == sizeof(unsigned long));
    std::string converted;
    if (std::strstr(format, "%p")) {
        converted = plain_pointers(format);
        format = converted.c_str();
    }
    char text[1024];
    va_list arguments;
    va_start(arguments, format);
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-nonliteral"
    int length = vsnprintf(text, sizeof text, format, arguments);
#pragma GCC diagnostic pop
    va_end(arguments);
    if (length < 0)
        return length;
    std::string line(text);
    Log& log = the_log();
    std::shared_ptr<std::function<void(std::string_view)>> sink;
    {
        std::lock_guard lock(log.mutex);
        if (log.lines.size() == ring_lines)
            log.lines.pop_front();
        log.lines.push_back(line);
        sink = log.sink;
    }
    if (sink)
        (*sink)(line);
    return length;
} catch (const std::bad_alloc&) {
    return 0;
}

namespace hosted
{

std::vector<std::string> log_lines()
{
    Log& log = the_log();
    std::lock_guard lock(log.mutex);
    return {log.lines.begin(), log.lines.end()};
}

void log_clear()
{
    Log& log = the_log();
    std::lock_guard lock(log.mutex);
    log.lines.clear();
}

void log_set_sink(std::function<void(std::string_view)> sink)
{
    Log& log = the_log();
    auto shared = sink ? std::make_shared<std::function<void(std::string_view)>>(std::move(sink)) : nullptr;
    std::lock_guard lock(log.mutex);
    log.sink = std::move(shared);
}

} // namespace hosted
