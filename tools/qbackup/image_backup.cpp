// SPDX-License-Identifier: GPL-2.0-only
#include "image_backup.h"

#include "failure.h"
#include "image_layer.h"
#include "image_writer.h"
#include "qemu_image.h"

#include <fcntl.h>

#include <algorithm>
#include <set>

namespace qbackup
{
namespace
{

// "000001-20261121T111641Z"
bool isId(const std::string& text)
{
    const auto digits = [&](std::size_t from, std::size_t count) {
        return std::all_of(text.begin() + static_cast<std::ptrdiff_t>(from), text.begin() + static_cast<std::ptrdiff_t>(from + count),
                           [](char c) { return c >= '0' && c <= '9'; });
    };
    const std::size_t dash = text.find('-');
    return dash != std::string::npos && dash >= 6 && text.size() == dash + 17 && digits(0, dash) && digits(dash + 1, 8) &&
           text[dash + 9] == 'T' && digits(dash + 10, 6) && text.back() == 'Z';
}

// A marker beside a manifest tells nothing: a copy of a folder may have both.
bool isInTheMaking(const fs::path& folder, const std::string& id)
{
    return isPresent(partialOf(folder, id, manifest_end)) && !isPresent(fileOf(folder, id, manifest_end));
}

class PendingImage : public PendingBackup
{
  public:
    PendingImage(fs::path folder, const std::string& id) : folder_{std::move(folder)}, id_{id}
    {
        requireQemu();
        expectUtf8(fs::absolute(folder_));
    }
    ~PendingImage() override
    {
        writer_.reset();
        std::error_code error;
        if (!done_)
            for (const char* end : {image_end, sums_end, manifest_end}) {
                if (named_)
                    fs::remove(fileOf(folder_, id_, end), error);
                fs::remove(partialOf(folder_, id_, end), error);
            }
    }

    void start(const Manifest& manifest, const std::optional<StoredBackup>& parent) override
    {
        block_size_ = manifest.blockSize;
        full_ = !parent;
        const fs::path image = partialOf(folder_, id_, image_end);
        const fs::path sums = partialOf(folder_, id_, sums_end);
        if (manifest.compressed) {
            createCompressed(image, manifest.deviceBytes);
            writer_.emplace(image, sums, manifest.deviceBytes);
        } else {
            createImage(image, manifest.deviceBytes, parent ? parent->path.filename().string() : "");
            writer_.emplace(image, sums, parent ? ZerosAre::written : ZerosAre::there);
        }
    }

    void put(std::uint32_t first, std::span<const std::byte> blocks, const Hold& hold) override
    {
        fillUpTo(first);
        writer_->put(std::uint64_t{first} * block_size_, blocks, hold);
        next_ = first + static_cast<std::uint32_t>(blocks.size() / block_size_);
    }

    std::size_t mostHeld() const noexcept override { return image_writes_under_way; }

    StoredBackup commit(Manifest manifest, const quendrel::Bitmap& map, const Watcher& watcher) override
    {
        const auto step = [&](const char* name) {
            if (watcher)
                watcher(name);
        };
        fillUpTo(manifest.blocks);
        const std::uint32_t held = full_ ? manifest.blocks : map.count();
        const std::uint64_t expected = std::uint64_t{held} * manifest.blockSize;
        if (writer_->received() != expected)
            throw Failure{Exit::failed, "internal error: " + std::to_string(writer_->received()) +
                                            " bytes copied, but the map stands for " + std::to_string(expected)};
        manifest.format = 2;
        manifest.id = id_;
        manifest.sequence = static_cast<std::uint32_t>(std::stoul(id_));
        manifest.copiedBlocks = held;
        step("data");
        manifest.sumsHash = writer_->finish();
        manifest.dataBytes = writer_->dataBytes();
        writer_.reset();
        step("manifest");
        const std::string text = encode(manifest);
        writeDurably(partialOf(folder_, id_, manifest_end), asBytes(text));
        // Whoever finds the files below under their names finds that one, too.
        syncDirectory(folder_);
        step("image");
        named_ = true;
        rename(image_end);
        step("sums");
        rename(sums_end);
        syncDirectory(folder_);
        step("rename");
        rename(manifest_end);
        done_ = true;
        step("parent");
        syncDirectory(folder_);
        step("done");
        const std::string mark = markOf(manifest, text);
        return {fileOf(folder_, id_, image_end), std::move(manifest), mark};
    }

