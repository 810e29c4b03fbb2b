// SPDX-License-Identifier: GPL-2.0-only
// A hundred clients of many kinds at one daemon, more of them than it serves at a time. They are stopped, go on and are
// killed at random while backups are taken. Nobody's end harms anybody else, no promise is broken, and every backup
// that says that it succeeded is one moment of all the writers.
//
//   CROWD_SECONDS   how long (default 20)
//   CROWD_SEED      of what is done to whom (default: another one each time; it is printed)
//
// The first partition is mounted, and a writer of files works there. The second is a guest's disk, as far as the
// daemon can tell: clients of NBD write to the blocks of one large file in it. A story's writer has a region of blocks
// that was never used before, so that a request that a killed one left under way meets nobody.
#include "backup_rig.h"

#include <signal.h>

#include <array>
#include <atomic>
#include <cstdlib>
#include <deque>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <mutex>
#include <optional>
#include <random>
#include <sstream>
#include <thread>

namespace
{

using namespace backup_rig;
using namespace serving;
using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;
using Words = std::vector<std::string>;

constexpr unsigned block_bytes = 4096;
constexpr std::uint32_t second_start = 2048 + 80 * 2048; // sectors

unsigned from_environment(const char* name, unsigned otherwise)
{
    const char* text = std::getenv(name);
    return text ? unsigned(std::strtoul(text, nullptr, 10)) : otherwise;
}

// The regions of the story's writers, and the proof of what a copy holds of them.
class Regions
{
  public:
    static constexpr unsigned blocks_each = 16;

    // `blocks`: their numbers in the partition.
    Regions(const ScratchDir& scratch, std::vector<std::uint64_t> blocks)
        : scratch_(scratch), blocks_(std::move(blocks))
    {
    }

    std::string offsets(unsigned region) const { return scratch_ / ("region" + std::to_string(region)); }
    std::string log(unsigned region) const { return offsets(region) + ".log"; }

    // A fresh one; none when all were used.
    std::optional<unsigned> take()
    {
        const std::lock_guard guard(mutex_);
        const unsigned region = unsigned(regions_.size());
        if ((region + 1) * blocks_each > blocks_.size())
            return std::nullopt;
        std::ofstream out(offsets(region));
        for (unsigned i = 0; i < blocks_each; ++i)
            out << blocks_[region * blocks_each + i] * block_bytes + second_start * 512ull << '\n';
        std::ofstream(log(region)); // so that there is one, should the writer die before it can do anything
        regions_.emplace_back();
        return region;
    }

    // Its writer is gone.
    void retire(unsigned region)
    {
        const std::lock_guard guard(mutex_);
        regions_[region].retired_at = now();
    }

    // How many regions were held against the partition that begins at `base` of the file; "" or what is wrong.
    // What cannot have changed since it was last proved is left out, unless `all`.
    std::string complaint(const std::string& file, std::uint64_t base, std::int64_t from, std::int64_t to, bool all)
    {
        std::ifstream in(file, std::ios::binary);
        const std::string piece = file + ".region";
        std::string content(blocks_each * block_bytes, '\0');
        for (unsigned region = 0;; ++region) {
            {
                const std::lock_guard guard(mutex_);
                if (region == regions_.size())
                    break;
                if (!all && regions_[region].proved)
                    continue;
            }
            for (unsigned i = 0; i < blocks_each; ++i) {
                in.seekg(std::streamoff(base + blocks_[region * blocks_each + i] * block_bytes));
                in.read(content.data() + i * block_bytes, block_bytes);
            }
            if (!in)
                return file + ": cannot be read";
            std::ofstream(piece, std::ios::binary) << content;
            const Outcome verdict =
                run({STORY_PROGRAM, "check-blocks", piece, log(region), std::to_string(from), std::to_string(to)});
            if (verdict.status != 0)
                return "region " + std::to_string(region) + ": " + verdict.err;
            const std::lock_guard guard(mutex_);
            Region& judged = regions_[region];
            judged.proved = judged.retired_at != 0 && judged.retired_at < from;
        }
        std::filesystem::remove(piece);
        return {};
    }

