// SPDX-License-Identifier: GPL-2.0-only
// A daemon on a host that is short of something: each call of a kind that one whole backup makes, with NBD and the
// disk's file in use meanwhile, fails once. Whichever it is, the daemon lives, at most one of its clients is told of an
// error, nobody is told of success that was none, and the next backup is right.
#include "shortage.h"

#include "client/control_device.h"
#include "client/error.h"
#include "nbd_client.h"
#include "serving.h"

#include <gtest/gtest.h>

#include <fcntl.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <functional>
#include <iostream>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <utility>
#include <vector>

namespace
{

using namespace serving;
using nbd_client::Bytes;
using nbd_client::Client;
using quendreld::nbd::Command;
using shortage::Call;
using shortage::Shortage;

constexpr std::uint32_t block = 4096;
constexpr std::uint64_t MiB = 1 << 20;
constexpr std::uint64_t part_start = MiB, part_bytes = MiB, image_bytes = 3 * MiB;
constexpr quendrel::DeviceNumber part{8, 1};
// What is written to: from the middle of the partition to a little behind its end.
constexpr std::uint64_t work_start = part_start + part_bytes / 2, work_bytes = part_bytes / 2 + 2 * block;
// For one attempt. A daemon that forgets a request is found by this.
constexpr unsigned patience_seconds = 20;

base::Descriptor stream_socket() { return base::Descriptor(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0)); }

// The order that a preloaded daemon looks at.
class Order
{
  public:
    explicit Order(const std::string& path)
    {
        std::ofstream(path).close();
        if (::truncate(path.c_str(), sizeof(Shortage)) != 0)
            throw std::system_error(errno, std::generic_category(), path);
        const base::Descriptor fd(::open(path.c_str(), O_RDWR | O_CLOEXEC));
        void* at = ::mmap(nullptr, sizeof(Shortage), PROT_READ | PROT_WRITE, MAP_SHARED, fd.get(), 0);
        if (at == MAP_FAILED)
            throw std::system_error(errno, std::generic_category(), path);
        shared_ = static_cast<Shortage*>(at);
        ::setenv(shortage::variable, path.c_str(), 1);
        ::setenv("LD_PRELOAD", SHORTAGE_LIBRARY, 1);
    }
    ~Order()
    {
        ::unsetenv("LD_PRELOAD");
        ::unsetenv(shortage::variable);
        ::munmap(shared_, sizeof *shared_);
    }
    Order(const Order&) = delete;
    Order& operator=(const Order&) = delete;

    void give(Call call, std::uint32_t first, std::uint32_t count)
    {
        shared_->call = Call::none;
        shared_->seen = shared_->failed = 0;
        shared_->first = first;
        shared_->count = count;
        std::memset(shared_->where, 0, sizeof shared_->where);
        shared_->call = call;
    }
    void end() { shared_->call = Call::none; }
    std::uint32_t seen() const { return shared_->seen; }
    std::uint32_t failed() const { return shared_->failed; }
    std::string where() const { return shared_->where; }
    std::string text() const
    {
        return "failed from call " + std::to_string(shared_->first) + " on, of " + std::to_string(seen()) + ":\n" +
               where();
    }

  private:
    Shortage* shared_ = nullptr;
};

// Kills the test when an attempt takes too long: the daemon has forgotten a request. The thread that waits for it may
// be past the reach of any other signal. What is left of the daemon is the watchdog's.
class Patience
{
  public:
    ~Patience()
    {
        {
            std::lock_guard lock(mutex_);
            over_ = true;
        }
        change_.notify_all();
        thread_.join();
    }
    // `what` says what goes on, for the case that it does not end.
    explicit Patience(std::function<std::string()> what) : what_(std::move(what)) {}
    void begin_again()
    {
        std::lock_guard lock(mutex_);
        until_ = std::chrono::steady_clock::now() + std::chrono::seconds(patience_seconds);
    }

  private:
    void watch()
    {
        std::unique_lock lock(mutex_);
        while (!change_.wait_for(lock, std::chrono::seconds(1), [this] { return over_; })) {
            if (std::chrono::steady_clock::now() < until_)
                continue;
            std::cerr << "no progress: the daemon has forgotten a request; " << what_() << "\n";
            ::kill(::getpid(), SIGKILL);
        }
    }

