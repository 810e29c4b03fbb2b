// SPDX-License-Identifier: GPL-2.0-only
#include "common.h"

#include <cerrno>
#include <chrono>
#include <thread>

namespace qbackup
{

void requireControl(const fs::path& control)
{
    std::error_code error;
    if (!fs::exists(control, error))
        throw Failure{Exit::refused, "there is no control device at " + control.string() +
                                         ": load the driver (modprobe quendrel) or start the daemon, and name its "
                                         "socket with --control or QUENDREL_CONTROL"};
}

// A daemon may still be closing the file of a run that was killed a moment ago.
quendrel::ControlDevice openControl(const fs::path& control)
{
    constexpr auto patience = std::chrono::seconds{10};
    const auto give_up = std::chrono::steady_clock::now() + patience;
    for (;;) {
        try {
            return quendrel::ControlDevice{control.string()};
        } catch (const quendrel::Error& error) {
            const bool busy = error.code() == QUENDREL_BUSY || error.code() == -EBUSY;
            if (!busy || std::chrono::steady_clock::now() >= give_up)
                throw Failure{busy ? Exit::busy : exitOf(-error.code(), Exit::refused), error.what()};
        }
        std::this_thread::sleep_for(std::chrono::milliseconds{100});
    }
}

Host hostCalled(const std::string& name)
{
    Host host = thisHost();
    if (!name.empty())
        host.name = name;
    return host;
}

CLI::Option* addWait(CLI::App& command, std::uint64_t& seconds)
{
    return command.add_option("--wait", seconds, "Seconds to wait for another run to end (without a number: a day)")
        ->expected(0, 1)
        ->default_str("86400")
        ->option_text("[SECONDS]")
        ->check(CLI::Range(0u, 1000000000u));
}

CLI::Option* addMode(CLI::App& command, Wanted& wanted)
{
    return command.add_option("--mode", wanted, "auto, full or inc; inc and auto take a full backup when they must")
        ->transform(CLI::Transformer{wanted_modes})
        ->option_text("MODE")
        ->default_str("auto");
}

void addKeepRules(CLI::App& command, KeepRules& rules)
{
    command.add_option("--keep-last", rules.last, "Keep so many of the newest");
    command.add_option("--keep-hourly", rules.hourly, "Keep the newest of each hour that has one, for so many of them");
    command.add_option("--keep-daily", rules.daily, "The same of days");
    command.add_option("--keep-weekly", rules.weekly, "The same of weeks (from Monday on)");
    command.add_option("--keep-monthly", rules.monthly, "The same of months");
    command.add_option("--keep-yearly", rules.yearly, "The same of years");
}

void addAt(CLI::App& command, std::string& at)
{
    command.add_option("--at", at,
                       "Which one, where --from has several: an id, or the newest up to a time, as 2026-11-21 or\n"
                       "2026-11-21T11:16, to their end (of this machine's clock; with a Z behind it UTC, as list shows it)");
}

} // namespace qbackup
