// SPDX-License-Identifier: GPL-2.0-only
// A client that starts a second backup on its file: it is told "busy", its first backup goes on, and the driver takes
// the next client's.
#include "control_rig.h"

#include <chrono>
#include <functional>
#include <thread>

namespace
{

using namespace control_rig;
using hosted::faults::Kind;

constexpr std::uint32_t kBlocks = 1024;

class SecondStart : public ControlRig
{
  protected:
    SecondStart() { serve(); }

    struct Session {
        explicit Session(const std::string& socket) : client(socket) { EXPECT_EQ(client.receive()->result, 0); }
        int start(std::uint32_t major = 8, std::uint32_t minor = 1, std::uint32_t blocks = kBlocks,
                  std::uint32_t cache_blocks = 256)
        {
            page.as<StartBackup>() = {major, minor, blocks, cache_blocks};
            return client.ioctl(QUENDREL_START_BACKUP, page.address())->result;
        }
        int snapshot()
        {
            page.as<SnapShot>() = {bits.address(), 0};
            return client.ioctl(QUENDREL_SNAPSHOT, page.address())->result;
        }
        int load_map(bool set)
        {
            for (unsigned i = 0; i < kBlocks / 8; ++i)
                (&bits.as<unsigned char>())[i] = set ? 0xFF : 0;
            UserBlockMap& map = *reinterpret_cast<UserBlockMap*>(&page.as<char>() + 64);
            map = {bits.address(), kBlocks};
            page.as<LoadBlockMap>() = {page.address() + 64, sizeof map};
            return client.ioctl(QUENDREL_LOAD_BLOCK_MAP, page.address())->result;
        }
        std::uint32_t state()
        {
            page.as<GetState>() = {page.address() + 64, sizeof(State)};
            EXPECT_EQ(client.ioctl(QUENDREL_GET_STATE, page.address())->result, 0);
            return reinterpret_cast<State*>(&page.as<char>() + 64)->state;
        }
        LowPage page, bits;
        Client client;
    };

    // A whole backup by the next client.
    void expect_next_backup()
    {
        Session next(socket);
        EXPECT_EQ(next.start(), 0);
        EXPECT_EQ(next.state(), unsigned(QUENDREL_STATE_STARTED));
    }
    // `reach` brings a client's file into `state`; a second start leaves it there, and so does a third.
    void expect_busy_in(std::uint32_t state, const std::function<void(Session&)>& reach)
    {
        SCOPED_TRACE("state " + std::to_string(state));
        {
            Session session(socket);
            reach(session);
            ASSERT_EQ(session.state(), state);
            for (int again = 0; again < 2; ++again) {
                EXPECT_EQ(session.start(), QUENDREL_BUSY);
                EXPECT_EQ(session.state(), state);
            }
        }
        hosted::faults::clear();
        expect_next_backup();
    }
    void write_block() { EXPECT_EQ(disk->write(0, std::vector<std::byte>(4096), 1), 0); }
};

TEST_F(SecondStart, OfAStartedBackup)
{
    expect_busy_in(QUENDREL_STATE_STARTED, [](Session& s) { EXPECT_EQ(s.start(), 0); });
}

TEST_F(SecondStart, OfABackupAtItsSnapshotOrWithItsMap)
{
    expect_busy_in(QUENDREL_STATE_SNAPSHOT, [](Session& s) {
        EXPECT_EQ(s.start(), 0);
        EXPECT_EQ(s.snapshot(), 0);
    });
    expect_busy_in(QUENDREL_STATE_MAP_LOADED, [](Session& s) {
        EXPECT_EQ(s.start(), 0);
        // The device is tracked by now, under a key that nobody kept.
        EXPECT_EQ(s.client.ioctl(QUENDREL_NO_LOAD_FROM_AUTOMAP, 0)->result, 0);
        EXPECT_EQ(s.snapshot(), 0);
        EXPECT_EQ(s.load_map(true), 0);
    });
}

TEST_F(SecondStart, OfAStartThatFailed)
{
    expect_busy_in(QUENDREL_STATE_IDLE,
                   [](Session& s) { EXPECT_EQ(s.start(8, 2), QUENDREL_NOT_MOUNTED) << "nothing is mounted there"; });
    expect_busy_in(QUENDREL_STATE_STARTING, [](Session& s) {
        EXPECT_EQ(s.start(8, 1, 0), QUENDREL_REFUSED) << "a map of no blocks";
    });
    expect_busy_in(QUENDREL_STATE_STARTING, [](Session& s) {
        hosted::faults::fail_allocation(1, unsigned(Kind::vmalloc));
        EXPECT_EQ(s.start(), QUENDREL_NO_MEMORY);
    });
}

TEST_F(SecondStart, OfABackupThatFailed)
{
    const auto snapshot = [](Session& s, std::uint32_t cache_blocks) {
        EXPECT_EQ(s.start(8, 1, kBlocks, cache_blocks), 0);
        EXPECT_EQ(s.client.ioctl(QUENDREL_NO_LOAD_FROM_AUTOMAP, 0)->result, 0);
        EXPECT_EQ(s.snapshot(), 0);
    };
    expect_busy_in(QUENDREL_STATE_CACHE_EXHAUSTED, [&](Session& s) {
        snapshot(s, 0);
        write_block();
    });
    expect_busy_in(QUENDREL_STATE_READ_FAILED, [&](Session& s) {
        snapshot(s, 256);
        hosted::faults::fail_read(1);
        write_block();
    });
    expect_busy_in(QUENDREL_STATE_QUEUE_FAILED, [&](Session& s) {
        snapshot(s, 256);
        hosted::faults::fail_allocation(1, unsigned(Kind::kmalloc));
        write_block();
    });
    expect_busy_in(QUENDREL_STATE_MAP_LOAD_FAILED, [&](Session& s) {
        snapshot(s, 256);
        hosted::faults::fail_allocation(1, unsigned(Kind::page));
        EXPECT_EQ(s.load_map(true), QUENDREL_NO_MEMORY);
    });
}

TEST_F(SecondStart, AfterOneThatTookNothingIsTheFirst)
{
    Session session(socket);
    EXPECT_EQ(session.client.ioctl(QUENDREL_START_BACKUP, 16)->result, QUENDREL_COPY_FROM_USER);
    EXPECT_EQ(session.start(256, 1), QUENDREL_REFUSED);
    EXPECT_EQ(session.start(8, 256), QUENDREL_REFUSED);
    EXPECT_EQ(session.state(), unsigned(QUENDREL_STATE_IDLE));
    EXPECT_EQ(session.start(), 0);
    EXPECT_EQ(session.start(256, 1), QUENDREL_BUSY);
    EXPECT_EQ(session.state(), unsigned(QUENDREL_STATE_STARTED));
}

TEST_F(SecondStart, IsTheDriversToAnswerWithSeveralClients)
{
    server.reset();
    serve(true);
    {
        Session session(socket);
        EXPECT_EQ(session.start(), 0);
        EXPECT_EQ(session.start(), QUENDREL_BUSY);
        EXPECT_EQ(session.state(), unsigned(QUENDREL_STATE_REFUSED_BUSY));
        // The close of another file takes the backup away, and with it the last hint of who held it.
        Session other(socket);
    }
    while (server->clients() != 0)
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    expect_next_backup();
}

} // namespace
