// SPDX-License-Identifier: GPL-2.0-only
// The disk as a file, under a loop device, with a mounted file system.
#include "host_mounts.h"
#include "run_dir.h"
#include "serving.h"
#include "wire_client.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <linux/fs.h>
#include <sys/ioctl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <fstream>
#include <random>
#include <thread>

namespace
{

using namespace serving;
using namespace std::chrono_literals;
using base::Descriptor;

constexpr std::uint64_t MiB = 1 << 20;

struct LoopDisk : testing::Test {
    ScratchDir scratch;
    std::string image = scratch / "disk.img";
    std::string run_dir = scratch / "run";
    std::string mnt = scratch / "mnt";

    void SetUp() override
    {
        if (const std::string reason = no_loop_reason(); !reason.empty())
            GTEST_SKIP() << reason;
        make_image(image, 128 * MiB, {{2048, 131072}, {133120, 65536}});
    }
    static Outcome quendreld(std::vector<std::string> words)
    {
        words.insert(words.begin(), Serving::program());
        return run(words);
    }
};

TEST_F(LoopDisk, TheFileHasTheDisksSizeAndBytes)
{
    std::fstream(image, std::ios::binary | std::ios::in | std::ios::out).seekp(90 * MiB) << "ninety";
    Serving serving({image}, run_dir);
    struct stat status;
    ASSERT_EQ(::stat(serving.file().c_str(), &status), 0);
    EXPECT_EQ(std::uint64_t(status.st_size), 128 * MiB);
    must_run({"cmp", image, serving.file()});
    EXPECT_EQ(must_run({"ls", run_dir + "/disks"}), "sda\n");
}

TEST_F(LoopDisk, UnalignedAndLargeRangesOfTheFileReadAndWrite)
{
    for (const char* option : {"--multi-client", "--direct"}) {
        SCOPED_TRACE(option);
        Serving serving({image}, run_dir, {option});
        Descriptor fd(::open(serving.file().c_str(), O_RDWR | O_CLOEXEC | O_DIRECT));
        ASSERT_TRUE(fd);
        std::mt19937 random(3);
        for (const std::size_t bytes : {std::size_t(512), std::size_t(4096), std::size_t(65536), std::size_t(66048),
                                        std::size_t(MiB), std::size_t(3 * MiB + 512)}) {
            SCOPED_TRACE(bytes);
            std::vector<char> data(bytes), back(bytes);
            for (char& c : data)
                c = char(random());
            ASSERT_EQ(::pwrite(fd.get(), data.data(), bytes, MiB / 2 + 512), ssize_t(bytes)) << errno;
            ASSERT_EQ(::fsync(fd.get()), 0);
            ASSERT_EQ(::pread(fd.get(), back.data(), bytes, MiB / 2 + 512), ssize_t(bytes)) << errno;
            EXPECT_EQ(data, back);
        }
        EXPECT_EQ(::pread(fd.get(), &random, 512, off_t(128 * MiB)), 0) << "end of file";
    }
}

TEST_F(LoopDisk, BytesWithinSectorsReadAndWriteToo)
{
    Serving serving({image}, run_dir);
    Descriptor fd(::open(serving.file().c_str(), O_RDWR | O_CLOEXEC));
    std::mt19937 random(5);
    std::vector<char> model(4 * MiB, 0);
    for (int i = 0; i < 200; ++i) {
        const std::size_t at = MiB + random() % MiB, bytes = 1 + random() % (i % 10 ? 3000 : MiB);
        std::vector<char> data(bytes, char(random()));
        ASSERT_EQ(::pwrite(fd.get(), data.data(), bytes, off_t(at)), ssize_t(bytes)) << errno;
        std::copy(data.begin(), data.end(), model.begin() + std::ptrdiff_t(at));
        const std::size_t from = MiB + random() % MiB, count = 1 + random() % 5000;
        std::vector<char> back(count);
        ASSERT_EQ(::pread(fd.get(), back.data(), count, off_t(from)), ssize_t(count)) << errno;
        ASSERT_TRUE(std::equal(back.begin(), back.end(), model.begin() + std::ptrdiff_t(from)));
    }
    std::vector<char> back(3 * MiB);
    ASSERT_EQ(::pread(fd.get(), back.data(), back.size(), MiB), ssize_t(back.size()));
    EXPECT_TRUE(std::equal(back.begin(), back.end(), model.begin() + MiB));
    EXPECT_EQ(::pwrite(fd.get(), "xx", 2, off_t(128 * MiB - 1)), -1) << "a disk does not grow";
}

TEST_F(LoopDisk, PunchedAndZeroedRangesReadAsZeros)
{
    Serving serving({image}, run_dir);
    Descriptor fd(::open(serving.file().c_str(), O_RDWR | O_CLOEXEC));
    std::vector<char> data(MiB, 'x');
    ASSERT_EQ(::pwrite(fd.get(), data.data(), data.size(), 0), ssize_t(data.size()));
    ASSERT_EQ(::fallocate(fd.get(), FALLOC_FL_PUNCH_HOLE | FALLOC_FL_KEEP_SIZE, 4096, 8192), 0) << errno;
    ASSERT_EQ(::fallocate(fd.get(), FALLOC_FL_ZERO_RANGE | FALLOC_FL_KEEP_SIZE, 65536, 512), 0) << errno;
    EXPECT_NE(::fallocate(fd.get(), 0, 0, off_t(256 * MiB)), 0) << "a disk does not grow";
    EXPECT_NE(::ftruncate(fd.get(), 4096), 0) << "nor shrink";
    std::fill_n(data.begin() + 4096, 8192, 0);
    std::fill_n(data.begin() + 65536, 512, 0);
    std::vector<char> back(MiB);
    ASSERT_EQ(::pread(fd.get(), back.data(), back.size(), 0), ssize_t(back.size()));
    EXPECT_EQ(data, back);
}

TEST_F(LoopDisk, AttachMakesALoopDeviceWithPartitionsAndDetachTakesItAway)
{
    Serving serving({image}, run_dir);
    const Outcome outcome = quendreld({"attach", "sda", "--run-dir", run_dir, "--json"});
    ASSERT_EQ(outcome.status, 0) << outcome.err;
    const auto loops = quendreld::loops_over(serving.file());
    ASSERT_EQ(loops.size(), 1u);
    const std::string loop = loops[0].node;
    EXPECT_EQ(outcome.out, R"({"disk":"sda","loop":")" + loop + R"(","partitions":[{"name":"sda1","device":")" + loop +
                               R"(p1"},{"name":"sda2","device":")" + loop + "p2\"}]}\n");
    ASSERT_EQ(loops[0].devices.size(), 3u);
    EXPECT_EQ(loops[0].devices[2].start, 133120u);
    EXPECT_EQ(loops[0].devices[2].sectors, 65536u);
    std::string modes = must_run({"losetup", "-n", "-O", "DIO,LOG-SEC", loop});
    std::erase(modes, ' ');
    EXPECT_EQ(modes, "1512\n") << "direct I/O and 512-byte sectors";
    EXPECT_EQ(serving.attach(), loop) << "a second attach answers the same";
    EXPECT_EQ(quendreld::loops_over(serving.file()).size(), 1u);
    serving.detach();
    EXPECT_TRUE(quendreld::loops_over(serving.file()).empty());
    EXPECT_EQ(quendreld({"detach", "sda", "--run-dir", run_dir}).out, "sda is not attached\n");
}

