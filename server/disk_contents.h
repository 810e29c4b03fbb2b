/* SPDX-License-Identifier: GPL-2.0-only */
// What lies on the served disks, their partitions and file systems, and telling the hosted kernel and RUN/disks.json.
//
// Whoever uses a disk changes both as he likes. A disk that was described anew (ServedDisk) is looked at again: by the
// daemon's keeper, and before each question of a client.
//
// - A partition that comes, goes, moves or grows is another instance of its device from then on, and so is the disk,
//   whose own blocks are those that belong to no partition. What the driver recorded of their changes counts no more.
// - While a backup of a device of the disk runs, the disk's table stays as it was when the backup began. Instances
//   change at once, for the backup to see that at its end.
// - A file system whose place, type and block size did not change is left alone: a backup of it keeps its super block.
#pragma once

#include "config.h"
#include "device_observer.h"
#include "guardian.h"
#include "hosted.h"
#include "run_dir.h"
#include "served_disk.h"

#include <array>
#include <atomic>
#include <cstdint>
#include <deque>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>
#include <vector>

namespace quendreld
{

class DiskContents final : public DeviceObserver
{
  public:
    struct Place {
        ServedDisk* disk;
        DiskRecord record; // partitions, file systems and instances are filled in here
    };

    // `changed` is called, with no lock held, when the records are others than before. Nothing is looked at yet.
    DiskContents(std::vector<Place> places, std::shared_ptr<Guardian> guardian,
                 std::function<void(std::string_view)> report, std::function<void()> changed);
    ~DiskContents() override; // unmounts all
    DiskContents(const DiskContents&) = delete;
    DiskContents& operator=(const DiskContents&) = delete;

    void refresh();  // looks at everything
    void catch_up(); // looks at the disks that were described anew
    std::vector<DiskRecord> records() const;
    // The disks whose table was put in place since the last call.
    std::vector<DiskRecord> take_new_tables();

    void before_open() override { refresh(); }
    void before_geometry() override { refresh(); }
    void before_command() override { catch_up(); }
    void before_backup(kdev_t device) override;
    void after_backup(kdev_t device) override;
    void after_snapshot() override;

  private:
    using Slots = std::array<hosted::PartitionSpec, minors_of_disk>; // by index; 0 is unused

    struct Disk {
        ServedDisk* served;
        DiskRecord record;
        hosted::PartitionTable table; // as it was last read
        hosted::PartitionTable used;  // as everybody is told
        std::array<unsigned, minors_of_disk> instances{};
        unsigned last_instance = 0;
        unsigned backups = 0; // of its devices, that run
        bool table_known = false;
        bool new_table = false;
        std::atomic<std::uint64_t> seen = 0; // descriptions() before the last look that found all it looked for
    };

    static Slots slots_of(const hosted::PartitionTable& table);
    void look(Disk& disk, bool& changed);
    bool read_table(Disk& disk, bool& changed);
    static void note_changes(Disk& disk, const hosted::PartitionTable& next);
    void tell_changes(Disk& disk, const hosted::PartitionTable& before);
    void use_table(Disk& disk);
    void name_instances(Disk& disk) const;
    void update(const Disk& disk, unsigned minor, std::uint64_t start, std::uint64_t sectors,
                std::optional<FileSystemRecord>& known, std::string& holds, bool& changed);
    void forget(const Disk& disk, unsigned minor, std::optional<FileSystemRecord>& known);
    Disk* disk_of(kdev_t device);

    const std::shared_ptr<Guardian> guardian_;
    const std::function<void(std::string_view)> report_;
    const std::function<void()> changed_;
    const std::string daemon_; // what makes instances of this daemon others than any other's
    mutable std::mutex mutex_; // guards disks_; after the daemon's describe_, before all of the hosted kernel's
    std::deque<Disk> disks_;   // the disks themselves, their number and `seen` need no lock
};

} // namespace quendreld
