/* SPDX-License-Identifier: GPL-2.0-only */
// A control server over a hosted kernel with the driver loaded, and its bare client (wire_client.h).
#pragma once

#include "control_server.h"
#include "hosted.h"
#include "quendrel.h"
#include "wire_client.h"

#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

namespace control_rig
{

using quendreld::ControlServer;

// Counts the opens. An object of its own: a test's destructor runs before its rig has ended the server's threads.
class Opens final : public quendreld::DeviceObserver
{
  public:
    void before_open() override { ++count_; }
    operator int() const { return count_; }

  private:
    std::atomic<int> count_ = 0;
};

struct ControlRig : testing::Test {
    ControlRig();
    ~ControlRig() override;
    void serve(bool multi_client = false, unsigned most_clients = 32);
    // The version command answers over a new connection: the server and the driver are well.
    void expect_well();

    std::string scratch;
    std::string socket;
    std::shared_ptr<hosted::Disk> disk;
    Opens opens;
    std::unique_ptr<ControlServer> server;
};

int open_descriptors();

} // namespace control_rig
