// SPDX-License-Identifier: GPL-2.0-only
#include "import.h"

#include "qemu_image.h"

#include <algorithm>
#include <array>
#include <map>
#include <optional>

namespace qbackup
{
namespace
{

using quendrel::Bitmap;

// Makes of pieces that begin and end anywhere such that fit an image: what is missing comes from the image below.
class WholeGranules
{
  public:
    WholeGranules(const Manifest& manifest, const std::optional<StoredBackup>& parent, const Repository& repository, PendingBackup& out)
        : block_size_{manifest.blockSize}, end_{std::uint64_t{manifest.blocks} * manifest.blockSize}, parent_{parent},
          repository_{repository}, out_{out}, map_{manifest.blocks}
    {
    }

    void add(std::uint64_t offset, std::span<const std::byte> data)
    {
        while (!data.empty()) {
            const std::uint64_t begin = offset - offset % image_granule_bytes;
            if (held_ && held_at_ != begin)
                release();
            std::size_t part = 0;
            if (!held_ && offset == begin) {
                const std::uint64_t stop = offset + data.size();
                part = stop == end_ ? data.size() : data.size() - stop % image_granule_bytes;
            }
            if (part != 0) {
                put(offset, data.first(part));
            } else {
                if (!held_)
                    hold(begin);
                part = std::min<std::size_t>(data.size(), begin + image_granule_bytes - offset);
                std::copy_n(data.begin(), part, granule_.begin() + static_cast<std::ptrdiff_t>(offset - begin));
            }
            offset += part;
            data = data.subspan(part);
        }
    }

    const Bitmap& finish()
    {
        if (held_)
            release();
        return map_;
    }

  private:
    void hold(std::uint64_t begin)
    {
        held_ = true;
        held_at_ = begin;
        granule_.fill(std::byte{0});
        if (!parent_)
            return;
        if (!below_) {
            const std::vector<fs::path> chain = repository_.images(*parent_);
            below_.emplace(chain.front(), OpenImage::For::reading, std::span{chain}.subspan(1));
        }
        below_->wait(below_->read(begin, std::span{granule_}.first(std::min<std::uint64_t>(granule_.size(), end_ - begin))));
    }

    void release()
    {
        held_ = false;
        put(held_at_, std::span{granule_}.first(std::min<std::uint64_t>(granule_.size(), end_ - held_at_)));
    }

    void put(std::uint64_t offset, std::span<const std::byte> data)
    {
        const auto first = static_cast<std::uint32_t>(offset / block_size_);
        for (std::uint32_t i = 0; i < data.size() / block_size_; ++i)
            map_.set(first + i);
        out_.put(first, data, nullptr);
    }

    std::uint32_t block_size_;
    std::uint64_t end_; // of the last block
    const std::optional<StoredBackup>& parent_;
    const Repository& repository_;
    PendingBackup& out_;
    Bitmap map_;
    std::array<std::byte, image_granule_bytes> granule_;
    bool held_ = false;
    std::uint64_t held_at_ = 0;
    std::optional<OpenImage> below_; // once it was needed
};

// What stands between number and kind in the name of a folder.
std::string stampOf(const std::string& id)
{
    const std::size_t from = id.find('-') + 1;
    return id.substr(from, id.find('-', from) - from);
}

StoredBackup importOne(const StoredBackup& backup, const std::optional<StoredBackup>& parent, const Repository& to, Progress& progress,
                       const StopSignal& stop)
{
    const auto pending = to.beginImageAs(backup.manifest.sequence, stampOf(backup.manifest.id));
    const auto layer = openLayer(backup);
    Manifest manifest = backup.manifest;
    if (parent) {
        manifest.parent = parent->manifest.id;
        manifest.parentMark = parent->mark;
    }
    pending->start(manifest, parent);
    WholeGranules granules{manifest, parent, to, *pending};
    for (auto piece = layer->next(); piece; piece = layer->next()) {
        throwIfStopped(stop);
        granules.add(piece->offset, piece->data);
        progress.advance(piece->data.size());
    }
    return pending->commit(manifest, granules.finish(), {});
}

} // namespace

std::vector<Imported> importBackups(const Repository& from, const Repository& to, Progress& progress, const StopSignal& stop)
{
    std::vector<DamagedBackup> damaged;
    const auto backups = from.backups(&damaged);
    std::map<std::string, StoredBackup> there; // by the id in `from`
    std::map<std::string, const StoredBackup*> wanted;
    std::uint64_t bytes = 0;
    for (const StoredBackup& backup : backups) {
        if (backup.manifest.format != 1)
            throw Failure{Exit::refused, from.directory().string() + " has images already; it need not be imported"};
        wanted[numbered(backup.manifest.sequence, stampOf(backup.manifest.id))] = &backup;
        bytes += backup.manifest.dataBytes;
    }
    std::vector<DamagedBackup> broken;
    const auto stored = to.backups(&broken);
    if (!broken.empty())
        throw Failure{broken[0].exit, broken[0].problem + "; import into a repository that has no damage"};
    for (const StoredBackup& backup : stored) {
        const auto same = wanted.find(backup.manifest.id);
        if (same == wanted.end() || same->second->manifest.key != backup.manifest.key)
            throw Failure{Exit::refused, to.directory().string() + " has backups of its own, as " + backup.manifest.id +
                                             "; import into a repository that has none of this device"};
        there.emplace(same->second->manifest.id, backup);
    }
    std::vector<Imported> results;
    for (const DamagedBackup& backup : damaged)
        results.push_back({backup.path, {}, false, backup.problem});
    progress.begin("importing " + from.directory().string(), bytes);
    for (const StoredBackup& backup : backups) {
        const std::string& id = backup.manifest.id;
        if (const auto found = there.find(id); found != there.end()) {
            results.push_back({backup.path, found->second.path, true, ""});
            progress.advance(backup.manifest.dataBytes);
            continue;
        }
        try {
            std::optional<StoredBackup> parent;
            if (backup.manifest.mode == Mode::incremental) {
                from.parentOf(backup);
                const auto found = there.find(backup.manifest.parent);
                if (found == there.end())
                    throw Failure{Exit::damaged, "builds on backup " + backup.manifest.parent + ", which could not be imported"};
                parent = found->second;
            }
            const StoredBackup made = importOne(backup, parent, to, progress, stop);
            there.emplace(id, made);
            results.push_back({backup.path, made.path, false, ""});
        } catch (const Failure& failure) {
            if (failure.exitCode() != static_cast<int>(Exit::damaged))
                throw;
            results.push_back({backup.path, {}, false, failure.what()});
        }
    }
    progress.end();
    return results;
}

} // namespace qbackup