    unsigned used() const
    {
        const std::lock_guard guard(mutex_);
        return unsigned(regions_.size());
    }
    unsigned left() const { return unsigned(blocks_.size() / blocks_each) - used(); }

  private:
    struct Region {
        std::int64_t retired_at = 0;
        bool proved = false; // in a backup that was begun after it was retired
    };

    const ScratchDir& scratch_;
    const std::vector<std::uint64_t> blocks_;
    mutable std::mutex mutex_; // guards what follows; no other is taken under it
    std::deque<Region> regions_;
};

// Pieces of the disk for clients that check what they have written by themselves, one life long.
class Pieces
{
  public:
    static constexpr unsigned blocks_each = 64;

    explicit Pieces(const std::vector<std::uint64_t>& blocks)
    {
        for (std::size_t at = 0; at + blocks_each <= blocks.size(); at += blocks_each)
            if (blocks[at + blocks_each - 1] == blocks[at] + blocks_each - 1)
                free_.push_back({Clock::now(), blocks[at] * block_bytes + second_start * 512ull});
    }
    std::size_t left() const { return free_.size(); }

    std::optional<std::uint64_t> take() // its offset
    {
        if (free_.empty() || free_.front().from > Clock::now())
            return std::nullopt;
        const std::uint64_t offset = free_.front().offset;
        free_.pop_front();
        return offset;
    }
    // What a killed client has sent may still be under way, held at the daemon's door for a snapshot, say.
    void give_back(std::uint64_t offset, bool killed) { free_.push_back({Clock::now() + (killed ? 20s : 0s), offset}); }

  private:
    struct Free {
        Clock::time_point from;
        std::uint64_t offset;
    };
    std::deque<Free> free_;
};

struct Crowd : BackupRig {
    enum Kind { story, qemu_io, fio, nbdcopy, nbdinfo, qbackup_status, daemon_status, file_reader, kinds };
    static constexpr std::array<const char*, kinds> names{
        "story", "qemu-io", "fio", "nbdcopy", "nbdinfo", "qbackup status", "quendreld status", "file reader"};
    // With three that take backups and the writer of files: a hundred. The first five want 80 connections, and 64 are
    // served at a time.
    static constexpr std::array<unsigned, kinds> counts{44, 14, 8, 6, 8, 8, 4, 4};

    struct Client {
        Kind kind;
        std::string output;
        std::unique_ptr<Program> program = nullptr;
        std::optional<unsigned> region = {};
        std::optional<std::uint64_t> piece = {};
        Clock::time_point next = {}; // when it is started or, stopped, goes on
        Clock::time_point began = {};
        bool stopped = false, killed = false;
    };

    const unsigned seed = from_environment("CROWD_SEED", std::random_device()());
    std::mt19937 random{seed}; // of the main thread
    std::vector<Client> clients;
    std::optional<Regions> regions;
    std::optional<Pieces> pieces;
    std::unique_ptr<Writer> files;
    std::atomic<bool> over = false;
    std::array<unsigned, kinds> lives{};
    unsigned kills = 0, stops = 0;
    std::atomic<unsigned> proved = 0, incremental = 0, backups_killed = 0, backups_refused = 0;

    unsigned up_to(unsigned most) { return std::uniform_int_distribution<unsigned>(0, most)(random); }

    void make_disk()
    {
        serve(256, {{2048, 80 * 2048}, {second_start, 256 * 2048 - second_start}}, 16);
        const std::string second = scratch / "mnt2";
        serving->mount(loop + "p2", second);
        must_run({STORY_PROGRAM, "make-region", second + "/regions", std::to_string(64 * MiB / block_bytes)});
        must_run({"sync", "-f", second});
        serving->unmount(second);
        std::istringstream list(must_run({"debugfs", "-R", "blocks /regions", loop + "p2"}));
        std::vector<std::uint64_t> blocks;
        for (std::uint64_t block; list >> block;)
            blocks.push_back(block);
        ASSERT_EQ(blocks.size(), 64 * MiB / block_bytes);
        const auto border = blocks.begin() + 40 * MiB / block_bytes;
        regions.emplace(scratch, std::vector(blocks.begin(), border));
        pieces.emplace(std::vector(border, blocks.end()));
        ASSERT_GT(pieces->left(), 60u) << "the file lies in too many pieces";
    }

