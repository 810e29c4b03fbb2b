/* SPDX-License-Identifier: GPL-2.0-only */
// What is told of backups that are kept or dropped.
#pragma once

#include "command.h"
#include "prune.h"

#include <vector>

namespace qbackup
{

void tell(const Context& context, const std::vector<Choice>& choices, bool dry_run);

} // namespace qbackup
