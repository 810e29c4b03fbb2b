/* SPDX-License-Identifier: GPL-2.0-only */
// The built program with a repository of images on a disk that fails when it is told to.
#pragma once

#include "faulty_directory.h"
#include "program.h"

#include "manifest.h"

#include <chrono>
#include <optional>

namespace faults
{

using namespace test;

class FaultyTarget : public Program
{
  protected:
    // The mount goes after so long at the latest.
    explicit FaultyTarget(std::chrono::seconds most = std::chrono::seconds{110}) : most_{most} {}
    void SetUp() override
    {
        if (const std::string missing = FaultyDirectory::missing(); !missing.empty())
            GTEST_SKIP() << missing;
        directory.emplace(point.string(), most_);
        insert({});
    }

    // Ends within a minute, whatever it waits for.
    Result finish(pid_t child)
    {
        const auto end = Clock::now() + std::chrono::seconds{60};
        siginfo_t state{};
        while (::waitid(P_PID, static_cast<id_t>(child), &state, WEXITED | WNOHANG | WNOWAIT) == 0 && state.si_pid == 0) {
            if (Clock::now() > end) {
                ADD_FAILURE() << "it does not end";
                directory->disarm();
                ::kill(child, SIGKILL);
                break;
            }
            std::this_thread::sleep_for(std::chrono::milliseconds{1});
        }
        return wait(child);
    }
    Result command(std::vector<std::string> words) { return finish(spawn(std::move(words))); }
    // The words of a backup into the repository.
    std::vector<std::string> backupWords(const std::string& mode = "auto") const
    {
        std::vector<std::string> words{"backup", "sda1", "--to", target, "--host", "tern", "--mode", mode, "--json"};
        if (compress)
            words.emplace_back("--compress");
        return words;
    }
    // One that has to succeed, after the device was written to. Its id.
    std::string take(const std::string& mode = "auto")
    {
        writeToDevice();
        const Result taken = command(backupWords(mode));
        EXPECT_EQ(taken.code, 0) << taken.err;
        if (taken.code != 0)
            return "";
        const std::string id = taken.document()["id"];
        EXPECT_EQ(machine.driver.frozen(), machine.driver.contents());
        contents[id] = machine.driver.frozen();
        return id;
    }
    void writeToDevice()
    {
        for (int i = 0; i < 12; ++i)
            machine.driver.write(random() % Machine::blocks, static_cast<unsigned>(random()));
        machine.driver.writeZeros(random() % Machine::blocks);
    }

    // Another disk; the repository is on it then.
    void insert(const Disk& disk)
    {
        directory->insert(disk);
        root = directory->path();
        target = root / "disks";
    }
    Files files() const { return directory->disk().files(); }
    std::string pathOf(const std::string& id, const char* end) const { return "disks/tern/sda1/" + id + end; }
    // That have a manifest.
    std::vector<std::string> ids() const
    {
        std::vector<std::string> ids;
        for (const auto& [path, content] : files())
            if (const fs::path file = path; file.extension() == ".json" && looksLikeId(file.stem()))
                ids.push_back(file.stem());
        return ids;
    }
    static bool looksLikeId(const std::string& name) { return name.size() == 23 && name[6] == '-'; }
    std::vector<std::string> listed()
    {
        const Result list = command({"list", "--from", target, "--json"});
        EXPECT_EQ(list.code, 0) << list.err;
        std::vector<std::string> ids;
        for (const json& line : list.lines())
            if (line.contains("id"))
                ids.push_back(line["id"]);
        return ids;
    }
    // What only a run that is under way, or a dead one, has.
    std::vector<std::string> leftovers() const
    {
        std::vector<std::string> names;
        for (const auto& [path, content] : files())
            if (path.find(".partial-") != std::string::npos || path.find(".merge.json") != std::string::npos)
                names.push_back(path);
        return names;
    }
    // That backup, by its id or by a time.
    void expectRestores(const std::string& id, const std::string& at = "")
    {
        const fs::path image = machine.directory / "restored.img";
        const Result restored = command({"restore", "--from", target, "--at", at.empty() ? id : at, "--to", image, "--force"});
        EXPECT_EQ(restored.code, 0) << restored.err;
        EXPECT_TRUE(readAll(image) == contents.at(id)) << id << " is restored to something else";
    }
    void expectVerifies()
    {
        const Result verified = command({"verify", "--from", target});
        EXPECT_EQ(verified.code, 0) << verified.out << verified.err;
    }
    // Gives the backups these times, the oldest first, and ties the chain together again.
    void giveTimes(const std::vector<std::string>& ids, const std::vector<std::string>& times);

    using Clock = std::chrono::steady_clock;
    fs::path point = machine.directory / "mounted";
    fs::path root; // of the disk
    fs::path target;
    bool compress = false; // full backups
    std::map<std::string, std::vector<std::byte>> contents; // of the device, by the backup's id
    std::mt19937 random{1};
    std::optional<FaultyDirectory> directory; // goes before what it is mounted in

  private:
    std::chrono::seconds most_;
};

inline void FaultyTarget::giveTimes(const std::vector<std::string>& ids, const std::vector<std::string>& times)
{
    Disk disk = directory->disk();
    Files files = disk.files();
    std::string mark;
    for (std::size_t i = 0; i < ids.size(); ++i) {
        const std::string path = pathOf(ids[i], ".json");
        Manifest manifest = decode(files.at(path), path);
        manifest.time = times[i];
        if (manifest.mode == Mode::incremental)
            manifest.parentMark = mark;
        const std::string text = encode(manifest);
        mark = markOf(manifest, text);
        disk.replace(path, text);
    }
    insert(disk);
}

} // namespace faults
