// SPDX-License-Identifier: GPL-2.0-only
// Requests and replies of an NBD connection.
#include "nbd_rig.h"

#include <fcntl.h>
#include <stdlib.h>

#include <algorithm>
#include <cstring>
#include <filesystem>
#include <random>
#include <set>

namespace
{

using namespace nbd_rig;
using namespace std::chrono_literals;

struct NbdConnection : NbdRig {
    Client client = connect();
};

TEST_F(NbdConnection, WhatWasWrittenReadsBack)
{
    ASSERT_TRUE(client.begin());
    // Small, at the border of what shares memory with its neighbours, and large.
    for (const std::uint32_t bytes : {512u, 4096u, 32768u, 33280u, 1u << 20, 5u << 20}) {
        SCOPED_TRACE(bytes);
        const Bytes data = pattern(bytes, bytes);
        EXPECT_EQ(client.ask(Command::write, 1536, bytes, 0, data).error, Error::none);
        EXPECT_EQ(std::memcmp(store->bytes().data() + 1536, data.data(), bytes), 0);
        EXPECT_EQ(client.ask(Command::read, 1536, bytes).data, data);
    }
}

TEST_F(NbdConnection, AStructuredReadTellsItsPlace)
{
    ASSERT_TRUE(client.begin("sda", true));
    const Bytes data = pattern(8192, 3);
    EXPECT_EQ(client.ask(Command::write, 4096, 8192, 0, data).error, Error::none);
    const Reply reply = client.ask(Command::read, 4096, 8192, wire::command_df);
    EXPECT_EQ(reply.chunk, wire::Chunk::offset_data);
    EXPECT_EQ(reply.offset, 4096u);
    EXPECT_EQ(reply.data, data);
}

TEST_F(NbdConnection, ZeroesAndTrimsChangeTheDisk)
{
    ASSERT_TRUE(client.begin());
    client.ask(Command::write, 0, 16384, 0, pattern(16384, 9));
    EXPECT_EQ(client.ask(Command::write_zeroes, 4096, 4096).error, Error::none);
    EXPECT_EQ(client.ask(Command::write_zeroes, 8192, 4096, wire::command_no_hole | wire::command_fua).error,
              Error::none);
    EXPECT_EQ(client.ask(Command::trim, 12288, 4096, wire::command_fua).error, Error::none);
    EXPECT_EQ(client.ask(Command::read, 4096, 8192).data, Bytes(8192));
    EXPECT_EQ(client.ask(Command::flush, 0, 0).error, Error::none);
    EXPECT_EQ(client.ask(Command::cache, 0, 1 << 20).error, Error::none);
}

struct Refusal {
    const char* what;
    Command command;
    std::uint64_t offset;
    std::uint32_t length;
    std::uint16_t flags;
    Error error;
};

const Refusal refusals[] = {
    {"a read beyond the end", Command::read, NbdRig::disk_bytes - 512, 1024, 0, Error::invalid},
    {"a read whose end overflows", Command::read, ~std::uint64_t(511), 1024, 0, Error::invalid},
    {"a read off the grid", Command::read, 100, 512, 0, Error::invalid},
    {"a read of nothing", Command::read, 0, 0, 0, Error::invalid},
    {"a read that is too large", Command::read, 0, (32u << 20) + 512, 0, Error::invalid},
    {"a write beyond the end", Command::write, NbdRig::disk_bytes - 512, 1024, 0, Error::no_space},
    {"a write off the grid", Command::write, 512, 100, 0, Error::invalid},
    {"a small write with an unknown flag", Command::write, 0, 4096, 0x100, Error::invalid},
    {"a large write with an unknown flag", Command::write, 0, 300000, 0x100, Error::invalid},
    {"zeroes beyond the end", Command::write_zeroes, NbdRig::disk_bytes, 512, 0, Error::no_space},
    {"zeroes that must be fast", Command::write_zeroes, 0, 4096, wire::command_fast_zero, Error::not_supported},
    {"a trim beyond the end", Command::trim, NbdRig::disk_bytes, 512, 0, Error::invalid},
    {"a trim with a flag of writes", Command::trim, 0, 512, wire::command_no_hole, Error::invalid},
    {"a cache beyond the end", Command::cache, NbdRig::disk_bytes, 512, 0, Error::invalid},
    {"a status that was not agreed upon", Command::block_status, 0, 512, 0, Error::invalid},
    {"a resize", Command(8), 0, 4096, 0, Error::invalid},
    {"an unknown command", Command(99), 0, 0, 0, Error::invalid},
};

TEST_F(NbdConnection, WhatCannotBeDoneIsRefusedAndTheNextRequestServed)
{
    ASSERT_TRUE(client.begin());
    const Bytes before(store->bytes().begin(), store->bytes().end());
    for (const Refusal& one : refusals) {
        SCOPED_TRACE(one.what);
        const Bytes data = one.command == Command::write ? pattern(one.length, 5) : Bytes();
        EXPECT_EQ(client.ask(one.command, one.offset, one.length, one.flags, data).error, one.error);
        EXPECT_EQ(client.ask(Command::read, 0, 512).error, Error::none);
    }
    EXPECT_TRUE(std::equal(before.begin(), before.end(), store->bytes().begin()));
}

TEST_F(NbdConnection, StructuredRefusalsCarryTheSameNumbers)
{
    ASSERT_TRUE(client.begin("sda", true, true));
    EXPECT_EQ(client.ask(Command::read, disk_bytes, 512).error, Error::invalid);
    EXPECT_EQ(client.ask(Command::block_status, disk_bytes, 512).error, Error::invalid);
    EXPECT_EQ(client.ask(Command::block_status, 0, 0).error, Error::invalid);
    EXPECT_EQ(client.ask(Command::write, disk_bytes, 512, 0, Bytes(512)).error, Error::no_space);
}

TEST_F(NbdConnection, AReadOnlyDiskRefusesChangesAndServesReads)
{
    add("sdc", hosted::make_memory_store(1 << 20), true);
    ASSERT_TRUE(client.begin("sdc"));
    EXPECT_EQ(client.ask(Command::write, 0, 512, 0, Bytes(512)).error, Error::perm);
    EXPECT_EQ(client.ask(Command::write, 1 << 20, 512, 0, Bytes(512)).error, Error::perm) << "before anything else";
    EXPECT_EQ(client.ask(Command::trim, 0, 512).error, Error::perm);
    EXPECT_EQ(client.ask(Command::write_zeroes, 0, 512).error, Error::perm);
    EXPECT_EQ(client.ask(Command::read, 0, 512).error, Error::none);
    EXPECT_EQ(client.ask(Command::flush, 0, 0).error, Error::none);
}

TEST_F(NbdConnection, AWriteBeyondTheLargestEndsTheConnectionWithALine)
{
    ASSERT_TRUE(client.begin());
    client.request(Command::write, 1, 0, (32u << 20) + 512);
    EXPECT_TRUE(client.ended());
    join();
    EXPECT_EQ(lines(), std::vector<std::string>{"an NBD client sent a write of more than the 33554432 bytes "
                                                "that it was told; its connection ends"});
}

TEST_F(NbdConnection, WhatIsNoRequestEndsTheConnectionWithALine)
{
    ASSERT_TRUE(client.begin());
    client.send(pattern(28, 1));
    EXPECT_TRUE(client.ended());
    join();
    EXPECT_EQ(lines(), std::vector<std::string>{"an NBD client sent what is no request; its connection ends"});
}

TEST_F(NbdConnection, RepliesOvertakeWhatStillWaits)
{
    ASSERT_TRUE(client.begin());
    store->hold();
    client.request(Command::write, 1, 0, 4096, 0, pattern(4096, 1));
    client.request(Command::read, 2, 0, 0); // refused at once
    const auto first = client.reply();
    ASSERT_TRUE(first);
    EXPECT_EQ(first->cookie, 2u);
    store->release();
    const auto second = client.reply();
    ASSERT_TRUE(second);
    EXPECT_EQ(second->cookie, 1u);
}

TEST_F(NbdConnection, HeldWritesKeepTheirDataWhileOthersAreReceived)
{
    ASSERT_TRUE(client.begin());
    store->hold();
    // Several times what one piece of memory holds.
    constexpr unsigned count = 100;
    constexpr std::uint32_t bytes = 16384;
    for (unsigned i = 0; i < count; ++i)
        client.request(Command::write, i, i * bytes, bytes, 0, pattern(bytes, i));
    ASSERT_TRUE(store->wait_for(count));
    store->release();
    std::set<std::uint64_t> answered;
    for (unsigned i = 0; i < count; ++i) {
        const auto reply = client.reply();
        ASSERT_TRUE(reply);
        EXPECT_EQ(reply->error, Error::none);
        answered.insert(reply->cookie);
    }
    EXPECT_EQ(answered.size(), count);
    for (unsigned i = 0; i < count; ++i)
        EXPECT_EQ(std::memcmp(store->bytes().data() + i * bytes, pattern(bytes, i).data(), bytes), 0) << i;
}

TEST_F(NbdConnection, RequestsThatArriveInPiecesAreTakenWhole)
{
    ASSERT_TRUE(client.begin());
    const Bytes data = pattern(2048, 4);
    const Bytes all =
        words(wire::magic_request, std::uint16_t(0), std::uint16_t(1), std::uint64_t(7), std::uint64_t(512), 2048u) +
        data +
        words(wire::magic_request, std::uint16_t(0), std::uint16_t(0), std::uint64_t(8), std::uint64_t(512), 2048u);
    for (std::size_t at = 0; at < all.size(); at += 13) {
        client.send(Bytes(all.begin() + long(at), all.begin() + long(std::min(at + 13, all.size()))));
        std::this_thread::sleep_for(100us);
    }
    ASSERT_EQ(client.reply().value().cookie, 7u);
    const auto read = client.reply(2048);
    ASSERT_TRUE(read);
    EXPECT_EQ(read->cookie, 8u);
    EXPECT_EQ(read->data, data);
}

TEST_F(NbdConnection, AClientThatDoesNotReadHoldsABoundedAmountAndNobodyElse)
{
    ASSERT_TRUE(client.begin());
    std::thread greedy([this] {
        for (unsigned i = 0; i < 100; ++i)
            client.request(Command::read, i, 0, 1 << 20);
    });
    greedy.join();
    Client other = connect();
    ASSERT_TRUE(other.begin());
    EXPECT_EQ(other.ask(Command::read, 0, 4096).error, Error::none);
    std::this_thread::sleep_for(50ms);
    // The kernel takes twice what it is told for the socket.
    EXPECT_LE(store->seen(), (Connection::most_held + 2 * Connection::send_buffer) / (1 << 20) + 3);
    for (unsigned i = 0; i < 100; ++i)
        ASSERT_TRUE(client.reply(1 << 20)) << "all are served when it reads again";
}

TEST_F(NbdConnection, ManyRequestsThatWaitAreBounded)
{
    ASSERT_TRUE(client.begin());
    store->hold();
    std::thread sender([this] {
        for (unsigned i = 0; i < 3000; ++i)
            client.request(Command::flush, i, 0, 0);
    });
    ASSERT_TRUE(store->wait_for(Connection::most_requests));
    std::this_thread::sleep_for(50ms);
    EXPECT_EQ(store->seen(), Connection::most_requests);
    store->release();
    std::set<std::uint64_t> answered;
    for (unsigned i = 0; i < 3000; ++i)
        answered.insert(client.reply().value().cookie);
    sender.join();
    EXPECT_EQ(answered.size(), 3000u);
}

TEST_F(NbdConnection, WhatArrivedBesideLargeRequestsIsTakenWithoutMoreArriving)
{
    ASSERT_TRUE(client.begin());
    // Refused, but for the moment as much as may be under way; what comes behind them in one piece is complete.
    Bytes all;
    for (std::uint64_t cookie = 0; cookie < 4; ++cookie)
        all = all + words(wire::magic_request, std::uint16_t(0), std::uint16_t(0), cookie, disk_bytes, 16u << 20);
    client.send(all);
    for (std::uint64_t cookie = 0; cookie < 4; ++cookie)
        EXPECT_EQ(client.reply().value().cookie, cookie);
}

TEST_F(NbdConnection, AClientThatVanishesWithRepliesOutstandingEndsItsConnectionOnly)
{
    for (int round = 0; round < 20; ++round) {
        store->hold();
        Client vanishing = connect();
        ASSERT_TRUE(vanishing.begin());
        for (unsigned i = 0; i < 12; ++i)
            vanishing.request(Command::read, i, 0, 1 << 20);
        ASSERT_TRUE(store->wait_for(12));
        std::thread releasing([this] { store->release(); });
        vanishing.close();
        releasing.join();
        join();
    }
    ASSERT_TRUE(client.begin());
    EXPECT_EQ(client.ask(Command::read, 0, 512).error, Error::none);
}

TEST_F(NbdConnection, GoodbyeAnswersWhatWasAskedBefore)
{
    ASSERT_TRUE(client.begin());
    store->hold();
    client.request(Command::write, 1, 0, 4096, 0, pattern(4096, 1));
    client.request(Command::disconnect, 2, 0, 0);
    ASSERT_TRUE(store->wait_for(1));
    store->release();
    EXPECT_EQ(client.reply().value().cookie, 1u);
    EXPECT_TRUE(client.ended());
}

TEST_F(NbdConnection, HangingUpCompletesAndAnswersWhatWasAccepted)
{
    ASSERT_TRUE(client.begin());
    store->hold();
    for (unsigned i = 0; i < 3; ++i)
        client.request(Command::write, i, i * 4096, 4096, 0, pattern(4096, i));
    ASSERT_TRUE(store->wait_for(3));
    served.back().connection->hang_up();
    store->release();
    std::set<std::uint64_t> answered;
    for (unsigned i = 0; i < 3; ++i)
        answered.insert(client.reply().value().cookie);
    EXPECT_EQ(answered.size(), 3u);
    EXPECT_TRUE(client.ended());
    for (unsigned i = 0; i < 3; ++i)
        EXPECT_EQ(std::memcmp(store->bytes().data() + i * 4096, pattern(4096, i).data(), 4096), 0);
}

TEST_F(NbdConnection, HangingUpDoesNotWaitForAClientThatDoesNotRead)
{
    ASSERT_TRUE(client.begin());
    for (unsigned i = 0; i < 40; ++i)
        client.request(Command::read, i, 0, 1 << 20);
    std::this_thread::sleep_for(20ms);
    const auto begin = std::chrono::steady_clock::now();
    served.back().connection->hang_up();
    join();
    EXPECT_LT(std::chrono::steady_clock::now() - begin, Connection::goodbye_patience + 4s);
}

TEST_F(NbdConnection, AReplyThatTookLongIsStillSentAfterGoodbye)
{
    ASSERT_TRUE(client.begin());
    store->hold();
    client.request(Command::write, 1, 0, 4096, 0, pattern(4096, 1));
    ASSERT_TRUE(store->wait_for(1));
    client.request(Command::disconnect, 2, 0, 0);
    std::this_thread::sleep_for(Connection::goodbye_patience + 500ms);
    store->release();
    const auto reply = client.reply();
    ASSERT_TRUE(reply);
    EXPECT_EQ(reply->cookie, 1u);
    EXPECT_TRUE(client.ended());
}

TEST_F(NbdConnection, SmallWritesThatWaitPinABoundedNumberOfPieces)
{
    ASSERT_TRUE(client.begin());
    store->hold();
    // One small write and then refused ones, so that each piece of memory is held by 512 bytes.
    std::thread sender([this] {
        for (unsigned i = 0; i < 200; ++i) {
            client.request(Command::write, i, 0, 512, 0, Bytes(512));
            for (unsigned n = 0; n < 4; ++n)
                client.request(Command::write, 1000 + i, 0, 32768, 0x100, Bytes(32768));
        }
    });
    unsigned replies = 0;
    std::thread reader([&] {
        while (replies < 1000 && client.reply())
            ++replies;
    });
    std::this_thread::sleep_for(1s);
    EXPECT_LE(store->seen(), Connection::most_inputs + 2);
    store->release();
    sender.join();
    reader.join();
    EXPECT_EQ(replies, 1000u);
}

TEST_F(NbdConnection, HangingUpEndsAClientThatHagglesAndDoesNotRead)
{
    ASSERT_TRUE(client.greet());
    std::thread haggling([this] {
        Bytes many;
        for (int i = 0; i < 1000; ++i)
            many = many + words(wire::magic_option, std::uint32_t(Option::list), 0u);
        while (client.send(many)) {
        }
    });
    std::this_thread::sleep_for(200ms);
    const auto begin = std::chrono::steady_clock::now();
    served.back().connection->hang_up();
    join();
    EXPECT_LT(std::chrono::steady_clock::now() - begin, 5s);
    haggling.join();
}

TEST_F(NbdConnection, HangingUpEndsAClientInItsHandshake)
{
    served.back().connection->hang_up();
    join();
    EXPECT_FALSE(client.begin());
}

TEST_F(NbdConnection, TheStatusOfBlocksTellsHolesFromData)
{
    std::string path = testing::TempDir() + "nbd-sparse-XXXXXX";
    const base::Descriptor file(::mkstemp(path.data()));
    ASSERT_EQ(::ftruncate(file.get(), 4 << 20), 0);
    const Bytes data = pattern(65536, 1);
    ASSERT_EQ(::pwrite(file.get(), data.data(), data.size(), 1 << 20), ssize_t(data.size()));
    add("sdc", hosted::open_file_store(path));
    std::filesystem::remove(path);
    ASSERT_TRUE(client.begin("sdc", true, true));
    const std::uint32_t hole = wire::state_hole | wire::state_zero;
    EXPECT_EQ(client.ask(Command::block_status, 0, 4 << 20).data,
              words(1u, 1u << 20, hole, 65536u, 0u, (3u << 20) - 65536, hole));
    EXPECT_EQ(client.ask(Command::block_status, 512 << 10, 1 << 20, wire::command_req_one).data,
              words(1u, 512u << 10, hole));
    EXPECT_EQ(client.ask(Command::block_status, (1 << 20) + 4096, 4096).data, words(1u, 4096u, 0u));
}

TEST_F(NbdConnection, RandomTrafficOverSeveralConnectionsReadsBackWhatWasWritten)
{
    // Over a file, whose requests end on several threads; each connection has a part of the disk of its own.
    std::string path = testing::TempDir() + "nbd-traffic-XXXXXX";
    const base::Descriptor file(::mkstemp(path.data()));
    constexpr std::uint64_t part = 4 << 20;
    constexpr unsigned parts = 3;
    ASSERT_EQ(::ftruncate(file.get(), part * parts), 0);
    add("sdc", hosted::open_file_store(path));
    std::filesystem::remove(path);
    const unsigned seed = std::random_device{}();
    SCOPED_TRACE("seed " + std::to_string(seed));

    std::vector<Client> clients;
    for (unsigned i = 0; i < parts; ++i) {
        clients.push_back(connect());
        ASSERT_TRUE(clients.back().begin("sdc", i % 2));
    }
    std::vector<std::thread> threads;
    for (unsigned n = 0; n < parts; ++n)
        threads.emplace_back([&, n] {
            Client& c = clients[n];
            std::mt19937 random(seed + n);
            Bytes model(part);
            for (int round = 0; round < 30; ++round) {
                // Writes of one round do not overlap: in pieces from front to back.
                unsigned writes = 0;
                for (std::uint64_t at = 0; at < part;) {
                    const std::uint64_t bytes =
                        std::min<std::uint64_t>(part - at, 512 * (1 + random() % (random() % 8 ? 40 : 400)));
                    if (random() % 3 == 0) {
                        const Bytes data = pattern(bytes, random());
                        std::copy(data.begin(), data.end(), model.begin() + long(at));
                        c.request(Command::write, writes++, n * part + at, std::uint32_t(bytes), 0, data);
                    }
                    at += bytes;
                }
                for (; writes; --writes)
                    ASSERT_EQ(c.reply().value().error, Error::none);
                std::uint64_t from = random() % (part / 512) * 512;
                const std::uint64_t bytes = std::min<std::uint64_t>(part - from, 1 << 20);
                ASSERT_TRUE(c.ask(Command::read, n * part + from, std::uint32_t(bytes)).data ==
                            Bytes(model.begin() + long(from), model.begin() + long(from + bytes)))
                    << "round " << round;
            }
        });
    for (std::thread& thread : threads)
        thread.join();
}

} // namespace