    // ---- one client

    Words qemu_io_words(std::uint64_t at)
    {
        constexpr unsigned each = 32 << 10, parts = Pieces::blocks_each * block_bytes / each;
        Words words{"qemu-io", "-f", "raw"};
        Words reads;
        for (unsigned i = 0; i < parts; ++i) {
            const std::string where = " " + std::to_string(at + i * each) + " " + std::to_string(each);
            const std::string pattern = i == 5 ? "0" : std::to_string(1 + up_to(254));
            words.insert(words.end(),
                         {"-c", i == 5 ? "write -q -z" + where
                                       : "write -q " + std::string(i % 3 ? "" : "-f ") + "-P " + pattern + where});
            reads.insert(reads.end(), {"-c", "read -q -P " + pattern + where});
        }
        words.insert(words.end(), {"-c", "flush"});
        words.insert(words.end(), reads.begin(), reads.end());
        words.push_back(serving->nbd());
        return words;
    }

    // Nothing: there is no place for one now.
    Words words_for(Client& client)
    {
        switch (client.kind) {
        case story:
            client.region = regions->take();
            if (!client.region)
                return {};
            return {STORY_PROGRAM,
                    "write-blocks",
                    serving->nbd(),
                    regions->offsets(*client.region),
                    regions->log(*client.region),
                    "10000"};
        case qemu_io:
        case fio:
            client.piece = pieces->take();
            if (!client.piece)
                return {};
            if (client.kind == qemu_io)
                return qemu_io_words(*client.piece);
            return {"fio",
                    "--name=crowd",
                    "--thread",
                    "--ioengine=nbd",
                    "--uri=" + serving->nbd(),
                    "--rw=randwrite",
                    "--bs=4k",
                    "--offset=" + std::to_string(*client.piece),
                    "--size=" + std::to_string(Pieces::blocks_each * block_bytes),
                    "--iodepth=16",
                    "--fsync=16",
                    "--verify=crc32c",
                    "--verify_fatal=1",
                    "--verify_state_save=0",
                    "--randseed=" + std::to_string(random())};
        case nbdcopy:
            return {"nbdcopy", "--connections=1", serving->nbd(), "null:"};
        case nbdinfo:
            return {"nbdinfo", "--map", serving->nbd()};
        case qbackup_status:
            return qbackup({"status"});
        case daemon_status:
            return {Serving::program(), "status", "--json", "--run-dir", run_dir};
        default:
            return {"dd", "if=" + serving->file(), "of=/dev/null", "bs=256k", "status=none"};
        }
    }

    void start(Client& client)
    {
        const Words words = words_for(client);
        client.began = Clock::now();
        client.next = client.began + 500ms;
        if (words.empty())
            return;
        ++lives[client.kind];
        client.program = std::make_unique<Program>(words, client.output);
    }

    // It has ended. Who was not killed must have been content.
    void bury(Client& client)
    {
        const int status = client.program->wait();
        if (!client.killed) {
            // Who asks for the status holds the backups' lock for a moment, and may be stopped with it.
            const bool locked_out = client.kind == qbackup_status && status == 4;
            EXPECT_TRUE((status == 0 || locked_out) && client.kind != story) << names[client.kind] << " ended with " << status << ": "
                                                             << client.program->out() << client.program->err();
        }
        if (client.region)
            regions->retire(*client.region);
        if (client.piece)
            pieces->give_back(*client.piece, client.killed);
        client.region.reset();
        client.piece.reset();
        client.program.reset();
        client.killed = client.stopped = false;
        client.next = Clock::now() + std::chrono::milliseconds(up_to(client.kind == nbdcopy ? 4000 : 800));
    }

