// SPDX-License-Identifier: GPL-2.0-only
#include "backup_contents.h"

#include "folder_backup.h"
#include "image_backup.h"
#include "layer_sums.h"

#include <sys/stat.h>

#include <limits>

namespace qbackup
{
namespace
{

class FolderExtents : public Extents
{
  public:
    explicit FolderExtents(const StoredBackup& backup) : block_size_{backup.manifest.blockSize}, map_{folderMap(backup)}
    {
    }
    std::optional<Extent> next() override
    {
        const auto run = map_.nextRun(next_, std::numeric_limits<std::uint32_t>::max());
        if (!run)
            return std::nullopt;
        next_ = run->first + run->count;
        return Extent{std::uint64_t{run->first} * block_size_, std::uint64_t{run->count} * block_size_};
    }

  private:
    std::uint32_t block_size_;
    quendrel::Bitmap map_;
    std::uint32_t next_ = 0; // block
};

class ImageExtents : public Extents
{
  public:
    explicit ImageExtents(const StoredBackup& backup) : sums_{besides(backup, sums_end), backup.manifest.sumsHash} {}
    std::optional<Extent> next() override
    {
        const auto piece = sums_.next();
        if (!piece)
            return std::nullopt;
        Extent extent{piece->offset, piece->bytes, piece->zeros};
        if (!piece->zeros)
            extent.hash = piece->hash;
        return extent;
    }

  private:
    SumsReader sums_;
};

std::uint64_t allocated(const fs::path& path)
{
    struct stat st {
    };
    return ::stat(path.c_str(), &st) == 0 ? static_cast<std::uint64_t>(st.st_blocks) * 512 : 0;
}

} // namespace

Extent cut(const Extent& extent, std::uint64_t from, std::uint64_t bytes)
{
    return {extent.offset + from, bytes, extent.zeros};
}

std::unique_ptr<Extents> extentsOf(const StoredBackup& backup)
{
    if (backup.manifest.format == 1)
        return std::make_unique<FolderExtents>(backup);
    return std::make_unique<ImageExtents>(backup);
}

MergedExtents mergedExtents(std::span<const StoredBackup> backups)
{
    std::vector<std::unique_ptr<Extents>> newest_first;
    for (auto backup = backups.rbegin(); backup != backups.rend(); ++backup)
        newest_first.push_back(extentsOf(*backup));
    return MergedExtents{std::move(newest_first)};
}

std::uint64_t allocatedBytes(const StoredBackup& backup)
{
    std::uint64_t bytes = 0;
    if (backup.manifest.format == 1)
        for (const fs::path& file : entriesOf(backup.path))
            bytes += allocated(file);
    else
        for (const char* end : {image_end, sums_end, manifest_end})
            bytes += allocated(besides(backup, end));
    return bytes;
}

} // namespace qbackup
