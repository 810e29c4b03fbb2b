// SPDX-License-Identifier: GPL-2.0-only
#include "control_rig.h"

#include <stdlib.h>

#include <filesystem>

namespace control_rig
{

ControlRig::ControlRig()
{
    std::string name = testing::TempDir() + "control-XXXXXX";
    scratch = ::mkdtemp(name.data());
    socket = scratch + "/control.sock";
    hosted::DiskConfig config;
    config.name = "sda";
    config.store = hosted::make_memory_store(8 << 20);
    config.partitions = {{1, 2048, 8192}};
    disk = hosted::add_disk(std::move(config));
    EXPECT_EQ(hosted::load_driver(), 0);
    hosted::mount_file_system(disk->device(1), 4096);
}

ControlRig::~ControlRig()
{
    server.reset();
    EXPECT_EQ(hosted::driver_references(), 0);
    EXPECT_EQ(hosted::unload_driver(), 0);
    hosted::unmount_file_system(disk->device(1));
    hosted::remove_disk(disk);
    std::filesystem::remove_all(scratch);
}

void ControlRig::serve(bool multi_client, unsigned most_clients)
{
    ControlServer::Options options;
    options.socket = socket;
    options.multi_client = multi_client;
    options.most_clients = most_clients;
    options.observer = &opens;
    server = std::make_unique<ControlServer>(std::move(options));
}

void ControlRig::expect_well()
{
    LowPage page;
    Client client(socket);
    const auto opened = client.receive();
    ASSERT_TRUE(opened);
    ASSERT_EQ(opened->result, 0);
    const auto reply = client.ioctl(QUENDREL_GET_VERSION_MAJOR, page.address());
    ASSERT_TRUE(reply);
    EXPECT_EQ(reply->result, 0);
    EXPECT_EQ(page.as<std::uint32_t>(), unsigned(QUENDREL_VERSION_MAJOR));
}

int open_descriptors()
{
    int count = 0;
    for ([[maybe_unused]] const auto& entry : std::filesystem::directory_iterator("/proc/self/fd"))
        ++count;
    return count;
}

} // namespace control_rig
