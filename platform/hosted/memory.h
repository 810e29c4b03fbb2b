/* SPDX-License-Identifier: GPL-2.0-only */
// The accounting side of the allocators: what is alive, by whom, and how it is freed when the driver has gone.
#pragma once

#include "task.h"

#include <string>

#if defined(__SANITIZE_ADDRESS__)
#include <sanitizer/asan_interface.h>
#define HOSTED_POISON(address, bytes) __asan_poison_memory_region(address, bytes)
#define HOSTED_UNPOISON(address, bytes) __asan_unpoison_memory_region(address, bytes)
#else
#define HOSTED_POISON(address, bytes) ((void)(address), (void)(bytes))
#define HOSTED_UNPOISON(address, bytes) ((void)(address), (void)(bytes))
#endif

namespace hosted
{

// "module(+0x1234)" of a code address.
std::string call_site(const void* address);

// One line an object.
void describe_allocations(std::string& out); // kmalloc, vmalloc
void describe_pages(std::string& out);
void describe_slabs(std::string& out);

void forget_allocations();
void forget_pages();
void forget_slabs();

// The place of a page in the transfer memory; -1 for a page that does not lie there.
std::int64_t transfer_offset(const page* p);

// Memory that the driver freed inside its release entry point stays until every task has left that was inside a
// hooked function then: such a task may hold a pointer to it.
void release_deferred_memory();           // frees what has become free
extern std::atomic<bool> deferred_memory; // there is some

} // namespace hosted
