/* SPDX-License-Identifier: GPL-2.0-only */
// The fixed newstyle handshake of one connection: from the greeting to the moment at which requests may come.
//
// Nothing that a client sends is trusted, and all of it together has one deadline: a client that says nothing, or
// haggles for ever, does not keep its place.
#pragma once

#include "served_disk.h"

#include <chrono>
#include <optional>
#include <vector>

namespace quendreld::nbd
{

// The disks by their names; the first is the default export.
using Exports = std::vector<ServedDisk*>;

// What the two sides agreed upon.
struct Agreement {
    ServedDisk* disk = nullptr;
    bool structured_replies = false;
    bool allocation = false; // the client wants base:allocation
};

constexpr std::uint32_t most_payload = 32 << 20; // bytes of a read or a write

// Talks over `socket` (non-blocking). Nothing when no agreement came about: the client left, broke the rules, or did
// not come to an end before the deadline.
std::optional<Agreement> negotiate(int socket, const Exports& exports, std::chrono::steady_clock::time_point deadline);

} // namespace quendreld::nbd
