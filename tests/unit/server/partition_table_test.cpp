// SPDX-License-Identifier: GPL-2.0-only
// A guest that changes its partition table while the daemon serves the disk: what the description, clients, a backup
// that runs and loop devices of this host see of it.
#include "client/control_device.h"
#include "host_mounts.h"
#include "nbd_client.h"
#include "run_dir.h"
#include "serving.h"

#include <gtest/gtest.h>

#include <chrono>
#include <cstring>
#include <fcntl.h>
#include <functional>
#include <sys/ioctl.h>
#include <thread>

namespace
{

using namespace serving;
using namespace std::chrono_literals;
using nbd_client::Bytes;
using nbd_client::wire::Command;
using nbd_client::wire::Error;
using quendrel::ControlDevice;
using quendreld::DiskRecord;
using quendreld::PartitionRecord;

constexpr std::uint64_t MiB = 1 << 20;
constexpr Part first{2048, 65536}, grown{2048, 81920}, second{100352, 16384};

bool eventually(const std::function<bool()>& condition)
{
    for (int i = 0; i < 500; ++i) {
        if (condition())
            return true;
        std::this_thread::sleep_for(20ms);
    }
    return condition();
}

struct PartitionTable : testing::Test {
    ScratchDir scratch;
    std::string image = scratch / "disk.img";
    std::string run_dir = scratch / "run";
    std::unique_ptr<Serving> serving;

