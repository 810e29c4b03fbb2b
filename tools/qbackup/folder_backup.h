/* SPDX-License-Identifier: GPL-2.0-only */
// A backup as a folder: ID/{manifest.json,map,data,sums}, format 1. It needs no program but this one, so it is what
// machines without QEMU write; docs/backup-format.md describes it.
//
// It is made under a name that begins with ".partial-", made durable, and renamed.
#pragma once

#include "data_file.h"
#include "stored_backup.h"

#include <memory>

namespace qbackup
{

// Whether a path is that of such a backup, be it one that has lost its manifest.
bool looksLikeFolderBackup(const fs::path& path);
// Reads DIRECTORY/manifest.json. Throws Failure.
StoredBackup readFolderBackup(const fs::path& directory);
// Throws Failure (damaged) when a file of it is missing or of another size; reads none of them.
void expectFolderComplete(const StoredBackup& backup);
// The blocks that it holds; checked against the manifest. Throws Failure (damaged).
quendrel::Bitmap folderMap(const StoredBackup& backup);
// Its data, each piece checked. Throws Failure (damaged).
std::unique_ptr<LayerReader> openFolderLayer(const StoredBackup& backup);

class PendingFolder : public PendingBackup
{
  public:
    // `stamp`: the time, as it stands in the name.
    PendingFolder(fs::path repository, std::uint32_t sequence, std::string stamp);
    ~PendingFolder() override;
    PendingFolder(const PendingFolder&) = delete;
    PendingFolder& operator=(const PendingFolder&) = delete;

    void start(const Manifest& manifest, const std::optional<StoredBackup>& parent) override;
    void put(std::uint32_t first, std::span<const std::byte> blocks, const Hold& hold) override;
    StoredBackup commit(Manifest manifest, const quendrel::Bitmap& map, const Watcher& watcher) override;

  private:
    fs::path repository_;
    fs::path directory_; // empty once committed
    std::uint32_t sequence_;
    std::string stamp_;
    std::uint32_t block_size_ = 0;
    std::unique_ptr<DataWriter> data_;
};

} // namespace qbackup
