/* SPDX-License-Identifier: GPL-2.0-only */
// Keeps backups that are read from being dropped or changed meanwhile: a lock on the file .hold of their folder, shared by
// those who read, alone for who drops. Backups that are added hinder nobody, and have a lock of their own.
#pragma once

#include "base/descriptor.h"
#include "file_lock.h"

namespace qbackup
{

constexpr const char* hold_name = ".hold";

// As long as the descriptor is open. None where there are no images, and where this user may not make that file. Throws Failure (busy)
// when backups are being dropped.
base::Descriptor holdForReading(const fs::path& folder);
// Throws Failure (busy) when somebody reads.
base::Descriptor holdForChanging(const fs::path& folder, const Patience& patience);

} // namespace qbackup