    void serve(const std::vector<std::string>& options = {"--no-fuse"})
    {
        make_image(image, 64 * MiB, {first, second});
        // File systems are found by what their first blocks say.
        for (const Part& part : {first, second}) {
            const std::string offset = "offset=" + std::to_string(part.start * 512);
            must_run({"mkfs.ext4", "-q", "-b", "4096", "-E", offset, image, std::to_string(part.sectors / 2) + "k"});
        }
        serving = std::make_unique<Serving>(std::vector{image}, run_dir, options);
    }
    // As a guest writes it.
    void write_table(const std::vector<Part>& parts)
    {
        nbd_client::Client guest = nbd_client::Client::connect(run_dir + "/nbd.sock");
        ASSERT_TRUE(guest.begin("sda"));
        const DosTable table = dos_table(parts);
        Bytes bytes(table.size());
        std::memcpy(bytes.data(), table.data(), table.size());
        ASSERT_EQ(guest.ask(Command::write, 0, 512, 0, bytes).error, Error::none);
    }
    DiskRecord disk() const { return quendreld::disks_from_json(quendreld::read_file(run_dir + "/disks.json"))[0]; }
    bool has(const std::string& name) const
    {
        for (const PartitionRecord& part : disk().partitions)
            if (part.name == name)
                return true;
        return false;
    }
    bool told(const std::string& line) const { return serving->log().find(line) != std::string::npos; }
    bool told_soon(const std::string& line) const
    {
        return eventually([&] { return told(line); });
    }
    ControlDevice control() const { return ControlDevice(run_dir + "/control.sock"); }
};

TEST_F(PartitionTable, ANewOneIsDescribedSoonAndOthersStayTheSameInstance)
{
    serve();
    const DiskRecord before = disk();
    write_table({first, second, {120000, 2048}});
    ASSERT_TRUE(eventually([&] { return has("sda3"); }));
    const DiskRecord after = disk();
    EXPECT_EQ(after.partitions[0], before.partitions[0]);
    EXPECT_EQ(after.partitions[1], before.partitions[1]);
    EXPECT_NE(after.instance, before.instance) << "of the blocks outside of partitions there are fewer";
    EXPECT_EQ(after.partitions[2].start, 120000u);
    EXPECT_TRUE(told_soon("sda3 is another device now: 2048 sectors from sector 120000 on\n"));
}

TEST_F(PartitionTable, OneThatGrewIsAnotherInstanceAndOneThatWentIsGone)
{
    serve();
    const DiskRecord before = disk();
    write_table({grown});
    ASSERT_TRUE(eventually([&] { return !has("sda2"); }));
    const DiskRecord after = disk();
    EXPECT_EQ(after.partitions[0].sectors, grown.sectors);
    EXPECT_NE(after.partitions[0].instance, before.partitions[0].instance);
    EXPECT_TRUE(told_soon("sda1 is another device now: 81920 sectors from sector 2048 on, it had 65536 sectors from sector "
                     "2048 on; sda2 is gone: its partition was removed\n"));
}

TEST_F(PartitionTable, EntriesThatCannotBeTrueAreLeftOutWithALineInTheLog)
{
    serve();
    write_table({first, {60000, 20000}, {120000, 20000}});
    EXPECT_TRUE(eventually([&] {
        return told("sda: partition 2 lies over partition 1, left out; sda: partition 3 ends after the disk, left out; "
                    "sda2 is gone: its partition was removed\n");
    })) << serving->log();
    EXPECT_TRUE(eventually([&] { return disk().partitions.size() == 1; }));
}

TEST_F(PartitionTable, AGuestThatChangesItAllTheTimeDoesNotFillTheLog)
{
    serve();
    ControlDevice device = control();
    const auto begin = std::chrono::steady_clock::now();
    for (int i = 0; i < 50; ++i) {
        write_table({i % 2 ? first : grown, second});
        ASSERT_EQ(device.blockSize({8, 1}).sizeKiB, (i % 2 ? first : grown).sectors / 2) << i;
    }
    EXPECT_TRUE(told_soon("is another device now"));
    const auto seconds = std::chrono::ceil<std::chrono::seconds>(std::chrono::steady_clock::now() - begin).count();
    const std::string log = serving->log();
    std::ptrdiff_t told = 0;
    for (auto at = log.find("is another device now"); at != std::string::npos; at = log.find("is another device now", at + 1))
        ++told;
    EXPECT_LE(told, 8 * (seconds + 1)) << "eight in a line, one line a second";
}

TEST_F(PartitionTable, AQuestionRightAfterTheWriteIsAnsweredByTheNewTable)
{
    serve();
    ControlDevice device = control();
    EXPECT_EQ(device.blockSize({8, 1}).sizeKiB, first.sectors / 2);
    for (int i = 0; i < 20; ++i) {
        const Part& now = i % 2 ? first : grown;
        write_table({now, second});
        ASSERT_EQ(device.blockSize({8, 1}).sizeKiB, now.sectors / 2) << i;
    }
}

TEST_F(PartitionTable, AFileSystemMadeByTheGuestIsWhatTheNextQuestionFinds)
{
    serve();
    ControlDevice device = control();
    EXPECT_EQ(device.blockSize({8, 2}).blockSize, 4096u);
    const std::string small = scratch / "small.img";
    make_image(small, second.sectors * 512, {});
    must_run({"mkfs.ext4", "-q", "-b", "1024", small});
    must_run({"qemu-img", "convert", "-n", "-f", "raw", "-O", "raw", small,
              "json:{\"driver\":\"raw\",\"offset\":" + std::to_string(second.start * 512) +
                  ",\"size\":" + std::to_string(second.sectors * 512) +
                  ",\"file\":{\"driver\":\"nbd\",\"export\":\"sda\",\"server\":{\"type\":\"unix\",\"path\":\"" +
                  run_dir + "/nbd.sock\"}}}"});
    EXPECT_EQ(device.blockSize({8, 2}).blockSize, 1024u);
    EXPECT_TRUE(eventually([&] { return disk().partitions[1].file_system->block_size == 1024; })) << "described, too";
}

TEST_F(PartitionTable, SwapSpaceIsDescribedAsSuch)
{
    serve();
    nbd_client::Client guest = nbd_client::Client::connect(run_dir + "/nbd.sock");
    ASSERT_TRUE(guest.begin("sda"));
    // mkswap's: the version and the last page at 1024, the signature at the end of the first page.
    Bytes swap(4096);
    const std::uint32_t words[] = {1, second.sectors / 8 - 1};
    std::memcpy(swap.data() + 1024, words, sizeof words);
    std::memcpy(swap.data() + 4086, "SWAPSPACE2", 10);
    ASSERT_EQ(guest.ask(Command::write, second.start * 512, 4096, 0, swap).error, Error::none);
    EXPECT_TRUE(eventually([&] { return disk().partitions[1].holds == "swap"; }));
    EXPECT_FALSE(disk().partitions[1].file_system);
    EXPECT_EQ(disk().partitions[0].holds, "");
}

TEST_F(PartitionTable, ABackupThatRunsKeepsItsPlaceAndSeesAtItsEndThatItMoved)
{
    serve();
    const DiskRecord before = disk();
    {
        ControlDevice device = control();
        device.start({8, 1}, first.sectors / 8, 256);
        device.snapshot({});
        ASSERT_TRUE(device.autoMapState().inSync);
        write_table({grown, second, {120000, 2048}});
        EXPECT_FALSE(device.autoMapState().inSync);
        EXPECT_EQ(device.blockSize({8, 1}).sizeKiB, first.sectors / 2);
        EXPECT_FALSE(has("sda3"));
        EXPECT_EQ(disk().partitions[0].sectors, first.sectors);
        EXPECT_NE(disk().partitions[0].instance, before.partitions[0].instance);
        EXPECT_EQ(disk().partitions[1].instance, before.partitions[1].instance);
        EXPECT_TRUE(told_soon("sda: its new partition table counts when the backup that runs has ended\n"));
    }
    EXPECT_TRUE(eventually([&] { return has("sda3"); }));
    EXPECT_EQ(disk().partitions[0].sectors, grown.sectors);
    EXPECT_EQ(control().blockSize({8, 1}).sizeKiB, grown.sectors / 2);
}

TEST_F(PartitionTable, ASnapshotOfAPlaceThatHasMovedAlreadyIsNotTakenForOneInSync)
{
    serve();
    ControlDevice device = control();
    device.start({8, 1}, first.sectors / 8, 256);
    write_table({grown, second});
    device.snapshot({});
    EXPECT_FALSE(device.autoMapState().inSync);
}

TEST_F(PartitionTable, ChangesOfAPartitionThatStayedAreStillTracked)
{
    serve();
    quendrel::SessionKey key;
    {
        ControlDevice device = control();
        device.start({8, 2}, second.sectors / 8, 256);
        device.snapshot({});
        key = device.autoMapState().key;
    }
    write_table({grown, second});
    ASSERT_TRUE(eventually([&] { return disk().partitions[0].sectors == grown.sectors; }));
    nbd_client::Client guest = nbd_client::Client::connect(run_dir + "/nbd.sock");
    ASSERT_TRUE(guest.begin("sda"));
    ASSERT_EQ(guest.ask(Command::write, second.start * 512 + 7 * 4096, 4096, 0, Bytes(4096)).error, Error::none);
    ControlDevice device = control();
    device.start({8, 2}, second.sectors / 8, 256);
    device.snapshot(key);
    const auto changed = device.autoMap(second.sectors / 8);
    ASSERT_TRUE(changed) << "its tracking was lost";
    EXPECT_EQ(changed->count(), 1u);
    EXPECT_TRUE(changed->test(7));
}

TEST_F(PartitionTable, LoopDevicesOfThisHostFollow)
{
    if (const std::string reason = no_loop_reason(); !reason.empty())
        GTEST_SKIP() << reason;
    serve({});
    const std::string loop = serving->attach();
    const auto partitions = [&] {
        std::vector<std::pair<unsigned, std::uint64_t>> found;
        const auto loops = quendreld::loops_over(serving->file());
        for (const auto& device : loops.at(0).devices)
            if (device.partition)
                found.emplace_back(device.partition, device.sectors);
        return found;
    };
    using Found = std::vector<std::pair<unsigned, std::uint64_t>>;
    EXPECT_EQ(partitions(), (Found{{1, first.sectors}, {2, second.sectors}}));
    serving->mount(loop + "p1", scratch / "mnt");
    write_table({grown, {0, 0}, {120000, 2048}});
    EXPECT_TRUE(eventually([&] {
        return partitions() == Found{{1, grown.sectors}, {3, 2048}};
    })) << "a mounted one grows, one goes, one comes";
    write_table({{4096, 65536}});
    EXPECT_TRUE(eventually([&] {
        return told(loop + "p1 does not follow the partition table: it is in use; detach the disk and attach it again "
                           "when it is not\n");
    }));
    EXPECT_EQ(partitions(), (Found{{1, grown.sectors}})) << "the one in use stays where it was";
    serving->unmount(scratch / "mnt");
}

} // namespace
