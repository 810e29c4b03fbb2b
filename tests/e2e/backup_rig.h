/* SPDX-License-Identifier: GPL-2.0-only */
// What the end-to-end tests of backups share: a daemon over an image with a mounted ext4, the writer whose every step
// can be checked (tests/story), qbackup as a user runs it, and the proof that a restored image is one moment of it all.
#pragma once

#include "program.h"
#include "serving.h"

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

namespace backup_rig
{

using serving::Outcome;
using serving::Program;
using serving::Serving;

constexpr std::uint64_t MiB = 1 << 20;

std::int64_t now(); // nanoseconds of CLOCK_REALTIME

// Writes numbered steps into a directory until it is told to stop.
class Writer
{
  public:
    // `log`: the path its log gets.
    Writer(const std::string& directory, const std::string& log);
    Program& program() { return program_; }
    const std::string& log() const { return log_; }
    bool unharmed() { return program_.running(); }
    std::size_t steps() const; // over so far
    // Waits until it is some steps further. False: it is not in ten seconds.
    bool goes_on(std::size_t by = 5);
    void stop(); // in order, after the step under way

  private:
    std::string log_;
    Program program_;
};

// One finished backup.
struct Backup {
    int status = -1;       // of qbackup
    nlohmann::json report; // what it printed, as JSON
    std::string err;       // its messages
    std::string target;    // the directory it went to
    std::int64_t from, to; // when it ran
    std::string text(const char* field) const { return report.value(field, std::string()); }
};

struct BackupRig : testing::Test {
    serving::ScratchDir scratch;
    std::string image = scratch / "disk.img";
    std::string run_dir = scratch / "run";
    std::string mnt = scratch / "mnt";
    std::string target = scratch / "backups";
    std::string old_file; // what /old on the first partition holds, the same all the time
    std::unique_ptr<Serving> serving;
    std::string loop;

    // Serves a disk of so many MiB with the partitions, each with ext4, and mounts the first at `mnt`. The first gets
    // `old_mib` MiB of incompressible data in the file /old.
    void serve(unsigned mib, const std::vector<serving::Part>& parts, unsigned old_mib);
    void serve(unsigned mib = 192, unsigned old_mib = 48) { serve(mib, {{2048, mib * 2048 - 2048}}, old_mib); }
    // 0 when a file system on a loop device cannot be had here; a test then returns.
    void SetUp() override;

    std::vector<std::string> qbackup(std::vector<std::string> words) const; // the command line
    Outcome run_qbackup(std::vector<std::string> words) const;
    Backup backup(const std::string& mode, const std::string& device = "sda1") const;

    // Starts a full backup and stops it (SIGSTOP) when part of the data is copied: the snapshot is taken, and the
    // driver holds and copies what is overwritten.
    std::unique_ptr<Program> stopped_in_the_middle(const std::string& name, const std::string& device = "sda1",
                                                   std::uint64_t bytes = 4 * MiB) const;
    // Lets it go on to its end.
    Backup finish(Program& program, std::int64_t from) const;

    // The backups in the repository of a device, by name, and what else is there (except the lock).
    std::vector<std::string> stored(const std::string& device = "sda1") const;

    // Restores into a file; its path.
    std::string restore(const Backup& made, const std::string& device = "sda1") const;
    // The restored image is a clean file system with the old file and one moment of the writer's work.
    void prove(const Backup& made, const std::string& log, const std::string& device = "sda1") const;
    // The same of a directory with the writer's files.
    void judge(const std::string& directory, const std::string& log, std::int64_t from, std::int64_t to) const;
    static std::string file_in(const std::string& partition_image, const std::string& path);
};

} // namespace backup_rig
