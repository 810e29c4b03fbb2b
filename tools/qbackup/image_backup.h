/* SPDX-License-Identifier: GPL-2.0-only */
// A backup as an image, format 2: ID.qcow2, which QEMU's tools open by itself, with all that it builds on; ID.sums, what
// it holds itself, with hashes; ID.json, the manifest. docs/qbackup-repository.5 describes them.
//
// All are made under names that begin with ".partial-". The manifest gets its name last; without it there is no backup.
// While .partial-ID.json is there, whatever else is called ID belongs to a run that died, and goes.
#pragma once

#include "stored_backup.h"

#include <memory>

namespace qbackup
{

constexpr const char* image_end = ".qcow2";
constexpr const char* sums_end = ".sums";
constexpr const char* manifest_end = ".json";
// A file of the backup with this id; the same while it is being made.
fs::path fileOf(const fs::path& folder, const std::string& id, const char* end);
fs::path partialOf(const fs::path& folder, const std::string& id, const char* end);
// What the backup keeps beside its image.
fs::path besides(const StoredBackup& backup, const char* end);

// Whether it is, by its name, the manifest or the image of such a backup.
bool looksLikeImageBackup(const fs::path& path);
// The id in the name of one of its files, or of the three without their ends.
std::string idOf(const fs::path& path);
// Throws Failure. `path`: any of its files, or what they are called without their ends.
StoredBackup readImageBackup(const fs::path& path);
void expectImageComplete(const StoredBackup& backup);
std::unique_ptr<LayerReader> openImageLayer(const StoredBackup& backup);
// The ids in a folder, with or without a manifest; not those that are in the making.
std::vector<std::string> imageIds(const fs::path& folder);
// Removes what dead runs left.
void removeDeadImages(const fs::path& folder);
std::unique_ptr<PendingBackup> beginImage(const fs::path& folder, std::uint32_t sequence, const std::string& stamp);

} // namespace qbackup
