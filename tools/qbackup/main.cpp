// SPDX-License-Identifier: GPL-2.0-only
// qbackup: full and incremental backups of devices that are in use.
#include "commands.h"

#include "client/error.h"

#include <CLI/CLI.hpp>
#include <nlohmann/json.hpp>

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <map>

namespace
{

using namespace qbackup;

StopSignal stop_signal{0};
static_assert(StopSignal::is_always_lock_free, "it is set in a signal handler");

void onSignal(int signal) { stop_signal.store(signal, std::memory_order_relaxed); }

void catchSignals()
{
    struct sigaction action {
    };
    action.sa_handler = onSignal;
    action.sa_flags = SA_RESTART;
    for (const int signal : {SIGINT, SIGTERM, SIGHUP})
        sigaction(signal, &action, nullptr);
    std::signal(SIGPIPE, SIG_IGN);
}

fs::path defaultControl()
{
    const char* named = std::getenv("QUENDREL_CONTROL");
    return named != nullptr && *named != '\0' ? named : "/dev/quendrel";
}

int report(const CommonOptions& common, int code, const std::string& text)
{
    if (common.json) {
        const nlohmann::json document{{"ok", false}, {"exit", code}, {"error", text}};
        std::printf("%s\n", document.dump(2, ' ', false, nlohmann::json::error_handler_t::replace).c_str());
    }
    std::fprintf(stderr, "qbackup: %s\n", text.c_str());
    return code;
}

// What is wrong with the command line. A word that is not known goes before one that is missing: it is often the missing
// one, misspelt.
std::string complaint(const CLI::App* app, const CLI::Error& error)
{
    std::string program = app->get_name();
    for (const CLI::App* subcommand : app->get_subcommands())
        program += " " + subcommand->get_name();
    for (const std::string& word : app->remaining(true)) {
        if (word == "--")
            continue;
        const std::string name = word.substr(0, word.find('='));
        return "qbackup: " + name + (name.starts_with('-') ? ": unknown option" : ": not expected here") + "; see " +
               program + " --help\n";
    }
    return "qbackup: " + std::string(error.what()) + "; see " + program + " --help\n";
}

constexpr const char* footer =
    "Exit codes: 0 done; 1 failed, nothing half-done is left; 2 bad arguments; 3 refused before\n"
    "anything was started; 4 another backup is running; 5 a stored backup is damaged or its chain\n"
    "incomplete; 128 + n ended by signal n.";

} // namespace

int main(int argc, char** argv)
{
    CommonOptions common{defaultControl()};
    BackupOptions backup;
    RestoreOptions restore;
    StatusOptions status;
    fs::path verify_from;
    fs::path list_from;

    CLI::App app{"Full and incremental backups of block devices that are in use", "qbackup"};
    app.footer(footer);
    app.failure_message(complaint);
    app.require_subcommand(1);
    app.fallthrough();
    app.set_version_flag("--version", "qbackup 3.1.0");
    app.add_option("--control", common.control,
                   "Control device: device node, or socket of the daemon (default: $QUENDREL_CONTROL, else "
                   "/dev/quendrel)")
        ->take_last();
    app.add_flag("--json", common.json, "Print the result as one JSON object");
    app.add_flag("-q,--quiet", common.quiet, "No progress on standard error");

    const std::map<std::string, Wanted> modes{
        {"auto", Wanted::automatic}, {"full", Wanted::full}, {"inc", Wanted::incremental}};
    CLI::App* run = app.add_subcommand("backup", "Back up a device");
    run->add_option("--device", backup.device, "Device: sda1, 8:1 or /dev/sda1")->required();
    run->add_option("--to", backup.target, "Target directory; the backup goes to TARGET/DEVICE/ID")->required();
    run->add_option("--mode", backup.wanted, "auto, full or inc; inc and auto take a full backup when they must")
        ->transform(CLI::Transformer{modes})
        ->type_name("MODE")
        ->default_str("auto");
    run->add_option("--cache-blocks", backup.cacheBlocks,
                    "Most overwritten blocks kept in memory during the backup (default: 256 MiB's worth)")
        ->check(CLI::Range(1u, 0xffffffffu));

    CLI::App* put_back = app.add_subcommand("restore", "Put a backup back");
    put_back->add_option("--from", restore.from, "Backup (TARGET/DEVICE/ID), or TARGET/DEVICE[/latest]")->required();
    put_back->add_option("--to", restore.to, "Image file to write, or block device to overwrite")->required();
    put_back->add_flag("--force", restore.force, "Replace an image file that is not empty");

    CLI::App* show = app.add_subcommand("status", "Show whether a backup runs, and what can be backed up");
    show->add_option("--device", status.device, "Only this device");
    show->add_option("--to", status.target, "Show the last backups in this target directory too");

    CLI::App* check = app.add_subcommand("verify", "Check stored backups and their chains");
    check->add_option("--from", verify_from, "Backup, TARGET/DEVICE or TARGET")->required();

    CLI::App* list = app.add_subcommand("list", "List stored backups");
    list->add_option("--from", list_from, "TARGET/DEVICE or TARGET")->required();

    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError& error) {
        return app.exit(error) == 0 ? 0 : static_cast<int>(Exit::usage);
    }
    catchSignals();
    try {
        if (run->parsed())
            return commandBackup(common, backup, stop_signal);
        if (put_back->parsed())
            return commandRestore(common, restore, stop_signal);
        if (show->parsed())
            return commandStatus(common, status);
        if (check->parsed())
            return commandVerify(common, verify_from, stop_signal);
        return commandList(common, list_from);
    } catch (const Failure& failure) {
        return report(common, failure.exitCode(), failure.what());
    } catch (const std::exception& error) {
        return report(common, static_cast<int>(Exit::failed), error.what());
    }
}
