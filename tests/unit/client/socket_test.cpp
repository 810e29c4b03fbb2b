// SPDX-License-Identifier: GPL-2.0-only
// The client over a real socket, with a fake driver on the other end.
#include "client/control_device.h"
#include "fake_server.h"
#include "support.h"

#include <sys/wait.h>

#include <cerrno>
#include <chrono>
#include <cstring>

namespace
{

using quendrel::ControlDevice;
using quendrel::DeviceNumber;
using quendrel::Error;
namespace wire = quendrel::wire;

constexpr DeviceNumber sda1{8, 1};

class Socket : public testing::Test
{
  protected:
    ControlDevice open() { return ControlDevice{path.string()}; }
    ControlDevice loaded()
    {
        ControlDevice device = open();
        device.start(sda1, 1000, 10);
        device.snapshot({});
        device.loadBlockMap(quendrel::Bitmap{1000, true});
        return device;
    }

    test::Directory directory;
    std::filesystem::path path = directory / "control.sock";
    fake::Driver driver{sda1, 4096, 1000};
    fake::Server server{driver, path};
};

int codeOf(const std::function<void()>& action)
{
    try {
        action();
    } catch (const Error& error) {
        return error.code();
    }
    return 0;
}

TEST_F(Socket, ResultOfTheOpenIsThrown)
{
    driver.open_result = QUENDREL_BUSY;
    EXPECT_EQ(codeOf([&] { open(); }), QUENDREL_BUSY);
    driver.open_result = -EBUSY;
    EXPECT_EQ(codeOf([&] { open(); }), -EBUSY);
}

TEST_F(Socket, CommandsReachTheDriverAndAnswersComeBack)
{
    ControlDevice device = open();
    EXPECT_EQ(device.version().major, 3u);
    EXPECT_EQ(device.version().minor, 1u);
    EXPECT_EQ(device.blockSize(sda1).blockSize, 4096u);
    EXPECT_EQ(device.blockSize(sda1).sizeKiB, 4000u);
    EXPECT_EQ(device.state().state, 0u);
    device.start(sda1, 1000, 10);
    const auto state = device.state();
    EXPECT_EQ(state.device, sda1);
    EXPECT_EQ(state.state, static_cast<unsigned>(QUENDREL_STATE_STARTED));
    EXPECT_EQ(state.blockSize, 4096u);
    EXPECT_EQ(state.mapBytes, 256u * 4096);
    EXPECT_FALSE(device.autoMapState().inSync);
    device.sync();
    device.shutdown();
}

TEST_F(Socket, ErrorNamesTheCommandTheDeviceAndTheSocket)
{
    ControlDevice device = open();
    try {
        device.start({8, 2}, 1000, 10);
        FAIL();
    } catch (const Error& error) {
        EXPECT_EQ(error.command(), "StartBackup");
        EXPECT_EQ(error.device(), "8:2");
        EXPECT_EQ(error.via(), path.string());
        EXPECT_EQ(error.code(), QUENDREL_NOT_MOUNTED);
    }
}

TEST_F(Socket, WrongKeyIsSeenOnlyInTheState)
{
    {
        ControlDevice first = loaded();
    }
    ControlDevice device = open();
    device.start(sda1, 1000, 10);
    device.snapshot({});
    EXPECT_EQ(device.state().state, static_cast<unsigned>(QUENDREL_STATE_STARTED));
    device.noLoadFromAutoMap();
    device.snapshot({});
    EXPECT_EQ(device.state().state, static_cast<unsigned>(QUENDREL_STATE_SNAPSHOT));
}

TEST_F(Socket, ChangedBlocksComeAsABitmapOnce)
{
    quendrel::SessionKey key;
    {
        ControlDevice device = loaded();
        key = device.autoMapState().key;
        EXPECT_TRUE(device.autoMapState().inSync);
    }
    driver.write(0, 1);
    driver.write(999, 1);
    ControlDevice device = open();
    device.start(sda1, 1000, 10);
    device.snapshot(key);
    const auto changed = device.autoMap(1000);
    ASSERT_TRUE(changed);
    EXPECT_EQ(changed->count(), 2u);
    EXPECT_TRUE(changed->test(0));
    EXPECT_TRUE(changed->test(999));
    EXPECT_FALSE(device.autoMap(1000));
}

TEST_F(Socket, NoDirtyBlockIsNothing)
{
    ControlDevice device = loaded();
    EXPECT_EQ(device.dirtyBlock(), std::nullopt);
}

// The pages of an area are scattered over the transfer memory; each has to stand at its place, and reads that come
// later have to be seen.
TEST_F(Socket, BlocksStandInTheAreaInOrder)
{
    for (std::uint32_t block = 0; block < 1000; ++block)
        driver.write(block, block);
    ControlDevice device = loaded();
    const auto area = device.map(256 * 4096);
    const auto disk = driver.contents();
    for (const std::uint32_t first : {0u, 256u, 700u}) {
        device.readBlocks(first, 256, area);
        EXPECT_EQ(std::memcmp(area.data().data(), disk.data() + first * 4096, 256 * 4096), 0) << first;
    }
}

TEST_F(Socket, TwoAreasAreIndependent)
{
    for (std::uint32_t block = 0; block < 1000; ++block)
        driver.write(block, block);
    ControlDevice device = loaded();
    const auto a = device.map(256 * 4096);
    const auto b = device.map(16 * 4096);
    device.readBlocks(0, 256, a);
    device.readBlocks(500, 16, b);
    const auto disk = driver.contents();
    EXPECT_EQ(std::memcmp(a.data().data(), disk.data(), 256 * 4096), 0);
    EXPECT_EQ(std::memcmp(b.data().data(), disk.data() + 500 * 4096, 16 * 4096), 0);
    EXPECT_EQ(codeOf([&] { device.map(4096); }), QUENDREL_REFUSED);
}

TEST_F(Socket, ReleasedAreaCanBeMappedAgain)
{
    ControlDevice device = loaded();
    for (int i = 0; i < 5; ++i) {
        auto a = device.map(256 * 4096);
        auto b = device.map(256 * 4096);
        a.release();
    }
    const auto events = driver.events();
    EXPECT_EQ(std::count(events.begin(), events.end(), "map"), 10);
    EXPECT_EQ(std::count(events.begin(), events.end(), "unmap"), 10);
}

TEST_F(Socket, FileIsClosedAfterItsAreasAreUnmappedWhateverGoesFirst)
{
    {
        auto device = std::make_unique<ControlDevice>(loaded());
        const auto area = device->map(4096);
        device.reset();
        EXPECT_TRUE(driver.isOpen());
    }
    const auto events = driver.events();
    ASSERT_GE(events.size(), 2u);
    EXPECT_EQ(events[events.size() - 2], "unmap");
    EXPECT_EQ(events.back(), "close");
}

TEST_F(Socket, ClosingWaitsUntilTheDaemonHasClosedTheFile)
{
    server.close_slowly = true;
    {
        ControlDevice device = loaded();
    }
    EXPECT_FALSE(driver.isOpen());
    EXPECT_EQ(codeOf([&] { open(); }), 0);
}

TEST_F(Socket, ReadErrorCarriesItsCode)
{
    ControlDevice device = loaded();
    const auto area = device.map(4096);
    driver.unreadable = 7;
    EXPECT_EQ(codeOf([&] { device.readBlocks(7, 1, area); }), QUENDREL_READ_ERROR);
    EXPECT_EQ(codeOf([&] { device.readBlocks(8, 1, area); }), 0);
}

TEST_F(Socket, ReadIntoTheWrongPlaceIsRefused)
{
    ControlDevice device = loaded();
    const auto area = device.map(4096);
    EXPECT_EQ(codeOf([&] { device.readBlocks(0, 2, area); }), QUENDREL_REFUSED);
    EXPECT_EQ(codeOf([&] { device.readBlocks(0, 1, quendrel::TransferArea{}); }), QUENDREL_REFUSED);
}

TEST_F(Socket, DaemonThatEndsTheConnectionIsAnError)
{
    ControlDevice device = open();
    server.instead_of = wire::Kind::ioctl;
    server.instead.set([](const wire::Request&) { return std::vector<std::byte>{}; });
    EXPECT_EQ(codeOf([&] { device.state(); }), -ECONNRESET);
    const int after = codeOf([&] { device.state(); });
    EXPECT_TRUE(after == -EPIPE || after == -ECONNRESET) << after;
}

TEST_F(Socket, ReplyOfAWrongSizeIsAnError)
{
    ControlDevice device = open();
    server.instead_of = wire::Kind::ioctl;
    server.instead.set([](const wire::Request&) { return std::vector<std::byte>(10); });
    EXPECT_EQ(codeOf([&] { device.state(); }), -EPROTO);
    server.instead.set([](const wire::Request&) {
        const wire::Reply reply{0, wire::protocol_version, 5, {}}; // says five pages follow, and none does
        std::vector<std::byte> packet(wire::reply_header_bytes);
        std::memcpy(packet.data(), &reply, packet.size());
        return packet;
    });
    EXPECT_EQ(codeOf([&] { device.state(); }), -EPROTO);
}

TEST_F(Socket, MappingWithoutItsMemoryIsAnError)
{
    ControlDevice device = loaded();
    server.instead_of = wire::Kind::mmap;
    server.instead.set([](const wire::Request&) {
        const wire::Reply reply{0, wire::protocol_version, 1, {}};
        std::vector<std::byte> packet(wire::reply_header_bytes + 4);
        std::memcpy(packet.data(), &reply, packet.size());
        return packet;
    });
    EXPECT_EQ(codeOf([&] { device.map(4096); }), -EPROTO);
}

TEST_F(Socket, DaemonOfAnotherVersionIsRefused)
{
    server.version = wire::protocol_version + 1;
    EXPECT_EQ(codeOf([&] { open(); }), -EPROTONOSUPPORT);
}

TEST_F(Socket, ForkedChildCannotGoOnWithItsParentsConnection)
{
    ControlDevice device = open();
    const pid_t child = ::fork();
    if (child == 0)
        ::_exit(codeOf([&] { device.state(); }) == -ECHILD ? 0 : 1);
    int status = 0;
    ::waitpid(child, &status, 0);
    EXPECT_EQ(WEXITSTATUS(status), 0);
    EXPECT_EQ(codeOf([&] { device.state(); }), 0);
}

TEST_F(Socket, ForkedChildThatTakesOverGoesOnAndItsParentAfterIt)
{
    ControlDevice device = open();
    device.start(sda1, 1000, 100);
    const pid_t child = ::fork();
    if (child == 0)
        ::_exit(codeOf([&] {
                    device.takeOver();
                    device.snapshot({});
                }) == 0 && device.state().state == QUENDREL_STATE_SNAPSHOT
                    ? 0
                    : 1);
    int status = 0;
    ::waitpid(child, &status, 0);
    EXPECT_EQ(WEXITSTATUS(status), 0);
    device.takeOver();
    EXPECT_EQ(device.state().state, unsigned{QUENDREL_STATE_SNAPSHOT});
}

TEST_F(Socket, ChildThatCouldNotTakeOverLeavesItsParentTheConnection)
{
    ControlDevice device = open();
    server.instead_of = wire::Kind::take_over;
    server.instead.set([](const wire::Request&) {
        const wire::Reply reply{-EPERM, wire::protocol_version, 0, {}};
        std::vector<std::byte> packet(wire::reply_header_bytes);
        std::memcpy(packet.data(), &reply, packet.size());
        return packet;
    });
    const pid_t child = ::fork();
    if (child == 0)
        ::_exit(codeOf([&] { device.takeOver(); }) == -EPERM && codeOf([&] { device.state(); }) == -ECHILD ? 0 : 1);
    int status = 0;
    ::waitpid(child, &status, 0);
    EXPECT_EQ(WEXITSTATUS(status), 0);
    EXPECT_EQ(codeOf([&] { device.state(); }), 0);
}

TEST_F(Socket, ClientThatIsKilledClosesTheFile)
{
    int ready[2];
    ASSERT_EQ(::pipe(ready), 0);
    const pid_t child = ::fork();
    if (child == 0) {
        ControlDevice device = loaded();
        const auto area = device.map(4096);
        const bool told = ::write(ready[1], "x", 1) == 1;
        ::pause();
        ::_exit(told ? 0 : 1);
    }
    char c;
    ASSERT_EQ(::read(ready[0], &c, 1), 1);
    ::kill(child, SIGKILL);
    ::waitpid(child, nullptr, 0);
    for (int i = 0; i < 500 && server.connections == 0; ++i)
        std::this_thread::sleep_for(std::chrono::milliseconds{10});
    EXPECT_FALSE(driver.isOpen());
    EXPECT_EQ(codeOf([&] { open(); }), 0);
    ::close(ready[0]);
    ::close(ready[1]);
}

} // namespace