    const std::function<std::string()> what_;
    std::mutex mutex_; // guards what follows
    std::condition_variable change_;
    bool over_ = false;
    std::chrono::steady_clock::time_point until_ = std::chrono::steady_clock::time_point::max();
    std::thread thread_{[this] { watch(); }};
};

// What the clients of one attempt were told; empty: that all is well.
struct Told {
    std::string nbd, backup, file;
    int clients() const { return !nbd.empty() + !backup.empty() + !file.empty(); }
    std::string text() const { return "NBD: '" + nbd + "', backup: '" + backup + "', file: '" + file + "'"; }
};

struct Kind {
    const char* name;
    Call call;
    std::uint32_t together; // calls in a row that fail
};

std::ostream& operator<<(std::ostream& out, const Kind& kind) { return out << kind.name; }

struct AShortage : testing::TestWithParam<Kind> {
    ScratchDir scratch;
    std::string image = scratch / "disk.img";
    std::string run_dir = scratch / "run";
    Order order{scratch / "order"};
    std::unique_ptr<Serving> serving;
    Bytes disk; // what it holds
    Patience patience{[this] { return order.text(); }};
    unsigned char fill = 0;

    void SetUp() override
    {
        make_image(image, image_bytes, {{part_start / 512, part_bytes / 512}});
        const std::string fs = scratch / "part.img";
        must_run({"mkfs.ext2", "-q", "-F", "-b", std::to_string(block), fs, std::to_string(part_bytes / 1024)});
        must_run({"dd", "if=" + fs, "of=" + image, "bs=1M", "seek=1", "conv=notrunc", "status=none"});
        disk = content();
    }

    Bytes content() const
    {
        std::ifstream in(image, std::ios::binary);
        Bytes bytes(image_bytes);
        in.read(reinterpret_cast<char*>(bytes.data()), std::streamsize(bytes.size()));
        return bytes;
    }
    std::vector<std::string> options() const
    {
        return ::access("/dev/fuse", R_OK | W_OK) == 0 ? std::vector<std::string>{}
                                                       : std::vector<std::string>{"--no-fuse"};
    }
    Bytes fresh(std::size_t bytes) { return Bytes(bytes, std::byte(++fill)); }
    // From here on the disk holds this there.
    void now_holds(std::uint64_t offset, const Bytes& bytes)
    {
        std::copy(bytes.begin(), bytes.end(), disk.begin() + std::ptrdiff_t(offset));
    }
    Bytes part_of_disk(std::uint64_t offset, std::size_t bytes) const
    {
        return Bytes(disk.begin() + std::ptrdiff_t(offset), disk.begin() + std::ptrdiff_t(offset + bytes));
    }

    // ---- NBD

    // Nothing when it was done; else what the client was told.
    static std::string ask(Client& client, Command command, std::uint64_t offset, std::uint32_t bytes,
                           const Bytes& data = {}, Bytes* read = nullptr)
    {
        client.request(command, 1, offset, bytes, 0, data);
        return answer(client, read);
    }
    static std::string answer(Client& client, Bytes* read = nullptr)
    {
        const auto reply = client.reply();
        if (!reply)
            return "the connection ended";
        if (reply->error != quendreld::nbd::Error::none)
            return "error " + std::to_string(unsigned(reply->error));
        if (read)
            *read = reply->data;
        return {};
    }
    // Connects; what went wrong.
    std::string connect(Client& client) const
    {
        if (!client.connect_to(run_dir + "/nbd.sock"))
            return "not connected";
        return client.begin("sda", true, true) ? "" : "no handshake";
    }
    std::string use_nbd(Client& client)
    {
        const std::uint64_t at = work_start;
        const auto write = [&](std::uint64_t offset, std::uint32_t bytes) {
            const Bytes data = fresh(bytes);
            const std::string told = ask(client, Command::write, offset, bytes, data);
            if (told.empty())
                now_holds(offset, data);
            return told;
        };
        if (auto told = write(at, block); !told.empty())
            return told;
        if (auto told = write(at + 32 * block, 24 * block); !told.empty()) // in memory of its own
            return told;
        if (auto told = write(part_start + part_bytes - block, 2 * block); !told.empty()) // over the border
            return told;
        // Several that lie side by side, sent together.
        constexpr unsigned together = 4;
        const Bytes data = fresh(block);
        for (unsigned i = 0; i < together; ++i)
            client.request(Command::write, i, at + (8 + i) * block, block, 0, data);
        std::string told;
        for (unsigned i = 0; i < together; ++i)
            if (const std::string one = answer(client); !one.empty())
                told = one;
        if (!told.empty())
            return told;
        for (unsigned i = 0; i < together; ++i)
            now_holds(at + (8 + i) * block, data);
        for (const auto& [command, offset, bytes] : {std::tuple{Command::flush, std::uint64_t(0), 0u},
                                                     {Command::trim, at + 16 * block, 2 * block},
                                                     {Command::write_zeroes, at + 16 * block, 2 * block},
                                                     {Command::cache, 0, block},
                                                     {Command::block_status, 0, unsigned(image_bytes)}})
            if (told = ask(client, command, offset, bytes); !told.empty())
                return told;
        now_holds(at + 16 * block, Bytes(2 * block));
        Bytes read;
        told = ask(client, Command::read, at, 64 * block, {}, &read);
        if (told.empty()) {
            EXPECT_EQ(read, part_of_disk(at, 64 * block)) << "read over NBD";
        }
        return told;
    }

