/* SPDX-License-Identifier: GPL-2.0-only */
// Whether the disks are served: a small read of each now and then, by the way that clients' requests take, through the
// driver and the threads behind it.
//
// It reads what the host mostly has in memory, so that a slow disk below is not taken for a daemon that hangs. A read
// that fails is an answer.
#pragma once

#include "served_disk.h"

#include <array>
#include <atomic>
#include <cstddef>
#include <functional>
#include <memory>
#include <string_view>
#include <vector>

namespace quendreld
{

// Of one thread. The disks, and it, live until the last read was answered (hosted::remove_disk waits for that).
class Liveness
{
  public:
    Liveness(const std::vector<ServedDisk*>& disks, std::function<void(std::string_view)> report);

    // True when every disk has answered the read that the look before sent it. Sends the next one to those that have.
    // Does not wait for answers. The log is told of a disk once when it does not answer, and once when it does again.
    bool look();

  private:
    struct Probe : IoRequest {
        ServedDisk* served = nullptr;
        std::atomic<bool> answered = false;
        bool sent = false, missed = false;
        std::array<std::byte, 512> sector = {};
    };

    std::vector<std::unique_ptr<Probe>> probes_;
    std::function<void(std::string_view)> report_;
};

} // namespace quendreld
