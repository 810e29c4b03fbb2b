// SPDX-License-Identifier: GPL-2.0-only
// qbackup: full and incremental backups of devices that are in use.
#include "commands.h"

#include <CLI/CLI.hpp>

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <map>
#include <string_view>

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
        return name + (name.starts_with('-') ? ": unknown option" : ": not expected here") + "; see " + program +
               " --help";
    }
    return std::string(error.what()) + "; see " + program + " --help";
}

constexpr const char* at_help = "Which one, where --from has several: an id, or the newest up to a time, as 2026-11-21 or\n"
                                "2026-11-21T11:16, to their end (of this machine's clock; with a Z behind it UTC, as list shows it)";

constexpr const char* footer =
    "Exit codes: 0 done; 1 failed, nothing half-done is left; 2 bad arguments; 3 refused before\n"
    "anything was started; 4 another backup is running; 5 a stored backup is damaged or its chain\n"
    "incomplete; 6 done, but a full backup where an incremental one was asked for; 7 there is no\n"
    "backup where one was looked for; 8 no permission; 128 + n ended by signal n.";

// The command line is what cannot be parsed.
bool wantsJson(int argc, char** argv)
{
    for (int i = 1; i < argc && std::string_view{argv[i]} != "--"; ++i)
        if (std::string_view{argv[i]} == "--json")
            return true;
    return false;
}

} // namespace