    // ---- The disk as a file

    std::string use_file()
    {
        if (!options().empty())
            return {};
        const auto failed = [](const char* what) { return std::string(what) + ": " + std::strerror(errno); };
        const base::Descriptor file(::open(serving->file().c_str(), O_RDWR | O_CLOEXEC));
        if (!file)
            return failed("open");
        const auto write = [&](std::uint64_t offset, std::size_t bytes) {
            const Bytes data = fresh(bytes);
            if (::pwrite(file.get(), data.data(), bytes, off_t(offset)) != ssize_t(bytes))
                return false;
            now_holds(offset, data);
            return true;
        };
        const std::uint64_t at = work_start + 80 * block;
        if (!write(at, block) || !write(at + block, 20 * block) || !write(at + 100, 700))
            return failed("write");
        if (::fallocate(file.get(), FALLOC_FL_PUNCH_HOLE | FALLOC_FL_KEEP_SIZE, off_t(at + 2 * block), block) != 0)
            return failed("fallocate");
        now_holds(at + 2 * block, Bytes(block));
        if (::fsync(file.get()) != 0)
            return failed("fsync");
        Bytes read(32 * block);
        if (::pread(file.get(), read.data(), read.size(), off_t(at)) != ssize_t(read.size()))
            return failed("read");
        EXPECT_EQ(read, part_of_disk(at, read.size())) << "read from the file";
        return {};
    }

    // ---- All together

    // A whole backup, in the middle of which the disk is written to in two ways.
    Told attempt()
    {
        Told told;
        Client client(stream_socket());
        told.nbd = connect(client);
        const auto use_both = [&] {
            if (told.nbd.empty())
                told.nbd = use_nbd(client);
            told.file = use_file();
        };
        bool used = false;
        try {
            quendrel::ControlDevice device(run_dir + "/control.sock");
            const auto geometry = device.blockSize(part);
            EXPECT_EQ(geometry.blockSize, block);
            const std::uint32_t blocks = part_bytes / block;
            device.start(part, blocks, blocks);
            device.noLoadFromAutoMap();
            device.snapshot({});
            if (const auto state = device.state().state; state != QUENDREL_STATE_SNAPSHOT)
                throw quendrel::Error("SnapShot", "", "", int(state));
            const Bytes then = part_of_disk(part_start, part_bytes);
            device.loadBlockMap(quendrel::Bitmap(blocks, true));
            used = true;
            use_both();
            const std::uint32_t step = std::min(blocks, device.state().mapBytes / block) / 2;
            const auto area = device.map(step * block);
            Bytes copied;
            for (std::uint32_t at = 0; at < blocks; at += step) {
                const std::uint32_t n = std::min(step, blocks - at);
                device.readBlocks(at, n, area);
                copied.insert(copied.end(), area.data().begin(), area.data().begin() + n * block);
            }
            if (const auto state = device.state().state; state != QUENDREL_STATE_MAP_LOADED)
                throw quendrel::Error("the end", "", "", int(state));
            EXPECT_TRUE(copied == then) << "the backup is not what the partition held at the snapshot";
        } catch (const quendrel::Error& error) {
            told.backup = error.what();
        }
        if (!used)
            use_both();
        return told;
    }
    // After a failed write what stands there is unknown: all of it is written anew.
    void repair()
    {
        Client client(stream_socket());
        ASSERT_EQ(connect(client), "");
        const Bytes data = fresh(work_bytes);
        ASSERT_EQ(ask(client, Command::write, work_start, std::uint32_t(work_bytes), data), "");
        now_holds(work_start, data);
    }
};

