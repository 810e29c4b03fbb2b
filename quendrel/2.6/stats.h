/* SPDX-License-Identifier: GPL-2.0-only */
// The counters of one backup as they are logged when it closes. The three version fields are never filled.
#pragma once

#include "kernel.h"

typedef struct _Stats {
    u32 driverVerMajor;
    u32 driverVerMinor;
    u32 driverVerMinor2;
    u32 major;
    u32 minor;
    u32 state;
    u32 partitionStart;
    s32 blockSize;
    s32 blocksPerPage;
    u32 partitionSizeKB;
    u32 numBlocks;
    s32 maxVMPages;
    s32 vmPages;
    u32 maxCacheBlocks;
    s32 curAllocAMPages;
    s32 totalAllocPages;
    s32 curAllocPages;
    s32 totalAllocBRs;
    s32 curAllocBRs;
    s32 totalAllocCPs;
    s32 curAllocCPs;
    s32 peakAllocCPs;
    s32 totalCBs;
    s32 curCBs;
    s32 totalReadBlocks;
    s32 totalReadCBs;
    s32 totalCleanedCBs;
    s32 ioctlCount;
    kernel_timespec eTimeToFreeze;
    kernel_timespec eTimeFrozen;
} Stats;

#define STATS_AT(field, offset) static_assert(__builtin_offsetof(Stats, field) == (offset))
STATS_AT(driverVerMajor, 0);
STATS_AT(driverVerMinor, 4);
STATS_AT(driverVerMinor2, 8);
STATS_AT(major, 12);
STATS_AT(minor, 16);
STATS_AT(state, 20);
STATS_AT(partitionStart, 24);
STATS_AT(blockSize, 28);
STATS_AT(blocksPerPage, 32);
STATS_AT(partitionSizeKB, 36);
STATS_AT(numBlocks, 40);
STATS_AT(maxVMPages, 44);
STATS_AT(vmPages, 48);
STATS_AT(maxCacheBlocks, 52);
STATS_AT(curAllocAMPages, 56);
STATS_AT(totalAllocPages, 60);
STATS_AT(curAllocPages, 64);
STATS_AT(totalAllocBRs, 68);
STATS_AT(curAllocBRs, 72);
STATS_AT(totalAllocCPs, 76);
STATS_AT(curAllocCPs, 80);
STATS_AT(peakAllocCPs, 84);
STATS_AT(totalCBs, 88);
STATS_AT(curCBs, 92);
STATS_AT(totalReadBlocks, 96);
STATS_AT(totalReadCBs, 100);
STATS_AT(totalCleanedCBs, 104);
STATS_AT(ioctlCount, 108);
STATS_AT(eTimeToFreeze, 112);
STATS_AT(eTimeFrozen, 120);
static_assert(sizeof(Stats) == 128);
#undef STATS_AT
