/* SPDX-License-Identifier: GPL-2.0-only */
// A number of bytes a second as a person writes it.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

namespace qbackup
{

// "20M", "500K", "1000000": by 1024. Nothing when it is none, or more than can be.
std::optional<std::uint64_t> rateOf(std::string text);

} // namespace qbackup
