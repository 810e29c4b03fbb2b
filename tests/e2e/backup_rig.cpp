// SPDX-License-Identifier: GPL-2.0-only
#include "backup_rig.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <random>
#include <stdexcept>
#include <thread>

namespace backup_rig
{

using namespace serving;
using namespace std::chrono_literals;
namespace fs = std::filesystem;

std::int64_t now()
{
    timespec t;
    ::clock_gettime(CLOCK_REALTIME, &t);
    return std::int64_t(t.tv_sec) * 1'000'000'000 + t.tv_nsec;
}

Writer::Writer(const std::string& directory, const std::string& log)
    : log_(log), program_({STORY_PROGRAM, "write-files", directory, log}, log)
{
    if (!goes_on())
        throw std::runtime_error("the writer does not start: " + program_.err());
}

std::size_t Writer::steps() const
{
    const std::string text = read_text(log_);
    return std::size_t(std::count(text.begin(), text.end(), '\n'));
}

bool Writer::goes_on(std::size_t by)
{
    const std::size_t begin = steps();
    for (int i = 0; i < 1000 && program_.running(); ++i) {
        if (steps() >= begin + by)
            return true;
        std::this_thread::sleep_for(10ms);
    }
    return false;
}

void Writer::stop()
{
    program_.signal(SIGTERM);
    if (const int status = program_.wait(); status != 0)
        throw std::runtime_error("the writer ended with " + std::to_string(status) + ": " + program_.err());
}

void BackupRig::SetUp()
{
    if (const std::string reason = no_loop_reason(); !reason.empty())
        GTEST_SKIP() << reason;
    fs::create_directory(target);
}

void BackupRig::serve(unsigned mib, const std::vector<Part>& parts, unsigned old_mib)
{
    make_image(image, mib * MiB, parts);
    serving = std::make_unique<Serving>(std::vector{image}, run_dir);
    loop = serving->attach();
    for (std::size_t i = 1; i <= parts.size(); ++i)
        must_run({"mkfs.ext4", "-q", "-b", "4096", loop + "p" + std::to_string(i)});
    serving->mount(loop + "p1", mnt);
    old_file.resize(old_mib * MiB);
    std::mt19937_64 random(old_mib);
    for (std::size_t at = 0; at < old_file.size(); at += 8) {
        const std::uint64_t word = random();
        old_file.replace(at, 8, reinterpret_cast<const char*>(&word), 8);
    }
    std::ofstream(mnt + "/old", std::ios::binary) << old_file;
    fs::create_directory(mnt + "/story");
    must_run({"sync", "-f", mnt});
}

std::vector<std::string> BackupRig::qbackup(std::vector<std::string> words) const
{
    std::vector<std::string> line{QBACKUP_PROGRAM, "--control", run_dir + "/control.sock"};
    line.insert(line.end(), words.begin(), words.end());
    return line;
}

Outcome BackupRig::run_qbackup(std::vector<std::string> words) const { return run(qbackup(std::move(words))); }

namespace
{

nlohmann::json parse(const std::string& text)
{
    auto json = nlohmann::json::parse(text, nullptr, false);
    return json.is_object() ? json : nlohmann::json::object();
}

} // namespace

Backup BackupRig::backup(const std::string& mode, const std::string& device) const
{
    Backup made;
    made.target = target;
    made.from = now();
    const Outcome outcome = run_qbackup({"--json", "backup", "--device", device, "--to", target, "--mode", mode});
    made.to = now();
    made.status = outcome.status;
    made.report = parse(outcome.out);
    made.err = outcome.err;
    return made;
}

std::unique_ptr<Program> BackupRig::stopped_in_the_middle(const std::string& name, const std::string& device,
                                                          std::uint64_t bytes) const
{
    auto program = std::make_unique<Program>(
        qbackup({"--json", "backup", "--device", device, "--to", target, "--mode", "full"}), scratch / name);
    const std::string repository = target + "/" + device;
    const auto copied = [&] {
        std::uint64_t most = 0;
        std::error_code error;
        for (fs::directory_iterator entry(repository, error), end; !error && entry != end; entry.increment(error)) {
            struct stat status;
            if (entry->path().filename().string().starts_with(".partial-") &&
                ::stat((entry->path() / "data").c_str(), &status) == 0)
                most = std::max(most, std::uint64_t(status.st_size));
        }
        return most;
    };
    while (program->running() && copied() < bytes)
        std::this_thread::sleep_for(200us);
    if (!program->stop())
        throw std::runtime_error("the backup was over before it could be stopped: " + program->out() + program->err());
    for (const std::string& entry : stored(device))
        if (entry.starts_with(".partial-"))
            return program;
    throw std::runtime_error("the backup was complete before it could be stopped");
}

Backup BackupRig::finish(Program& program, std::int64_t from) const
{
    Backup made;
    made.target = target;
    program.signal(SIGCONT);
    made.status = program.wait();
    made.from = from;
    made.to = now();
    made.report = parse(program.out());
    made.err = program.err();
    return made;
}

std::vector<std::string> BackupRig::stored(const std::string& device) const
{
    std::vector<std::string> names;
    std::error_code error;
    for (const auto& entry : fs::directory_iterator(target + "/" + device, error))
        if (const std::string name = entry.path().filename(); name != ".lock")
            names.push_back(name);
    std::sort(names.begin(), names.end());
    return names;
}

std::string BackupRig::restore(const Backup& made, const std::string& device) const
{
    const std::string id = made.text("id"), out = made.target + "-" + device + "-" + id;
    must_run({QBACKUP_PROGRAM, "--quiet", "restore", "--from", made.text("path"), "--to", out});
    return out;
}

std::string BackupRig::file_in(const std::string& partition_image, const std::string& path)
{
    const std::string out = partition_image + ".file";
    must_run({"debugfs", "-R", "dump " + path + " " + out, partition_image});
    std::string content = read_text(out);
    fs::remove(out);
    return content;
}

void BackupRig::judge(const std::string& directory, const std::string& log, std::int64_t from, std::int64_t to) const
{
    const Outcome verdict =
        run({STORY_PROGRAM, "check-files", directory, log, std::to_string(from), std::to_string(to)});
    EXPECT_EQ(verdict.status, 0) << verdict.err;
}

void BackupRig::prove(const Backup& made, const std::string& log, const std::string& device) const
{
    SCOPED_TRACE(made.text("id"));
    const std::string restored = restore(made, device);
    const Outcome check = run({"e2fsck", "-fn", restored});
    EXPECT_EQ(check.status, 0) << check.out << check.err;
    if (device == "sda1") {
        EXPECT_TRUE(file_in(restored, "/old") == old_file) << "an old file is not as it was";
    }
    const std::string files = restored + ".files";
    fs::create_directory(files);
    must_run({"debugfs", "-R", "rdump /story " + files, restored});
    judge(files + "/story", log, made.from, made.to);
    fs::remove_all(files);
    fs::remove(restored);
}

} // namespace backup_rig
