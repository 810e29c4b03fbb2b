/* SPDX-License-Identifier: GPL-2.0-only */
// A plain model of a disk under the driver: what each partition holds, which blocks tracking knows of, what a backup
// must deliver. It predicts every code and every block; the test runs the same steps on both and compares.
//
// It is single-threaded: one step ends before the next begins (the worker's own tail end may still overlap, and must
// not change any outcome).
#pragma once

#include "driver_rig.h"

#include <map>
#include <optional>
#include <set>

namespace model {

using rig::Bytes;

// Which function stands in front of the disk's queue.
enum class Hook { none, backup, tracking };

struct Session {
    bool inSync = false;
    u32 blocks = 0;
    std::set<u32> written;
};

// A block that the copy-on-write cache holds, as it was when it was saved.
using Cache = std::map<u32, Bytes>;

struct BackupModel {
    u32 partition = 0;
    u32 state = QUENDREL_STATE_STARTED;
    u32 blocks = 0;
    u32 maxCacheBlocks = 0;
    bool attached = true;  // seen by the hook
    bool mapFromTracking = false;
    std::set<u32> changed;  // the map that tracking handed over, until it is fetched
    std::set<u32> map;      // loaded, minus what was read
    u32 mapBlocks = 0;
    std::set<u32> marked;   // the driver's cache map
    Cache cache;
    Bytes frozen;           // the partition at the snapshot
    bool protectedAll = true;  // nothing has taken the hook away since the snapshot
};

class Model
{
  public:
    explicit Model(rig::TestDisk& disk) : disk_(disk) {}

    void addPartition(u32 index) { content_[index] = disk_.image(index); }
    const Bytes& content(u32 partition) const { return content_.at(partition); }
    u32 blockBytes(u32 partition) const { return disk_.partition(partition).blockSize; }
    Bytes block(const Bytes& image, u32 partition, u32 number) const;

    // A write of whole sectors within one partition.
    void write(u32 partition, sector_type sector, u32 sectors, unsigned char value);

    void start(u32 partition, u32 blocks, u32 maxCacheBlocks);
    struct Options {
        bool noStart = false, noLoad = false, keyMatches = false, freezeFails = false;
    };
    // The expected code; the state says whether the snapshot was taken.
    int snapshot(const Options& options);
    void loadMap(const rig::Bits& bits);
    // What a read of one block must deliver now; its effect on maps and cache is applied.
    Bytes read(u32 block);
    void closeBackup();
    void detach() { backup_->attached = false; backup_->protectedAll = false; }
    void shutdown();

    bool running() const { return backup_.has_value(); }
    BackupModel& backup() { return *backup_; }
    const Session* session(u32 partition) const;

  private:
    bool needsSaving(u32 block) const;
    void copyOnWrite(u32 first, u32 last);
    void errorTracking();  // after a failed copy-on-write
    void unhook();
    int trackedOnQueue() const;
    void unregister(u32 partition);

    rig::TestDisk& disk_;
    std::map<u32, Bytes> content_;
    std::map<u32, Session> sessions_;
    std::set<u32> registered_;  // devices of interest on the queue; the hook is none when empty
    Hook hook_ = Hook::none;
    std::optional<BackupModel> backup_;
};

}  // namespace model
