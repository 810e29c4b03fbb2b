// SPDX-License-Identifier: GPL-2.0-only
// The daemon and its NBD clients: those that die, that do not read, that are many, that come over a network.
#include "run_dir.h"
#include "serving.h"
#include "program.h"
#include "nbd_client.h"

#include <gtest/gtest.h>
#include <netinet/in.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <fstream>
#include <regex>
#include <thread>
#include <vector>

namespace
{

using namespace serving;
using namespace std::chrono_literals;
using nbd_client::Bytes;
using nbd_client::Client;
using nbd_client::wire::Command;
using nbd_client::wire::Error;

constexpr std::uint64_t MiB = 1 << 20;

struct NbdDaemon : testing::Test {
    ScratchDir scratch;
    std::string image = scratch / "disk.img";
    std::string run_dir = scratch / "run";
    Serving serving{make(), run_dir, {"--no-fuse"}};
    std::string socket = run_dir + "/nbd.sock";

    std::vector<std::string> make()
    {
        make_image(image, 64 * MiB, {{2048, 65536}});
        return {image};
    }
    bool alive() const { return ::kill(serving.pid(), 0) == 0; }
    double resident_kib() const
    {
        std::ifstream in("/proc/" + std::to_string(serving.pid()) + "/status");
        for (std::string line; std::getline(in, line);)
            if (line.starts_with("VmRSS:"))
                return std::stod(line.substr(6));
        ADD_FAILURE() << "no VmRSS";
        return 0;
    }
    static Outcome stop(const std::string& run_dir) { return run({Serving::program(), "stop", "--run-dir", run_dir}); }
};

TEST_F(NbdDaemon, ClientsThatDieWithRepliesOutstandingHarmNobody)
{
    Client lasting = Client::connect(socket);
    ASSERT_TRUE(lasting.begin("sda"));
    for (int round = 0; round < 50; ++round) {
        Client dying = Client::connect(socket);
        ASSERT_TRUE(dying.begin("sda", round % 2));
        for (unsigned i = 0; i < 64; ++i)
            dying.request(Command::read, i, (i % 60) * MiB, MiB);
        if (round % 3 == 0)
            dying.receive(100'000);
    }
    ASSERT_TRUE(alive());
    EXPECT_EQ(lasting.ask(Command::read, 0, 4096).error, Error::none);
}

TEST_F(NbdDaemon, StoppingDoesNotWaitForClientsThatDoNotReadAndLosesNoAcceptedWrite)
{
    Client writer = Client::connect(socket), deaf = Client::connect(socket), silent = Client::connect(socket);
    ASSERT_TRUE(writer.begin("sda"));
    ASSERT_TRUE(deaf.begin("sda"));
    for (unsigned i = 0; i < 40; ++i)
        deaf.request(Command::read, i, 0, MiB);
    const Bytes data(4096, std::byte('w'));
    ASSERT_EQ(writer.ask(Command::write, MiB, 4096, 0, data).error, Error::none);
    const auto begin = std::chrono::steady_clock::now();
    const Outcome outcome = stop(run_dir);
    EXPECT_EQ(outcome.status, 0) << outcome.err;
    EXPECT_LT(std::chrono::steady_clock::now() - begin, 10s);
    EXPECT_TRUE(writer.ended()) << "a client is told by the end of its connection";
    std::ifstream in(image, std::ios::binary);
    in.seekg(MiB);
    Bytes back(4096);
    in.read(reinterpret_cast<char*>(back.data()), 4096);
    EXPECT_EQ(back, data);
}

TEST_F(NbdDaemon, StopSaysWhenTheDaemonDiedInstead)
{
    // Stopped by the test, it cannot end; killed while `stop` waits, it dies.
    const pid_t pid = serving.pid();
    ASSERT_EQ(::kill(pid, SIGSTOP), 0);
    Program stopping({Serving::program(), "stop", "--run-dir", run_dir}, scratch / "stop");
    std::this_thread::sleep_for(300ms);
    EXPECT_TRUE(stopping.running());
    ASSERT_EQ(::kill(pid, SIGKILL), 0);
    EXPECT_EQ(stopping.wait(), 1);
    EXPECT_EQ(stopping.err(), "quendreld: process " + std::to_string(pid) +
                                  " died instead of ending; what was not flushed may be lost. See " + run_dir +
                                  "/log\n");
}

TEST_F(NbdDaemon, AnIdleConnectionCostsLessThanAMebibyte)
{
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
    GTEST_SKIP() << "a sanitizer's own records would be counted";
#endif
    constexpr int count = 40;
    std::vector<Client> clients;
    const auto use = [&](Client& client) {
        ASSERT_TRUE(client.begin("sda", true));
        for (unsigned i = 0; i < 16; ++i)
            client.request(Command::read, i, i * MiB, 256 << 10);
        for (unsigned i = 0; i < 16; ++i)
            ASSERT_TRUE(client.reply());
        ASSERT_EQ(client.ask(Command::write, 0, 1 << 20, 0, Bytes(1 << 20)).error, Error::none);
    };
    {
        Client first = Client::connect(socket); // what all share is there
        use(first);
    }
    const double before = resident_kib();
    for (int i = 0; i < count; ++i) {
        clients.push_back(Client::connect(socket));
        use(clients.back());
    }
    const double each = (resident_kib() - before) / count;
    RecordProperty("kib_each", std::to_string(each));
    EXPECT_LT(each, 1024);
}

TEST_F(NbdDaemon, ManyClientsBeyondTheDescriptorsWaitWithoutFillingTheLog)
{
    ASSERT_EQ(stop(run_dir).status, 0);
    const std::string second = scratch / "second";
    Program daemon({"/bin/sh", "-c",
                    "ulimit -n 40; exec '" + Serving::program() + "' '" + image + "' --run-dir '" + second +
                        "' --no-fuse --foreground"},
                   scratch / "limited");
    const std::string there = second + "/nbd.sock";
    for (int i = 0; i < 500 && ::access(there.c_str(), F_OK) != 0; ++i)
        std::this_thread::sleep_for(10ms);
    {
        std::vector<Client> crowd;
        for (int i = 0; i < 60; ++i)
            crowd.push_back(Client::connect(there));
        std::this_thread::sleep_for(2s);
        EXPECT_TRUE(daemon.running());
    }
    Client next = Client::connect(there);
    ASSERT_TRUE(next.begin("sda"));
    EXPECT_EQ(next.ask(Command::read, 0, 4096).error, Error::none);
    struct stat log;
    ASSERT_EQ(::stat((second + "/log").c_str(), &log), 0);
    EXPECT_LT(log.st_size, 4096);
    daemon.signal(SIGTERM);
    EXPECT_EQ(daemon.wait(), 0);
}

TEST_F(NbdDaemon, AProxyGivesADiskToTheNetworkUnderTls)
{
    const std::string keys = scratch / "keys.psk";
    std::ofstream(keys) << "alice:0123456789abcdef0123456789abcdef0123456789abcdef0123456789abcdef\n";
    // A port that was free a moment ago.
    base::Descriptor probe(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t size = sizeof address;
    ASSERT_EQ(::bind(probe.get(), reinterpret_cast<sockaddr*>(&address), size), 0);
    ASSERT_EQ(::getsockname(probe.get(), reinterpret_cast<sockaddr*>(&address), &size), 0);
    const std::string port = std::to_string(ntohs(address.sin_port));
    probe.reset();

    Program proxy({"nbdkit", "-f", "--ipaddr", "127.0.0.1", "--port", port, "--tls=require", "--tls-psk=" + keys, "nbd",
                   "socket=" + socket, "export=sda"},
                  scratch / "proxy");
    const std::string uri = "nbds://alice@127.0.0.1:" + port + "/?tls-psk-file=" + keys;
    Outcome info{};
    for (int i = 0; i < 50; ++i) {
        info = run({"nbdinfo", "--size", uri});
        if (info.status == 0)
            break;
        std::this_thread::sleep_for(100ms);
    }
    EXPECT_EQ(info.out, std::to_string(64 * MiB) + "\n") << info.err << proxy.err();
    EXPECT_NE(run({"nbdinfo", "--size", "nbd://127.0.0.1:" + port + "/"}).status, 0) << "without TLS";

    std::ofstream(scratch / "piece", std::ios::binary) << std::string(8 * MiB, 't');
    must_run({"qemu-img", "create", "-q", "-f", "raw", scratch / "padded", "64M"});
    must_run({"dd", "if=" + scratch / "piece", "of=" + scratch / "padded", "conv=notrunc", "status=none"});
    must_run({"nbdcopy", scratch / "padded", uri});
    must_run({"nbdcopy", uri, scratch / "back"});
    must_run({"cmp", scratch / "padded", scratch / "back"});
    must_run({"cmp", scratch / "padded", image});
}

// A loop device whose backing file has far less room than it says: what is written is found to be lost at a flush.
struct Overcommitted {
    explicit Overcommitted(const ScratchDir& scratch) : at(scratch / "small")
    {
        must_run({"mkdir", at});
        must_run({"mount", "-t", "tmpfs", "-o", "size=1m", "tmpfs", at});
        must_run({"truncate", "-s", "32M", at + "/backing"});
        loop = must_run({"losetup", "--find", "--show", at + "/backing"});
        loop.pop_back();
    }
    ~Overcommitted()
    {
        run({"losetup", "-d", loop});
        run({"umount", "-l", at});
    }
    std::string at, loop;
};

TEST(FailedFlush, StaysFailedAndIsTold)
{
    if (const std::string reason = no_loop_reason(); !reason.empty())
        GTEST_SKIP() << reason;
    ScratchDir scratch;
    const std::string run_dir = scratch / "run";
    Overcommitted disk(scratch);
    Serving serving({disk.loop}, run_dir, {"--no-fuse"});
    Client client = Client::connect(run_dir + "/nbd.sock");
    ASSERT_TRUE(client.begin("sda"));
    ASSERT_EQ(client.ask(Command::flush, 0, 0).error, Error::none);
    ASSERT_EQ(client.ask(Command::write, 8 * MiB, 8 * MiB, 0, Bytes(8 * MiB, std::byte(1))).error, Error::none);
    EXPECT_EQ(client.ask(Command::flush, 0, 0).error, Error::io);
    EXPECT_EQ(client.ask(Command::flush, 0, 0).error, Error::io) << "the host would tell it once only";
    Client other = Client::connect(run_dir + "/nbd.sock");
    ASSERT_TRUE(other.begin("sda"));
    must_run({"mount", "-o", "remount,size=64m", disk.at});
    EXPECT_EQ(other.ask(Command::flush, 0, 0).error, Error::io) << "room now does not bring back what is lost";

    const std::string why = "\"flushError\":\"Input/output error\"";
    const auto status = [&](const char* how) {
        return run({Serving::program(), "status", "--run-dir", run_dir, how}).out;
    };
    for (int i = 0; i < 500 && status("--json").find(why) == std::string::npos; ++i)
        std::this_thread::sleep_for(10ms);
    EXPECT_NE(status("--json").find(why), std::string::npos);
    EXPECT_NE(
        must_run({Serving::program(), "status", "--run-dir", run_dir}).find("A FLUSH FAILED (Input/output error)"),
        std::string::npos);
    const std::string line =
        "sda: a flush failed: Input/output error; what was written since the one before may be lost, "
        "and every flush fails until the disk is served anew\n";
    const std::string log = serving.log();
    ASSERT_NE(log.find(line), std::string::npos) << log;
    EXPECT_EQ(log.find(line, log.find(line) + 1), std::string::npos) << "once";

    const Outcome stopped = run({Serving::program(), "stop", "--run-dir", run_dir});
    EXPECT_EQ(stopped.status, 1);
    EXPECT_EQ(stopped.err,
              "quendreld: ended, but not everything is on disk:\nsda: flush failed: Input/output error\n\n");
    Serving anew({disk.loop}, run_dir, {"--no-fuse"});
    Client after = Client::connect(run_dir + "/nbd.sock");
    ASSERT_TRUE(after.begin("sda"));
    EXPECT_EQ(after.ask(Command::flush, 0, 0).error, Error::none);
}

TEST(FullFileSystem, FailsTheWriteThatFindsNoRoomAndRecovers)
{
    if (::geteuid() != 0)
        GTEST_SKIP() << "mounts a tmpfs";
    ScratchDir scratch;
    const std::string run_dir = scratch / "run", at = scratch / "small";
    must_run({"mkdir", at});
    must_run({"mount", "-t", "tmpfs", "-o", "size=1m", "tmpfs", at});
    {
        must_run({"truncate", "-s", "32M", at + "/disk.img"});
        Serving serving({at + "/disk.img"}, run_dir, {"--no-fuse"});
        Client client = Client::connect(run_dir + "/nbd.sock");
        ASSERT_TRUE(client.begin("sda"));
        const Bytes data(4 * MiB, std::byte(1));
        EXPECT_EQ(client.ask(Command::write, 0, 4 * MiB, 0, data).error, Error::no_space);
        EXPECT_EQ(client.ask(Command::write, 0, 4 * MiB, nbd_client::wire::command_fua, data).error, Error::no_space);
        EXPECT_EQ(client.ask(Command::flush, 0, 0).error, Error::none) << "nothing that was acknowledged is lost";
        must_run({"mount", "-o", "remount,size=64m", at});
        EXPECT_EQ(client.ask(Command::write, 0, 4 * MiB, 0, data).error, Error::none);
        EXPECT_EQ(client.ask(Command::read, 0, 4 * MiB).data, data);
        EXPECT_EQ(client.ask(Command::flush, 0, 0).error, Error::none);
    }
    run({"umount", "-l", at});
}

} // namespace
