// SPDX-License-Identifier: GPL-2.0-only
// The program: starting, what it writes into the run directory, NBD, stopping.
#include "program.h"
#include "run_dir.h"
#include "serving.h"

#include <gtest/gtest.h>
#include <libnbd.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <regex>
#include <memory>
#include <random>
#include <thread>

namespace
{

using namespace serving;
using quendreld::disks_from_json;
using quendreld::read_file;

constexpr std::uint64_t MiB = 1 << 20;

struct Quendreld : testing::Test {
    ScratchDir scratch;
    std::string image = scratch / "disk.img";
    std::string run_dir = scratch / "run";

    void make() { make_image(image, 64 * MiB, {{2048, 65536}, {67584, 32768}}); }
    std::string refusal(std::vector<std::string> words)
    {
        words.insert(words.begin(), Serving::program());
        const Outcome outcome = run(words);
        EXPECT_NE(outcome.status, 0);
        return outcome.err;
    }
};

struct Nbd {
    explicit Nbd(const std::string& uri) : handle(nbd_create())
    {
        if (nbd_connect_uri(handle, uri.c_str()) != 0)
            ADD_FAILURE() << nbd_get_error();
    }
    ~Nbd() { nbd_close(handle); }
    nbd_handle* handle;
};

TEST_F(Quendreld, WritesADescriptionOfItsDisks)
{
    make();
    const std::string second = scratch / "second.img";
    make_image(second, 4 * MiB, {});
    Serving serving({image, second}, run_dir, {"--no-fuse"});
    std::string expected = R"({"version":1,"takeOver":true,"disks":[{"name":"sda","major":8,"minor":0,"bytes":67108864,"file":null,)"
                           R"("nbd":"nbd+unix:///sda?socket=RUN/nbd.sock","sectorBytes":512,"instance":"","partitions":[)"
                           R"({"name":"sda1","major":8,"minor":1,"start":2048,"sectors":65536,"instance":""},)"
                           R"({"name":"sda2","major":8,"minor":2,"start":67584,"sectors":32768,"instance":""}]},)"
                           R"({"name":"sdb","major":8,"minor":16,"bytes":4194304,"file":null,)"
                           R"("nbd":"nbd+unix:///sdb?socket=RUN/nbd.sock","sectorBytes":512,"instance":"","partitions":[]}]})"
                           "\n";
    for (std::size_t at; (at = expected.find("RUN")) != std::string::npos;)
        expected.replace(at, 3, run_dir);
    const std::string text = read_file(run_dir + "/disks.json");
    const std::regex instance(R"("instance":"[0-9a-f]{16}-[0-9]+")");
    EXPECT_EQ(std::distance(std::sregex_iterator(text.begin(), text.end(), instance), {}), 4);
    EXPECT_EQ(std::regex_replace(text, instance, R"("instance":"")"), expected);
}

TEST_F(Quendreld, SocketsAndTheBackupsLockAreForOwnerAndGroupOnly)
{
    make();
    Serving serving({image}, run_dir, {"--no-fuse", "--group", "12"});
    for (const char* name : {"/nbd.sock", "/control.sock", "/qbackup.lock"}) {
        struct stat status;
        ASSERT_EQ(::stat((run_dir + name).c_str(), &status), 0) << name;
        EXPECT_EQ(status.st_mode & 0777, 0660u) << name;
        EXPECT_EQ(status.st_gid, 12u) << name;
    }
}

TEST_F(Quendreld, ARunDirectoryBySomebodyElsesLinkIsRefused)
{
    make();
    std::filesystem::create_directory(scratch / "there");
    std::filesystem::create_directory_symlink(scratch / "there", run_dir);
    EXPECT_EQ(refusal({image, "--run-dir", run_dir + "/"}),
              "quendreld: " + run_dir + ": is no directory, or a symbolic link to one; name the directory itself\n");
    EXPECT_TRUE(std::filesystem::is_empty(scratch / "there"));
}

TEST_F(Quendreld, NbdExportsAreNamedAfterTheDisks)
{
    make();
    const std::string second = scratch / "second.img";
    make_image(second, 4 * MiB, {});
    Serving serving({image, second}, run_dir, {"--no-fuse"});
    EXPECT_EQ(nbd_get_size(Nbd(serving.nbd("sda")).handle), int64_t(64 * MiB));
    EXPECT_EQ(nbd_get_size(Nbd(serving.nbd("sdb")).handle), int64_t(4 * MiB));
    EXPECT_EQ(nbd_get_size(Nbd(serving.nbd("")).handle), int64_t(64 * MiB)) << "the default is the first";
    nbd_handle* handle = nbd_create();
    EXPECT_EQ(nbd_connect_uri(handle, serving.nbd("sdz").c_str()), -1);
    nbd_close(handle);
    const std::string list = must_run({"nbdinfo", "--list", serving.nbd("")});
    EXPECT_NE(list.find("export=\"sda\""), std::string::npos);
    EXPECT_NE(list.find("export=\"sdb\""), std::string::npos);
}

TEST_F(Quendreld, NbdReadsWritesFlushesTrimsAndZeroes)
{
    make();
    Serving serving({image}, run_dir, {"--no-fuse"});
    Nbd nbd(serving.nbd());
    EXPECT_EQ(nbd_can_multi_conn(nbd.handle), 1);
    EXPECT_EQ(nbd_can_fua(nbd.handle), 1);
    EXPECT_EQ(nbd_can_flush(nbd.handle), 1);
    EXPECT_EQ(nbd_get_block_size(nbd.handle, LIBNBD_SIZE_MINIMUM), 512);

    std::mt19937 random(7);
    std::vector<unsigned char> data(3 * MiB), back(3 * MiB);
    for (auto& byte : data)
        byte = static_cast<unsigned char>(random());
    ASSERT_EQ(nbd_pwrite(nbd.handle, data.data(), data.size(), 512, 0), 0) << nbd_get_error();
    ASSERT_EQ(nbd_pread(nbd.handle, back.data(), back.size(), 512, 0), 0) << nbd_get_error();
    EXPECT_EQ(data, back);
    ASSERT_EQ(nbd_pwrite(nbd.handle, data.data(), 4096, 8 * MiB, LIBNBD_CMD_FLAG_FUA), 0) << nbd_get_error();
    ASSERT_EQ(nbd_flush(nbd.handle, 0), 0) << nbd_get_error();
    ASSERT_EQ(nbd_trim(nbd.handle, MiB, MiB, LIBNBD_CMD_FLAG_FUA), 0) << nbd_get_error();
    ASSERT_EQ(nbd_zero(nbd.handle, 4096, 2 * MiB, 0), 0) << nbd_get_error();
    ASSERT_EQ(nbd_zero(nbd.handle, 4096, 2 * MiB + 8192, LIBNBD_CMD_FLAG_NO_HOLE | LIBNBD_CMD_FLAG_FUA), 0)
        << nbd_get_error();
    std::memset(data.data() + MiB - 512, 0, MiB + 4096);
    std::memset(data.data() + 2 * MiB - 512 + 8192, 0, 4096);
    ASSERT_EQ(nbd_pread(nbd.handle, back.data(), back.size(), 512, 0), 0) << nbd_get_error();
    EXPECT_EQ(data, back);

    // And it is all in the image.
    std::ifstream in(image, std::ios::binary);
    in.seekg(512);
    in.read(reinterpret_cast<char*>(back.data()), std::streamsize(back.size()));
    EXPECT_EQ(data, back);
}

TEST_F(Quendreld, NbdRequestsOffTheGridAreRefused)
{
    make();
    Serving serving({image}, run_dir, {"--no-fuse"});
    Nbd nbd(serving.nbd());
    nbd_set_strict_mode(nbd.handle, 0);
    char data[1024];
    EXPECT_EQ(nbd_pread(nbd.handle, data, 100, 0, 0), -1);
    EXPECT_EQ(nbd_get_errno(), EINVAL);
    EXPECT_EQ(nbd_pwrite(nbd.handle, data, 512, 7, 0), -1);
    EXPECT_EQ(nbd_get_errno(), EINVAL);
    EXPECT_EQ(nbd_pread(nbd.handle, data, 512, 0, 0), 0) << "the connection goes on";
}

TEST_F(Quendreld, ManyConnectionsCopyTheWholeDisk)
{
    make();
    std::ofstream(image, std::ios::binary | std::ios::in | std::ios::out).seekp(40 * MiB) << "here";
    Serving serving({image}, run_dir, {"--no-fuse"});
    const std::string copy = scratch / "copy.img";
    must_run({"nbdcopy", "--connections=4", serving.nbd(), copy});
    must_run({"cmp", image, copy});
}

TEST_F(Quendreld, AReadOnlyDaemonRefusesWrites)
{
    make();
    Serving serving({image}, run_dir, {"--no-fuse", "--read-only"});
    Nbd nbd(serving.nbd());
    EXPECT_EQ(nbd_is_read_only(nbd.handle), 1);
    nbd_set_strict_mode(nbd.handle, 0);
    char data[512] = {1};
    EXPECT_EQ(nbd_pwrite(nbd.handle, data, 512, 0, 0), -1);
}

TEST_F(Quendreld, DirectIoServesTheSameBytes)
{
    make();
    Serving serving({image}, run_dir, {"--no-fuse", "--direct"});
    Nbd nbd(serving.nbd());
    std::vector<char> data(MiB + 512, 'd'), back(MiB + 512);
    ASSERT_EQ(nbd_pwrite(nbd.handle, data.data(), data.size(), 5 * 512, 0), 0) << nbd_get_error();
    ASSERT_EQ(nbd_pread(nbd.handle, back.data(), back.size(), 5 * 512, 0), 0) << nbd_get_error();
    EXPECT_EQ(data, back);
}

TEST_F(Quendreld, ASecondDaemonOnTheRunDirectoryIsRefused)
{
    make();
    const std::string other = scratch / "other.img";
    make_image(other, MiB, {});
    Serving serving({image}, run_dir, {"--no-fuse"});
    const std::string text = refusal({other, "--run-dir", run_dir});
    EXPECT_NE(text.find("a daemon (process " + std::to_string(serving.pid()) + ") already runs there"),
              std::string::npos)
        << text;
    EXPECT_EQ(nbd_get_size(Nbd(serving.nbd()).handle), int64_t(64 * MiB)) << "the first one is unharmed";
}

TEST_F(Quendreld, ASecondDaemonOnTheImageIsRefused)
{
    make();
    Serving serving({image}, run_dir, {"--no-fuse"});
    const std::string text = refusal({image, "--run-dir", scratch / "run2"});
    EXPECT_NE(text.find("another program (a second daemon?) serves it already"), std::string::npos) << text;
}

TEST_F(Quendreld, AServedImageIsLockedAgainstQemu)
{
    make();
    Serving serving({image}, run_dir, {"--no-fuse"});
    const Outcome write = run({"qemu-io", "-f", "raw", image, "-c", "write 0 512"});
    EXPECT_NE(write.status, 0);
    EXPECT_NE(write.err.find("lock"), std::string::npos) << write.err;
    EXPECT_NE(run({"qemu-img", "convert", "-f", "raw", "-O", "raw", image, scratch / "copy"}).status, 0);
}

TEST_F(Quendreld, AnImageThatQemuHasIsRefused)
{
    make();
    const std::string socket = scratch / "qsd.sock";
    Program qemu({"qemu-storage-daemon", "--blockdev", "driver=file,node-name=d,filename=" + image, "--nbd-server",
                  "addr.type=unix,addr.path=" + socket, "--export", "type=nbd,id=e,node-name=d,writable=on"},
                 scratch / "qsd");
    for (int i = 0; i < 500 && ::access(socket.c_str(), F_OK) != 0; ++i)
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    const std::string why = "quendreld: " + image +
                            ": a virtual machine or another program of QEMU's has it open; end that one first\n";
    EXPECT_EQ(refusal({image, "--run-dir", run_dir}), why);
    EXPECT_EQ(refusal({image, "--run-dir", run_dir, "--read-only"}), why);
    qemu.signal(SIGTERM);
    EXPECT_EQ(qemu.wait(), 0);
    Serving serving({image}, run_dir, {"--no-fuse"});
}

TEST_F(Quendreld, AnImageBehindALoopDeviceIsRefused)
{
    if (const std::string reason = no_loop_reason(); !reason.empty())
        GTEST_SKIP() << reason;
    make();
    std::string loop = must_run({"losetup", "--find", "--show", image});
    loop.pop_back();
    const std::string said = refusal({image, "--run-dir", run_dir});
    must_run({"losetup", "-d", loop});
    EXPECT_EQ(said, "quendreld: " + image + ": is the file behind " + loop +
                        ", which writes to it too; detach that first (losetup -d " + loop + "), or serve " + loop + "\n");
    Serving serving({image}, run_dir, {"--no-fuse"});
}

TEST_F(Quendreld, BadDisksAndBadOptionsAreNamed)
{
    EXPECT_NE(refusal({scratch / "none", "--run-dir", run_dir}).find("no such disk"), std::string::npos);
    EXPECT_NE(refusal({"stop", "--run-dir", run_dir}).find("no daemon runs there"), std::string::npos);
    EXPECT_NE(refusal({"attach", "sda", "--run-dir", run_dir}).find("no daemon runs there"), std::string::npos);
    make();
    EXPECT_NE(refusal({image, "--run-dir", run_dir, "--group", "no-such-group"}).find("no such group"),
              std::string::npos);
    EXPECT_NE(refusal({image, "--run-dir", scratch / std::string(200, 'r')}).find("too long"), std::string::npos);
}

TEST_F(Quendreld, AnUnknownOptionIsAUsageErrorThatNamesIt)
{
    // Whatever else is missing: the unknown one may have been meant to be that.
    const std::vector<std::pair<std::vector<std::string>, std::string>> wrong{
        {{"--bogus"}, "quendreld: --bogus: unknown option; see quendreld --help\n"},
        {{"disk.img", "--rundir=" + run_dir}, "quendreld: --rundir: unknown option; see quendreld --help\n"},
        {{"disk.img", "--run-dir", run_dir, "-x"}, "quendreld: -x: unknown option; see quendreld --help\n"},
        {{"stop", "--bogus"}, "quendreld: --bogus: unknown option; see quendreld stop --help\n"},
        {{"stop", "sda", "--run-dir", run_dir}, "quendreld: sda: not expected here; see quendreld stop --help\n"},
        {{"attach", "sda", "--bogus"}, "quendreld: --bogus: unknown option; see quendreld attach --help\n"},
        {{"detach", "--bogus", "sda"}, "quendreld: --bogus: unknown option; see quendreld detach --help\n"},
    };
    for (auto [words, text] : wrong) {
        words.insert(words.begin(), Serving::program());
        const Outcome outcome = run(words);
        EXPECT_EQ(outcome.status, 2) << text;
        EXPECT_EQ(outcome.err, text);
        EXPECT_EQ(outcome.out, "");
    }
}

TEST_F(Quendreld, AMissingArgumentIsAUsageErrorThatNamesIt)
{
    const std::vector<std::pair<std::vector<std::string>, std::string>> wrong{
        {{}, "DISK"}, {{"disk.img"}, "--run-dir"},     {{"disk.img", "--run-dir"}, "--run-dir"},
        {{"stop"}, "--run-dir"}, {{"attach", "sda"}, "--run-dir"}, {{"detach", "--run-dir", run_dir}, "DISK"},
    };
    for (auto [words, name] : wrong) {
        words.insert(words.begin(), Serving::program());
        const Outcome outcome = run(words);
        EXPECT_EQ(outcome.status, 2) << outcome.err;
        EXPECT_EQ(outcome.err.find("quendreld: " + name), 0u) << outcome.err;
    }
    for (const char* command : {"stop", "attach", "detach"})
        EXPECT_EQ(run({Serving::program(), command, "--help"}).status, 0);
}

TEST_F(Quendreld, AttachingADiskThatIsNotServedNamesThoseThatAre)
{
    make();
    Serving serving({image}, run_dir, {"--no-fuse"});
    EXPECT_NE(refusal({"attach", "sdx", "--run-dir", run_dir}).find("no such disk there; it serves sda"),
              std::string::npos);
    EXPECT_NE(refusal({"attach", "sda", "--run-dir", run_dir}).find("serves no disk files"), std::string::npos);
}

TEST_F(Quendreld, StoppingTakesEverythingAway)
{
    make();
    Serving serving({image}, run_dir);
    Nbd idle(serving.nbd()); // a client that stays connected does not keep the daemon
    const pid_t pid = serving.pid();
    serving.stop();
    char path[64];
    // A process that has ended has no program any more, whether or not it has been waited for.
    EXPECT_EQ(::readlink(("/proc/" + std::to_string(pid) + "/exe").c_str(), path, sizeof path), -1);
    struct stat status;
    for (const char* name : {"/nbd.sock", "/control.sock", "/disks.json", "/disks/sda"})
        EXPECT_NE(::stat((run_dir + name).c_str(), &status), 0) << name << " is still there";
    EXPECT_NE(serving.log().find("ready to be unloaded"), std::string::npos) << "the driver was unloaded";
}

TEST_F(Quendreld, StartsAgainAfterItWasKilled)
{
    make();
    {
        Serving serving({image}, run_dir);
        Nbd nbd(serving.nbd());
        std::vector<char> data(4096, 'k');
        ASSERT_EQ(nbd_pwrite(nbd.handle, data.data(), data.size(), 4096, 0), 0);
        ASSERT_EQ(nbd_flush(nbd.handle, 0), 0);
        serving.kill_it();
    }
    Serving serving({image}, run_dir);
    Nbd nbd(serving.nbd());
    std::vector<char> back(4096);
    ASSERT_EQ(nbd_pread(nbd.handle, back.data(), back.size(), 4096, 0), 0);
    EXPECT_EQ(back, std::vector<char>(4096, 'k')) << "an acknowledged and flushed write is lost";
}

TEST_F(Quendreld, TheDriversLinesAreInTheLog)
{
    make();
    Serving serving({image}, run_dir, {"--no-fuse"});
    // A thread of the daemon's own writes the lines out.
    const auto loaded = [&] { return serving.log().find("quendrel version 3.1.0 build 9504 loaded") != std::string::npos; };
    for (int i = 0; i < 500 && !loaded(); ++i)
        std::this_thread::sleep_for(std::chrono::milliseconds{10});
    EXPECT_TRUE(loaded()) << serving.log();
    EXPECT_EQ(serving.log().find("<6>"), std::string::npos) << "without the kernel's priority marker";
}

} // namespace
