// SPDX-License-Identifier: GPL-2.0-only
#include "command.h"

#include "common.h"
#include "output.h"
#include "repository.h"
#include "serve.h"

#include <cstdio>
#include <memory>
#include <string>

namespace qbackup
{
namespace
{

struct Options {
    fs::path from;
    std::string at; // time or id; empty: the newest
    fs::path socket;
};

int serve(const Context& context, const Options& options)
{
    const StoredBackup backup = findBackup(options.from, options.at);
    serveBackup(backup, options.socket, context.stop, [&](const std::string& uri) {
        if (context.json)
            print({{"ok", true}, {"id", backup.manifest.id}, {"uri", uri}});
        else
            std::printf("serving %s, read-only, until this program is ended: %s\n", backup.path.c_str(), uri.c_str());
        finishOutput();
    });
    return static_cast<int>(Exit::ok);
}

} // namespace

void addServe(CLI::App& app, Context& context)
{
    const auto options = std::make_shared<Options>();
    CLI::App* command = app.add_subcommand("serve", "Serve a backup of images over NBD, read-only, until ended by a signal");
    command->add_option("--from", options->from, "Backup, TARGET/HOST/DEVICE, or TARGET when it has one device")->required();
    addAt(*command, options->at);
    command->add_option("--socket", options->socket, "Unix socket to make and listen on")->required();
    command->callback([&context, options] { context.chosen = [&context, options] { return serve(context, *options); }; });
}

} // namespace qbackup
