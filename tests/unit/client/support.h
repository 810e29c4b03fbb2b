/* SPDX-License-Identifier: GPL-2.0-only */
// What the tests of qbackup share: a directory of their own, a device, a run of a backup.
#pragma once

#include "engine.h"
#include "fake_driver.h"
#include "progress.h"
#include "repository.h"
#include "restore.h"

#include <gtest/gtest.h>

#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <random>
#include <string>
#include <vector>

namespace test
{

namespace fs = std::filesystem;
using namespace qbackup;

class Directory
{
  public:
    Directory()
    {
        std::string name = (fs::temp_directory_path() / "qbackup-test-XXXXXX").string();
        if (::mkdtemp(name.data()) == nullptr)
            throw std::runtime_error{"no temporary directory"};
        path_ = name;
    }
    ~Directory()
    {
        std::error_code error;
        fs::remove_all(path_, error);
    }
    Directory(const Directory&) = delete;
    Directory& operator=(const Directory&) = delete;
    const fs::path& path() const { return path_; }
    fs::path operator/(const std::string& name) const { return path_ / name; }

  private:
    fs::path path_;
};

inline std::vector<std::byte> readAll(const fs::path& path)
{
    const File file{path, 0};
    std::vector<std::byte> bytes(file.size());
    file.readAt(0, bytes);
    return bytes;
}

// Changes the byte at `offset`.
inline void damage(const fs::path& path, std::uint64_t offset)
{
    std::fstream file{path, std::ios::in | std::ios::out | std::ios::binary};
    file.seekg(static_cast<std::streamoff>(offset));
    const int byte = file.get();
    file.seekp(static_cast<std::streamoff>(offset));
    file.put(static_cast<char>(byte ^ 0x5a));
}

// None of a directory that is not there.
inline std::vector<std::string> namesIn(const fs::path& directory)
{
    std::vector<std::string> names;
    std::error_code none;
    for (const auto& entry : fs::directory_iterator{directory, none})
        if (entry.path().filename() != ".lock" && entry.path().filename() != ".hold")
            names.push_back(entry.path().filename());
    std::sort(names.begin(), names.end());
    return names;
}

// A disk of 2999 blocks of 1 KiB, which ends within 4 KiB, that can be backed up to a target of its own.
class Machine
{
  public:
    static constexpr std::uint32_t block_size = 1024;
    static constexpr std::uint32_t blocks = 2999;

    Machine() : driver{{8, 1}, block_size, blocks}
    {
        for (std::uint32_t block = 0; block < blocks; block += 3)
            driver.write(block, 1);
    }

    BackupReport backup(Wanted wanted = Wanted::automatic, const PendingBackup::Watcher& watcher = {})
    {
        driver.clearEvents();
        return backup(quendrel::ControlDevice{fake::connect(driver), "memory"}, job(wanted), watcher);
    }
    BackupReport backup(quendrel::ControlDevice device, const BackupJob& job, const PendingBackup::Watcher& watcher = {})
    {
        const Repository repository = images ? Repository::openImages(this->repository())
                                             : Repository::openForBackup(target.empty() ? directory.path() : target, "sda1");
        Progress progress{Progress::Style::none};
        return runBackup(std::move(device), repository, job, progress, stop, watcher);
    }
    BackupJob job(Wanted wanted = Wanted::automatic)
    {
        BackupJob job{sda1(), wanted, 0, [this] { return qbackup::Identity{instance, sda1().bytes}; }, ledger, written};
        job.compress = compress;
        return job;
    }

    Device sda1() const
    {
        Device device;
        device.name = "sda1";
        device.number = {8, 1};
        device.bytes = driver.bytes();
        return device;
    }

    std::vector<std::byte> restored(const fs::path& from)
    {
        const fs::path image = directory / "restored.img";
        Progress progress{Progress::Style::none};
        restoreBackup(from, image, true, progress, stop);
        return readAll(image);
    }

    fs::path repository() const { return directory / "sda1"; }

    Directory directory;
    fake::Driver driver;
    StopSignal stop{0};
    bool images = false;  // the target's format
    bool compress = false; // full ones
    std::string instance; // of sda1
    fs::path ledger;      // empty: none is kept
    std::function<std::optional<std::string>()> written; // what the host has counted
    fs::path target;      // empty: `directory`
};

} // namespace test
