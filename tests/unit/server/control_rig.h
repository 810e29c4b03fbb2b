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

struct ControlRig : testing::Test, quendreld::DeviceObserver {
    ControlRig();
    ~ControlRig() override;
    void serve(bool multi_client = false, unsigned most_clients = 32);
    // The version command answers over a new connection: the server and the driver are well.
    void expect_well();
    void before_open() override { ++opens; }

    std::string scratch;
    std::string socket;
    std::shared_ptr<hosted::Disk> disk;
    std::unique_ptr<ControlServer> server;
    std::atomic<int> opens = 0;
};

int open_descriptors();

} // namespace control_rig