int main(int argc, char** argv)
{
    CommonOptions common{defaultControl()};
    BackupOptions backup;
    RestoreOptions restore;
    StatusOptions status;
    fs::path verify_from;
    fs::path list_from;
    fs::path init_target;
    ImportOptions import;
    PruneOptions prune;
    fs::path serve_from;
    fs::path serve_socket;
    std::string serve_at;

    CLI::App app{"Full and incremental backups of block devices that are in use", "qbackup"};
    app.footer(footer);
    app.require_subcommand(1);
    app.fallthrough();
    app.set_version_flag("--version", "qbackup 3.1.0");
    app.add_option("--control", common.control,
                   "Control device: device node, or socket of the daemon (default: $QUENDREL_CONTROL, else "
                   "/dev/quendrel)")
        ->take_last();
    app.add_flag("--json", common.json, "Print each result as a JSON object on a line of its own");
    app.add_flag("-q,--quiet", common.quiet, "No progress on standard error");

    const std::map<std::string, Wanted> modes{
        {"auto", Wanted::automatic}, {"full", Wanted::full}, {"inc", Wanted::incremental}};
    CLI::App* run = app.add_subcommand("backup", "Back up a device");
    run->add_option("DEVICE,--device", backup.devices, "Device: sda1, 8:1 or /dev/sda1; several one after the other")
        ->required();
    run->add_option("--to", backup.target, "Repository (see init), or another directory, which gets folders")->required();
    run->add_option("--mode", backup.wanted, "auto, full or inc; inc and auto take a full backup when they must")
        ->transform(CLI::Transformer{modes})
        ->type_name("MODE")
        ->default_str("auto");
    run->add_option("--cache-blocks", backup.cacheBlocks,
                    "Most overwritten blocks kept in memory during the backup (default: 256 MiB's worth)")
        ->check(CLI::Range(1u, 0xffffffffu));
    run->add_option("--wait", backup.wait, "Seconds to wait for another run to end (without a number: a day)")
        ->expected(0, 1)
        ->default_str("86400")
        ->check(CLI::Range(0u, 1000000000u));

    run->add_option("--host", backup.host, "What this machine is called in a repository of images (default: its name)");
    run->add_flag("--new", backup.fresh, "A folder of its own for a device that has got the name of another one");

    CLI::App* init = app.add_subcommand("init", "Make a repository of images, which QEMU's tools open as they are");
    init->add_option("TARGET,--to", init_target, "Directory that is not there yet, or is empty")->required();

    CLI::App* put_back = app.add_subcommand("restore", "Put a backup back");
    put_back->add_option("--from", restore.from, "Backup, or TARGET, or what below it has the backups of one device")->required();
    put_back->add_option("--at", restore.at, at_help);
    put_back->add_option("--to", restore.to, "Image file to write, or block device to overwrite")->required();
    put_back->add_flag("--force", restore.force, "Replace an image file that is not empty, overwrite a device that holds data");

    CLI::App* serve = app.add_subcommand("serve", "Serve a backup of images over NBD, read-only, until ended by a signal");
    serve->add_option("--from", serve_from, "Backup, TARGET/HOST/DEVICE, or TARGET when it has one device")->required();
    serve->add_option("--at", serve_at, at_help);
    serve->add_option("--socket", serve_socket, "Unix socket to make and listen on")->required();

    CLI::App* take_over = app.add_subcommand("import", "Take backups that are folders over into a repository of images");
    take_over->add_option("FROM,--from", import.from, "TARGET/DEVICE or TARGET with such backups")->required();
    take_over->add_option("TO,--to", import.to, "Repository of images")->required();
    take_over->add_option("--host", import.host, "What the machine that they are of is called there (default: this one's name)");
    take_over->add_option("--wait", import.wait, "Seconds to wait for another run to end")->check(CLI::Range(0u, 1000000000u));

    CLI::App* drop = app.add_subcommand("prune", "Drop backups of images; what they hold goes into the next one that is kept");
    drop->add_option("--from", prune.from, "TARGET/HOST/DEVICE, TARGET/HOST or TARGET")->required();
    drop->add_option("--keep-last", prune.rules.last, "Keep so many of the newest");
    drop->add_option("--keep-hourly", prune.rules.hourly, "Keep the newest of each hour that has one, for so many of them");
    drop->add_option("--keep-daily", prune.rules.daily, "The same of days");
    drop->add_option("--keep-weekly", prune.rules.weekly, "The same of weeks (from Monday on)");
    drop->add_option("--keep-monthly", prune.rules.monthly, "The same of months");
    drop->add_option("--keep-yearly", prune.rules.yearly, "The same of years");
    drop->add_flag("-n,--dry-run", prune.dryRun, "Only tell what would be dropped");
    drop->add_option("--wait", prune.wait, "Seconds to wait for another run to end")->check(CLI::Range(0u, 1000000000u));

    CLI::App* show = app.add_subcommand("status", "Show whether a backup runs, and what can be backed up");
    show->add_option("--device", status.device, "Only this device");
    show->add_option("--to", status.target, "Show the last backups in this target directory too");

    CLI::App* check = app.add_subcommand("verify", "Check stored backups and their chains");
    check->add_option("--from", verify_from, "Backup, TARGET, or a directory below it")->required();

    CLI::App* list = app.add_subcommand("list", "List stored backups");
    list->add_option("--from", list_from, "TARGET, or a directory below it")->required();

    try {
        app.parse(argc, argv);
    } catch (const CLI::Success& done) {
        return app.exit(done); // --help, --version
    } catch (const CLI::ParseError& error) {
        return reportFailure(wantsJson(argc, argv), static_cast<int>(Exit::usage), complaint(&app, error));
    }
    catchSignals();
    try {
        const int exit = init->parsed()       ? commandInit(common, init_target)
                         : run->parsed()      ? commandBackup(common, backup, stop_signal)
                         : put_back->parsed() ? commandRestore(common, restore, stop_signal)
                         : show->parsed()     ? commandStatus(common, status)
                         : serve->parsed()    ? commandServe(common, serve_from, serve_at, serve_socket, stop_signal)
                         : drop->parsed()     ? commandPrune(common, prune, stop_signal)
                         : take_over->parsed() ? commandImport(common, import, stop_signal)
                         : check->parsed()    ? commandVerify(common, verify_from, stop_signal)
                                              : commandList(common, list_from);
        finishOutput();
        return exit;
    } catch (const Failure& failure) {
        return reportFailure(common.json, failure.exitCode(), failure.what());
    } catch (const std::exception& error) {
        return reportFailure(common.json, static_cast<int>(Exit::failed), error.what());
    }
}
