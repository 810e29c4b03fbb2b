/* SPDX-License-Identifier: GPL-2.0-only */
// The disk that the fuzzers work on, in memory: one partition, 8:1, with a mounted file system, and the driver loaded.
#pragma once

#include "fuzz_input.h"
#include "hosted.h"

#include <cstring>
#include <memory>
#include <span>
#include <utility>

namespace fuzz
{

constexpr sector_type kPartitionStart = 8;
constexpr u32 kBlocks = 64;
constexpr u32 kBlockBytes = 4096;

struct FuzzedDisk {
    FuzzedDisk()
    {
        auto store = hosted::make_memory_store((kPartitionStart + kBlocks * 8) * 512);
        bytes = hosted::memory_store_bytes(*store);
        hosted::DiskConfig config;
        config.name = "sda";
        config.store = std::move(store);
        config.partitions = {{1, kPartitionStart, kBlocks * 8}};
        disk = hosted::add_disk(std::move(config));
        hosted::mount_file_system(disk->device(1), kBlockBytes);
        require(hosted::load_driver() == 0, "the driver loads");
    }

    std::shared_ptr<hosted::Disk> disk;
    std::span<std::byte> bytes; // all of it
};

// True: tracking is off, as after loading. False: the one backup slot is taken for ever, and only a reload helps.
inline bool stop_tracking()
{
    std::unique_ptr<hosted::ControlFile> file;
    auto memory = std::make_shared<hosted::SimulatedMemory>();
    if (hosted::open_control(QUENDREL_CHRDEV_MAJOR, memory, file) != 0)
        return false;
    const u32 at = memory->allocate(4096);
    const StartBackup start{8, 1, kBlocks, 1};
    std::memcpy(memory->at(at), &start, sizeof start);
    if (file->ioctl(QUENDREL_START_BACKUP, at) != 0 || file->ioctl(QUENDREL_NO_START_AUTOMAP, 0) != 0)
        return false;
    const SnapShot snapshot{at, 0};
    std::memcpy(memory->at(at), &snapshot, sizeof snapshot);
    return file->ioctl(QUENDREL_SNAPSHOT, at) == 0;
}

} // namespace fuzz
