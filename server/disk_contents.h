/* SPDX-License-Identifier: GPL-2.0-only */
// What lies on one served disk: its partitions and their file systems, read from it and told to the hosted kernel.
//
// Whoever uses a disk changes both as he likes. A disk that was described anew (ServedDisk) is looked at again.
//
// - A partition that comes, goes, moves or grows is another instance of its device from then on, and so is the disk,
//   whose own blocks are those that belong to no partition. What the driver recorded of their changes counts no more.
// - While a backup of a device of the disk runs, the disk's table stays as it was when the backup began. Instances
//   change at once, for the backup to see that at its end.
// - What is told (record()) never waits for the disk, whose file may hang.
#pragma once

#include "config.h"
#include "file_systems.h"
#include "guardian.h"
#include "hosted.h"
#include "run_dir.h"
#include "served_disk.h"

#include <array>
#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace quendreld
{

class DiskContents
{
  public:
    // `record`: of the disk; partitions, file systems and instances are filled in here. `daemon`: what makes instances
    // of this daemon others than any other's. `report`: gets a line of each freeze. `changed`: called by the look that
    // has made record() another than before, before it comes back. Nothing is looked at yet.
    DiskContents(ServedDisk& served, DiskRecord record, std::string daemon, std::shared_ptr<Guardian> guardian,
                 std::function<void(std::string_view)> report, std::function<void()> changed);
    ~DiskContents(); // unmounts all
    DiskContents(const DiskContents&) = delete;
    DiskContents& operator=(const DiskContents&) = delete;

    // These look at the disk, and wait for it as long as that takes. What there is to tell people is in take_news().
    // Throw std::bad_alloc; the next look does what is missing then.
    void look();
    void catch_up();     // when it was described anew
    void begin_backup(); // and counts the backup of a device of the disk, unless it throws

    void end_backup(); // does not wait
    // A backup's snapshot was taken: what has moved since it began is not in sync. Waits as the above.
    void after_snapshot();

    DiskRecord record() const;
    // What changed and what went wrong since the last call, a sentence each; of very many the first. Waits as a look.
    std::vector<std::string> take_news();
    // The record, when the disk's table was put in place since the last call. Waits as a look.
    std::optional<DiskRecord> take_new_table();

  private:
    using Slots = std::array<hosted::PartitionSpec, minors_of_disk>; // by index; 0 is unused

    static Slots slots_of(const hosted::PartitionTable& table);
    void look_held();
    bool read_table();
    void note_changes(const hosted::PartitionTable& next);
    void tell_changes(const hosted::PartitionTable& before);
    void use_table();
    void name_instances();
    void publish();
    kdev_t device(unsigned index) const { return served_.disk()->device(index); }

    ServedDisk& served_;
    const std::string daemon_;
    FileSystems file_systems_;
    const std::function<void()> changed_;
    std::atomic<std::uint64_t> seen_ = 0; // descriptions() before the last look that found all it looked for
    std::atomic<unsigned> backups_ = 0;   // of its devices, that run
    std::atomic<bool> held_back_ = false; // for them: the table in use is not the one on the disk

    // One look at a time; guards what follows. Before what `changed` takes, and all of the hosted kernel's locks.
    std::mutex looking_;
    DiskRecord record_;
    hosted::PartitionTable table_; // as it was last read
    hosted::PartitionTable used_;  // as everybody is told
    std::array<unsigned, minors_of_disk> instances_{};
    unsigned last_instance_ = 0;
    bool table_known_ = false;
    bool untold_ = false;    // told_ has changed, and `changed` was not called
    bool new_table_ = false; // used_ has changed since it was asked for
    std::vector<std::string> news_;

    mutable std::mutex told_mutex_; // guards the changes of what follows, which only a look makes; innermost
    DiskRecord told_;
};

} // namespace quendreld
