// SPDX-License-Identifier: GPL-2.0-only
// qbackup: full and incremental backups of devices that are in use.
#include "commands/command.h"
#include "commands/output.h"

#include <CLI/CLI.hpp>

#include <csignal>
#include <cstdio>
#include <cstdlib>
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
    std::signal(SIGCHLD, SIG_DFL); // or nobody could tell how a child has ended
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

constexpr const char* footer =
    "Exit codes: 0 done; 1 failed, nothing half-done is left; 2 bad arguments; 3 refused before\n"
    "anything was started; 4 another backup is running; 5 a stored backup is damaged or its chain\n"
    "incomplete; 6 done, with a warning; 7 there is no\n"
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
    Context context{.control = "/dev/quendrel", .stop = stop_signal};
    CLI::App app{"Full and incremental backups of block devices that are in use", "qbackup"};
    app.footer(footer);
    app.require_subcommand(1);
    app.fallthrough();
    app.set_version_flag("--version", "qbackup 3.1.0");
    const CLI::Option* control = app.add_option("--control", context.control,
                                                "Control device: device node, or socket of the daemon (default: $QUENDREL_CONTROL, else "
                                                "/dev/quendrel)")
                                     ->take_last()
                                     ->envname("QUENDREL_CONTROL");
    app.add_flag("--json", context.json, "Print each result as a JSON object on a line of its own");
    app.add_flag("-q,--quiet", context.quiet, "No progress on standard error");

    for (const auto add : {addInit, addBackup, addRun, addRestore, addServe, addImport, addPrune, addStatus, addVerify, addList, addShow, addDiff, addDevices, addLedger, addMount, addUmount, addReport, addCompletion})
        add(app, context);

    try {
        app.parse(argc, argv);
    } catch (const CLI::Success& done) {
        return app.exit(done); // --help, --version
    } catch (const CLI::ParseError& error) {
        return reportFailure(wantsJson(argc, argv), static_cast<int>(Exit::usage), complaint(&app, error));
    }
    context.controlGiven = control->count() > 0;
    catchSignals();
    try {
        const int exit = context.chosen();
        finishOutput();
        return exit;
    } catch (const Failure& failure) {
        return reportFailure(context.json, failure.exitCode(), failure.what());
    } catch (const std::exception& error) {
        return reportFailure(context.json, static_cast<int>(Exit::failed), error.what());
    }
}
