/* SPDX-License-Identifier: GPL-2.0-only */
// The records that more than one unit of the driver builds on: block sets, cache entries, transfer areas.
#pragma once

#include "kernel.h"

// A set of blocks: one bit a block, in separately allocated pages, so that a large device needs no large contiguous
// memory. Block n is bit n mod 8, least significant first, of byte n mod 32768 / 8 of page n / 32768.
// `map` is null and `size` 0 while the set holds no pages; every bit operation is bounded by `size`.
typedef struct _BlockMap {
    u32 size;     // blocks
    u32 numBytes; // bytes that carry bits
    page** map;
    atomic_int users;   // drain gate: 1 when idle
    spinlock usersLock; // guards entry into `users`; held alone while the pages are swapped
    semaphore sem;      // around every single bit operation; taken after usersLock was released
} BlockMap;

constexpr u32 BLOCKS_PER_MAP_PAGE = PAGE_BYTES * 8;
constexpr u32 BLOCKS_PER_MAP_PAGE_SHIFT = 15;

// One saved block of the copy-on-write cache.
typedef struct _CachePage {
    struct _CachePage* next;
    char* data; // blockSize bytes
    u32 blockNum;
} CachePage;

// One bucket of the cache.
typedef struct _HashTable {
    CachePage* busy; // newest first
    semaphore sem;   // guards the list; after cacheUsers
} HashTable;

constexpr u32 CACHE_BUCKETS = 4096;
constexpr u32 CACHE_BUCKET_MASK = CACHE_BUCKETS - 1;

constexpr u32 TRANSFER_AREAS = 2;
constexpr int MAX_AREA_PAGES = 256;

// One mapped transfer area. Free while `vma` is null; `vma` is published last and withdrawn first.
typedef struct _BackupVMA {
    s32 vmPages;
    vm_area_struct* vma;
    page* mmPages[MAX_AREA_PAGES];
} BackupVMA;
