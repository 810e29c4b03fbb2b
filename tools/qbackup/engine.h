/* SPDX-License-Identifier: GPL-2.0-only */
// One backup, from the start of the driver's session to the stored result.
//
// A snapshot gives the tracking session a new key, and hands out what was written since the one before. Both are put into
// the device's ledger before anything else is done, so that a run that fails, or goes to another target, costs no other
// backup its increment. What is not in the ledger is not known: then the key that a stored backup has does not match, and
// a full one is taken. A failed run never leaves a gap in a chain.
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

constexpr std::uint64_t default_cache_bytes = 256ULL << 20;
constexpr std::uint64_t default_drain_bytes = 64ULL << 20;

struct BackupJob {
    Device device;
    Wanted wanted = Wanted::automatic;
    std::uint32_t cacheBlocks = 0; // 0: default_cache_bytes' worth
    // What the device is known by as long as it is there, asked before the start, with the control device open, and
    // again at the end. Null: what `device` says.
    std::function<Identity()> identity{};
    fs::path ledger{}; // the device's; empty: none is kept
    // How much the host has counted as written to the device (HostBlocks::written); null: it does not count.
    std::function<std::optional<std::string>()> written{};
    // The control device can be handed on to a child process: a kill in the moment of the snapshot loses nothing. The
    // caller is then the only thread of its process.
    bool apart = false;
    // Gives the control device anew, after the driver has called it busy: with the lock that keeps other runs out, that is
    // a run that was killed and is still being closed. Null: it is not tried again.
    std::function<quendrel::ControlDevice()> reopen{};
    bool allBlocks = false; // also those that the file system does not use
    bool compress = false;  // a full backup; only where images are made
    std::uint64_t drainBytes = default_drain_bytes; // kept in memory of what is read ahead of its turn
    fs::path spool{};                 // a directory for what is beyond that; empty: it stays in the driver's cache
    std::uint64_t bytesPerSecond = 0; // handed to the repository at most; 0: as fast as it goes
    // Called immediately before the snapshot, when all else is ready for it, and immediately after it; both by the caller's
    // process. The first may throw Failure, and no snapshot is taken then; the second may not, and is called whenever the
    // first one was, whatever came of it and of the snapshot. The driver freezes and thaws between them. Null: none.
    std::function<void()> beforeSnapshot{};
    std::function<void()> afterSnapshot{};
    std::function<void(const char* step)> snapshotWatcher{}; // for tests
};

struct BackupReport {
    StoredBackup backup;
    bool fellBack = false; // full although an incremental was wanted or possible in mode auto
    double seconds = 0;
};

// What a backup would be, as far as that can be told without a snapshot: the driver may have lost track since the last one.
struct BackupPlan {
    Mode mode = Mode::full;
    std::string parent; // of an incremental one
    std::string reason; // of a full one, or of one that is compared: why it is not what changed since
};
// Changes nothing. Throws Failure.
BackupPlan planBackup(quendrel::ControlDevice device, const Repository& repository, const BackupJob& job, Progress& progress, const StopSignal& stop);

// `device` is closed before the backup is put in place. Throws Failure; nothing of the backup is left then.
BackupReport runBackup(quendrel::ControlDevice device, const Repository& repository, const BackupJob& job,
                       Progress& progress, const StopSignal& stop, const PendingBackup::Watcher& watcher = {});

} // namespace qbackup