struct AShortageAtTheFirstBackup : AShortage {
};
struct AShortageAtTheStart : AShortage {
};
struct AShortageAtTheEnd : AShortage {
};

// How many calls failed; a kind that has none shows nothing.
void tell(const Kind& kind, unsigned failures, std::chrono::steady_clock::time_point since)
{
    EXPECT_GT(failures, 0u);
    const std::chrono::duration<double> lasted = std::chrono::steady_clock::now() - since;
    std::cout << kind.name << ": " << failures << " failures in " << lasted.count() << " s\n";
}

TEST_P(AShortage, HitsOneClientAtMostAndTheNextBackupIsRight)
{
    const Kind kind = GetParam();
    serving = std::make_unique<Serving>(std::vector{image}, run_dir, options());
    const pid_t daemon = serving->pid();
    Client bystander(stream_socket());
    ASSERT_EQ(connect(bystander), "");
    ASSERT_EQ(attempt().text(), Told{}.text()) << "with nothing short";

    const char* from = std::getenv("SHORTAGE_FIRST"); // to look at one failure
    const auto begun = std::chrono::steady_clock::now();
    std::uint32_t n = from ? std::uint32_t(std::atoi(from)) : 1;
    for (unsigned hits = 0;; ++n) {
        patience.begin_again();
        order.give(kind.call, n, kind.together);
        const Told told = attempt();
        order.end();
        const bool met = order.failed() != 0;
        hits += met;
        SCOPED_TRACE(std::string(kind.name) + ", call " + std::to_string(n) + ", " + told.text() + "\n" +
                     order.where());
        if (kind.together == 1) {
            EXPECT_LE(told.clients(), 1);
        }
        ASSERT_EQ(::kill(daemon, 0), 0) << "the daemon has died\n" << serving->log();
        Bytes read;
        EXPECT_EQ(ask(bystander, Command::read, 0, block, {}, &read), "") << "a client that did nothing meanwhile";
        repair();
        EXPECT_EQ(attempt().text(), Told{}.text()) << "afterwards";
        if (HasFailure())
            break;
        if (!met) {
            tell(kind, hits, begun);
            break;
        }
    }
    patience.begin_again();
    bystander.close();
    serving->stop();
    EXPECT_EQ(content(), disk);
}

// What is made at its first use is not there yet.
TEST_P(AShortageAtTheFirstBackup, HitsOneClientAtMostAndTheNextBackupIsRight)
{
    const Kind kind = GetParam();
    const auto begun = std::chrono::steady_clock::now();
    const char* from = std::getenv("SHORTAGE_FIRST");
    for (std::uint32_t n = from ? std::uint32_t(std::atoi(from)) : 1;; ++n) {
        patience.begin_again();
        serving = std::make_unique<Serving>(std::vector{image}, run_dir, options());
        order.give(kind.call, n, kind.together);
        const Told told = attempt();
        order.end();
        SCOPED_TRACE(std::string(kind.name) + ", " + told.text() + ", " + order.text());
        EXPECT_LE(told.clients(), 1);
        repair();
        EXPECT_EQ(attempt().text(), Told{}.text()) << "afterwards\n" << serving->log();
        serving.reset();
        if (HasFailure())
            break;
        if (order.failed() == 0) {
            tell(kind, n - 1, begun);
            break;
        }
    }
}

