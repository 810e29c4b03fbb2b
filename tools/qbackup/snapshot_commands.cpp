// SPDX-License-Identifier: GPL-2.0-only
#include "snapshot_commands.h"

#include <exception>

namespace qbackup
{
namespace
{

std::string shown(const std::vector<std::string>& words)
{
    std::string text;
    for (const std::string& word : words)
        text += (text.empty() ? "" : " ") + word;
    return "'" + text + "'";
}

} // namespace

SnapshotCommands::SnapshotCommands(const CommandsAround& commands, const std::string& job, const std::string& device,
                                   const StopSignal& stop)
    : commands_{commands}, device_{device},
      environment_{{"QBACKUP_JOB", job}, {"QBACKUP_DEVICE", device}}, stop_{stop}, due_{commands.before.empty()}
{
}

void SnapshotCommands::before()
{
    if (commands_.before.empty())
        return;
    TimedCommand command{commands_.before, environment_};
    due_ = true;
    if (const auto problem = command.wait(commands_.timeout, &stop_))
        throw Failure{Exit::failed, "the backup of " + device_ + " failed: the command before its snapshot, " +
                                        shown(commands_.before) + ", " + *problem +
                                        ". No snapshot was taken, and nothing was kept"};
}

void SnapshotCommands::after() noexcept
try {
    if (!due_ || commands_.after.empty())
        return;
    std::string what;
    try {
        what = TimedCommand{commands_.after, environment_}.wait(commands_.timeout, nullptr).value_or("");
    } catch (const Failure& failure) {
        what = "was not run: " + std::string{failure.what()};
    }
    if (!what.empty())
        problem_ = "the command after the snapshot of " + device_ + ", " + shown(commands_.after) + ", " + what +
                   "; what it was to let go on may stand still";
} catch (const std::exception&) {
    problem_.emplace(); // no memory to tell more
}

} // namespace qbackup
