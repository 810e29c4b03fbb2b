/* SPDX-License-Identifier: GPL-2.0-only */
// How results and failures are told: text for people, or a JSON object a line.
#pragma once

#include "failure.h"
#include "stored_backup.h"

#include <nlohmann/json.hpp>

#include <functional>
#include <string>

namespace qbackup
{

void print(const nlohmann::json& document);
// One stored backup, as its fields or as a line of a table.
nlohmann::json describe(const StoredBackup& backup);
void printLine(const StoredBackup& backup);

// Tells of a failure on standard error, and with --json on standard output too. Its exit code.
int reportFailure(bool json, int code, const std::string& text);
// What `work` gives, or the exit code of the failure that it ends with, which is told. A signal that ends the program is
// thrown on.
int attempt(bool json, const std::function<int()>& work);
// The exit code of two things that were done: a failure's goes before a warning's, and the first one's before the second's.
int ofBoth(int first, int second);
// What was printed has arrived; Failure when it has not.
void finishOutput();

} // namespace qbackup
