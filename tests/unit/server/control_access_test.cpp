// SPDX-License-Identifier: GPL-2.0-only
// Who gets at the control device, how many at a time, and what their commands and mappings do.
#include "control_rig.h"

#include <grp.h>
#include <poll.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <thread>

namespace
{

using namespace control_rig;
using namespace std::chrono_literals;

struct ControlAccess : ControlRig {
    void wait_for_clients(unsigned count)
    {
        for (int i = 0; i < 2000 && server->clients() != count; ++i)
            std::this_thread::sleep_for(5ms);
        EXPECT_EQ(server->clients(), count);
    }
    // A started backup of the partition over the client's file.
    void start(Client& client, LowPage& page)
    {
        page.as<StartBackup>() = {8, 1, 1024, 256};
        const auto reply = client.ioctl(QUENDREL_START_BACKUP, page.address());
        ASSERT_TRUE(reply);
        ASSERT_EQ(reply->result, 0);
    }
};

// Runs in a child process; its result is the child's exit status.
int in_child(const std::function<int()>& body, int* pid = nullptr)
{
    const pid_t child = ::fork();
    if (child == 0)
        ::_exit(body());
    if (pid)
        *pid = child;
    int status = 0;
    ::waitpid(child, &status, 0);
    return WIFEXITED(status) ? WEXITSTATUS(status) : 255;
}

TEST_F(ControlAccess, TheSocketIsForOwnerAndGroupOnly)
{
    serve();
    struct stat status;
    ASSERT_EQ(::stat(socket.c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 07777, 0660u);
}

TEST_F(ControlAccess, ACommandWritesItsResultIntoTheCallersMemory)
{
    serve();
    expect_well();
    EXPECT_EQ(opens, 1);
}

TEST_F(ControlAccess, APointerThatIsNotTheCallersGivesTheDriversCode)
{
    serve();
    Client client(socket);
    ASSERT_EQ(client.receive()->result, 0);
    EXPECT_EQ(client.ioctl(QUENDREL_GET_VERSION_MAJOR, 8)->result, QUENDREL_COPY_TO_USER);
    EXPECT_EQ(client.ioctl(QUENDREL_START_BACKUP, 8)->result, QUENDREL_COPY_FROM_USER);
    EXPECT_EQ(client.ioctl(0x12345678, 0)->result, QUENDREL_UNKNOWN_COMMAND);
}

TEST_F(ControlAccess, AnotherProcessGetsItsOwnMemoryRead)
{
    serve();
    EXPECT_EQ(in_child([&] {
                  LowPage page;
                  Client client(socket);
                  auto opened = client.receive();
                  if (!opened || opened->result != 0)
                      return 1;
                  auto reply = client.ioctl(QUENDREL_GET_VERSION_MAJOR, page.address());
                  return reply && reply->result == 0 && page.as<std::uint32_t>() == 3 ? 0 : 2;
              }),
              0);
    wait_for_clients(0);
}

TEST_F(ControlAccess, AStrangerIsTurnedAway)
{
    if (::geteuid() != 0)
        GTEST_SKIP() << "needs root to become somebody else";
    serve();
    ::chmod(scratch.c_str(), 0755);
    // The mode keeps strangers out; with the mode opened up, the peer's credentials still do.
    const auto as_nobody = [&] {
        if (::setgroups(0, nullptr) != 0 || ::setgid(65534) != 0 || ::setuid(65534) != 0)
            return 9;
        Client client(socket);
        if (!client.connected())
            return 1;
        const auto opened = client.receive();
        return opened && opened->result == -EACCES && !client.receive() ? 2 : 3;
    };
    EXPECT_EQ(in_child(as_nobody), 1);
    ::chmod(socket.c_str(), 0666);
    EXPECT_EQ(in_child(as_nobody), 2);
    EXPECT_EQ(opens, 0);
}

TEST_F(ControlAccess, AMemberOfTheGroupIsLetIn)
{
    if (::geteuid() != 0)
        GTEST_SKIP() << "needs root to become somebody else";
    ::chmod(scratch.c_str(), 0755);
    ControlServer::Options options;
    options.socket = socket;
    options.group = 12345;
    server = std::make_unique<ControlServer>(std::move(options));
    EXPECT_EQ(in_child([&] {
                  const gid_t groups[] = {1, 12345};
                  if (::setgroups(2, groups) != 0 || ::setgid(65534) != 0 || ::setuid(65534) != 0)
                      return 9;
                  // As after an exec; the kernel takes it away where a process changes its user.
                  if (::prctl(PR_SET_DUMPABLE, 1) != 0)
                      return 8;
                  Client client(socket);
                  const auto opened = client.receive();
                  return opened && opened->result == 0 ? 0 : 1;
              }),
              0);
}

TEST_F(ControlAccess, AProgramThatHadOtherRightsThanItsUserIsTurnedAwayWithALine)
{
    if (::geteuid() != 0)
        GTEST_SKIP() << "needs root to become somebody else";
    ::chmod(scratch.c_str(), 0755);
    std::string log;
    ControlServer::Options options;
    options.socket = socket;
    options.group = 65534;
    options.report = [&](std::string_view line) { log = line; };
    server = std::make_unique<ControlServer>(std::move(options));
    int pid = 0;
    EXPECT_EQ(in_child([&] {
                  if (::setgroups(0, nullptr) != 0 || ::setgid(65534) != 0 || ::setuid(65534) != 0)
                      return 9;
                  Client client(socket);
                  const auto opened = client.receive();
                  return opened && opened->result == -EACCES ? 0 : 1;
              }, &pid),
              0);
    server.reset();
    EXPECT_EQ(log, "a client of the control device was turned away: process " + std::to_string(pid) +
                       " is not the program of user 65534 that connected, or has changed its rights: Operation not "
                       "permitted");
    EXPECT_EQ(opens, 0);
}

TEST_F(ControlAccess, AnExecOfThePeerEndsItsCommands)
{
    serve();
    int answers[2];
    ASSERT_EQ(::pipe(answers), 0);
    // Asks for the version again, over the socket that it inherits, into memory of its own.
    const std::string program =
        "import ctypes, os, socket, struct\n"
        "map = ctypes.CDLL(None).mmap\n"
        "map.restype = ctypes.c_void_p\n"
        "map.argtypes = [ctypes.c_void_p, ctypes.c_size_t] + [ctypes.c_int] * 3 + [ctypes.c_long]\n"
        "at = map(0, 4096, 3, 0x62, -1, 0)\n"
        "s = socket.socket(fileno=100)\n"
        "s.send(struct.pack('<5I', " + std::to_string(unsigned(wire::Kind::ioctl)) + ", " +
        std::to_string(QUENDREL_GET_VERSION_MAJOR) + ", at, 0, 0))\n"
        "os.write(101, s.recv(4))\n";
    EXPECT_EQ(in_child([&] {
                  LowPage page;
                  Client client(socket);
                  const auto opened = client.receive();
                  const auto first = client.ioctl(QUENDREL_GET_VERSION_MAJOR, page.address());
                  if (!opened || opened->result != 0 || !first || first->result != 0)
                      return 1;
                  ::dup2(client.fd(), 100);
                  ::dup2(answers[1], 101);
                  ::execlp("python3", "python3", "-c", program.c_str(), nullptr);
                  return 2;
              }),
              0);
    ::close(answers[1]);
    std::int32_t result = 0;
    ASSERT_EQ(::read(answers[0], &result, sizeof result), ssize_t(sizeof result));
    ::close(answers[0]);
    EXPECT_EQ(result, QUENDREL_COPY_TO_USER);
}

TEST_F(ControlAccess, OneClientAtATimeTheNextIsToldBusy)
{
    serve();
    Client first(socket);
    ASSERT_EQ(first.receive()->result, 0);
    Client second(socket);
    EXPECT_EQ(second.receive()->result, -EBUSY);
    EXPECT_FALSE(second.receive());
    EXPECT_EQ(opens, 1);
    first.close();
    expect_well();
}

TEST_F(ControlAccess, ABusyAnswerDoesNotTouchTheRunningBackup)
{
    serve();
    Client first(socket);
    ASSERT_EQ(first.receive()->result, 0);
    LowPage page;
    ASSERT_NO_FATAL_FAILURE(start(first, page));
    Client second(socket);
    EXPECT_EQ(second.receive()->result, -EBUSY);
    LowPage state;
    page.as<GetState>() = {state.address(), sizeof(State)};
    ASSERT_EQ(first.ioctl(QUENDREL_GET_STATE, page.address())->result, 0);
    EXPECT_EQ(state.as<State>().state, unsigned(QUENDREL_STATE_STARTED));
}

TEST_F(ControlAccess, SeveralClientsWhenAskedForUpToTheBound)
{
    serve(true, 3);
    std::vector<std::unique_ptr<Client>> clients;
    for (int i = 0; i < 3; ++i) {
        clients.push_back(std::make_unique<Client>(socket));
        ASSERT_EQ(clients.back()->receive()->result, 0);
    }
    Client fourth(socket);
    EXPECT_EQ(fourth.receive()->result, -EBUSY);
}

TEST_F(ControlAccess, AMappingShowsThePagesOfTheTransferMemory)
{
    serve();
    Client client(socket);
    ASSERT_EQ(client.receive()->result, 0);
    LowPage page;
    ASSERT_NO_FATAL_FAILURE(start(client, page));
    base::Descriptor memory;
    const auto reply = client.ask({wire::Kind::mmap, 0x20000000, 8 * 4096, 1, 0}, &memory);
    ASSERT_TRUE(reply);
    ASSERT_EQ(reply->result, 0);
    ASSERT_EQ(reply->count, 8u);
    ASSERT_TRUE(memory);
    // The descriptor cannot be written through.
    EXPECT_EQ(::mmap(nullptr, 4096, PROT_READ | PROT_WRITE, MAP_SHARED, memory.get(), 0), MAP_FAILED);
    void* view = ::mmap(nullptr, 4096, PROT_READ, MAP_PRIVATE, memory.get(), off_t(reply->pages[0]) * 4096);
    EXPECT_NE(view, MAP_FAILED);
    ::munmap(view, 4096);
    EXPECT_EQ(client.ask({wire::Kind::munmap, 0x20000000, 8 * 4096, 0, 0})->result, 0);
    // The driver has two areas; the third is its refusal, not the protocol's.
    EXPECT_EQ(client.ask({wire::Kind::mmap, 0x20000000, 4096, 1, 0})->result, 0);
    EXPECT_EQ(client.ask({wire::Kind::mmap, 0x30000000, 4096, 1, 0})->result, 0);
    EXPECT_EQ(client.ask({wire::Kind::mmap, 0x40000000, 4096, 1, 0})->result, QUENDREL_REFUSED);
    // So is a writable one, and one that is larger than an area.
    EXPECT_EQ(client.ask({wire::Kind::munmap, 0x30000000, 0, 0, 0})->result, 0);
    EXPECT_EQ(client.ask({wire::Kind::mmap, 0x30000000, 4096, 3, 0})->result, QUENDREL_REFUSED);
    EXPECT_EQ(client.ask({wire::Kind::mmap, 0x30000000, 257 * 4096, 1, 0})->result, QUENDREL_REFUSED);
}

TEST_F(ControlAccess, AKilledClientsBackupIsClosedAndTheNextClientStartsOne)
{
    serve();
    int pipe[2];
    ASSERT_EQ(::pipe(pipe), 0);
    const pid_t child = ::fork();
    if (child == 0) {
        LowPage page;
        Client client(socket);
        client.receive();
        page.as<StartBackup>() = {8, 1, 1024, 256};
        client.ioctl(QUENDREL_START_BACKUP, page.address());
        client.ask({wire::Kind::mmap, 0x20000000, 4096, 1, 0});
        [[maybe_unused]] const auto written = ::write(pipe[1], "x", 1);
        ::pause();
        ::_exit(0);
    }
    char x;
    ASSERT_EQ(::read(pipe[0], &x, 1), 1);
    EXPECT_EQ(hosted::live().mappings, 1);
    ::kill(child, SIGKILL);
    ::waitpid(child, nullptr, 0);
    ::close(pipe[0]);
    ::close(pipe[1]);

    Client next(socket);
    ASSERT_EQ(next.receive()->result, 0);
    EXPECT_EQ(hosted::live().mappings, 0);
    LowPage page;
    start(next, page);
}

TEST_F(ControlAccess, AForkedChildCannotGoOnWithItsParentsConnection)
{
    serve();
    Client client(socket);
    ASSERT_EQ(client.receive()->result, 0);
    LowPage page;
    EXPECT_EQ(in_child([&] { return client.ioctl(QUENDREL_GET_VERSION_MAJOR, page.address()) ? 1 : 0; }), 0);
    EXPECT_FALSE(client.ioctl(QUENDREL_GET_VERSION_MAJOR, page.address()));
    EXPECT_EQ(page.as<std::uint32_t>(), 0u);
}

constexpr wire::Request taking_over{wire::Kind::take_over, 0, 0, 0, 0};

TEST_F(ControlAccess, AForkedChildThatTakesOverIsServedFromItsOwnMemoryUntilItsParentTakesOverAgain)
{
    serve();
    Client client(socket);
    ASSERT_EQ(client.receive()->result, 0);
    LowPage page;
    const auto version = [&] {
        const auto reply = client.ioctl(QUENDREL_GET_VERSION_MAJOR, page.address());
        return reply && reply->result == 0 && page.as<std::uint32_t>() == 3;
    };
    const auto taken_over = [&] {
        const auto reply = client.ask(taking_over);
        return reply && reply->result == 0 && reply->count == 0;
    };
    EXPECT_EQ(in_child([&] { return !taken_over() ? 1 : version() ? 0 : 2; }), 0);
    EXPECT_EQ(page.as<std::uint32_t>(), 0u) << "what the child asked for stands in its parent's memory";
    EXPECT_TRUE(taken_over());
    EXPECT_TRUE(version());
    EXPECT_EQ(opens, 1);
}

TEST_F(ControlAccess, WhoWasTakenOverFromCannotGoOn)
{
    serve();
    Client client(socket);
    ASSERT_EQ(client.receive()->result, 0);
    LowPage page;
    EXPECT_EQ(in_child([&] { return client.ask(taking_over) ? 0 : 1; }), 0);
    EXPECT_FALSE(client.ioctl(QUENDREL_GET_VERSION_MAJOR, page.address()));
}

TEST_F(ControlAccess, AKilledClientsBackupGoesOnWithTheChildThatHasTakenOverAndEndsWithIt)
{
    serve();
    int told[2], go[2];
    ASSERT_EQ(::pipe(told) | ::pipe(go), 0);
    const auto heard = [&](char& byte) {
        pollfd p{told[0], POLLIN, 0};
        return ::poll(&p, 1, 10000) == 1 && ::read(told[0], &byte, 1) == 1;
    };
    const pid_t parent = ::fork();
    if (parent == 0) {
        ::prctl(PR_SET_PDEATHSIG, SIGKILL);
        Client client(socket);
        LowPage page;
        const auto opened = client.receive();
        page.as<StartBackup>() = {8, 1, 1024, 256};
        if (!opened || opened->result != 0 || client.ioctl(QUENDREL_START_BACKUP, page.address())->result != 0)
            ::_exit(1);
        if (::fork() != 0) {
            ::pause();
            ::_exit(2);
        }
        char byte = 0;
        bool well = client.ask(taking_over).has_value() && ::write(told[1], &byte, 1) == 1 && ::read(go[0], &byte, 1) == 1;
        page.as<std::uint32_t>() = 0;
        const auto version = well ? client.ioctl(QUENDREL_GET_VERSION_MAJOR, page.address()) : std::nullopt;
        byte = version && page.as<std::uint32_t>() == 3;
        ::_exit(::write(told[1], &byte, 1) == 1 ? 0 : 1);
    }
    char byte = 1;
    ASSERT_TRUE(heard(byte));
    ::kill(parent, SIGKILL);
    ::waitpid(parent, nullptr, 0);
    {
        Client other(socket);
        EXPECT_EQ(other.receive()->result, -EBUSY);
    }
    ASSERT_EQ(::write(go[1], &byte, 1), 1);
    ASSERT_TRUE(heard(byte));
    EXPECT_EQ(byte, 1);
    wait_for_clients(0);
    Client next(socket);
    ASSERT_EQ(next.receive()->result, 0);
    LowPage page;
    start(next, page);
    for (const int fd : {told[0], told[1], go[0], go[1]})
        ::close(fd);
}

TEST_F(ControlAccess, AnotherUsersProcessCannotTakeOver)
{
    if (::geteuid() != 0)
        GTEST_SKIP() << "needs root to become somebody else";
    serve();
    Client client(socket);
    ASSERT_EQ(client.receive()->result, 0);
    EXPECT_EQ(in_child([&] {
                  if (::setgroups(0, nullptr) != 0 || ::setgid(65534) != 0 || ::setuid(65534) != 0 ||
                      ::prctl(PR_SET_DUMPABLE, 1) != 0)
                      return 9;
                  return client.ask(taking_over) ? 1 : 0;
              }),
              0);
    wait_for_clients(0);
}

TEST_F(ControlAccess, EndingTheServerCutsClientsOffAndClosesTheirFiles)
{
    serve();
    Client client(socket);
    ASSERT_EQ(client.receive()->result, 0);
    LowPage page;
    ASSERT_NO_FATAL_FAILURE(start(client, page));
    server.reset();
    EXPECT_FALSE(client.receive());
    EXPECT_EQ(hosted::driver_references(), 0);
    struct stat status;
    EXPECT_NE(::stat(socket.c_str(), &status), 0);
}

TEST_F(ControlAccess, OfSeveralClientsOneThatLeavesWhileWritesAreHeldHangsNobody)
{
    serve(true);
    // The worker's reads of old blocks take a while, so that writes lie with the driver at any moment.
    hosted::set_disk_probe([](const hosted::BioView& bio) {
        if (!bio.write)
            std::this_thread::sleep_for(5ms);
    });
    std::atomic<bool> ends = false;
    std::atomic<unsigned> written = 0;
    std::vector<std::thread> writers;
    for (unsigned thread = 0; thread < 6; ++thread)
        writers.emplace_back([&, thread] {
            std::vector<std::byte> block(4096);
            for (unsigned i = thread; !ends; i += 6) {
                EXPECT_EQ(disk->write((i * 7 % 1024) * 4096, block, 1), 0);
                EXPECT_EQ(disk->read((i * 7 % 1024) * 4096, block, 1), 0);
                ++written;
            }
        });
    std::atomic<bool> through = false;
    std::thread watchdog([&] {
        for (int i = 0; i < 600 && !through; ++i)
            std::this_thread::sleep_for(100ms);
        if (!through) {
            std::fprintf(stderr, "a close of the control device hangs\n");
            std::abort();
        }
    });
    LowPage page, key;
    for (int round = 0; round < 20; ++round) {
        Client backup(socket);
        EXPECT_EQ(backup.receive()->result, 0);
        start(backup, page);
        page.as<SnapShot>() = {key.address(), 0};
        EXPECT_EQ(backup.ioctl(QUENDREL_SNAPSHOT, page.address())->result, 0);
        const unsigned before = written;
        while (written < before + 3)
            std::this_thread::yield();
        {
            Client other(socket);
            EXPECT_EQ(other.receive()->result, 0);
        }
        wait_for_clients(1);
        backup.close();
        wait_for_clients(0);
    }
    ends = true;
    for (std::thread& writer : writers)
        writer.join();
    through = true;
    watchdog.join();
    hosted::set_disk_probe(nullptr);
}

} // namespace
