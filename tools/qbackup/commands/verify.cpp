// SPDX-License-Identifier: GPL-2.0-only
#include "command.h"

#include "output.h"
#include "verify.h"

#include <cstdio>
#include <memory>

namespace qbackup
{
namespace
{

int verify(const Context& context, const fs::path& from)
{
    Progress progress{Progress::styleFor(context.quiet)};
    const auto results = verifyBackups(from, progress, context.stop);
    bool good = true;
    for (const VerifyResult& result : results) {
        good = good && result.problem.empty();
        nlohmann::json document{{"path", result.directory.string()}, {"ok", result.problem.empty()}};
        if (!result.id.empty())
            document["id"] = result.id;
        if (!result.problem.empty())
            document["problem"] = result.problem;
        if (context.json)
            print(document);
        else
            std::printf("%-7s %s%s%s\n", result.problem.empty() ? "ok" : "DAMAGED", result.directory.c_str(),
                        result.problem.empty() ? "" : ": ", result.problem.c_str());
    }
    return static_cast<int>(good ? Exit::ok : Exit::damaged);
}

} // namespace

void addVerify(CLI::App& app, Context& context)
{
    const auto from = std::make_shared<fs::path>();
    CLI::App* command = app.add_subcommand("verify", "Check stored backups and their chains");
    command->add_option("--from", *from, "Backup, TARGET, or a directory below it")->required();
    command->callback([&context, from] { context.chosen = [&context, from] { return verify(context, *from); }; });
}

} // namespace qbackup
