/* SPDX-License-Identifier: GPL-2.0-only */
// How wide a terminal is.
#pragma once

#include <optional>

namespace qbackup
{

// Columns of the terminal that `fd` goes to; COLUMNS goes before what the terminal says. Nothing when neither tells.
std::optional<unsigned> terminalColumns(int fd);

} // namespace qbackup
