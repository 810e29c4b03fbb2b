// SPDX-License-Identifier: GPL-2.0-only
// The writer of ./run and of the end-to-end tests, and the judge of what was restored.
//
// The writer works in numbered steps, one at a time: each replaces one file as a whole (written beside it, then
// renamed), or one block of a region of an NBD export or a device. What a step writes follows from its number alone. So
// a copy of one moment holds the outcome of a first part of the steps and of nothing else, and the judge can tell: it
// finds the newest step in the copy and demands that every file or block holds what the steps up to that one left
// there, that every step that was over before the backup began is in it, and none that began after its end.
//
//   story write-files DIRECTORY LOG                  until SIGTERM
//   story make-region FILE BLOCKS                    blocks that no step has written
//   story write-blocks TARGET OFFSETS LOG [PAUSE]    TARGET: an NBD URI; in a static build a file or block device
//                                                    OFFSETS: a file of byte offsets, one 4-KiB block a line
//                                                    PAUSE: microseconds between two steps (default 300)
//   story check-files DIRECTORY LOG FROM TO          FROM, TO: nanoseconds of CLOCK_REALTIME around the backup
//   story check-blocks FILE LOG FROM TO              FILE: the region's blocks in order
//   story felt LOG FROM TO                           what the writer felt in that time
//
// LOG has a line a step: number, target, begin, end (nanoseconds).
#include "block_target.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <iostream>
#include <map>
#include <memory>
#include <random>
#include <stdexcept>
#include <string>
#include <system_error>
#include <vector>

