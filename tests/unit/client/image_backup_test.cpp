// SPDX-License-Identifier: GPL-2.0-only
#include "child_process.h"
#include "qemu_image.h"
#include "support.h"
#include "verify.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/stat.h>
#include <sys/wait.h>

#include <csignal>

#include <cstdio>

namespace
{

using namespace test;

class MachineWithImages : public Machine
{
  public:
    MachineWithImages() { images = true; }
};

std::string problemIn(const fs::path& from)
{
    Progress progress{Progress::Style::none};
    const StopSignal stop{0};
    std::string all;
    for (const VerifyResult& result : verifyBackups(from, progress, stop))
        all += result.problem;
    return all;
}

// What QEMU's own program makes of an image and all below it.
std::vector<std::byte> throughQemu(const fs::path& image, const fs::path& raw)
{
    const std::string command = "qemu-img convert -O raw '" + image.string() + "' '" + raw.string() + "'";
    if (std::system(command.c_str()) != 0)
        return {};
    return readAll(raw);
}

std::string outputOf(const std::string& command)
{
    std::string text;
    std::FILE* pipe = ::popen(command.c_str(), "r");
    for (int c; pipe != nullptr && (c = std::fgetc(pipe)) != EOF;)
        text += static_cast<char>(c);
    return pipe != nullptr && ::pclose(pipe) == 0 ? text : "failed: " + text;
}

// Random writes, zeroed blocks among them, between the backups of a chain with full ones in it.
TEST(ImageBackup, EveryOneOfAChainGivesTheDiskAtItsSnapshotHereAndToQemu)
{
    for (unsigned seed = 1; seed <= 3; ++seed) {
        MachineWithImages machine;
        std::mt19937 random{seed};
        std::vector<std::pair<fs::path, std::vector<std::byte>>> expected;
        for (int round = 0; round < 6; ++round) {
            const auto report = machine.backup(random() % 5 == 0 ? Wanted::full : Wanted::automatic);
            expected.emplace_back(report.backup.path, machine.driver.contents());
            for (unsigned i = random() % 100; i > 0; --i) {
                const std::uint32_t first = random() % Machine::blocks;
                const std::uint32_t last = std::min<std::uint32_t>(Machine::blocks, first + 1 + random() % 30);
                for (std::uint32_t block = first; block < last; ++block)
                    random() % 4 == 0 ? machine.driver.writeZeros(block) : machine.driver.write(block, static_cast<unsigned>(random()));
            }
        }
        for (const auto& [image, contents] : expected) {
            ASSERT_EQ(machine.restored(image), contents) << "seed " << seed << " " << image;
            ASSERT_EQ(throughQemu(image, machine.directory / "raw"), contents) << "seed " << seed << " " << image;
            EXPECT_EQ(outputOf("qemu-img check -q '" + image.string() + "' 2>&1"), "");
        }
        EXPECT_EQ(problemIn(machine.repository()), "");
    }
}

TEST(ImageBackup, AnIncrementHoldsWhatChangedInUnitsOfFourKiBAndNothingElse)
{
    MachineWithImages machine;
    machine.backup();
    machine.driver.write(5, 77); // of blocks 4 to 7
    machine.driver.write(8, 77);
    const auto report = machine.backup();
    EXPECT_EQ(report.backup.manifest.mode, Mode::incremental);
    EXPECT_EQ(report.backup.manifest.copiedBlocks, 8u);
    EXPECT_EQ(report.backup.manifest.dataBytes, 8192u);
    EXPECT_EQ(machine.restored(report.backup.path), machine.driver.contents());
}

TEST(ImageBackup, ZerosOverDataAreZerosAndTakeNoSpace)
{
    MachineWithImages machine;
    for (std::uint32_t block = 0; block < Machine::blocks; ++block)
        machine.driver.write(block, 3);
    machine.backup();
    for (std::uint32_t block = 100; block < 2100; ++block)
        machine.driver.writeZeros(block);
    const auto report = machine.backup();
    EXPECT_EQ(report.backup.manifest.mode, Mode::incremental);
    EXPECT_EQ(report.backup.manifest.copiedBlocks, 2000u);
    EXPECT_EQ(report.backup.manifest.dataBytes, 0u);
    EXPECT_EQ(machine.restored(report.backup.path), machine.driver.contents());
    EXPECT_EQ(throughQemu(report.backup.path, machine.directory / "raw"), machine.driver.contents());
    EXPECT_EQ(problemIn(machine.repository()), "");
}

TEST(ImageBackup, OnlyAFullOneIsCompressedAndGivesTheDiskHereAndToQemuAsThoseOnItDo)
{
    MachineWithImages machine;
    std::vector<std::byte> text(std::size_t{Machine::blocks} * Machine::block_size);
    for (std::size_t at = 0; at < text.size(); ++at)
        text[at] = static_cast<std::byte>('a' + at / 1000 % 20);
    machine.driver.writeAt(0, text);
    const auto plain = machine.backup(Wanted::full);
    machine.compress = true;
    const auto full = machine.backup(Wanted::full);
    EXPECT_TRUE(full.backup.manifest.compressed);
    EXPECT_TRUE(readBackup(full.backup.path).manifest.compressed);
    EXPECT_EQ(machine.restored(full.backup.path), machine.driver.contents());
    EXPECT_EQ(throughQemu(full.backup.path, machine.directory / "raw"), machine.driver.contents());
    const std::string image = full.backup.path.string();
    EXPECT_NE(outputOf("qemu-img info '" + image + "'").find("compression type: zstd\n"), std::string::npos);
    EXPECT_NE(outputOf("qemu-img check '" + image + "' 2>&1").find("100.00% compressed clusters"), std::string::npos);
    const auto allocated = [](const fs::path& path) {
        struct stat st {
        };
        EXPECT_EQ(::stat(path.c_str(), &st), 0);
        return st.st_blocks * 512;
    };
    EXPECT_LT(allocated(full.backup.path), allocated(plain.backup.path) / 2);
    machine.driver.write(5, 77);
    const auto increment = machine.backup();
    EXPECT_EQ(increment.backup.manifest.mode, Mode::incremental);
    EXPECT_FALSE(increment.backup.manifest.compressed);
    EXPECT_EQ(machine.restored(increment.backup.path), machine.driver.contents());
    EXPECT_EQ(throughQemu(increment.backup.path, machine.directory / "raw"), machine.driver.contents());
    EXPECT_EQ(problemIn(machine.repository()), "");
}

TEST(ImageBackup, AnImageNamesTheOneBelowItByItsNameAlone)
{
    MachineWithImages machine;
    const auto first = machine.backup();
    machine.driver.write(5, 77);
    const auto second = machine.backup();
    const std::string info = outputOf("qemu-img info '" + second.backup.path.string() + "'");
    EXPECT_NE(info.find("backing file: " + first.backup.path.filename().string() + " (actual path"), std::string::npos) << info;
    fs::rename(machine.repository(), machine.directory / "elsewhere");
    EXPECT_EQ(throughQemu(machine.directory / "elsewhere" / second.backup.path.filename(), machine.directory / "raw"), machine.driver.contents());
}

TEST(ImageBackup, AFolderHasThreeFilesForEachAndNothingThatWasInTheMaking)
{
    MachineWithImages machine;
    const std::string id = machine.backup().backup.manifest.id;
    EXPECT_EQ(namesIn(machine.repository()), (std::vector<std::string>{id + ".json", id + ".qcow2", id + ".sums"}));
}

const std::vector<std::string> commit_steps{"data", "manifest", "image", "sums", "rename", "parent", "done"};

// Ends the process, without any clean-up, before each step of the commit in turn.
class ImageKilledAt : public testing::TestWithParam<std::string>
{
};

TEST_P(ImageKilledAt, BackupIsThereWholeOrNotAtAll)
{
    MachineWithImages machine;
    machine.backup(Wanted::full);
    machine.driver.write(5, 77);
    const pid_t child = ::fork();
    if (child == 0) {
        machine.backup(Wanted::automatic, [&](const char* step) {
            if (step == GetParam())
                ::_exit(42);
        });
        ::_exit(1);
    }
    int status = 0;
    ::waitpid(child, &status, 0);
    ASSERT_EQ(WEXITSTATUS(status), 42);

    std::vector<DamagedBackup> damaged;
    const auto backups = Repository{machine.repository()}.backups(&damaged);
    EXPECT_TRUE(damaged.empty());
    const bool renamed = GetParam() == "parent" || GetParam() == "done";
    ASSERT_EQ(backups.size(), renamed ? 2u : 1u);
    EXPECT_EQ(problemIn(machine.repository()), "");

    // The next run removes what the dead one left, and builds a chain that restores. (The fake driver of this process
    // knows nothing of the child's snapshot.)
    const auto next = machine.backup();
    EXPECT_EQ(machine.restored(next.backup.path), machine.driver.frozen());
    for (const std::string& name : namesIn(machine.repository()))
        EXPECT_FALSE(name.starts_with(".")) << name;
    EXPECT_EQ(namesIn(machine.repository()).size(), 3 * (backups.size() + 1));
}

INSTANTIATE_TEST_SUITE_P(EveryStep, ImageKilledAt, testing::ValuesIn(commit_steps), [](const auto& info) { return info.param; });

TEST(ImageBackup, FailureWhileCommittingLeavesNothing)
{
    for (const std::string at : {"data", "manifest", "image", "sums", "rename"}) {
        for (const bool compress : {false, true}) {
            MachineWithImages machine;
            machine.compress = compress;
            EXPECT_THROW(machine.backup(Wanted::full,
                                        [&](const char* step) {
                                            if (step == at)
                                                throw Failure{Exit::failed, "full"};
                                        }),
                         Failure);
            EXPECT_TRUE(namesIn(machine.repository()).empty()) << at;
        }
    }
}

// Bytes of the data, of the tables of the image, of the sums and of the manifest.
TEST(ImageBackup, DamageIsFoundAndNeverRestored)
{
    MachineWithImages machine;
    const auto first = machine.backup();
    for (std::uint32_t block = 1000; block < 1400; ++block)
        machine.driver.write(block, 77);
    const auto second = machine.backup();
    std::mt19937 random{5};
    unsigned found = 0;
    for (const auto& backup : {first.backup, second.backup}) {
        for (const char* end : {".qcow2", ".sums", ".json"}) {
            const fs::path file = backup.path.parent_path() / (backup.manifest.id + end);
            const fs::path kept = machine.directory / "kept";
            for (int round = 0; round < 8; ++round) {
                fs::copy_file(file, kept, fs::copy_options::overwrite_existing);
                damage(file, random() % fs::file_size(file));
                const std::string problem = problemIn(machine.repository());
                if (problem.empty()) {
                    // A byte that nothing is read from: what is restored is right all the same.
                    EXPECT_STREQ(end, ".qcow2");
                    EXPECT_EQ(machine.restored(second.backup.path), machine.driver.contents()) << file;
                } else {
                    ++found;
                    EXPECT_NE(problem.find(backup.manifest.id), std::string::npos) << problem;
                    EXPECT_THROW(machine.restored(second.backup.path), Failure) << problem;
                }
                fs::rename(kept, file);
            }
        }
    }
    EXPECT_GE(found, 32u) << "all in sums and manifests";
    EXPECT_EQ(problemIn(machine.repository()), "");
}

TEST(ImageBackup, DataThatWasNeverStoredIsDamage)
{
    MachineWithImages machine;
    machine.backup();
    machine.driver.write(5, 77);
    const auto second = machine.backup();
    ASSERT_EQ(outputOf("qemu-io -c 'write -P 7 1M 4k' '" + second.backup.path.string() + "' >/dev/null 2>&1 && echo done"), "done\n");
    EXPECT_NE(problemIn(machine.repository()).find("it has data at byte 1048576 of the disk, where nothing was stored"), std::string::npos)
        << problemIn(machine.repository());
}

TEST(ImageBackup, ABlockThatWasReadAheadIsStoredWithTheZerosBesideIt)
{
    MachineWithImages machine;
    for (std::uint32_t block = 0; block < 8; ++block)
        machine.driver.writeZeros(block);
    machine.driver.write(1, 5);
    const auto before = machine.driver.contents();
    bool written = false;
    machine.driver.before.set([&](std::uint32_t command) {
        if (command == QUENDREL_GET_DIRTY_BLOCK && !std::exchange(written, true))
            machine.driver.write(1, 6);
    });
    const auto full = machine.backup();
    machine.driver.before.set({});
    ASSERT_TRUE(written);
    EXPECT_EQ(problemIn(machine.repository()), "");
    EXPECT_EQ(machine.restored(full.backup.path), before);
}

TEST(ImageBackup, DataWhereZerosWereStoredIsDamage)
{
    MachineWithImages machine;
    machine.backup();
    for (std::uint32_t block = 0; block < 100; ++block)
        machine.driver.writeZeros(block);
    const auto second = machine.backup();
    ASSERT_EQ(outputOf("qemu-io -c 'write -P 7 8k 4k' '" + second.backup.path.string() + "' >/dev/null 2>&1 && echo done"), "done\n");
    EXPECT_EQ(problemIn(machine.repository()), second.backup.path.string() + " is damaged between byte 0 and byte 102400 of the disk");
}

// An image lies over another by the name in its header: to other programs that is what counts.
TEST(ImageBackup, AnImageThatLiesOverAnotherOneThanItShouldIsDamage)
{
    MachineWithImages machine;
    const auto first = machine.backup();
    machine.driver.write(5, 77);
    const auto second = machine.backup();
    ASSERT_EQ(outputOf("qemu-img rebase -u -b other.qcow2 -F qcow2 '" + second.backup.path.string() + "' && echo done"), "done\n");
    EXPECT_EQ(problemIn(machine.repository()),
              second.backup.path.string() + " is damaged: it lies over other.qcow2, and not over " + first.backup.path.filename().string());
    ASSERT_EQ(outputOf("qemu-img rebase -u -b '' '" + second.backup.path.string() + "' && echo done"), "done\n");
    EXPECT_EQ(problemIn(machine.repository()),
              second.backup.path.string() + " is damaged: it lies over nothing, and not over " + first.backup.path.filename().string());
}

TEST(ImageBackup, AnImageOfAnotherSizeIsDamage)
{
    MachineWithImages machine;
    const auto first = machine.backup();
    ASSERT_EQ(outputOf("qemu-img resize -q '" + first.backup.path.string() + "' 4M && echo done"), "done\n");
    EXPECT_EQ(problemIn(machine.repository()),
              first.backup.path.string() + " is damaged: it is of a disk of 4194304 bytes, and not of " + std::to_string(machine.driver.bytes()));
}

// A copy of a folder that was made while a backup was being made, and then again.
TEST(ImageBackup, AMarkerBesideAManifestTakesNothingAway)
{
    MachineWithImages machine;
    machine.backup();
    machine.driver.write(5, 77);
    const auto second = machine.backup();
    const std::string id = second.backup.manifest.id;
    fs::copy_file(machine.repository() / (id + ".json"), machine.repository() / (".partial-" + id + ".json"));
    EXPECT_EQ(findBackup(machine.repository()).manifest.id, id);
    Repository::openImages(machine.repository());
    EXPECT_EQ(machine.restored(machine.repository()), machine.driver.contents());
    EXPECT_EQ(namesIn(machine.repository()).size(), 6u);
}

TEST(ImageBackup, OnlyTheOwnerAndTheGroupMayReadIt)
{
    MachineWithImages machine;
    const mode_t mask = ::umask(0022);
    const auto report = machine.backup();
    ::umask(mask);
    for (const char* end : {".qcow2", ".sums", ".json"})
        EXPECT_EQ(fs::status(machine.repository() / (report.backup.manifest.id + end)).permissions(), fs::perms{0640}) << end;
}

TEST(ImageBackup, AMissingProgramIsNoDamage)
{
    MachineWithImages machine;
    const auto report = machine.backup();
    const std::string before = std::getenv("PATH");
    ::setenv("PATH", machine.directory.path().c_str(), 1);
    std::string text;
    int code = 0;
    try {
        machine.restored(report.backup.path);
    } catch (const Failure& failure) {
        code = failure.exitCode();
        text = failure.what();
    }
    ::setenv("PATH", before.c_str(), 1);
    EXPECT_EQ(code, 3);
    EXPECT_EQ(text, "qemu-img is not installed, and the repository is one of images; install the package qemu-utils");
}

// Whoever has opened an image and is killed before a word was said leaves no program behind that keeps it locked.
TEST(ImageBackup, ItsServerEndsWithTheProgramThatStartedIt)
{
    MachineWithImages machine;
    const auto report = machine.backup();
    const pid_t child = ::fork();
    if (child == 0) {
        const OpenImage image{report.backup.path, OpenImage::For::writing};
        ::raise(SIGSTOP);
        ::_exit(0);
    }
    int status = 0;
    ::waitpid(child, &status, WUNTRACED);
    ASSERT_TRUE(WIFSTOPPED(status));
    EXPECT_EQ(problemIn(machine.repository()).find("another program has the image " + report.backup.path.string() + " open"), 0u)
        << problemIn(machine.repository());
    ::kill(child, SIGKILL);
    ::waitpid(child, &status, 0);
    for (int i = 0; i < 200 && !problemIn(machine.repository()).empty(); ++i)
        ::usleep(20'000);
    EXPECT_EQ(problemIn(machine.repository()), "");
}

// Also one that nobody has spoken to yet.
TEST(ImageBackup, AChildWithASocketEndsWithTheProgramThatStartedIt)
{
    int ends[2];
    ASSERT_EQ(::pipe2(ends, O_CLOEXEC), 0);
    const pid_t child = ::fork();
    if (child == 0) {
        const ChildProcess sleeper{withSocket({"sleep", "60"}), "coreutils", ends[1]};
        ::usleep(300'000);
        ::raise(SIGKILL);
    }
    ::close(ends[1]);
    ::waitpid(child, nullptr, 0);
    // At its end when nobody has the other one any more.
    pollfd ended{ends[0], POLLIN, 0};
    EXPECT_EQ(::poll(&ended, 1, 10'000), 1);
    ::close(ends[0]);
}

TEST(ImageBackup, AMissingFileIsNamedAndAFullIsTaken)
{
    for (const char* end : {".qcow2", ".sums", ".json"}) {
        MachineWithImages machine;
        const auto first = machine.backup();
        const fs::path file = machine.repository() / (first.backup.manifest.id + end);
        fs::remove(file);
        EXPECT_EQ(problemIn(machine.repository()), file.string() + " is missing");
        const auto second = machine.backup();
        EXPECT_EQ(second.backup.manifest.mode, Mode::full) << end;
        EXPECT_EQ(second.backup.manifest.sequence, 2u) << end;
        EXPECT_EQ(machine.restored(second.backup.path), machine.driver.contents());
    }
}

} // namespace
