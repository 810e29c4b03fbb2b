// SPDX-License-Identifier: GPL-2.0-only
#include "dead_files.h"

#include <sys/types.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdlib>

namespace qbackup
{
namespace
{

bool isNumber(const std::string& text) { return !text.empty() && text.find_first_not_of("0123456789") == std::string::npos; }

bool isAnother(pid_t process) { return process != ::getpid() && (::kill(process, 0) == 0 || errno != ESRCH); }

} // namespace

void removeDeadFiles(const fs::path& directory, const std::string& begin)
{
    std::error_code error;
    for (fs::directory_iterator entry{directory, error}, end; !error && entry != end; entry.increment(error)) {
        const std::string name = entry->path().filename();
        if (!name.starts_with(begin) || !isNumber(name.substr(begin.size())))
            continue;
        std::error_code kept;
        if (!isAnother(static_cast<pid_t>(std::strtol(name.c_str() + begin.size(), nullptr, 10))))
            fs::remove(entry->path(), kept);
    }
}

} // namespace qbackup