// A start makes all of these calls too: it succeeds without what failed, or says what is wrong and leaves nothing
// behind.
TEST_P(AShortageAtTheStart, IsSaidAndLeavesNothingBehind)
{
    const Kind kind = GetParam();
    const auto begun = std::chrono::steady_clock::now();
    const char* from = std::getenv("SHORTAGE_FIRST");
    for (std::uint32_t n = from ? std::uint32_t(std::atoi(from)) : 1;; ++n) {
        patience.begin_again();
        order.give(kind.call, n, kind.together);
        std::string refusal;
        try {
            serving = std::make_unique<Serving>(std::vector{image}, run_dir, options());
        } catch (const std::exception& error) {
            refusal = error.what();
        }
        order.end();
        SCOPED_TRACE(std::string(kind.name) + ", call " + std::to_string(n) + ": " + refusal + "\n" + order.where());
        if (refusal.empty()) {
            EXPECT_EQ(attempt().backup, "") << "a daemon that started works";
            serving->stop();
            serving.reset();
        } else {
            EXPECT_NE(refusal.find(" ended with 1: quendreld: "), std::string::npos) << "no reason was given";
            for (const char* name : {"/control.sock", "/nbd.sock", "/disks.json", "/pid", "/disks"})
                EXPECT_NE(::access((run_dir + name).c_str(), F_OK), 0) << name << " was left behind";
        }
        if (HasFailure())
            break;
        if (order.failed() == 0) {
            tell(kind, n - 1, begun);
            break;
        }
    }
}

// What the daemon could not do is said; dying, or never ending, is not the way.
TEST_P(AShortageAtTheEnd, KeepsNothingFromTheDisk)
{
    const Kind kind = GetParam();
    const auto begun = std::chrono::steady_clock::now();
    for (std::uint32_t n = 1;; ++n) {
        patience.begin_again();
        serving = std::make_unique<Serving>(std::vector{image}, run_dir, options());
        ASSERT_EQ(attempt().text(), Told{}.text());
        order.give(kind.call, n, kind.together);
        SCOPED_TRACE(std::string(kind.name) + ", call " + std::to_string(n));
        std::string refusal;
        try {
            serving->stop();
        } catch (const std::exception& error) {
            refusal = error.what();
        }
        order.end();
        EXPECT_TRUE(refusal.empty() || refusal.find("not everything is on disk") != std::string::npos)
            << refusal << order.where();
        serving.reset();
        EXPECT_TRUE(content() == disk) << order.where();
        if (HasFailure())
            break;
        if (order.failed() == 0) {
            tell(kind, n - 1, begun);
            break;
        }
    }
}

std::string name_of(const testing::TestParamInfo<Kind>& info) { return info.param.name; }

INSTANTIATE_TEST_SUITE_P(Of, AShortage,
                         testing::Values(Kind{"Threads", Call::thread, 1}, Kind{"Connections", Call::accept, 1},
                                         Kind{"Mappings", Call::map, 1}, Kind{"Files", Call::open, 1},
                                         Kind{"Objects", Call::allocation, 1}, Kind{"Memory", Call::memory, 1}),
                         name_of);
INSTANTIATE_TEST_SUITE_P(Of, AShortageAtTheFirstBackup,
                         testing::Values(Kind{"Threads", Call::thread, 1}, Kind{"Mappings", Call::map, 1},
                                         Kind{"Objects", Call::allocation, 1}),
                         name_of);
INSTANTIATE_TEST_SUITE_P(Of, AShortageAtTheStart,
                         testing::Values(Kind{"Threads", Call::thread, 1}, Kind{"SharedMemory", Call::memfd, 1},
                                         Kind{"Mappings", Call::map, 1}, Kind{"Files", Call::open, 1},
                                         Kind{"Objects", Call::allocation, 1}),
                         name_of);
INSTANTIATE_TEST_SUITE_P(Of, AShortageAtTheEnd,
                         testing::Values(Kind{"Files", Call::open, 1}, Kind{"Objects", Call::allocation, 1},
                                         Kind{"Memory", Call::memory, 1}),
                         name_of);
// Many calls in a row.
INSTANTIATE_TEST_SUITE_P(ThatLastsOf, AShortage,
                         testing::Values(Kind{"Threads", Call::thread, 5}, Kind{"Connections", Call::accept, 3},
                                         Kind{"Mappings", Call::map, 5}, Kind{"Files", Call::open, 5},
                                         Kind{"Objects", Call::allocation, 30}, Kind{"Memory", Call::memory, 30}),
                         name_of);
INSTANTIATE_TEST_SUITE_P(ThatLastsOf, AShortageAtTheStart,
                         testing::Values(Kind{"Threads", Call::thread, 5}, Kind{"Files", Call::open, 5},
                                         Kind{"Objects", Call::allocation, 30}),
                         name_of);
INSTANTIATE_TEST_SUITE_P(ThatLastsOf, AShortageAtTheEnd,
                         testing::Values(Kind{"Files", Call::open, 5}, Kind{"Objects", Call::allocation, 30}), name_of);

} // namespace
