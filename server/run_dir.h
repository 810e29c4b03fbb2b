/* SPDX-License-Identifier: GPL-2.0-only */
// The run directory: where a daemon's sockets, disk files, log and description stand.
//
// One daemon owns a run directory at a time: it holds an exclusive lock on RUN/lock for as long as it lives, so the
// lock tells whether it lives. Whatever else is found there without the lock being held is stale and may be removed.
//
// The directory is looked at once, when it is opened: it belongs to us or to root, not everybody may write to it, and it
// is no symbolic link. From then on it is used by its descriptor, whatever becomes of its name.
#pragma once

#include "base/descriptor.h"

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace quendreld
{

class RunDir
{
  public:
    enum class Missing { is_made, stays };
    // Opens it. One that stays missing has no daemon. Throws std::runtime_error, with what to do, when it may not be used.
    explicit RunDir(std::string path, Missing missing = Missing::stays);

    // The paths of its name, for people and for other programs.
    const std::string& path() const { return path_; }
    std::string control_socket() const { return path_ + "/control.sock"; }
    std::string nbd_socket() const { return path_ + "/nbd.sock"; }
    std::string disks() const { return path_ + "/disks"; }
    std::string disk_file(const std::string& disk) const { return disks() + "/" + disk; }
    std::string disks_json() const { return path_ + "/disks.json"; }
    std::string log() const { return path_ + "/log"; }
    std::string lock() const { return path_ + "/lock"; }
    std::string pid() const { return path_ + "/pid"; }
    std::string ended() const { return path_ + "/ended"; } // how the last daemon here ended; not there if it died
    // Held by whoever takes a backup; those may open it who may open the control socket.
    std::string backup_lock() const { return path_ + "/qbackup.lock"; }
    // The same place by the descriptor, for this process and its children.
    std::string here(const std::string& path) const { return at_ + path.substr(path_.size()); }

    // Takes the lock. Throws std::runtime_error that says what to do when another daemon holds it. The lock is the
    // descriptor's, and lives until the last process that inherited it ends.
    base::Descriptor take() const;
    bool taken() const;               // a daemon is alive; for who may not open the lock, by RUN/pid
    std::optional<int> owner() const; // its process id, from RUN/pid

    // Removes what a killed daemon left: sockets, description, a dead FUSE mount. Only with the lock held.
    void remove_stale() const;

    // Files in it, by their path. Throw std::system_error.
    void write(const std::string& path, const std::string& text) const; // a reader sees the old or the new text
    std::string read(const std::string& path) const;

  private:
    std::string path_;
    base::Descriptor directory_;
    std::string at_; // the directory, by its descriptor
};

// ---- RUN/disks.json ------------------------------------------------------------------------------------------------

struct FileSystemRecord {
    std::string type; // "ext4"
    std::uint32_t block_size;
    bool operator==(const FileSystemRecord&) const = default;
};

struct PartitionRecord {
    std::string name; // "sda1"
    unsigned major, minor;
    std::uint64_t start, sectors;
    std::optional<FileSystemRecord> file_system;
    std::string instance; // another one than before: it is not the device that it was
    std::string holds = {}; // what it holds that is no file system: "swap"
    bool operator==(const PartitionRecord&) const = default;
};

struct DiskRecord {
    std::string name;
    unsigned major, minor;
    std::uint64_t bytes;
    std::string file; // empty: not served as a file
    std::string nbd;
    std::string flush_error; // why a flush of it failed, once; mostly empty
    std::optional<FileSystemRecord> file_system; // of a disk without partitions
    std::vector<PartitionRecord> partitions;
    std::string holds = {};            // as of a partition
    std::string instance = {};         // of the disk's own blocks, those outside of partitions
    std::uint32_t sector_bytes = 512; // what requests have to be a multiple of
    bool operator==(const DiskRecord&) const = default;
};

std::string disks_to_json(const std::vector<DiskRecord>& disks);
std::vector<DiskRecord> disks_from_json(const std::string& text); // throws on a text of another form

// Replaces the file whole: a reader sees the old or the new text. Throws std::system_error.
void write_file_whole(const std::string& path, const std::string& text);
std::string read_file(const std::string& path); // throws std::system_error

} // namespace quendreld
