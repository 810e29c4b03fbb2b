// SPDX-License-Identifier: GPL-2.0-only
// Snapshots of a partition that is mounted on this host, taken over the control socket.
#include "quendrel/2.6/quendrel.h"
#include "serving.h"
#include "wire_client.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <linux/fs.h>
#include <sys/ioctl.h>

#include <chrono>
#include <cstring>
#include <fstream>
#include <thread>

namespace
{

using namespace serving;
using control_rig::Client;
using control_rig::LowPage;
using base::Descriptor;

constexpr std::uint64_t MiB = 1 << 20;

struct MountedPartition : testing::Test {
    ScratchDir scratch;
    std::string image = scratch / "disk.img";
    std::string mnt = scratch / "mnt";
    std::unique_ptr<Serving> serving;
    std::unique_ptr<Client> client;
    LowPage record, key;

    void SetUp() override
    {
        if (const std::string reason = no_loop_reason(); !reason.empty())
            GTEST_SKIP() << reason;
        make_image(image, 64 * MiB, {{2048, 65536}});
        serving = std::make_unique<Serving>(std::vector{image}, scratch / "run");
        const std::string loop = serving->attach();
        must_run({"mkfs.ext4", "-q", "-b", "4096", loop + "p1"});
        serving->mount(loop + "p1", mnt);
        client = std::make_unique<Client>(scratch / "run/control.sock");
        ASSERT_EQ(client->receive()->result, 0);
        record.as<StartBackup>() = {8, 1, 8192, 1024};
        ASSERT_EQ(client->ioctl(QUENDREL_START_BACKUP, record.address())->result, 0);
    }
    int snapshot()
    {
        record.as<SnapShot>() = {key.address(), QUENDREL_KEY_BYTES};
        return client->ioctl(QUENDREL_SNAPSHOT, record.address())->result;
    }
    bool log_has(const std::string& text)
    {
        for (int i = 0; i < 200; ++i) {
            if (serving->log().find(text) != std::string::npos)
                return true;
            std::this_thread::sleep_for(std::chrono::milliseconds(10));
        }
        return false;
    }
};

TEST_F(MountedPartition, ASnapshotReallyFreezesTheFileSystemAndThawsIt)
{
    // Written, but only into the host's page cache: the freeze brings it to the disk before the snapshot.
    std::ofstream(mnt + "/file") << std::string(MiB, 'z');
    EXPECT_EQ(snapshot(), 0);
    EXPECT_TRUE(log_has(mnt + ": frozen for ")) << serving->log();
    Descriptor fd(::open(mnt.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    EXPECT_NE(::ioctl(fd.get(), FITHAW, 0), 0) << "it was still frozen";
    // The disk underneath has the file and is clean as of the freeze.
    const std::string part = scratch / "part.img";
    must_run({"dd", "if=" + image, "of=" + part, "bs=1M", "skip=1", "count=32", "status=none"});
    EXPECT_EQ(must_run({"debugfs", "-R", "cat /file", part}), std::string(MiB, 'z'));
}

TEST_F(MountedPartition, WhatIsMountedOverItIsNotFrozenInItsPlace)
{
    const std::string other = scratch / "other.img";
    make_image(other, 16 * MiB, {});
    must_run({"mkfs.ext4", "-q", other});
    must_run({"mount", "-o", "loop", other, mnt});
    EXPECT_EQ(snapshot(), QUENDREL_REFUSED);
    EXPECT_TRUE(log_has(" is mounted on " + mnt +
                        ", where it cannot be reached (mostly something else is mounted over it; unmount that)\n"))
        << serving->log();
    EXPECT_EQ(serving->log().find("frozen for"), std::string::npos);
    must_run({"umount", mnt});
    EXPECT_EQ(snapshot(), 0) << "reached again";
    EXPECT_TRUE(log_has(mnt + ": frozen for "));
}

TEST_F(MountedPartition, AFileSystemFrozenBySomebodyElseIsNotThawedAndTheLogSaysSo)
{
    Descriptor fd(::open(mnt.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    ASSERT_EQ(::ioctl(fd.get(), FIFREEZE, 0), 0);
    snapshot();
    EXPECT_TRUE(log_has("freeze: " + mnt + ": frozen already by somebody else")) << serving->log();
    EXPECT_EQ(::ioctl(fd.get(), FITHAW, 0), 0) << "it is no longer frozen";
}

TEST_F(MountedPartition, AnUnmountedFileSystemIsSnapshotWithoutFreezing)
{
    serving->unmount(mnt);
    EXPECT_EQ(snapshot(), 0);
    EXPECT_EQ(serving->log().find("freeze:"), std::string::npos) << serving->log();
}

TEST_F(MountedPartition, OldBlocksAreReadBackAfterTheyWereOverwritten)
{
    std::ofstream(mnt + "/file") << std::string(4096, 'o');
    ASSERT_EQ(snapshot(), 0);
    LowPage map;
    // The test needs one block: that of the file, found through the image as it stands at the freeze.
    std::ifstream in(image, std::ios::binary);
    std::string text(4096, 0);
    std::uint32_t block = 0;
    for (in.seekg(MiB); in.read(text.data(), 4096); ++block)
        if (text == std::string(4096, 'o'))
            break;
    ASSERT_LT(block, 8192u);
    std::memset(&map.as<char>(), 0, 4096);
    (&map.as<unsigned char>())[block / 8] |= static_cast<unsigned char>(1 << block % 8);
    LowPage user_map;
    user_map.as<UserBlockMap>() = {map.address(), 8192};
    record.as<LoadBlockMap>() = {user_map.address(), sizeof(UserBlockMap)};
    ASSERT_EQ(client->ioctl(QUENDREL_LOAD_BLOCK_MAP, record.address())->result, 0);

    {
        Descriptor fd(::open((mnt + "/file").c_str(), O_WRONLY | O_CLOEXEC));
        ASSERT_EQ(::pwrite(fd.get(), std::string(4096, 'n').data(), 4096, 0), 4096);
        ASSERT_EQ(::fsync(fd.get()), 0);
    }
    Descriptor memory;
    constexpr std::uint32_t area = 0x30000000;
    const auto mapped = client->ask({control_rig::wire::Kind::mmap, area, 4096, 1, 0}, &memory);
    ASSERT_TRUE(mapped && mapped->result == 0 && mapped->count == 1);
    record.as<ReadBlocks>() = {block, 1, area};
    ASSERT_EQ(client->ioctl(QUENDREL_READ_BLOCKS, record.address())->result, 0);
    std::string got(4096, 0);
    ASSERT_EQ(::pread(memory.get(), got.data(), 4096, off_t(mapped->pages[0]) * 4096), 4096);
    EXPECT_EQ(got, std::string(4096, 'o'));
}

TEST_F(MountedPartition, TheDaemonsDeathWhileAClientIsInLeavesNothingFrozen)
{
    ASSERT_EQ(snapshot(), 0);
    serving->kill_it();
    serving->clean_up();
    EXPECT_FALSE(client->ioctl(QUENDREL_GET_VERSION_MAJOR, record.address()));
}

} // namespace