TEST_F(LoopDisk, AMountedFileSystemWorksIsTrimmedAndLandsInTheImage)
{
    {
        Serving serving({image}, run_dir);
        const std::string loop = serving.attach();
        must_run({"mkfs.ext4", "-q", loop + "p1"});
        serving.mount(loop + "p1", mnt);
        std::ofstream(mnt + "/file") << std::string(3 * MiB, 'f');
        must_run({"sync", "-f", mnt});
        must_run({"fstrim", mnt});
        serving.unmount(mnt);
        must_run({"e2fsck", "-fn", loop + "p1"});
        serving.detach();
        serving.stop();
    }
    const std::string part = scratch / "part.img";
    must_run({"dd", "if=" + image, "of=" + part, "bs=1M", "skip=1", "count=64", "status=none"});
    must_run({"e2fsck", "-fn", part});
    EXPECT_EQ(must_run({"debugfs", "-R", "cat /file", part}), std::string(3 * MiB, 'f'));
}

TEST_F(LoopDisk, DetachAndStopAreRefusedWhileMountedAndNameTheMount)
{
    Serving serving({image}, run_dir);
    const std::string loop = serving.attach();
    must_run({"mkfs.ext4", "-q", loop + "p1"});
    serving.mount(loop + "p1", mnt);
    for (const char* word : {"detach", "stop"}) {
        std::vector<std::string> words{word, "--run-dir", run_dir};
        if (std::string(word) == "detach")
            words.insert(words.begin() + 1, "sda");
        const Outcome outcome = quendreld(words);
        EXPECT_NE(outcome.status, 0) << word;
        EXPECT_NE(outcome.err.find("sda: " + loop + "p1 is mounted on " + mnt), std::string::npos) << outcome.err;
    }
    std::ofstream(mnt + "/still") << "works";
    must_run({"sync", "-f", mnt});
}