namespace
{

using Bytes = std::vector<char>;

constexpr unsigned kFiles = 120;
constexpr unsigned kBlockBytes = 4096;

volatile std::sig_atomic_t g_stop = 0;

std::int64_t now()
{
    timespec t;
    ::clock_gettime(CLOCK_REALTIME, &t);
    return std::int64_t(t.tv_sec) * 1'000'000'000 + t.tv_nsec;
}

[[noreturn]] void fail_with_errno(const std::string& what) { throw std::system_error(errno, std::generic_category(), what); }

struct Step {
    std::uint64_t number;
    unsigned target;
    std::int64_t begin, end;
};

std::vector<Step> read_log(const std::string& path)
{
    std::ifstream in(path);
    if (!in)
        throw std::runtime_error(path + ": cannot be read");
    std::vector<Step> steps;
    for (Step s; in >> s.number >> s.target >> s.begin >> s.end;)
        steps.push_back(s);
    return steps;
}

Bytes content_of(std::uint64_t step, std::size_t bytes)
{
    Bytes content(bytes);
    std::memcpy(content.data(), &step, sizeof step);
    std::mt19937_64 random(step);
    for (std::size_t at = 8; at + 8 <= bytes; at += 8) {
        const std::uint64_t word = random();
        std::memcpy(content.data() + at, &word, 8);
    }
    return content;
}

std::size_t file_bytes(std::uint64_t step) { return std::size_t(4096) << (std::mt19937_64(step ^ 0x5eed)() % 6); }
unsigned target_of(std::uint64_t step, unsigned targets) { return unsigned(std::mt19937_64(step + 77)() % targets); }

Bytes read_file(const std::string& path)
{
    std::ifstream in(path, std::ios::binary);
    if (!in)
        throw std::runtime_error(path + ": cannot be read");
    return Bytes(std::istreambuf_iterator<char>(in), {});
}

// ---- writing

// Calls `perform(step, target)` for one step after the other until SIGTERM.
template <typename Perform>
void write_steps(const std::string& log_path, unsigned targets, Perform perform)
{
    std::signal(SIGTERM, [](int) { g_stop = 1; });
    std::signal(SIGINT, [](int) { g_stop = 1; });
    std::ofstream log(log_path);
    if (!log)
        throw std::runtime_error(log_path + ": cannot be written");
    for (std::uint64_t step = 1; !g_stop; step++) {
        const unsigned target = target_of(step, targets);
        const std::int64_t begin = now();
        perform(step, target);
        log << step << ' ' << target << ' ' << begin << ' ' << now() << '\n' << std::flush;
    }
}

std::string file_name(const std::string& directory, unsigned target)
{
    return directory + "/story" + std::to_string(target);
}

void write_files(const std::string& directory, const std::string& log)
{
    write_steps(log, kFiles, [&](std::uint64_t step, unsigned target) {
        const std::string fresh = directory + "/.fresh";
        const Bytes content = content_of(step, file_bytes(step));
        const int fd = ::open(fresh.c_str(), O_CREAT | O_TRUNC | O_WRONLY, 0644);
        if (fd < 0 || ::write(fd, content.data(), content.size()) != ssize_t(content.size()) ||
            (step % 8 == 0 && ::fsync(fd) != 0) || ::close(fd) != 0)
            fail_with_errno(fresh);
        if (::rename(fresh.c_str(), file_name(directory, target).c_str()) != 0)
            fail_with_errno(fresh);
        ::usleep(1000);
    });
}

std::vector<std::uint64_t> read_offsets(const std::string& path)
{
    std::ifstream in(path);
    std::vector<std::uint64_t> offsets;
    for (std::uint64_t offset; in >> offset;)
        offsets.push_back(offset);
    if (offsets.empty())
        throw std::runtime_error(path + ": no offsets in it");
    return offsets;
}

// Not zeros, so that no tool leaves the blocks out; the step in them is 0.
void make_region(const std::string& path, unsigned blocks)
{
    Bytes block(kBlockBytes, 1);
    std::memset(block.data(), 0, 8);
    std::ofstream out(path, std::ios::binary);
    for (unsigned i = 0; i < blocks; i++)
        out.write(block.data(), long(block.size()));
    if (!out.flush())
        throw std::runtime_error(path + ": cannot be written");
}

void write_blocks(const std::string& target_name, const std::string& offsets_path, const std::string& log,
                  unsigned pause)
{
    const auto offsets = read_offsets(offsets_path);
    const auto out = open_block_target(target_name);
    write_steps(log, unsigned(offsets.size()), [&](std::uint64_t step, unsigned target) {
        out->write(offsets[target], content_of(step, kBlockBytes));
        ::usleep(pause);
    });
}

// ---- judging

// `found(target)` is the content of a target in the copy, empty when it is not there.
template <typename Found, typename Size>
void judge(const std::vector<Step>& steps, unsigned targets, std::int64_t from, std::int64_t to, Found found, Size size)
{
    std::vector<Bytes> contents(targets);
    std::uint64_t newest = 0;
    for (unsigned t = 0; t < targets; t++) {
        contents[t] = found(t);
        std::uint64_t step = 0;
        if (contents[t].size() >= 8)
            std::memcpy(&step, contents[t].data(), 8);
        newest = std::max(newest, step);
    }
    std::uint64_t must = 0, may = 0;
    std::map<unsigned, std::uint64_t> expected;
    for (const Step& s : steps) {
        if (s.end < from)
            must = s.number;
        if (s.begin <= to)
            may = s.number;
        if (s.number <= newest)
            expected[s.target] = s.number;
    }
    // The step under way when the log was last read, or when the writer was killed, has no line.
    if (newest < must || newest > may + 1)
        throw std::runtime_error("the copy shows step " + std::to_string(newest) + ", and a moment of the backup shows " +
                                 std::to_string(must) + " to " + std::to_string(may + 1));
    if (newest > (steps.empty() ? 0 : steps.back().number))
        expected[target_of(newest, targets)] = newest;
    for (unsigned t = 0; t < targets; t++) {
        const auto it = expected.find(t);
        if (it == expected.end()) {
            std::uint64_t step = 0;
            if (contents[t].size() >= 8)
                std::memcpy(&step, contents[t].data(), 8);
            if (step != 0 && step != newest)
                throw std::runtime_error("target " + std::to_string(t) + " holds step " + std::to_string(step) +
                                         ", which never wrote it");
            continue;
        }
        if (contents[t] != content_of(it->second, size(it->second)))
            throw std::runtime_error("target " + std::to_string(t) + " does not hold what step " +
                                     std::to_string(it->second) + " wrote, and step " + std::to_string(newest) +
                                     " is in the copy");
    }
    std::cout << newest << "\n";
}

void check_files(const std::string& directory, const std::string& log, std::int64_t from, std::int64_t to)
{
    judge(
        read_log(log), kFiles, from, to,
        [&](unsigned target) {
            const std::string path = file_name(directory, target);
            return ::access(path.c_str(), F_OK) == 0 ? read_file(path) : Bytes();
        },
        file_bytes);
}

void check_blocks(const std::string& path, const std::string& log, std::int64_t from, std::int64_t to)
{
    const Bytes region = read_file(path);
    judge(
        read_log(log), unsigned(region.size() / kBlockBytes), from, to,
        [&](unsigned target) {
            return Bytes(region.begin() + long(target) * kBlockBytes, region.begin() + long(target + 1) * kBlockBytes);
        },
        [](std::uint64_t) { return std::size_t(kBlockBytes); });
}

void felt(const std::string& log, std::int64_t from, std::int64_t to)
{
    std::vector<double> ms;
    for (const Step& s : read_log(log))
        if (s.end >= from && s.begin <= to)
            ms.push_back(double(s.end - s.begin) / 1e6);
    if (ms.empty())
        throw std::runtime_error("no step in that time");
    std::sort(ms.begin(), ms.end());
    std::printf("%zu steps, median %.2f ms, longest %.1f ms\n", ms.size(), ms[ms.size() / 2], ms.back());
}

} // namespace

int main(int argc, char** argv)
{
    const std::string command = argc > 1 ? argv[1] : "";
    try {
        if (command == "write-files" && argc == 4)
            write_files(argv[2], argv[3]);
        else if (command == "make-region" && argc == 4)
            make_region(argv[2], unsigned(std::stoul(argv[3])));
        else if (command == "write-blocks" && (argc == 5 || argc == 6))
            write_blocks(argv[2], argv[3], argv[4], argc == 6 ? unsigned(std::stoul(argv[5])) : 300);
        else if (command == "check-files" && argc == 6)
            check_files(argv[2], argv[3], std::stoll(argv[4]), std::stoll(argv[5]));
        else if (command == "check-blocks" && argc == 6)
            check_blocks(argv[2], argv[3], std::stoll(argv[4]), std::stoll(argv[5]));
        else if (command == "felt" && argc == 5)
            felt(argv[2], std::stoll(argv[3]), std::stoll(argv[4]));
        else {
            std::cerr << "usage: story write-files|make-region|write-blocks|check-files|check-blocks|felt ... (see its source)\n";
            return 2;
        }
    } catch (const std::exception& error) {
        std::cerr << "story: " << error.what() << "\n";
        return 1;
    }
    return 0;
}
