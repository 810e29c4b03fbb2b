/* SPDX-License-Identifier: GPL-2.0-only */
// The snapshot of a backup: taking it, and putting what it hands out where the next run finds it.
//
// Between the driver's answer, by which it has given up its map and taken a new key, and the ledger's entry, what has
// changed is nowhere but in the memory of one process. So this is done by a process of its own, which does nothing else
// and has the control device open too: a run that is killed meanwhile, by whatever, leaves it to bring the ledger to
// its end. It holds what the run holds, the locks among it, until it ends; only then does the driver see the file
// closed, as the last of those who have it open counts. Where the control device cannot be handed on to a child, the
// run does it itself.
#pragma once

#include "client/control_device.h"
#include "failure.h"
#include "ledger.h"

#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <vector>

namespace qbackup
{

struct SnapshotTask {
    std::string name; // of the device, for messages
    quendrel::DeviceNumber number;
    std::uint32_t blocks = 0;
    std::vector<quendrel::SessionKey> keys; // those that may be the tracking session's. Without any it begins anew
    Ledger* ledger = nullptr;               // null: none is kept
    std::optional<std::uint64_t> closes;    // of the control device, at the start of the backup
    std::function<std::optional<std::string>()> written{}; // BackupJob's
    // Called with the name of each step that is done, in the process that does it; for tests.
    std::function<void(const char* step)> watcher{};
};

struct Snapshot {
    std::string time;
    quendrel::SessionKey key{};                // the tracking session's from now on
    std::optional<quendrel::SessionKey> since; // which of the keys was the tracking session's
    std::optional<quendrel::Bitmap> changed;   // since then; nothing when that is not known
    bool empty = false;                 // because the map that was handed out names no block, and nothing else does
    std::optional<std::string> written; // right before it
    bool linked = false;                // the ledger goes on with `changed`
    std::string warning;                // why there is nothing in the ledger, when it should be
};

// Takes the snapshot of a backup that is started. `stop` is looked at before it, and not behind it.
Snapshot takeSnapshot(quendrel::ControlDevice& device, const SnapshotTask& task, const StopSignal& stop);
// The same by a process of its own. Nothing runs beside the calling thread that could hold a lock at the fork. The
// ledger is as it was to the caller, who has to load it anew. Fails as the former does, and when that process comes to
// an early end.
Snapshot takeSnapshotApart(quendrel::ControlDevice& device, const SnapshotTask& task, const StopSignal& stop);

// ---- what ends a backup, in its snapshot and later

// `known`: the next backup will know all the same what has changed.
[[noreturn]] void throwLost(const std::string& name, const std::string& what, bool known);
void expectState(quendrel::ControlDevice& device, const std::string& name, unsigned expected, const char* when);
void expectNoOtherClose(const quendrel::ControlDevice& device, const std::string& name,
                        const std::optional<std::uint64_t>& closes, bool known);
// An error of the driver's that nobody has said more about.
Failure failureOf(const quendrel::Error& error);

} // namespace qbackup