  private:
    // A full backup tells of every block: those that nobody uses are zeros in it.
    void fillUpTo(std::uint32_t block)
    {
        if (full_ && block > next_)
            writer_->putZeros(std::uint64_t{next_} * block_size_, std::uint64_t{block - next_} * block_size_);
    }
    void rename(const char* end) { moveFile(partialOf(folder_, id_, end), fileOf(folder_, id_, end)); }

    fs::path folder_;
    std::string id_;
    std::uint32_t block_size_ = 0;
    bool full_ = false;
    std::uint32_t next_ = 0; // behind the last block that has come
    bool named_ = false; // files may have their names already
    bool done_ = false;
    std::optional<ImageWriter> writer_;
};

} // namespace

fs::path fileOf(const fs::path& folder, const std::string& id, const char* end) { return folder / (id + end); }
fs::path partialOf(const fs::path& folder, const std::string& id, const char* end) { return folder / (partial_prefix + id + end); }
fs::path besides(const StoredBackup& backup, const char* end) { return fileOf(backup.path.parent_path(), backup.manifest.id, end); }

std::string idOf(const fs::path& path)
{
    const std::string end = path.extension();
    return end == image_end || end == sums_end || end == manifest_end ? path.stem() : path.filename();
}

bool looksLikeImageBackup(const fs::path& path)
{
    const std::string id = idOf(path);
    return isId(id) && (isPresent(fileOf(path.parent_path(), id, manifest_end)) || isPresent(fileOf(path.parent_path(), id, image_end)));
}

StoredBackup readImageBackup(const fs::path& path)
{
    const std::string id = idOf(path);
    const fs::path manifest = fileOf(path.parent_path(), id, manifest_end);
    if (typeOf(manifest) == fs::file_type::not_found)
        throw Failure{Exit::damaged, manifest.string() + " is missing"};
    const std::string text = readText(manifest);
    StoredBackup backup{fileOf(path.parent_path(), id, image_end), decode(text, manifest.string()), ""};
    backup.mark = markOf(backup.manifest, text);
    if (id != backup.manifest.id)
        throw Failure{Exit::damaged, manifest.string() + " is the manifest of backup " + backup.manifest.id +
                                         "; give its files that name again"};
    return backup;
}

void expectImageComplete(const StoredBackup& backup)
{
    for (const fs::path& path : {backup.path, besides(backup, sums_end)})
        if (typeOf(path) == fs::file_type::not_found)
            throw Failure{Exit::damaged, path.string() + " is missing"};
}

std::unique_ptr<LayerReader> openImageLayer(const StoredBackup& backup)
{
    expectImageComplete(backup);
    // By that name other programs go.
    const std::string below = backup.manifest.mode == Mode::full ? "" : backup.manifest.parent + image_end;
    if (const std::string named = nameBelow(backup.path); named != below)
        throw Failure{Exit::damaged, backup.path.string() + " is damaged: it lies over " + (named.empty() ? "nothing" : named) + ", and not over " +
                                         (below.empty() ? "nothing" : below)};
    return std::make_unique<ImageLayer>(backup.path, besides(backup, sums_end), backup.manifest.sumsHash, backup.manifest.deviceBytes);
}

std::vector<std::string> imageIds(const fs::path& folder)
{
    std::set<std::string> ids;
    for (const fs::path& entry : entriesOf(folder))
        if (isId(idOf(entry)) && entry.has_extension() && !isInTheMaking(folder, idOf(entry)))
            ids.insert(idOf(entry));
    return {ids.begin(), ids.end()};
}

void removeDeadImages(const fs::path& folder)
{
    std::vector<fs::path> markers;
    for (const fs::path& entry : entriesOf(folder)) {
        const std::string name = entry.filename();
        if (!name.starts_with(partial_prefix) || typeOf(entry) == fs::file_type::directory)
            continue;
        const fs::path rest{name.substr(std::string{partial_prefix}.size())};
        if (rest.extension() != manifest_end) {
            removeFile(entry);
            continue;
        }
        if (isInTheMaking(folder, idOf(rest)))
            for (const char* end : {image_end, sums_end})
                removeFile(fileOf(folder, idOf(rest), end));
        markers.push_back(entry);
    }
    if (markers.empty())
        return;
    syncDirectory(folder);
    for (const fs::path& marker : markers)
        removeFile(marker);
}

std::unique_ptr<PendingBackup> beginImage(const fs::path& folder, std::uint32_t sequence, const std::string& stamp)
{
    return std::make_unique<PendingImage>(folder, numbered(sequence, stamp));
}

} // namespace qbackup
