/* SPDX-License-Identifier: GPL-2.0-only */
// What a test and the library that it preloads into a daemon share, in a mapped file: which calls of the daemon are
// counted, and which of them fail.
#pragma once

#include <atomic>
#include <cstdint>

namespace shortage
{

enum class Call : std::uint32_t {
    none,
    thread,     // pthread_create
    accept,     // accept4
    memfd,      // memfd_create
    map,        // mmap
    open,       // open, openat
    allocation, // operator new
    memory,     // malloc, calloc, aligned_alloc, called by the program itself
};

// Lives in a file, so that it is the same in every process of the daemon.
struct Shortage {
    std::atomic<Call> call;           // those that are counted
    std::atomic<std::uint32_t> first; // of those that fail, counted from 1
    std::atomic<std::uint32_t> count; // how many fail
    std::atomic<std::uint32_t> seen;
    std::atomic<std::uint32_t> failed;
    char where[4096]; // the stack of the first that failed, one "file+offset" a line
};
static_assert(std::atomic<Call>::is_always_lock_free);

constexpr const char* variable = "QUENDREL_TEST_SHORTAGE"; // of the environment: the file

} // namespace shortage
