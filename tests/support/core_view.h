/* SPDX-License-Identifier: GPL-2.0-only */
// A look into the driver behind the control device, for tests whose subject is its records and tables.
#pragma once

#include "driver_rig.h"
#include "qdrlib.h"

#include <initializer_list>

namespace rig
{

// The driver's record of an open file.
inline Backup* recordOf(Program& program) { return static_cast<Backup*>(file_private(program.file().raw())); }

// The tracking session of a device as it stands in the table, without a reference; null when there is none.
inline AutoMapSession* sessionOf(kdev_t dev) { return amList[kdev_major(dev)][kdev_minor(dev)]; }

// The function in front of a disk's queue.
inline make_request_fn* hookOf(TestDisk& disk) { return queue_make_request_fn(disk.disk().queue()); }

inline std::vector<u32> membersOf(BlockMap& map)
{
    std::vector<u32> list;
    for (u32 i = 0; i < map.size; i++)
        if (blockInMap(&map, i))
            list.push_back(i);
    return list;
}

inline Key keyOf(const AutoMapSession* ams)
{
    Key key;
    std::memcpy(key.data(), ams->sessionKey.key, key.size());
    return key;
}

inline bool registryIsEmpty() { return nextQueueList(nullptr) == nullptr; }

// A device's description without an open file, for calling the tracking table's operations directly.
class LooseBackup
{
  public:
    LooseBackup(TestDisk& disk, u32 partition) : record_(new Backup)
    {
        std::memset(static_cast<void*>(record_.get()), 0, sizeof(Backup));
        sema_init(&record_->bSem, 1);
        EXPECT_EQ(getDiskInfo(&record_->diskInfo, disk.device(partition)), 0);
        record_->diskInfo.numBlocks = disk.blocks(partition);
    }
    Backup* get() { return record_.get(); }
    Backup* operator->() { return record_.get(); }

  private:
    std::unique_ptr<Backup> record_;
};

// A whole backup of no blocks, which leaves the device tracked in sync.
inline void trackDevice(TestDisk& disk, u32 partition, u32 totalBlocks = 0)
{
    Program program;
    ASSERT_EQ(program.open(), 0);
    ASSERT_EQ(program.start(disk.device(partition), totalBlocks ? totalBlocks : disk.blocks(partition), 100), 0);
    ASSERT_EQ(program.noLoadFromAutoMap(), 0);
    ASSERT_EQ(program.snapshot(), 0);
    ASSERT_EQ(program.state().state, unsigned(QUENDREL_STATE_SNAPSHOT));
    ASSERT_EQ(program.close(), 0);
}

using Lines = std::vector<std::string>;

// The lines of one function, without those of the statistics and of the worker.
inline Lines linesOf(const Lines& log, const std::string& function)
{
    Lines found;
    for (const std::string& line : log)
        if (line.compare(3, function.size() + 1, function + ":") == 0)
            found.push_back(line);
    return found;
}

// The warnings and errors, in order.
inline Lines complaints(const Lines& log)
{
    Lines found;
    for (const std::string& line : log)
        if (line[1] < '6')
            found.push_back(line);
    return found;
}

} // namespace rig
