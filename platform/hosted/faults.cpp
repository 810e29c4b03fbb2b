// SPDX-License-Identifier: GPL-2.0-only
// Failures made to order. Counting starts with the call that asks for it, so that nobody pays otherwise.
#include "faults.h"

namespace hosted
{

std::atomic<unsigned> armed_allocations{0};
std::atomic<bool> armed_transfers{false};

namespace
{

std::atomic<unsigned> allocation_seen{0};
std::atomic<unsigned> allocation_to_fail{0};

struct Transfers {
    std::atomic<unsigned> seen{0};
    std::atomic<unsigned> to_fail{0};
};
Transfers reads;
Transfers writes;

std::atomic<int> the_register_error{0};
std::atomic<bool> freezes_fail{false};
std::atomic<bool> going{false};

bool is_the_one(std::atomic<unsigned>& seen, const std::atomic<unsigned>& to_fail)
{
    return seen.fetch_add(1) + 1 == to_fail.load();
}

void arm(Transfers& t, unsigned n)
{
    t.seen = 0;
    t.to_fail = n;
    armed_transfers = true;
}

} // namespace

bool allocation_fails_slow(faults::Kind) { return is_the_one(allocation_seen, allocation_to_fail); }
bool transfer_fails_slow(bool write)
{
    Transfers& t = write ? writes : reads;
    return is_the_one(t.seen, t.to_fail);
}
int register_error() { return the_register_error; }
bool freeze_fails() { return freezes_fail; }
bool module_going_forced() { return going; }

namespace faults
{

void fail_allocation(unsigned n, unsigned kinds)
{
    armed_allocations = 0;
    allocation_seen = 0;
    allocation_to_fail = n;
    armed_allocations = kinds;
}
unsigned allocations_seen() { return allocation_seen; }
void fail_read(unsigned n) { arm(reads, n); }
void fail_write(unsigned n) { arm(writes, n); }
unsigned reads_seen() { return reads.seen; }
unsigned writes_seen() { return writes.seen; }
void fail_register(int error) { the_register_error = error; }
void fail_freeze(bool on) { freezes_fail = on; }
void module_going(bool on) { going = on; }

void clear()
{
    armed_allocations = 0;
    armed_transfers = false;
    allocation_seen = allocation_to_fail = 0;
    reads.seen = reads.to_fail = 0;
    writes.seen = writes.to_fail = 0;
    the_register_error = 0;
    freezes_fail = false;
    going = false;
}

} // namespace faults
} // namespace hosted
