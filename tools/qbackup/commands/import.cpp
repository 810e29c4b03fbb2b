// SPDX-License-Identifier: GPL-2.0-only
#include "command.h"

#include "common.h"
#include "image_repository.h"
#include "import.h"
#include "output.h"
#include "repository.h"

#include <cstdint>
#include <cstdio>
#include <memory>
#include <string>

namespace qbackup
{
namespace
{

struct Options {
    fs::path from;
    fs::path to;
    std::string host; // as for a backup
    std::uint64_t wait = 0;
};

int import(const Context& context, const Options& options)
{
    Progress progress{Progress::styleFor(context.quiet)};
    if (!isImageRepository(options.to))
        throw Failure{Exit::nothing, options.to.string() + " is no repository of images; make one with 'qbackup init'"};
    const Patience patience{std::chrono::seconds{options.wait}, &context.stop};
    bool good = true;
    for (const fs::path& directory : findRepositories(options.from)) {
        const Repository from{directory};
        const auto backups = from.backups();
        // What the device is known by is not in a folder; the next backup of it tells.
        const std::string name = backups.empty() ? fs::canonical(directory).filename().string() : backups.back().manifest.device;
        const Repository to = openImagesForBackup(options.to, {hostCalled(options.host), name, {}}, patience);
        for (const Imported& one : importBackups(from, to, progress, context.stop)) {
            good = good && one.problem.empty();
            if (context.json) {
                nlohmann::json document{{"ok", one.problem.empty()}, {"from", one.from.string()}};
                if (!one.to.empty())
                    document["path"] = one.to.string();
                if (!one.problem.empty())
                    document["problem"] = one.problem;
                print(document);
            } else if (!one.problem.empty()) {
                std::printf("DAMAGED  %s: %s\n", one.from.c_str(), one.problem.c_str());
            } else {
                std::printf("%s %s\n", one.before ? "there already:" : "imported", one.to.c_str());
            }
        }
    }
    return static_cast<int>(good ? Exit::ok : Exit::damaged);
}

} // namespace

void addImport(CLI::App& app, Context& context)
{
    const auto options = std::make_shared<Options>();
    CLI::App* command = app.add_subcommand("import", "Take backups that are folders over into a repository of images");
    command->add_option("FROM,--from", options->from, "TARGET/DEVICE or TARGET with such backups")->required();
    command->add_option("TO,--to", options->to, "Repository of images")->required();
    command->add_option("--host", options->host, "What the machine that they are of is called there (default: this one's name)");
    addWait(*command, options->wait);
    command->callback([&context, options] { context.chosen = [&context, options] { return import(context, *options); }; });
}

} // namespace qbackup
