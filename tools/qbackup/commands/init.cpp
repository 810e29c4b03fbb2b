// SPDX-License-Identifier: GPL-2.0-only
#include "command.h"

#include "image_repository.h"
#include "output.h"
#include "qemu_image.h"

#include <cstdio>
#include <memory>

namespace qbackup
{
namespace
{

int init(const Context& context, const fs::path& target)
{
    requireQemu();
    const std::string id = makeImageRepository(target);
    if (context.json)
        print({{"ok", true}, {"path", target.string()}, {"id", id}});
    else
        std::printf("made the repository %s\n", target.c_str());
    return static_cast<int>(Exit::ok);
}

} // namespace

void addInit(CLI::App& app, Context& context)
{
    const auto target = std::make_shared<fs::path>();
    CLI::App* command = app.add_subcommand("init", "Make a repository of images, which QEMU's tools open as they are");
    command->add_option("TARGET,--to", *target, "Directory that is not there yet, or is empty")->required();
    command->callback([&context, target] { context.chosen = [&context, target] { return init(context, *target); }; });
}

} // namespace qbackup
