/* SPDX-License-Identifier: GPL-2.0-only */
// Times as texts: what is stored is UTC.
#pragma once

#include <optional>
#include <string>

namespace qbackup
{

// This moment in UTC, written as strftime(3) does.
std::string utcNow(const char* format);

struct Utc {
    std::string text;  // 2026-11-21T11:16:41Z
    std::string stamp; // 20261121T111641Z
};
// A time that a person wrote: a day or a minute, which stand for their last second, or a second; by this machine's clock or, with a Z behind it, UTC. Nothing when it is none.
std::optional<Utc> utcOf(const std::string& text);

} // namespace qbackup
