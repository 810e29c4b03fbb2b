// SPDX-License-Identifier: GPL-2.0-only
// A program that knows the system from its manual pages alone: the example in C, compiled away from this tree against
// nothing but what was installed, backs a partition up through the daemon's socket while it is written to over NBD.
#include "backup_rig.h"

#include <libnbd.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <memory>
#include <set>
#include <stdexcept>
#include <thread>

namespace
{

using namespace backup_rig;
using namespace serving;
using namespace std::chrono_literals;

constexpr std::size_t block_bytes = 4096;
constexpr std::uint32_t part_start = 2048, part_sectors = 48 * 2048; // 48 MiB
constexpr std::size_t first_filled = 500; // what stands before it tells the file system's kind

// All of a file, at once.
std::string bytes_of(const std::string& path)
{
    std::string bytes(std::filesystem::file_size(path), '\0');
    std::ifstream(path, std::ios::binary).read(bytes.data(), std::streamsize(bytes.size()));
    return bytes;
}

// The partition by NBD, and what it should hold.
class Partition
{
  public:
    explicit Partition(const Serving& serving) : nbd_(nbd_create(), nbd_close), content(part_sectors * 512, '\0')
    {
        if (!nbd_ || nbd_connect_uri(nbd_.get(), serving.nbd().c_str()) != 0)
            throw std::runtime_error(nbd_get_error());
        constexpr std::size_t piece = MiB;
        for (std::size_t at = 0; at < content.size(); at += piece)
            if (nbd_pread(nbd_.get(), content.data() + at, piece, part_start * 512 + at, 0) != 0)
                throw std::runtime_error(nbd_get_error());
    }

    // Writes that block, with contents that no write before had.
    void write(std::size_t block)
    {
        std::string data(block_bytes, char('a' + ++writes_ % 26));
        const std::string number = std::to_string(writes_);
        data.replace(0, number.size(), number);
        if (nbd_pwrite(nbd_.get(), data.data(), data.size(), part_start * 512 + block * block_bytes, 0) != 0)
            throw std::runtime_error(nbd_get_error());
        content.replace(block * block_bytes, block_bytes, data);
    }
    std::size_t blocks() const { return content.size() / block_bytes; }

  private:
    std::unique_ptr<nbd_handle, void (*)(nbd_handle*)> nbd_;
    std::size_t writes_ = 0;

  public:
    std::string content;
};

struct Stranger : testing::TestWithParam<const char*> { // what the compiler is told
    ScratchDir scratch;
    std::string prefix = scratch / "prefix", outside = scratch / "outside", image = scratch / "disk.img",
                run_dir = scratch / "run", copy = scratch / "copy.img", key = scratch / "key";

    // Everything is installed, and the example is compiled from there.
    void SetUp() override
    {
        must_run({CMAKE_PROGRAM, "--install", QUENDREL_BUILD_DIR, "--prefix", prefix});
        std::filesystem::create_directory(outside);
        const std::string description =
            std::filesystem::path(must_run({"find", prefix, "-name", "quendrel.pc"})).parent_path();
        const std::string source = prefix + "/share/doc/quendrel/examples/backup.c";
        const std::string build =
            "cd '" + outside + "' && cp '" + source + "' . && flags=$(PKG_CONFIG_PATH='" + description +
            "' pkg-config --cflags quendrel) && gcc " + GetParam() +
            " -O2 -Wall -Wextra -Werror -MD backup.c $flags -o backup";
        must_run({"sh", "-c", build});
        const std::string used = read_text(outside + "/backup.d");
        EXPECT_NE(used.find(prefix + "/include/quendrel.h"), std::string::npos) << used;
        EXPECT_EQ(used.find(QUENDREL_SOURCE_DIR), std::string::npos) << used;
        make_image(image, 50 * MiB, {{part_start, part_sectors}});
        must_run({"mkfs.ext4", "-q", "-b", "4096", "-E", "offset=1048576,nodiscard", image, "48M"});
        // No block of the data is like another, or like a hole.
        std::fstream disk(image, std::ios::binary | std::ios::in | std::ios::out);
        disk.seekp(part_start * 512 + first_filled * std::streamoff(block_bytes));
        for (std::size_t block = first_filled; block < part_sectors * 512 / block_bytes; ++block) {
            std::string data(block_bytes, char('A' + block % 26));
            const std::string number = std::to_string(block);
            disk << data.replace(0, number.size(), number);
        }
        disk.close();
        ASSERT_TRUE(disk);
    }

