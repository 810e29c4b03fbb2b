// SPDX-License-Identifier: GPL-2.0-only
// Packets that no client of ours sends. The connection ends or the driver refuses; the server goes on, and nothing
// of what was passed along stays open.
#include "control_rig.h"

#include <fcntl.h>
#include <sys/socket.h>

#include <cerrno>
#include <chrono>
#include <cstring>
#include <random>
#include <thread>

namespace
{

using namespace control_rig;
using namespace std::chrono_literals;

struct ControlHostility : ControlRig {
    ControlHostility() { serve(); }

    // The server ends the connection over this packet, and is well afterwards.
    void expect_cut(const void* bytes, std::size_t count)
    {
        Client client(socket);
        ASSERT_EQ(client.receive()->result, 0);
        client.send(bytes, count);
        EXPECT_FALSE(client.receive());
    }
    void expect_cut(const wire::Request& request) { expect_cut(&request, sizeof request); }
};

TEST_F(ControlHostility, PacketsOfAWrongSizeEndTheConnection)
{
    std::vector<char> bytes(100000, 1);
    for (const std::size_t count : {1u, 4u, 19u, 21u, 40u, 4096u, 100000u}) {
        SCOPED_TRACE(count);
        expect_cut(bytes.data(), count);
    }
    expect_well();
}

TEST_F(ControlHostility, AnEmptyPacketEndsTheConnection)
{
    expect_cut("", 0);
    expect_well();
}

TEST_F(ControlHostility, UnknownKindsEndTheConnection)
{
    for (const std::uint32_t kind : {0u, 5u, 0x80000001u, ~0u}) {
        SCOPED_TRACE(kind);
        expect_cut({wire::Kind(kind), 0, 0, 0, 0});
    }
    expect_well();
}

TEST_F(ControlHostility, ATakingOverWithArgumentsEndsTheConnection)
{
    expect_cut({wire::Kind::take_over, 1, 0, 0, 0});
    expect_cut({wire::Kind::take_over, 0, 0, 0, 1});
    expect_well();
}

TEST_F(ControlHostility, MappingArgumentsThatNoKernelLetsThroughEndTheConnection)
{
    using wire::Kind;
    expect_cut({Kind::mmap, 0x1000, 0, 1, 0});        // nothing
    expect_cut({Kind::mmap, 0x1001, 4096, 1, 0});     // off the page grid
    expect_cut({Kind::mmap, 0, 4096, 1, 0});          // the null page
    expect_cut({Kind::mmap, 0xfffff000, 8192, 1, 0}); // over the end
    expect_cut({Kind::mmap, 0x1000, 0xffffffff, 1, 0});
    expect_cut({Kind::mmap, 0x1000, 4096, 0x10, 0});        // an unknown flag
    expect_cut({Kind::munmap, 0x1000, 0, 0, 0});            // not mapped
    expect_cut({Kind::ioctl, QUENDREL_GET_STATE, 0, 1, 0}); // unused words
    expect_well();
}

TEST_F(ControlHostility, OverlappingMappingsEndTheConnectionAndLeaveNone)
{
    {
        Client client(socket);
        ASSERT_EQ(client.receive()->result, 0);
        LowPage page;
        page.as<StartBackup>() = {8, 1, 1024, 256};
        ASSERT_EQ(client.ioctl(QUENDREL_START_BACKUP, page.address())->result, 0);
        ASSERT_EQ(client.ask({wire::Kind::mmap, 0x20000000, 8192, 1, 0})->result, 0);
        EXPECT_FALSE(client.ask({wire::Kind::mmap, 0x20001000, 4096, 1, 0}));
    }
    expect_well();
    EXPECT_EQ(hosted::live().mappings, 0);
}

TEST_F(ControlHostility, DescriptorsPassedAlongEndTheConnectionAndAreClosed)
{
    expect_well();
    const int before = open_descriptors();
    for (int round = 0; round < 20; ++round) {
        int pipe[2];
        ASSERT_EQ(::pipe(pipe), 0);
        Client client(socket);
        ASSERT_EQ(client.receive()->result, 0);
        const wire::Request request{wire::Kind::ioctl, 0, 0, 0, 0};
        iovec part{const_cast<wire::Request*>(&request), sizeof request};
        alignas(cmsghdr) char control[CMSG_SPACE(sizeof(int))] = {};
        msghdr header{};
        header.msg_iov = &part;
        header.msg_iovlen = 1;
        header.msg_control = control;
        header.msg_controllen = sizeof control;
        cmsghdr* c = CMSG_FIRSTHDR(&header);
        c->cmsg_level = SOL_SOCKET;
        c->cmsg_type = SCM_RIGHTS;
        c->cmsg_len = CMSG_LEN(sizeof(int));
        std::memcpy(CMSG_DATA(c), &pipe[1], sizeof(int));
        ASSERT_EQ(::sendmsg(client.fd(), &header, MSG_NOSIGNAL), ssize_t(sizeof request));
        EXPECT_FALSE(client.receive());
        ::close(pipe[1]);
        char x;
        EXPECT_EQ(::read(pipe[0], &x, 1), 0) << "the other end is still open somewhere";
        ::close(pipe[0]);
    }
    // A connection that has ended goes with the next one that is accepted, if its thread is through by then.
    const auto deadline = std::chrono::steady_clock::now() + 30s;
    do
        expect_well();
    while (open_descriptors() > before + 1 && std::chrono::steady_clock::now() < deadline);
    EXPECT_LE(open_descriptors(), before + 1);
}

TEST_F(ControlHostility, ConnectionsThatSayNothingAndVanishLeaveNothing)
{
    for (int i = 0; i < 100; ++i)
        Client client(socket);
    expect_well();
}

TEST_F(ControlHostility, RandomPacketsNeverReachTheDiskNorEndTheServer)
{
    const unsigned seed = std::random_device{}();
    SCOPED_TRACE("seed " + std::to_string(seed));
    std::mt19937 random(seed);
    const auto word = [&] { return std::uint32_t(random()); };
    std::atomic<int> writes = 0;
    hosted::set_disk_probe([&](const hosted::BioView& bio) { writes += bio.write; });
    // Pointers into this page are the only ones that lead anywhere.
    LowPage page;
    const std::uint32_t commands[] = {
        QUENDREL_GET_BLOCK_SIZE,    QUENDREL_START_BACKUP,     QUENDREL_SNAPSHOT,       QUENDREL_GET_STATE,
        QUENDREL_GET_AUTOMAP_STATE, QUENDREL_NO_START_AUTOMAP, QUENDREL_LOAD_BLOCK_MAP, QUENDREL_NO_LOAD_FROM_AUTOMAP,
        QUENDREL_GET_AUTOMAP,       QUENDREL_GET_DIRTY_BLOCK,  QUENDREL_READ_BLOCKS,    QUENDREL_SYNC,
        QUENDREL_SHUTDOWN,          QUENDREL_RESERVED16};
    int replies = 0;
    for (int round = 0; round < 300; ++round) {
        Client client(socket);
        const auto opened = client.receive();
        ASSERT_TRUE(opened);
        ASSERT_EQ(opened->result, 0);
        for (int i = 0; i < 20; ++i) {
            for (std::size_t at = 0; at < 64; ++at)
                (&page.as<std::uint32_t>())[at] = word() % 3 ? word() % 16 : page.address() + word() % 4096;
            wire::Request request{wire::Kind(1 + word() % 3), word(), word(), 0, 0};
            switch (word() % 4) {
            case 0:
                request = {wire::Kind(word() % 5), word(), word(), word() % 20, word() % 2};
                break;
            case 1:
                request = {wire::Kind::mmap, word() & ~4095u, word() % (1 << 21), 1, 0};
                break;
            default:
                request = {wire::Kind::ioctl, commands[word() % std::size(commands)], page.address() + word() % 256, 0,
                           0};
            }
            if (!client.ask(request))
                break;
            ++replies;
        }
    }
    EXPECT_GT(replies, 300);
    hosted::set_disk_probe(nullptr);
    EXPECT_EQ(writes, 0);
    expect_well();
}

} // namespace
