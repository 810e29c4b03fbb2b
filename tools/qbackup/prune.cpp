// SPDX-License-Identifier: GPL-2.0-only
#include "prune.h"

#include "folder_hold.h"

#include <algorithm>
#include <array>
#include <ctime>
#include <span>

namespace qbackup
{
namespace
{

// At once: each is a child with an image open.
constexpr std::size_t most_at_once = 16;

// "2026-11-21T11:16:41Z" in a form of strftime's, by this machine's clock.
std::string period(const std::string& time, const char* format)
{
    std::tm utc{};
    ::strptime(time.c_str(), "%Y-%m-%dT%H:%M:%SZ", &utc);
    const std::time_t when = ::timegm(&utc);
    std::tm local{};
    ::localtime_r(&when, &local);
    std::array<char, 64> text{};
    return {text.data(), std::strftime(text.data(), text.size(), format, &local)};
}

// Before anything is made or locked there.
void expectImages(const fs::path& folder)
{
    std::vector<DamagedBackup> damaged;
    for (const StoredBackup& backup : Repository{folder}.backups(&damaged))
        if (backup.manifest.format == 1)
            throw Failure{Exit::refused, folder.string() + " has folders; only from images can backups be dropped. 'qbackup import' makes images of them"};
}

// The backups of one chain after the other, each from its full one on. Throws Failure when they are no chains.
std::vector<std::vector<Choice>> chainsOf(const fs::path& folder, const std::vector<Choice>& all)
{
    std::vector<std::vector<Choice>> chains;
    for (const Choice& choice : all) {
        const Manifest& m = choice.backup.manifest;
        if (m.mode == Mode::full)
            chains.emplace_back();
        else if (chains.empty() || chains.back().back().backup.manifest.id != m.parent || chains.back().back().backup.mark != m.parentMark)
            throw Failure{Exit::damaged, choice.backup.path.string() + " builds on backup " + m.parent + ", which is not the one before it; nothing was dropped from " +
                                             folder.string()};
        chains.back().push_back(choice);
    }
    return chains;
}

std::uint64_t bytesOf(std::span<const StoredBackup> backups)
{
    std::uint64_t bytes = 0;
    for (const StoredBackup& backup : backups)
        bytes += backup.manifest.mode == Mode::full ? 0 : backup.manifest.dataBytes;
    return bytes;
}

} // namespace

std::vector<Choice> chooseKept(const std::vector<StoredBackup>& backups, const KeepRules& rules)
{
    std::vector<Choice> choices;
    for (const StoredBackup& backup : backups)
        choices.push_back({backup, {}});
    const auto keep = [&](unsigned count, const char* name, const char* format) {
        std::string last;
        for (auto choice = choices.rbegin(); choice != choices.rend() && count > 0; ++choice) {
            const std::string key = *format == '\0' ? choice->backup.manifest.id : period(choice->backup.manifest.time, format);
            if (key == last)
                continue;
            last = key;
            choice->reasons.emplace_back(name);
            --count;
        }
    };
    keep(rules.last, "last", "");
    // With the zone: an hour that comes twice in autumn is two.
    keep(rules.hourly, "hourly", "%Y-%m-%d %H %z");
    keep(rules.daily, "daily", "%Y-%m-%d");
    keep(rules.weekly, "weekly", "%G-%V");
    keep(rules.monthly, "monthly", "%Y-%m");
    keep(rules.yearly, "yearly", "%Y");
    return choices;
}

std::vector<Choice> pruneBackups(const fs::path& folder, const KeepRules& rules, bool dry_run, const Patience& patience, Progress& progress,
                                 const StopSignal& stop)
{
    expectImages(folder);
    std::optional<Repository> repository;
    base::Descriptor hold;
    if (!dry_run) {
        repository.emplace(Repository::openImages(folder, patience));
        hold = holdForChanging(folder, patience);
    }
    std::vector<DamagedBackup> damaged;
    const auto choices = chooseKept(Repository{folder}.backups(&damaged), rules);
    if (!damaged.empty())
        throw Failure{Exit::damaged, damaged[0].problem + "; nothing was dropped from " + folder.string()};
    const auto chains = chainsOf(folder, choices);
    if (dry_run)
        return choices;
    for (const std::vector<Choice>& chain : chains) {
        std::vector<StoredBackup> run; // those that go, and what they go into
        for (const Choice& choice : chain) {
            run.push_back(choice.backup);
            const bool kept = !choice.reasons.empty();
            if (run.size() == 1 ? !kept : !kept && run.size() < most_at_once)
                continue;
            if (run.size() > 1) {
                progress.begin("dropping backups into " + choice.backup.manifest.id, bytesOf(run));
                mergeBackups(folder, run, progress, stop);
                progress.end();
            }
            run.clear();
            // It goes into the next one, with all that it has taken up.
            if (!kept)
                run.push_back(readBackup(choice.backup.path));
        }
        throwIfStopped(stop);
        dropBackups(folder, run);
    }
    return choices;
}

} // namespace qbackup
