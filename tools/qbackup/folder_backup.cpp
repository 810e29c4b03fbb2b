// SPDX-License-Identifier: GPL-2.0-only
#include "folder_backup.h"

#include "failure.h"

#include <fcntl.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>

namespace qbackup
{
namespace
{

std::vector<std::byte> readChecked(const fs::path& path, const std::string& hash)
{
    const File file{path, O_RDONLY};
    std::vector<std::byte> bytes(file.size());
    file.readAt(0, bytes);
    if (hashText(bytes) != hash)
        throw Failure{Exit::damaged, path.string() + " is damaged: it does not match the hash in the manifest"};
    return bytes;
}

DataReader openData(const StoredBackup& backup)
{
    const Manifest& m = backup.manifest;
    if (m.dataBytes != std::uint64_t{m.copiedBlocks} * m.blockSize || m.segmentBytes % m.blockSize != 0)
        throw Failure{Exit::damaged, backup.path.string() + ": the manifest's sizes contradict each other"};
    return DataReader{backup.path / "data", readChecked(backup.path / "sums", m.sumsHash), m.dataBytes, m.segmentBytes};
}

class FolderLayer : public LayerReader
{
  public:
    explicit FolderLayer(const StoredBackup& backup)
        : block_size_{backup.manifest.blockSize}, map_{folderMap(backup)}, data_{openData(backup)}
    {
    }

    std::optional<Piece> next() override
    {
        if (segment_.empty())
            segment_ = data_.next();
        if (segment_.empty())
            return std::nullopt;
        // The map has as many blocks as the data: both counts have been checked.
        const auto run = map_.nextRun(next_, static_cast<std::uint32_t>(segment_.size() / block_size_));
        const Piece piece{std::uint64_t{run->first} * block_size_, std::uint64_t{run->count} * block_size_,
                          segment_.first(std::size_t{run->count} * block_size_)};
        segment_ = segment_.subspan(piece.bytes);
        next_ = run->first + run->count;
        return piece;
    }

  private:
    std::uint32_t block_size_;
    quendrel::Bitmap map_;
    DataReader data_;
    std::span<const std::byte> segment_; // what is left of it
    std::uint32_t next_ = 0;             // block
};

} // namespace

quendrel::Bitmap folderMap(const StoredBackup& backup)
{
    const fs::path path = backup.path / "map";
    const std::vector<std::byte> bytes = readChecked(path, backup.manifest.mapHash);
    quendrel::Bitmap map{backup.manifest.blocks};
    if (bytes.size() != map.bytes().size())
        throw Failure{Exit::damaged, path.string() + " is not the map of " + std::to_string(map.blocks()) + " blocks"};
    std::memcpy(map.bytes().data(), bytes.data(), bytes.size());
    if (map.count() != backup.manifest.copiedBlocks)
        throw Failure{Exit::damaged, path.string() + " does not have as many blocks as the manifest says"};
    return map;
}

bool looksLikeFolderBackup(const fs::path& path)
{
    const std::string name = path.filename();
    return isPresent(path / "manifest.json") ||
           (name.size() > 7 && name.find_first_not_of("0123456789") == 6 && name[6] == '-' &&
            (name.ends_with("-full") || name.ends_with("-inc")) && typeOf(path) == fs::file_type::directory);
}

StoredBackup readFolderBackup(const fs::path& directory)
{
    const fs::path path = directory / "manifest.json";
    if (typeOf(path) == fs::file_type::not_found)
        throw Failure{Exit::damaged, path.string() + " is missing"};
    const std::string text = readText(path);
    StoredBackup backup{directory, decode(text, path.string()), ""};
    backup.mark = markOf(backup.manifest, text);
    if (fs::canonical(directory).filename() != backup.manifest.id)
        throw Failure{Exit::damaged, directory.string() + " holds backup " + backup.manifest.id +
                                         "; give the directory that name again"};
    return backup;
}

void expectFolderComplete(const StoredBackup& backup)
{
    std::error_code error;
    const auto bytes = fs::file_size(backup.path / "data", error);
    if (error || bytes != backup.manifest.dataBytes || !fs::exists(backup.path / "map", error) ||
        !fs::exists(backup.path / "sums", error))
        throw Failure{Exit::damaged, "the files of backup " + backup.manifest.id + " are not complete"};
}

std::unique_ptr<LayerReader> openFolderLayer(const StoredBackup& backup) { return std::make_unique<FolderLayer>(backup); }

PendingFolder::PendingFolder(fs::path repository, std::uint32_t sequence, std::string stamp)
    : repository_{std::move(repository)}, directory_{repository_ /
                                                     (partial_prefix + stamp + "-" + std::to_string(::getpid()))},
      sequence_{sequence}, stamp_{std::move(stamp)}
{
    makeDirectory(directory_);
    try {
        data_ = std::make_unique<DataWriter>(directory_ / "data");
    } catch (...) {
        std::error_code error;
        fs::remove_all(directory_, error);
        throw;
    }
}

PendingFolder::~PendingFolder()
{
    data_.reset();
    std::error_code error;
    if (!directory_.empty())
        fs::remove_all(directory_, error);
}

void PendingFolder::start(const Manifest& manifest, const std::optional<StoredBackup>&) { block_size_ = manifest.blockSize; }

void PendingFolder::put(std::uint32_t, std::span<const std::byte> blocks, const Hold&) { data_->append(blocks, block_size_); }

StoredBackup PendingFolder::commit(Manifest manifest, const quendrel::Bitmap& map, const Watcher& watcher)
{
    const auto step = [&](const char* name) {
        if (watcher)
            watcher(name);
    };
    const std::uint64_t expected = std::uint64_t{map.count()} * manifest.blockSize;
    if (data_->bytes() != expected)
        throw Failure{Exit::failed, "internal error: " + std::to_string(data_->bytes()) +
                                        " bytes copied, but the map "
                                        "stands for " +
                                        std::to_string(expected)};
    manifest.id = numbered(sequence_, stamp_) + "-" + toString(manifest.mode);
    manifest.sequence = sequence_;
    manifest.copiedBlocks = map.count();
    manifest.dataBytes = data_->bytes();
    manifest.segmentBytes = segment_bytes;
    manifest.mapHash = hashText(map.bytes());
    step("data");
    const std::vector<std::byte> sums = data_->finish();
    manifest.sumsHash = hashText(sums);
    step("sums");
    writeDurably(directory_ / "sums", sums);
    step("map");
    writeDurably(directory_ / "map", map.bytes());
    step("manifest");
    const std::string text = encode(manifest);
    writeDurably(directory_ / "manifest.json", asBytes(text));
    step("directory");
    syncDirectory(directory_);
    step("rename");
    const fs::path final_name = repository_ / manifest.id;
    moveFile(directory_, final_name);
    directory_.clear();
    step("parent");
    syncDirectory(repository_);
    step("done");
    const std::string mark = markOf(manifest, text);
    return {final_name, std::move(manifest), mark};
}

} // namespace qbackup
