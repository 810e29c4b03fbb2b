/* SPDX-License-Identifier: GPL-2.0-only */
// Freezing the file system of a served partition, as this host has it mounted through a loop device.
#pragma once

#include "guardian.h"
#include "hosted.h"

#include <chrono>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>

namespace quendreld
{

class HostFreezer final : public hosted::Freezer
{
  public:
    // `file`: the served disk file. `start`: the partition's first sector. `report`: gets a line on every failure.
    HostFreezer(std::shared_ptr<Guardian> guardian, std::string file, std::uint64_t start,
                std::function<void(std::string_view)> report);

    bool present() override; // mounted on this host
    bool freeze() override;
    void thaw() override;

  private:
    const std::shared_ptr<Guardian> guardian_;
    const std::string file_;
    const std::uint64_t start_;
    const std::function<void(std::string_view)> report_;
    std::mutex mutex_; // guards what is below; before the guardian's
    std::string mounted_at_;
    base::Descriptor directory_; // there, while it is frozen: should the guardian go, this process thaws
    std::chrono::steady_clock::time_point since_; // the freeze was asked for
    unsigned frozen_ = 0;                         // the guardian's id, 0: not frozen
};

} // namespace quendreld