TEST_F(LoopDisk, AFileSystemMadeLaterIsFoundWhenTheControlDeviceIsOpened)
{
    Serving serving({image}, run_dir);
    const auto records = [&] { return quendreld::disks_from_json(quendreld::read_file(run_dir + "/disks.json")); };
    EXPECT_FALSE(records()[0].partitions[0].file_system);
    const std::string loop = serving.attach();
    must_run({"mkfs.ext4", "-q", "-b", "1024", loop + "p1"});
    must_run({"mkfs.ext4", "-q", "-b", "4096", loop + "p2"});
    control_rig::Client client(run_dir + "/control.sock");
    ASSERT_EQ(client.receive()->result, 0);
    const auto after = records()[0].partitions;
    ASSERT_TRUE(after[0].file_system && after[1].file_system);
    EXPECT_EQ(*after[0].file_system, (quendreld::FileSystemRecord{"ext4", 1024}));
    EXPECT_EQ(*after[1].file_system, (quendreld::FileSystemRecord{"ext4", 4096}));
}

// A block device with sectors of 4 KiB, gone at the end.
struct FourKibDevice {
    explicit FourKibDevice(const std::string& image)
        : node(must_run({"losetup", "--find", "--show", "--sector-size", "4096", image}))
    {
        node.pop_back();
    }
    ~FourKibDevice() { run({"losetup", "--detach", node}); }
    std::string node;
};

TEST_F(LoopDisk, ADiskWithSectorsOf4KiBIsToldZeroedAndMountedAsOne)
{
    // The table counts in the disk's own sectors: from 2 MiB on, 40 MiB, and from 64 MiB on an extended partition of two.
    make_image(image, 128 * MiB, {{512, 10240}, {16384, 16384}});
    std::fstream table(image, std::ios::binary | std::ios::in | std::ios::out);
    table.seekp(446 + 16 + 4) << '\x05';
    const DosTable record = dos_table({{256, 1024}, {4096, 4096}});
    const DosTable last = dos_table({{256, 2048}});
    table.seekp(64 * MiB).write(reinterpret_cast<const char*>(record.data()), 512);
    table.seekp(64 * MiB + 446 + 16 + 4) << '\x05';
    table.seekp(80 * MiB).write(reinterpret_cast<const char*>(last.data()), 512);
    table.close();
    const FourKibDevice device(image);
    for (const char* option : {"--multi-client", "--direct"}) {
        SCOPED_TRACE(option);
        Serving serving({device.node}, run_dir, {option});
        const auto disk = quendreld::disks_from_json(quendreld::read_file(run_dir + "/disks.json"))[0];
        EXPECT_EQ(disk.sector_bytes, 4096u);
        ASSERT_EQ(disk.partitions.size(), 3u);
        EXPECT_EQ(disk.partitions[0].start, 4096u) << "in units of 512 bytes";
        EXPECT_EQ(disk.partitions[0].sectors, 81920u);
        EXPECT_EQ(disk.partitions[2].name, "sda6");
        EXPECT_EQ(disk.partitions[2].start, (80 * MiB + MiB) / 512);
        const std::string loop = serving.attach();
        EXPECT_EQ(must_run({"blockdev", "--getss", loop}), "4096\n");
        must_run({"mkfs.ext4", "-q", loop + "p1"});
        serving.mount(loop + "p1", mnt);
        std::ofstream(mnt + "/file") << std::string(3 * MiB, 'f');
        serving.unmount(mnt);
        must_run({"e2fsck", "-fn", loop + "p1"});
        serving.detach();

        Descriptor fd(::open(serving.file().c_str(), O_RDWR | O_CLOEXEC));
        const std::vector<char> full(16384, 'x');
        ASSERT_EQ(::pwrite(fd.get(), full.data(), full.size(), off_t(50 * MiB)), ssize_t(full.size()));
        ASSERT_EQ(::fallocate(fd.get(), FALLOC_FL_ZERO_RANGE | FALLOC_FL_KEEP_SIZE, off_t(50 * MiB + 512), 4096), 0);
        ASSERT_EQ(::fallocate(fd.get(), FALLOC_FL_PUNCH_HOLE | FALLOC_FL_KEEP_SIZE, off_t(50 * MiB + 8192), 4096), 0);
        std::vector<char> expected = full, back(full.size());
        std::fill_n(expected.begin() + 512, 4096, 0);
        std::fill_n(expected.begin() + 8192, 4096, 0);
        ASSERT_EQ(::pread(fd.get(), back.data(), back.size(), off_t(50 * MiB)), ssize_t(back.size()));
        EXPECT_EQ(back, expected);
        fd.reset();
        serving.stop();
    }
}

