/* SPDX-License-Identifier: GPL-2.0-only */
// A directory on a disk that fails when it is told to: a FUSE file system in memory, served by threads of this process.
//
// The disk is a value: it can be copied, looked at and put back, without going through the mount. This process must never
// use the mount itself, or it would wait for its own threads. Whatever becomes of this process, the mount goes: a child
// aborts it, and when this process is killed the kernel does.
//
// A power cut takes what was not made durable, each thing by chance: pages and sizes of files that no fsync of the file came
// behind, names that no fsync of the directory came behind. A rename is there as a whole or not at all. That is less than any
// journal keeps, and as much as a program may rely on.
#pragma once

#include <sys/types.h>

#include <chrono>
#include <cstdint>
#include <map>
#include <memory>
#include <random>
#include <set>
#include <string>
#include <vector>

namespace faults
{

using Files = std::map<std::string, std::string>; // contents by path

class Disk
{
  public:
    Disk();
    Files files() const;
    // All of it is durable.
    void settle();
    void cutPower(unsigned seed);
    // Durably; the file has to be there.
    void replace(const std::string& path, const std::string& contents);

  private:
    friend class FaultyDirectory;
    struct Change { // of the names in a directory
        std::string gone;
        std::string come;
        std::uint64_t node;
    };
    struct Node {
        mode_t mode = 0;
        std::string data;
        std::string durable;        // what the data was at the last fsync
        std::set<std::size_t> late; // pages that have changed since
        std::map<std::string, std::uint64_t> names;
        std::map<std::string, std::uint64_t> durable_names;
        std::vector<Change> changes; // since
    };
    static void apply(std::map<std::string, std::uint64_t>& names, const Change& change);
    static void makeDurable(Node& node);
    std::uint64_t find(const std::string& path) const; // 0: not there
    void list(std::uint64_t directory, const std::string& path, Files& files) const;

    std::map<std::uint64_t, Node> nodes_;
};

enum Kind : unsigned {
    creating = 1, // of files and directories: takes an inode
    writing = 2,  // with all that takes space for data
    syncing = 4,
    renaming = 8,
    removing = 16,
    sizing = 32,
    looking = 64, // whatever changes nothing
    changes = creating | writing | syncing | renaming | removing | sizing,
};

struct Fault {
    enum class What { error, hang, power_cut };
    unsigned kinds = changes; // that count
    std::uint64_t at = 0;     // the number of the one that is struck; 0: none is
    What what = What::error;
    int error = 0;
    bool lasting = false; // those behind it, too
    unsigned seed = 0;
};

class FaultyDirectory
{
  public:
    // What is missing for it on this machine; empty: nothing.
    static std::string missing();
    // Mounted on `point`, which is made, for so long at most. Throws.
    FaultyDirectory(const std::string& point, std::chrono::seconds most);
    ~FaultyDirectory();
    FaultyDirectory(const FaultyDirectory&) = delete;
    FaultyDirectory& operator=(const FaultyDirectory&) = delete;

    // From now on; counting begins anew.
    void arm(const Fault& fault);
    void disarm() { arm({}); }
    std::uint64_t count() const; // of the kinds that the fault is for
    bool struck() const;
    // Where the disk is. Another one gets another path, so that the kernel confuses nothing of it with what it knows of the
    // one before.
    std::string path() const;
    // The disk as it is; another one in its place: on the old one everything fails from then on. After a power cut every
    // operation fails until there is one.
    Disk disk() const;
    void insert(const Disk& disk);

  private:
    struct Impl;
    std::unique_ptr<Impl> impl_;
};

} // namespace faults
