/* SPDX-License-Identifier: GPL-2.0-only */
// A daemon of a test's own: a scratch directory, images with a partition table, quendreld over them, loop devices
// and mounts, all taken away at the end, also when the test is killed (tests/e2e/watchdog).
#pragma once

#include <sys/types.h>

#include <array>
#include <chrono>
#include <cstdint>
#include <string>
#include <vector>

namespace serving
{

// Runs a program (no shell) with a time limit; its standard output and error, and its result (-1: killed by the time
// limit, 128 + n: by signal n).
struct Outcome {
    int status;
    std::string out;
    std::string err;
};
Outcome run(const std::vector<std::string>& words, std::chrono::seconds limit = std::chrono::seconds(60));
// The same; throws std::runtime_error with what it printed when its result is not 0.
std::string must_run(const std::vector<std::string>& words, std::chrono::seconds limit = std::chrono::seconds(60));

// Why loop devices over our files cannot be had here, or nothing.
std::string no_loop_reason();

class ScratchDir
{
  public:
    ScratchDir(); // under $TMPDIR or /var/tmp, which is seldom a tmpfs
    ~ScratchDir();
    ScratchDir(const ScratchDir&) = delete;
    ScratchDir& operator=(const ScratchDir&) = delete;
    const std::string& path() const { return path_; }
    std::string operator/(const std::string& name) const { return path_ + "/" + name; }

  private:
    std::string path_;
};

struct Part {
    std::uint32_t start; // sectors
    std::uint32_t sectors;
};
// The first sector of a disk with a DOS table of up to four partitions; one of no sectors is left free.
using DosTable = std::array<unsigned char, 512>;
DosTable dos_table(const std::vector<Part>& parts);
// A sparse image with a DOS table of up to four partitions; none: no table.
void make_image(const std::string& path, std::uint64_t bytes, const std::vector<Part>& parts);

class Serving
{
  public:
    // Starts quendreld over the images. `options` follow the command line. Throws when it does not start.
    Serving(std::vector<std::string> images, const std::string& run_dir, std::vector<std::string> options = {});
    ~Serving();
    Serving(const Serving&) = delete;
    Serving& operator=(const Serving&) = delete;

    const std::string& run_dir() const { return run_dir_; }
    pid_t pid() const;
    std::string nbd(const std::string& disk = "sda") const;
    std::string file(const std::string& disk = "sda") const { return run_dir_ + "/disks/" + disk; }
    std::string log() const;

    std::string attach(const std::string& disk = "sda"); // "/dev/loop0"; partitions are "/dev/loop0p1" and so on
    void detach(const std::string& disk = "sda");
    void mount(const std::string& device, const std::string& at); // makes `at`
    void unmount(const std::string& at);

    void stop();     // in order; throws when refused
    void kill_it();  // SIGKILL, waited for
    void clean_up(); // what the watchdog does, now

    static std::string program();  // quendreld of this build
    static std::string watchdog(); // the script

  private:
    std::string run_dir_;
    int alive_ = -1; // the watchdog's standard input
    pid_t watchdog_ = -1;
};

} // namespace serving
