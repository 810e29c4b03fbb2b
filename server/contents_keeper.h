/* SPDX-License-Identifier: GPL-2.0-only */
// Keeps what is told of the served disks' contents up to date: RUN/disks.json, the clients of the control device, the
// loop devices of this host.
//
// Each disk has a thread that looks at it when it was described anew, and that says what it found, once a second at
// most: what a guest writes must not fill the log. A client's question about a device waits for a look at its disk,
// however long that hangs, and not for other disks'.
#pragma once

#include "device_observer.h"
#include "disk_contents.h"
#include "guardian.h"
#include "served_disk.h"

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <functional>
#include <memory>
#include <mutex>
#include <string_view>
#include <thread>
#include <vector>

namespace quendreld
{

class ContentsKeeper final : public DeviceObserver
{
  public:
    struct Place {
        ServedDisk* disk;
        DiskRecord record; // partitions, file systems and instances are filled in here
    };

    // Looks at every disk once. All have one major number, and are in the order of their minors. `changed` is called
    // from any thread when the records are others than before, from start() on.
    ContentsKeeper(std::vector<Place> places, std::shared_ptr<Guardian> guardian,
                   std::function<void(std::string_view)> report, std::function<void()> changed);
    ~ContentsKeeper() override; // unmounts all

    void start(); // the threads; throws std::system_error
    void stop();  // ends them; `changed` is not called any more

    std::vector<DiskRecord> records() const; // waits for no disk
    void described_anew(unsigned disk);      // its number in `places`; does not wait

    void before_open() override; // looks at all disks; waits for those that answer
    void before_geometry(kdev_t device) override;
    void before_command(kdev_t device) override;
    void before_backup(kdev_t device) override;
    void after_backup(kdev_t device) override;
    void after_snapshot(kdev_t device) override;

  private:
    struct Disk {
        Disk(Place place, const std::string& daemon, const std::shared_ptr<Guardian>& guardian,
             const std::function<void(std::string_view)>& report, std::function<void()> changed)
            : contents(*place.disk, std::move(place.record), daemon, guardian, report, std::move(changed))
        {
        }
        DiskContents contents;
        std::thread thread;
        bool described_anew = true; // by whom this keeper was not there to hear
        std::uint64_t asked = 0;    // looks that somebody waits for
        std::uint64_t answered = 0; // the last of those whose look is done
        bool late = false;          // one was given up; nobody waits again before it is done
    };

    using Sentences = std::vector<std::string>;

    void wake(Disk& disk);
    void keep(Disk& disk);
    static void look(Disk& disk, bool at_all_events, Sentences& unsaid);
    static void follow(Disk& disk, Sentences& unsaid);
    void say(Sentences& unsaid) const;
    Disk* disk_of(kdev_t device);

    const std::function<void(std::string_view)> report_;
    std::atomic<bool> started_ = false;
    unsigned major_ = 0;
    std::deque<Disk> disks_; // their number and `contents` need no lock
    std::mutex mutex_;       // guards the rest of each disk, and what follows; innermost
    std::condition_variable news_;
    std::condition_variable answer_;
    bool ends_ = false; // for good
};

} // namespace quendreld
