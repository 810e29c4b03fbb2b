// SPDX-License-Identifier: GPL-2.0-only
#include "prune.h"

#include "folder_hold.h"

#include <algorithm>
#include <array>
#include <ctime>
#include <map>
#include <optional>
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

struct Plan {
    std::vector<StoredBackup> dead; // on which none that is kept builds, the oldest first
    // Of the others, each line from a full one, or one that builds on a kept one of another line, to one that is kept.
    std::vector<std::vector<Choice>> lines;
};

// Each usually builds on the one before it. A newest one that could not be read for a while has made the next one build on an
// older one, and then two lines part there: that one stays, as no other could take up what it holds for both.
// Throws Failure when one builds on what is not there.
Plan planFor(const fs::path& folder, std::vector<Choice>& all)
{
    std::map<std::string, std::size_t> places;
    std::vector<std::optional<std::size_t>> parents;
    for (std::size_t i = 0; i < all.size(); ++i) {
        const Manifest& m = all[i].backup.manifest;
        places[m.id] = i;
        parents.emplace_back();
        if (m.mode == Mode::full)
            continue;
        const auto parent = places.find(m.parent);
        if (parent == places.end() || all[parent->second].backup.mark != m.parentMark)
            throw Failure{Exit::damaged, all[i].backup.path.string() + " builds on backup " + m.parent +
                                             ", which is not there, or is another one; nothing was dropped from " + folder.string()};
        parents[i] = parent->second;
    }
    std::vector<unsigned> needing(all.size(), 0); // how many build right on it, of those that are kept or have one that is above them
    for (std::size_t i = all.size(); i-- > 0;) {
        if (needing[i] > 1 && all[i].reasons.empty())
            all[i].reasons.emplace_back("shared");
        if (parents[i] && (needing[i] > 0 || !all[i].reasons.empty()))
            ++needing[*parents[i]];
    }
    Plan plan;
    std::vector<std::size_t> lines(all.size()); // which one each is in
    for (std::size_t i = 0; i < all.size(); ++i) {
        if (needing[i] == 0 && all[i].reasons.empty()) {
            plan.dead.push_back(all[i].backup);
            continue;
        }
        if (!parents[i] || needing[*parents[i]] > 1)
            plan.lines.emplace_back();
        lines[i] = parents[i] && needing[*parents[i]] == 1 ? lines[*parents[i]] : plan.lines.size() - 1;
        plan.lines[lines[i]].push_back(all[i]);
    }
    return plan;
}

// The others go into its image; of the others, and of a compressed one, all is read.
bool isTakenAsItIs(const StoredBackup& backup) { return backup.manifest.mode == Mode::full && !backup.manifest.compressed; }

std::uint64_t bytesOf(std::span<const StoredBackup> backups)
{
    std::uint64_t bytes = 0;
    for (const StoredBackup& backup : backups)
        bytes += isTakenAsItIs(backup) ? 0 : backup.manifest.dataBytes;
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
    auto choices = chooseKept(Repository{folder}.backups(&damaged), rules);
    if (!damaged.empty())
        throw Failure{damaged[0].exit, damaged[0].problem + "; nothing was dropped from " + folder.string()};
    const Plan plan = planFor(folder, choices);
    if (dry_run)
        return choices;
    throwIfStopped(stop);
    dropBackups(folder, plan.dead);
    for (const std::vector<Choice>& line : plan.lines) {
        std::vector<StoredBackup> run; // those that go, and what they go into
        for (const Choice& choice : line) {
            run.push_back(choice.backup);
            const bool kept = !choice.reasons.empty();
            if (run.size() == 1 ? !kept : !kept && run.size() < most_at_once)
                continue;
            // One that would be written anew each time waits for the one that is kept.
            const std::ptrdiff_t waiting = !kept && run.front().manifest.compressed ? 1 : 0;
            if (const std::vector<StoredBackup> merged{run.begin() + waiting, run.end()}; merged.size() > 1) {
                progress.begin("dropping backups into " + choice.backup.manifest.id, bytesOf(merged));
                mergeBackups(folder, merged, progress, stop);
                progress.end();
            }
            run.erase(run.begin() + waiting, run.end());
            // It goes into the next one, with all that it has taken up.
            if (!kept)
                run.push_back(readBackup(choice.backup.path));
        }
        throwIfStopped(stop);
    }
    return choices;
}

} // namespace qbackup