    void look_after(Client& client)
    {
        if (client.program && !client.program->running())
            bury(client);
        if (!client.program && Clock::now() >= client.next)
            start(client);
        if (client.stopped && Clock::now() >= client.next) {
            client.program->signal(SIGCONT);
            client.stopped = false;
        }
        if (client.program && client.kind != story && Clock::now() - client.began > 90s) {
            ADD_FAILURE() << names[client.kind] << " hangs: " << client.program->out() << client.program->err();
            client.killed = true;
            client.program->signal(SIGKILL);
        }
    }

    void disturb(Client& client)
    {
        if (!client.program || client.stopped || client.killed)
            return;
        // Enough fresh regions stay for every writer to be one.
        if (up_to(9) < 4 && (client.kind != story || regions->left() > counts[story])) {
            client.killed = true;
            client.program->signal(SIGKILL);
            ++kills;
        } else {
            client.program->signal(SIGSTOP);
            client.stopped = true;
            client.next = Clock::now() + std::chrono::milliseconds(50 + up_to(3000));
            ++stops;
        }
    }

    // ---- backups

    void prove_all(const Backup& made, const std::string& device, bool all = false)
    {
        SCOPED_TRACE(device + " to " + made.target);
        if (device == "sda1") {
            prove(made, files->log());
        } else {
            const std::string restored = restore(made, device);
            const Outcome check = run({"e2fsck", "-fn", restored});
            EXPECT_EQ(check.status, 0) << check.out << check.err;
            EXPECT_EQ(regions->complaint(restored, 0, made.from, made.to, all), "") << made.report;
            std::filesystem::remove(restored);
        }
        ++proved;
        incremental += made.text("mode") == "inc";
    }

    // Takes chains of backups, some of which are stopped for a while or killed, until it is over.
    void take_backups(unsigned number, const std::string& device)
    {
        std::mt19937 chance(seed + number);
        const auto below = [&](unsigned n) { return unsigned(chance() % n); };
        for (unsigned chain = 0; !over; ++chain) {
            const std::string to = target + std::to_string(number) + "-" + std::to_string(chain);
            std::filesystem::create_directory(to);
            for (unsigned taken = 0; taken < 5 && !over && !HasFailure();) {
                const auto from = now();
                Program program(qbackup({"--json", "backup", "--device", device, "--to", to, "--mode", "auto"}),
                                scratch / ("backup" + std::to_string(number)));
                bool killed = false;
                if (const unsigned fate = below(8); fate < 3) {
                    std::this_thread::sleep_for(std::chrono::milliseconds(below(800)));
                    killed = fate == 0;
                    program.signal(killed ? SIGKILL : SIGSTOP);
                    if (!killed)
                        std::this_thread::sleep_for(std::chrono::milliseconds(below(1500)));
                }
                Backup made = finish(program, from);
                made.target = to;
                if (made.status == 4) { // another one runs
                    ++backups_refused;
                    std::this_thread::sleep_for(100ms);
                } else if (killed && made.status == 128 + SIGKILL) {
                    ++backups_killed;
                } else {
                    EXPECT_EQ(made.status, 0) << made.err;
                    if (made.status == 0)
                        prove_all(made, device);
                    ++taken;
                }
                // The third leaves the disk to the others for a while.
                for (unsigned i = 0; number == 2 && i < 50 && !over; ++i)
                    std::this_thread::sleep_for(100ms);
            }
            std::filesystem::remove_all(to);
            if (HasFailure())
                return;
        }
    }

    // ---- the parts of the test