    std::vector<std::string> words(const std::string& after_snapshot = {}) const
    {
        std::vector<std::string> line{outside + "/backup", run_dir + "/control.sock", "8:1", copy, key};
        if (!after_snapshot.empty())
            line.push_back(after_snapshot);
        return line;
    }

    // A backup that stands still after its snapshot while `meanwhile` is done. What it printed.
    template <typename Meanwhile> std::string back_up(Meanwhile meanwhile)
    {
        const std::string taken = scratch / "taken", go = scratch / "go";
        std::filesystem::remove(taken);
        std::filesystem::remove(go);
        Program program(words("touch " + taken + "; while [ ! -e " + go + " ]; do sleep 0.01; done"), scratch / "out");
        for (int i = 0; i < 2000 && program.running() && !std::filesystem::exists(taken); ++i)
            std::this_thread::sleep_for(5ms);
        if (program.running())
            meanwhile();
        std::ofstream{go};
        EXPECT_EQ(program.wait(), 0) << program.err();
        return program.out();
    }
};

TEST_P(Stranger, BacksUpInFullAndThenWhatChangedFromTheInstalledFilesAndTheManualAlone)
{
    Serving serving({image}, run_dir, {"--no-fuse"});
    Partition disk(serving);
    const std::string all = std::to_string(disk.blocks()) + " of " + std::to_string(disk.blocks()) + " blocks\n";
    for (std::size_t block = 2000; block < 4000; block += 3)
        disk.write(block);

    std::string then = disk.content;
    std::set<std::size_t> changed; // since the snapshot
    const auto write = [&](std::size_t block) {
        disk.write(block);
        changed.insert(block);
    };
    const std::string full = back_up([&] {
        for (std::size_t block = 1990; block < 5000; block += 7)
            write(block);
        const Outcome second = run(words());
        EXPECT_EQ(second.status, 1);
        EXPECT_EQ(second.err, "backup: " + run_dir + "/control.sock: Device or resource busy\n");
    });
    EXPECT_EQ(full, all);
    EXPECT_TRUE(bytes_of(copy) == then) << "the full backup is not the disk as of its snapshot";

    for (std::size_t block : {1000u, 1001u, 4001u, 9999u, unsigned(disk.blocks() - 1)})
        write(block);
    then = disk.content;
    const std::string some = std::to_string(changed.size()) + " of " + std::to_string(disk.blocks()) + " blocks\n";
    const std::string incremental = back_up([&] {
        for (std::size_t block = 990; block < 1010; ++block)
            write(block);
    });
    EXPECT_EQ(incremental, some);
    EXPECT_TRUE(bytes_of(copy) == then) << "the incremental backup is not the disk as of its snapshot";

    // The key of another moment is told from the right one, and no change is missed.
    std::string wrong = read_text(key);
    ASSERT_EQ(wrong.size(), 56u);
    wrong[55] ^= 1;
    std::ofstream(key, std::ios::binary) << wrong;
    then = disk.content;
    const std::string again = back_up([] {});
    EXPECT_EQ(again, all);
    EXPECT_TRUE(bytes_of(copy) == then) << "the backup after a wrong key is not the disk as of its snapshot";
}

INSTANTIATE_TEST_SUITE_P(AsA, Stranger, testing::Values("-m64", "-m32"),
                         [](const auto& param) { return param.param == std::string("-m32") ? "32Bit" : "64Bit"; });

} // namespace
