/* SPDX-License-Identifier: GPL-2.0-only */
// The backups of one device in a target directory: TARGET/DEVICE/ID/{manifest.json,map,data,sums}.
//
// A backup is there whole or not at all: it is made under a name that begins with ".partial-", made durable, and
// renamed. A run that died leaves such a directory behind; the next run that holds the repository's lock removes it.
#pragma once

#include "client/bitmap.h"
#include "data_file.h"
#include "file_lock.h"
#include "manifest.h"

#include <functional>
#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace qbackup
{

struct StoredBackup {
    fs::path directory;
    Manifest manifest;
    std::string manifestHash; // of the file
};

struct DamagedBackup {
    fs::path directory;
    std::string problem;
};

// A backup in the making. Destroyed without commit() it leaves nothing behind.
class PendingBackup
{
  public:
    // Called between the steps of commit() with the step's name; for tests that end the process there.
    using Watcher = std::function<void(const char* step)>;

    ~PendingBackup();
    PendingBackup(PendingBackup&& other) noexcept = default;
    PendingBackup& operator=(PendingBackup&&) = delete;

    DataWriter& data() noexcept { return *data_; }
    // Completes the manifest (id and sequence, sizes, hashes) and puts the backup in place. `map` has to hold exactly
    // the blocks that were appended to data().
    StoredBackup commit(Manifest manifest, const quendrel::Bitmap& map, const Watcher& watcher = {});

  private:
    friend class Repository;
    PendingBackup(fs::path repository, std::uint32_t sequence, std::string stamp);

    fs::path repository_;
    fs::path directory_; // empty once committed
    std::uint32_t sequence_;
    std::string stamp_;
    std::unique_ptr<DataWriter> data_;
};

class Repository
{
  public:
    // Creates TARGET/DEVICE if it is not there, takes its lock (Failure busy when another run has it) and removes what
    // dead runs left. A directory that was created and got no backup goes with the object.
    static Repository openForBackup(const fs::path& target, const std::string& device, const Patience& patience = {});
    // For reading; no lock, nothing is created.
    explicit Repository(fs::path directory);

    const fs::path& directory() const noexcept { return directory_; }
    // The readable ones by ascending sequence. The others go to `damaged` when it is given.
    std::vector<StoredBackup> backups(std::vector<DamagedBackup>* damaged = nullptr) const;
    // The backup and all that it builds on, from the full one up to it. Throws Failure (damaged) when one is missing,
    // is not the one that was built on, or is of another geometry. Does not read data.
    std::vector<StoredBackup> chain(const StoredBackup& last) const;
    // What an incremental backup builds on; the same Failure.
    StoredBackup parentOf(const StoredBackup& backup) const;
    PendingBackup begin() const;

  private:
    // A directory that was made for a backup. It goes again if it has got none.
    class Made
    {
      public:
        Made() noexcept = default;
        explicit Made(fs::path directory) : directory_{std::move(directory)} {}
        Made(Made&& other) noexcept : directory_{std::exchange(other.directory_, {})} {}
        Made& operator=(Made&&) = delete;
        ~Made();

      private:
        fs::path directory_; // empty: none
    };

    Repository(fs::path directory, File lock, Made made);

    fs::path directory_;
    File lock_;
    Made made_; // behind the lock: it goes while that is held
};

// Whether a path is that of a backup, be it one that has lost its manifest.
bool looksLikeBackup(const fs::path& path);
// Reads DIRECTORY/manifest.json. Throws Failure.
StoredBackup readBackup(const fs::path& directory);
// The blocks that the backup contains; checked against the manifest. Throws Failure (damaged).
quendrel::Bitmap readMap(const StoredBackup& backup);
// Its data; the sums are checked against the manifest. Throws Failure (damaged).
DataReader openData(const StoredBackup& backup);

// What the user named as a backup: a backup's directory, a repository or REPOSITORY/latest, or a target directory
// with one repository in it. Throws Failure that lists what there is.
StoredBackup findBackup(const fs::path& from);
// The repositories in a target directory, or the directory itself when it is one. Throws Failure: `nothing` when there are
// none, `denied` when one of them cannot be looked into.
std::vector<fs::path> findRepositories(const fs::path& target);

} // namespace qbackup
