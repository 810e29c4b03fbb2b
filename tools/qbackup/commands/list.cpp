// SPDX-License-Identifier: GPL-2.0-only
#include "command.h"

#include "output.h"
#include "repository.h"

#include <cstdio>
#include <memory>
#include <vector>

namespace qbackup
{
namespace
{

int list(const Context& context, const fs::path& from)
{
    bool good = true;
    for (const fs::path& directory : findRepositories(from)) {
        std::vector<DamagedBackup> damaged;
        for (const StoredBackup& backup : Repository{directory}.backups(&damaged)) {
            if (context.json)
                print(describe(backup));
            else
                printLine(backup);
        }
        for (const DamagedBackup& backup : damaged) {
            good = false;
            if (context.json)
                print({{"path", backup.path.string()}, {"problem", backup.problem}});
            else
                std::printf("DAMAGED  %s: %s\n", backup.path.c_str(), backup.problem.c_str());
        }
    }
    return static_cast<int>(good ? Exit::ok : Exit::damaged);
}

} // namespace

void addList(CLI::App& app, Context& context)
{
    const auto from = std::make_shared<fs::path>();
    CLI::App* command = app.add_subcommand("list", "List stored backups");
    command->add_option("--from", *from, "TARGET, or a directory below it")->required();
    command->callback([&context, from] { context.chosen = [&context, from] { return list(context, *from); }; });
}

} // namespace qbackup