TEST_F(LoopDisk, ADeviceThatTheDeviceManagerLooksAtForAMomentIsServedAllTheSame)
{
    const FourKibDevice device(image);
    const Descriptor looked_at(::open(device.node.c_str(), O_RDONLY | O_CLOEXEC));
    ASSERT_EQ(::flock(looked_at.get(), LOCK_SH), 0);
    std::thread manager([&] {
        std::this_thread::sleep_for(500ms);
        ::flock(looked_at.get(), LOCK_UN);
    });
    EXPECT_NO_THROW(Serving({device.node}, run_dir));
    manager.join();
}

TEST_F(LoopDisk, KillingTheDaemonUnderAMountLeavesNothingStuckAndKeepsFlushedData)
{
    {
        Serving serving({image}, run_dir);
        const std::string loop = serving.attach();
        must_run({"mkfs.ext4", "-q", loop + "p1"});
        serving.mount(loop + "p1", mnt);
        std::ofstream(mnt + "/flushed") << std::string(100000, 'k');
        must_run({"sync", "-f", mnt});
        std::ofstream(mnt + "/lost") << "perhaps";
        serving.kill_it();
        serving.clean_up();
        EXPECT_TRUE(quendreld::loops_over(serving.file()).empty());
    }
    Serving serving({image}, run_dir);
    const std::string loop = serving.attach();
    serving.mount(loop + "p1", mnt);
    std::ifstream in(mnt + "/flushed");
    EXPECT_EQ(std::string(std::istreambuf_iterator<char>(in), {}), std::string(100000, 'k'));
}

TEST_F(LoopDisk, AForcedStopGoesOnWhereADeviceCannotBeDetached)
{
    Serving serving({image}, run_dir);
    const std::string loop = serving.attach();
    Descriptor user(::open((loop + "p1").c_str(), O_RDONLY | O_CLOEXEC));
    ASSERT_TRUE(user) << errno;
    const std::string why = "sda: " + loop + "p1 is in use (open, or mounted in another mount namespace)";
    const Outcome refused = quendreld({"stop", "--run-dir", run_dir});
    EXPECT_EQ(refused.status, 1);
    EXPECT_EQ(refused.err, "quendreld: " + why + "\n");
    const Outcome forced = quendreld({"stop", "--run-dir", run_dir, "--force"});
    EXPECT_EQ(forced.status, 0);
    EXPECT_EQ(forced.err, "quendreld: " + why + "; stopping all the same\n");
    user.reset();
    for (const char* number : {"1", "2"})
        must_run({"delpart", loop, number});
    must_run({"losetup", "-d", loop});
}

} // namespace
