/* SPDX-License-Identifier: GPL-2.0-only */
// How results and failures are told: text for people, or a JSON object a line.
#pragma once

#include "failure.h"
#include "stored_backup.h"

#include <nlohmann/json.hpp>

#include <string>

namespace qbackup
{

void print(const nlohmann::json& document);
// One stored backup, as its fields or as a line of a table.
nlohmann::json describe(const StoredBackup& backup);
void printLine(const StoredBackup& backup);

// Tells of a failure on standard error, and with --json on standard output too. Its exit code.
int reportFailure(bool json, int code, const std::string& text);
// The same of what is being thrown, called in a handler. A signal that ends the program is thrown on.
int reportCurrentFailure(bool json);
// What was printed has arrived; Failure when it has not.
void finishOutput();

} // namespace qbackup