    void storm(std::chrono::seconds how_long)
    {
        files = std::make_unique<Writer>(mnt + "/story", scratch / "files.log");
        for (unsigned kind = 0; kind < kinds; ++kind)
            for (unsigned i = 0; i < counts[kind]; ++i)
                clients.push_back({Kind(kind), scratch / ("client" + std::to_string(clients.size()))});
        const auto until = Clock::now() + how_long;
        std::vector<std::thread> backups;
        for (unsigned number = 0; number < 3; ++number)
            backups.emplace_back([this, number] {
                try {
                    take_backups(number, number ? "sda2" : "sda1");
                } catch (const std::exception& error) {
                    ADD_FAILURE() << error.what();
                }
            });
        bool files_stopped = false;
        while (Clock::now() < until && !HasFailure()) {
            for (Client& client : clients)
                look_after(client);
            disturb(clients[up_to(unsigned(clients.size()) - 1)]);
            if (up_to(40) == 0) {
                files_stopped = !files_stopped;
                files->program().signal(files_stopped ? SIGSTOP : SIGCONT);
            }
            std::this_thread::sleep_for(50ms);
        }
        files->program().signal(SIGCONT);
        over = true;
        for (std::thread& thread : backups)
            thread.join();
    }

    // Everybody is let go on; those that come to an end do so, and the writers stay.
    void calm_down()
    {
        for (Client& client : clients) {
            if (!client.program)
                continue;
            client.program->signal(SIGCONT);
            client.stopped = false;
        }
        for (Client& client : clients)
            if (client.program && (client.kind != story || client.killed))
                bury(client);
    }

    std::vector<Client*> writers()
    {
        std::vector<Client*> living;
        for (Client& client : clients)
            if (client.program)
                living.push_back(&client);
        return living;
    }

    // Each living writer does another five steps within half a minute.
    void expect_writers_go_on()
    {
        const auto lines = [&](const Client& client) {
            const std::string text = read_text(regions->log(*client.region));
            return std::count(text.begin(), text.end(), '\n');
        };
        const auto until = Clock::now() + 30s;
        for (const Client* client : writers()) {
            const auto wanted = lines(*client) + 5;
            while (lines(*client) < wanted && Clock::now() < until)
                std::this_thread::sleep_for(10ms);
            EXPECT_GE(lines(*client), wanted) << "a writer waits for ever: " << client->program->err();
        }
    }

    void final_backups()
    {
        for (const char* device : {"sda1", "sda2"})
            for (const char* mode : {"full", "inc"}) {
                const Backup made = backup(mode, device);
                ASSERT_EQ(made.status, 0) << made.err;
                EXPECT_EQ(made.text("mode"), mode) << made.report;
                prove_all(made, device, true);
            }
    }
};

TEST_F(Crowd, OfAHundredClientsStoppedAndKilledHarmsNobodyAndEveryBackupIsOneMoment)
{
    std::cout << "CROWD_SEED=" << seed << std::endl;
    make_disk();
    if (HasFatalFailure())
        return;
    const pid_t daemon = serving->pid();
    storm(std::chrono::seconds(from_environment("CROWD_SECONDS", 20)));
    calm_down();

    expect_writers_go_on();
    EXPECT_GE(writers().size(), 20u);
    EXPECT_EQ(serving->pid(), daemon);
    final_backups();

    files->stop();
    const auto end = now();
    judge(mnt + "/story", files->log(), end, end);
    serving->unmount(mnt);
    serving->detach();

    // Those that still write by NBD lose their daemon; what it had answered is in the image.
    serving->kill_it();
    for (Client* client : writers()) {
        EXPECT_EQ(client->program->wait(), 1) << client->program->err();
        client->program.reset();
    }
    EXPECT_EQ(regions->complaint(image, second_start * 512ull, now(), now(), true), "");
    must_run({Serving::program(), image, "--run-dir", run_dir});
    must_run(qbackup({"status"}));
    serving->stop();

    for (unsigned kind = 0; kind < kinds; ++kind)
        std::cout << names[kind] << " " << lives[kind] << ", ";
    std::cout << "killed " << kills << ", stopped " << stops << ", regions " << regions->used()
              << "; backups: " << proved << " proved, " << incremental << " of them incremental, " << backups_killed
              << " killed, " << backups_refused << " refused" << std::endl;
}

} // namespace
