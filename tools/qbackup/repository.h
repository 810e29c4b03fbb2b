/* SPDX-License-Identifier: GPL-2.0-only */
// The backups of one device, in a directory of theirs: folders (TARGET/DEVICE/ID/) or images (TARGET/HOST/DEVICE/ID.qcow2).
//
// A backup is there whole or not at all: it is made under a name that begins with ".partial-", made durable, and
// renamed. A run that died leaves such names behind; the next run that holds the directory's lock removes them.
#pragma once

#include "file_lock.h"
#include "stored_backup.h"

#include <memory>
#include <string>
#include <utility>
#include <vector>

namespace qbackup
{

class Repository
{
  public:
    // Creates TARGET/DEVICE if it is not there, takes its lock (Failure busy when another run has it) and removes what
    // dead runs left. A directory that was created and got no backup goes with the object.
    static Repository openForBackup(const fs::path& target, const std::string& device, const Patience& patience = {});
    // The same of a directory of images.
    static Repository openImages(const fs::path& directory, const Patience& patience = {});
    // For reading; no lock, nothing is created.
    explicit Repository(fs::path directory);
    // The same, for a look at what a backup into TARGET/DEVICE, or into that directory of images, would find; it need not be
    // there. Throws Failure, as a backup would.
    static Repository lookForBackup(const fs::path& target, const std::string& device);
    static Repository lookAtImages(fs::path directory);

    const fs::path& directory() const noexcept { return directory_; }
    // The readable ones by ascending sequence. The others go to `damaged` when it is given.
    std::vector<StoredBackup> backups(std::vector<DamagedBackup>* damaged = nullptr) const;
    // The backup and all that it builds on, from the full one up to it. Throws Failure (damaged) when one is missing,
    // is not the one that was built on, or is of another geometry. Does not read data.
    std::vector<StoredBackup> chain(const StoredBackup& last) const;
    // The image of the backup and those that it lies over, the nearest first. The same Failure, also when one is no image.
    std::vector<fs::path> images(const StoredBackup& last) const;
    // What an incremental backup builds on; the same Failure.
    StoredBackup parentOf(const StoredBackup& backup) const;
    // Throws Failure (damaged) when a file of the backup or of one that it builds on is missing or not of its size.
    void expectComplete(const StoredBackup& last) const;
    std::unique_ptr<PendingBackup> begin() const;
    // The same of an image with this number and this time in its name.
    std::unique_ptr<PendingBackup> beginImageAs(std::uint32_t sequence, const std::string& stamp) const;
    // What a backup holds begins and ends at multiples of this many bytes.
    std::uint32_t granule() const noexcept;
    // Whether one more backup may build on `last`.
    bool mayGrow(const StoredBackup& last) const;

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

    Repository(fs::path directory, bool images, File lock, Made made);

    fs::path directory_;
    bool images_ = false; // what begin() makes
    File lock_;
    Made made_; // behind the lock: it goes while that is held
};

// Whether a path is that of a backup, be it one that has lost its manifest. Of an image any of its files, or its id in the
// folder's place.
bool looksLikeBackup(const fs::path& path);
// What the manifest at or in `path` tells. Throws Failure.
StoredBackup readBackup(const fs::path& path);
// What it holds itself, to be read; its hashes are checked against the manifest. Throws Failure (damaged).
std::unique_ptr<LayerReader> openLayer(const StoredBackup& backup);

// What the user named as a backup: a backup's directory, a repository or REPOSITORY/latest, or a target directory
// with one repository in it. Throws Failure that lists what there is.
// `at`: which one, where there are several: its id, or a time as utcOf() reads it: the newest one that is not younger.
StoredBackup findBackup(const fs::path& from, const std::string& at = {});
// Finishes what a prune of the directory that was cut off has left. Throws Failure.
void settle(const fs::path& directory);
// The repositories in a target directory, or the directory itself when it is one. Throws Failure: `nothing` when there are
// none, `denied` when one of them cannot be looked into.
std::vector<fs::path> findRepositories(const fs::path& target);

} // namespace qbackup
