/* SPDX-License-Identifier: GPL-2.0-only */
// Where the hosted kernel asks whether an operation is to fail; the switches are hosted::faults.
#pragma once

#include "task.h"

namespace hosted
{

extern std::atomic<unsigned> armed_allocations; // kinds that are counted, 0 when nobody asked
bool allocation_fails_slow(faults::Kind kind);

// Whether this allocation is to fail. One that must not fail is not counted.
inline bool allocation_fails(faults::Kind kind, gfp_type gfp)
{
    unsigned armed = armed_allocations.load(std::memory_order_relaxed);
    if (__builtin_expect((armed & unsigned(kind)) == 0 || (gfp & GFP_NOFAIL), 1))
        return false;
    return allocation_fails_slow(kind);
}

extern std::atomic<bool> armed_transfers;
bool transfer_fails_slow(bool write);
inline bool transfer_fails(bool write)
{
    return __builtin_expect(armed_transfers.load(std::memory_order_relaxed), 0) && transfer_fails_slow(write);
}

int register_error();
bool freeze_fails();
bool module_going_forced();

} // namespace hosted
