// SPDX-License-Identifier: GPL-2.0-only
// The NBD socket: how many are let in, and what happens when the host is short of something.
#include "nbd/server.h"
#include "nbd_rig.h"

#include <fcntl.h>
#include <poll.h>
#include <stdlib.h>
#include <sys/resource.h>
#include <sys/stat.h>

#include <filesystem>

namespace
{

using namespace nbd_rig;
using namespace std::chrono_literals;

struct NbdServer : NbdRig {
    std::string scratch = [] {
        std::string name = testing::TempDir() + "nbd-XXXXXX";
        return std::string(::mkdtemp(name.data()));
    }();
    std::string socket = scratch + "/nbd.sock";
    std::unique_ptr<quendreld::nbd::Server> server;

    void serve(unsigned most = 64)
    {
        server = std::make_unique<quendreld::nbd::Server>(
            shared.exports,
            quendreld::nbd::Server::Options{.socket = socket, .most_connections = most, .report = shared.report});
    }
    ~NbdServer() override
    {
        store->release();
        server.reset();
        std::filesystem::remove_all(scratch);
    }
    static bool greeted(Client& client)
    {
        pollfd p{client.fd(), POLLIN, 0};
        return ::poll(&p, 1, 100) > 0;
    }
};

TEST_F(NbdServer, TheSocketIsForOwnerAndGroup)
{
    serve();
    struct stat status;
    ASSERT_EQ(::stat(socket.c_str(), &status), 0);
    EXPECT_EQ(status.st_mode, unsigned(S_IFSOCK | 0660));
    EXPECT_FALSE(std::filesystem::exists(socket + ".new"));
    server.reset();
    EXPECT_FALSE(std::filesystem::exists(socket));
}

TEST_F(NbdServer, AClientBeyondTheBoundWaitsUntilAnotherLeaves)
{
    serve(2);
    Client first = Client::connect(socket), second = Client::connect(socket);
    ASSERT_TRUE(first.begin());
    ASSERT_TRUE(second.begin());
    Client third = Client::connect(socket), fourth = Client::connect(socket);
    EXPECT_FALSE(greeted(third));
    EXPECT_EQ(first.ask(Command::read, 0, 512).error, Error::none);
    first.close();
    ASSERT_TRUE(third.begin());
    EXPECT_EQ(third.ask(Command::read, 0, 512).error, Error::none);
    second.close();
    ASSERT_TRUE(fourth.begin());
    ASSERT_FALSE(lines().empty());
    EXPECT_EQ(lines().front(), "all 2 NBD connections are taken; the next client waits until one ends");
}

TEST_F(NbdServer, WithoutDescriptorsClientsWaitAndTheLogStaysShort)
{
    serve();
    Client early = Client::connect(socket);
    ASSERT_TRUE(early.begin());
    std::vector<Client> late;
    for (int i = 0; i < 10; ++i)
        late.emplace_back(base::Descriptor(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0)));
    rlimit before;
    ASSERT_EQ(::getrlimit(RLIMIT_NOFILE, &before), 0);
    rlimit none = before;
    none.rlim_cur = rlim_t(::dup(0)); // the lowest number that is free: from here on nothing can be opened
    ::close(int(none.rlim_cur));
    ASSERT_EQ(::setrlimit(RLIMIT_NOFILE, &none), 0);
    const auto begin = std::chrono::steady_clock::now();
    for (Client& client : late)
        EXPECT_TRUE(client.connect_to(socket));
    EXPECT_FALSE(greeted(late.front()));
    EXPECT_EQ(early.ask(Command::read, 0, 512).error, Error::none) << "who is in is served";
    std::this_thread::sleep_for(1500ms);
    const auto told = lines();
    const auto seconds = std::chrono::ceil<std::chrono::seconds>(std::chrono::steady_clock::now() - begin).count();
    ASSERT_EQ(::setrlimit(RLIMIT_NOFILE, &before), 0);
    for (Client& client : late)
        EXPECT_TRUE(client.begin());
    ASSERT_GE(told.size(), 1u);
    EXPECT_LE(told.size(), std::size_t(seconds) + 1) << "one a second";
    EXPECT_EQ(told[0], socket + ": cannot take a connection: Too many open files; it waits");
}

TEST_F(NbdServer, EndingItAnswersWhatWasAcceptedOnEveryConnection)
{
    serve();
    std::vector<Client> clients;
    for (int i = 0; i < 5; ++i) {
        clients.push_back(Client::connect(socket));
        ASSERT_TRUE(clients.back().begin());
    }
    store->hold();
    for (unsigned i = 0; i < clients.size(); ++i)
        clients[i].request(Command::write, i, i * 4096, 4096, 0, pattern(4096, i));
    ASSERT_TRUE(store->wait_for(clients.size()));
    std::thread ending([this] { server.reset(); });
    std::this_thread::sleep_for(20ms);
    store->release();
    ending.join();
    for (unsigned i = 0; i < clients.size(); ++i) {
        EXPECT_EQ(clients[i].reply().value().cookie, i);
        EXPECT_TRUE(clients[i].ended());
    }
}

} // namespace
