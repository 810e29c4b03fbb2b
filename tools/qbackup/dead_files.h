/* SPDX-License-Identifier: GPL-2.0-only */
// Files in the making whose name ends with the number of the process that makes them.
#pragma once

#include "files.h"

#include <string>

namespace qbackup
{

// Removes those of a directory that begin so and were made by processes that are gone, or by this one; as
// far as that is allowed.
void removeDeadFiles(const fs::path& directory, const std::string& begin);

} // namespace qbackup
