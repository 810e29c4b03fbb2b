/* SPDX-License-Identifier: GPL-2.0-only */
// One backup, from the start of the driver's session to the stored result.
//
// Whatever goes wrong after the snapshot has given the tracking session a new key that no stored backup has, so the
// next run finds that its key does not match and takes a full backup: a failed run never leaves a gap in a chain.
// The key belongs to a device number. Whether the same disk has stood behind it all the time is asked of the host: a disk
// that was taken away may have been written to elsewhere.
#pragma once

#include "client/control_device.h"
#include "device_catalog.h"
#include "failure.h"
#include "progress.h"
#include "repository.h"

#include <cstdint>
#include <functional>
#include <string>

namespace qbackup
{

enum class Wanted { automatic, full, incremental };

struct Identity {
    std::string instance; // another one than before: another device. Empty where devices cannot be exchanged
    std::uint64_t bytes = 0; // of the device; 0: not known, ask the driver
};

struct BackupJob {
    Device device;
    Wanted wanted = Wanted::automatic;
    std::uint32_t cacheBlocks = 0; // 0: default_cache_bytes' worth
    // What the device is known by as long as it is there, asked before the start, with the control device open, and
    // again at the end. Null: what `device` says.
    std::function<Identity()> identity{};
};

constexpr std::uint64_t default_cache_bytes = 256ULL << 20;

struct BackupReport {
    StoredBackup backup;
    bool fellBack = false; // full although an incremental was wanted or possible in mode auto
    double seconds = 0;
};

// `device` is closed before the backup is put in place. Throws Failure; nothing of the backup is left then.
BackupReport runBackup(quendrel::ControlDevice device, const Repository& repository, const BackupJob& job,
                       Progress& progress, const StopSignal& stop, const PendingBackup::Watcher& watcher = {});

} // namespace qbackup
