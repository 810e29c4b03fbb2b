/* SPDX-License-Identifier: GPL-2.0-only */
// The present time in UTC as text, for names and manifests of backups and the line in the lock.
#pragma once

#include <string>

namespace qbackup
{

// `format` is strftime's.
std::string utcNow(const char* format);

} // namespace qbackup
