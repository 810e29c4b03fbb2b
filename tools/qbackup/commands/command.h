/* SPDX-License-Identifier: GPL-2.0-only */
// The subcommands of qbackup, a file each: its options, what it does with them, and how its results are told. A result is
// text or a JSON object on a line of its own; failures are thrown, and main() reports them.
#pragma once

#include "failure.h"
#include "files.h"
#include "progress.h"

#include <CLI/CLI.hpp>

#include <functional>

namespace qbackup
{

struct Context {
    fs::path control; // device node or socket
    bool controlGiven = false; // on the command line or in the environment
    bool json = false;
    bool quiet = false;
    const StopSignal& stop;
    std::function<int()> chosen{}; // what the command line asks for; gives the exit code
};

// Each adds its subcommand, which sets `chosen` when it is the one that is asked for. `context` outlives the parser.
void addInit(CLI::App& app, Context& context);
void addBackup(CLI::App& app, Context& context);
void addRestore(CLI::App& app, Context& context);
void addServe(CLI::App& app, Context& context);
void addRun(CLI::App& app, Context& context);
void addImport(CLI::App& app, Context& context);
void addPrune(CLI::App& app, Context& context);
void addStatus(CLI::App& app, Context& context);
void addVerify(CLI::App& app, Context& context);
void addList(CLI::App& app, Context& context);
void addShow(CLI::App& app, Context& context);
void addDiff(CLI::App& app, Context& context);
void addDevices(CLI::App& app, Context& context);
void addLedger(CLI::App& app, Context& context);
void addMount(CLI::App& app, Context& context);
void addUmount(CLI::App& app, Context& context);
void addReport(CLI::App& app, Context& context);
void addCompletion(CLI::App& app, Context& context);

} // namespace qbackup
