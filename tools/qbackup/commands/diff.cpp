// SPDX-License-Identifier: GPL-2.0-only
#include "command.h"

#include "difference.h"
#include "disk_picture.h"
#include "folder_hold.h"
#include "output.h"
#include "repository.h"

#include <cstdio>
#include <memory>
#include <string>
#include <utility>
#include <vector>

namespace qbackup
{
namespace
{

struct Options {
    fs::path from; // empty: `a` and `b` are paths
    std::string a;
    std::string b;
    bool ranges = false;
};

int diff(const Context& context, const Options& options)
{
    const auto find = [&](const std::string& name) {
        return options.from.empty() ? findBackup(name) : findBackup(options.from, name);
    };
    StoredBackup a = find(options.a);
    StoredBackup b = find(options.b);
    const base::Descriptor hold_a = holdForReading(a.path.parent_path());
    const base::Descriptor hold_b = holdForReading(b.path.parent_path());
    a = readBackup(a.path);
    b = readBackup(b.path);

    Progress progress{Progress::styleFor(context.quiet)};
    std::vector<std::pair<std::uint64_t, std::uint64_t>> found;
    const DifferenceReport report =
        findDifferences(a, b, progress, context.stop,
                        [&](std::uint64_t offset, std::uint64_t bytes) { found.emplace_back(offset, bytes); });
    if (context.json) {
        if (options.ranges)
            for (const auto& [offset, bytes] : found)
                print({{"offset", offset}, {"bytes", bytes}});
        print({{"ok", true},
               {"a", a.manifest.id},
               {"b", b.manifest.id},
               {"deviceBytes", report.bytes},
               {"unit", report.unit},
               {"comparedBytes", report.compared},
               {"differentBytes", report.differing},
               {"ranges", report.ranges}});
        return static_cast<int>(Exit::ok);
    }
    if (options.ranges)
        for (const auto& [offset, bytes] : found)
            std::printf("%14llu  %12llu\n", static_cast<unsigned long long>(offset),
                        static_cast<unsigned long long>(bytes));
    if (found.empty()) {
        std::printf("%s and %s show the same %s\n", a.path.c_str(), b.path.c_str(), formatBytes(report.bytes).c_str());
        return static_cast<int>(Exit::ok);
    }
    DiskPicture picture{report.bytes, report.unit, terminal()};
    for (const auto& [offset, bytes] : found)
        picture.mark(offset, bytes);
    std::printf("%s and %s differ in %s of %s, in %llu range%s\n\n%s", a.manifest.id.c_str(), b.manifest.id.c_str(),
                formatBytes(report.differing).c_str(), formatBytes(report.bytes).c_str(),
                static_cast<unsigned long long>(report.ranges), report.ranges == 1 ? "" : "s", picture.text().c_str());
    return static_cast<int>(Exit::ok);
}

} // namespace

void addDiff(CLI::App& app, Context& context)
{
    const auto options = std::make_shared<Options>();
    CLI::App* command = app.add_subcommand("diff", "Show where two backups of a device differ");
    command->add_option("A", options->a, "Backup; with --from its id, or a time as --at of the others has it")
        ->required();
    command->add_option("B", options->b, "The other one")->required();
    command->add_option("--from", options->from, "TARGET, or what below it has the backups of one device");
    command->add_flag("--ranges", options->ranges, "List the ranges, each with its offset and length in bytes");
    command->callback(
        [&context, options] { context.chosen = [&context, options] { return diff(context, *options); }; });
}

} // namespace qbackup
