/* SPDX-License-Identifier: GPL-2.0-only */
// A backup of images as a directory with its files, to be copied out.
//
// A process that stays has QEMU serve the image on a private socket, nbdfuse show that as a file, and a file system
// mounted over that, for reading: by the kernel over a loop device, or by fuse2fs, which needs no root. All of these
// end with that process: when it is killed, what reads there gets an error, and nothing waits for ever. It ends when
// the directory is unmounted, by whomever.
//
// Each mount has a folder in the user's runtime directory, named by the hash of the directory: `lock` is locked by the
// process that stays, and has its number; `disk` is where nbdfuse shows the image.
#pragma once

#include "failure.h"
#include "files.h"
#include "stored_backup.h"

#include <functional>

namespace qbackup
{

struct MountJob {
    StoredBackup backup;
    fs::path directory;     // canonical
    unsigned partition = 0; // of an image of a whole disk, from 1 on; 0: the image has the file system
    bool fuse = false;      // without a loop device
};

// `ready` is called when the files can be read. Returns when the directory has been unmounted, or `stop` was raised,
// and nothing is left. Throws Failure; nothing is left then.
void mountBackup(const MountJob& job, const StopSignal& stop, const std::function<void()>& ready);
// Also takes away what a process has left that was killed. Throws Failure: `nothing` when no backup is mounted there.
void unmountBackup(const fs::path& directory);

} // namespace qbackup
