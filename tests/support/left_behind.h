/* SPDX-License-Identifier: GPL-2.0-only */
// Everything that the driver leaves behind deliberately, in one list. Whatever is not in it ends at zero, and each
// entry is shown by a test that finds exactly its objects and no more.
//
// They are paths that a correct program seldom or never takes and that cost little; giving the objects back there
// would change what the driver does.
#pragma once

#include "hosted.h"

#include <span>

namespace rig::left_behind
{

struct Item {
    const char* what;
    const char* when;
    hosted::Live left; // objects alive after the driver was unloaded
    const char* shownBy;
};

constexpr hosted::Live objects(long kmallocs, long vmallocs, long pages, long slabCaches)
{
    hosted::Live live{};
    live.kmallocs = kmallocs;
    live.vmallocs = vmallocs;
    live.pages = pages;
    live.slab_caches = slabCaches;
    return live;
}

constexpr Item trackingRecord{"a tracking record", "the tracking map could not be made", objects(1, 0, 0, 0),
                              "LeftBehind.ATrackingRecordWhoseMapCouldNotBeMade"};

constexpr Item openRecord{"the record of an open", "the open found the module going away", objects(1, 0, 0, 0),
                          "LeftBehind.TheRecordOfAnOpenThatFoundTheModuleGoingAway"};

// For a map of one page; a larger one leaves a page each 32768 blocks.
constexpr Item overwrittenMap{"the pages of the map that a snapshot handed over and their array",
                              "a map is loaded over it before it was fetched", objects(0, 1, 1, 0),
                              "LeftBehind.TheMapOfASnapshotThatALoadedOneOverwrites"};

constexpr Item dataCache{"the slab cache for block contents", "the one for cache entries could not be made",
                         objects(0, 0, 0, 1), "LeftBehind.TheDataCacheWhoseTwinCouldNotBeMade"};

// One object a device number, however often it is looked up; the platform gives it back when nothing uses it.
constexpr Item blockDevice{"a reference on the block device", "a device's geometry is read",
                           [] {
                               hosted::Live live{};
                               live.block_devices = 1;
                               return live;
                           }(),
                           "LeftBehind.OneReferenceOnEachBlockDeviceThatWasLookedAt"};

// The record that holds the lock is freed right after: no object stays.
constexpr Item heldLock{"cacheUsers, held for writing", "a file is closed that never had a cache", hosted::Live{},
                        "LeftBehind.TheCacheLockOfAnIdleFile"};

// No object stays, and the driver is of no use afterwards: its writers wait for a count that never comes.
constexpr Item registryCount{"the registry's user count, one lower", "a null queue's own function is asked for",
                             hosted::Live{}, "LeftBehind.TheRegistrysCountAfterANullQueue"};

constexpr Item items[] = {trackingRecord, openRecord, overwrittenMap, dataCache, blockDevice, heldLock, registryCount};

} // namespace rig::left_behind
