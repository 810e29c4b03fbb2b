// SPDX-License-Identifier: GPL-2.0-only
#include "difference.h"

#include "backup_contents.h"
#include "image_layer.h"
#include "qemu_image.h"
#include "repository.h"

#include <algorithm>
#include <array>
#include <cstring>
#include <memory>
#include <optional>
#include <span>
#include <vector>

namespace qbackup
{
namespace
{

struct Range {
    std::uint64_t offset;
    std::uint64_t bytes;
};

// In ascending order; what touches becomes one.
class Ranges
{
  public:
    void add(std::uint64_t offset, std::uint64_t bytes)
    {
        if (!all_.empty() && all_.back().offset + all_.back().bytes == offset)
            all_.back().bytes += bytes;
        else
            all_.push_back({offset, bytes});
    }
    const std::vector<Range>& all() const noexcept { return all_; }

  private:
    std::vector<Range> all_;
};

// How many of the first links are the same backups.
std::size_t common(const std::vector<StoredBackup>& a, const std::vector<StoredBackup>& b)
{
    std::size_t count = 0;
    while (count < std::min(a.size(), b.size()) && a[count].path == b[count].path && a[count].mark == b[count].mark)
        ++count;
    return count;
}

class Walk
{
  public:
    explicit Walk(std::span<const StoredBackup> chain) : extents_{mergedExtents(chain)}, now_{extents_.next()} {}
    const std::optional<Extent>& now() const noexcept { return now_; }
    void advance(std::uint64_t bytes)
    {
        now_ = bytes == now_->bytes ? extents_.next() : cut(*now_, bytes, now_->bytes - bytes);
    }

  private:
    MergedExtents extents_;
    std::optional<Extent> now_;
};

// Where the hashes do not say that both are the same.
Ranges unlikeByHash(std::span<const StoredBackup> chain_a, std::span<const StoredBackup> chain_b)
{
    Ranges ranges;
    Walk a{chain_a};
    Walk b{chain_b};
    while (a.now() || b.now()) {
        // What only one has up to where the other goes on.
        if (!a.now() || !b.now() || a.now()->offset != b.now()->offset) {
            const bool of_a = a.now() && (!b.now() || a.now()->offset < b.now()->offset);
            Walk& first = of_a ? a : b;
            const Walk& other = of_a ? b : a;
            const std::uint64_t bytes = other.now()
                                            ? std::min(first.now()->bytes, other.now()->offset - first.now()->offset)
                                            : first.now()->bytes;
            ranges.add(first.now()->offset, bytes);
            first.advance(bytes);
            continue;
        }
        const std::uint64_t bytes = std::min(a.now()->bytes, b.now()->bytes);
        const bool zeros = a.now()->zeros && b.now()->zeros;
        const bool hashed = a.now()->bytes == b.now()->bytes && a.now()->hash && b.now()->hash &&
                            XXH128_isEqual(*a.now()->hash, *b.now()->hash);
        if (!zeros && !hashed)
            ranges.add(a.now()->offset, bytes);
        a.advance(bytes);
        b.advance(bytes);
    }
    return ranges;
}

Ranges whereTheyMayDiffer(const std::vector<StoredBackup>& a, const std::vector<StoredBackup>& b, std::uint64_t bytes)
{
    Ranges ranges;
    if (const std::size_t same = common(a, b); same != 0) {
        std::vector<StoredBackup> rest(a.begin() + static_cast<std::ptrdiff_t>(same), a.end());
        rest.insert(rest.end(), b.begin() + static_cast<std::ptrdiff_t>(same), b.end());
        MergedExtents extents = mergedExtents(rest);
        for (auto extent = extents.next(); extent; extent = extents.next())
            ranges.add(extent->offset, extent->bytes);
    } else if (a.back().manifest.format == 2 && b.back().manifest.format == 2) {
        ranges = unlikeByHash(a, b);
    } else {
        ranges.add(0, bytes);
    }
    return ranges;
}

// What a backup shows, read from its start to its end.
class Contents
{
  public:
    virtual ~Contents() = default;
    // `data` has to stay until end() of the number that this gives.
    virtual std::int64_t begin(std::uint64_t offset, std::span<std::byte> data) = 0;
    virtual void end(std::int64_t request) = 0;
};

class ImageContents : public Contents
{
  public:
    explicit ImageContents(const StoredBackup& backup)
        : images_{Repository{backup.path.parent_path()}.images(backup)}, image_{images_.front(),
                                                                                OpenImage::For::reading,
                                                                                std::span{images_}.subspan(1)}
    {
    }
    std::int64_t begin(std::uint64_t offset, std::span<std::byte> data) override { return image_.read(offset, data); }
    void end(std::int64_t request) override { image_.wait(request); }

  private:
    std::vector<fs::path> images_; // the nearest first
    OpenImage image_;
};

class FolderContents : public Contents
{
  public:
    explicit FolderContents(const std::vector<StoredBackup>& chain) : layers_{readers(chain)}, piece_{layers_.next()} {}
    std::int64_t begin(std::uint64_t offset, std::span<std::byte> data) override
    {
        std::ranges::fill(data, std::byte{0}); // what lies behind the last whole block is in no layer
        const std::uint64_t stop = offset + data.size();
        while (piece_ && piece_->offset < stop) {
            const std::uint64_t from = std::max(offset, piece_->offset);
            const std::uint64_t to = std::min(stop, piece_->offset + piece_->bytes);
            if (from < to && !piece_->data.empty())
                std::memcpy(data.data() + (from - offset), piece_->data.data() + (from - piece_->offset), to - from);
            if (piece_->offset + piece_->bytes > stop)
                break;
            piece_ = layers_.next();
        }
        return 0;
    }
    void end(std::int64_t) override {}

  private:
    static std::vector<std::unique_ptr<LayerReader>> readers(const std::vector<StoredBackup>& chain)
    {
        std::vector<std::unique_ptr<LayerReader>> newest_first;
        for (auto link = chain.rbegin(); link != chain.rend(); ++link)
            newest_first.push_back(openLayer(*link));
        return newest_first;
    }

    MergedLayers layers_;
    std::optional<LayerReader::Piece> piece_;
};

std::unique_ptr<Contents> contentsOf(const std::vector<StoredBackup>& chain)
{
    if (chain.back().manifest.format == 1)
        return std::make_unique<FolderContents>(chain);
    return std::make_unique<ImageContents>(chain.back());
}

// What is on its way at once.
constexpr std::size_t most_ahead = 16;

class Pairs
{
  public:
    Pairs(Contents& a, Contents& b, std::uint32_t unit, Ranges& found) : a_{a}, b_{b}, unit_{unit}, found_{found} {}
    void add(std::uint64_t offset, std::uint64_t bytes)
    {
        Slot& slot = slots_[used_++];
        slot.offset = offset;
        slot.a.resize(bytes);
        slot.b.resize(bytes);
        slot.request_a = a_.begin(offset, slot.a);
        slot.request_b = b_.begin(offset, slot.b);
        if (used_ == slots_.size())
            finish();
    }
    void finish()
    {
        for (Slot& slot : std::span{slots_}.first(used_)) {
            a_.end(slot.request_a);
            b_.end(slot.request_b);
            compare(slot);
        }
        used_ = 0;
    }

  private:
    struct Slot {
        std::uint64_t offset = 0;
        std::vector<std::byte> a;
        std::vector<std::byte> b;
        std::int64_t request_a = 0;
        std::int64_t request_b = 0;
    };
    void compare(const Slot& slot)
    {
        for (std::size_t at = 0; at < slot.a.size();) {
            const std::size_t part = std::min<std::size_t>(slot.a.size() - at, unit_ - (slot.offset + at) % unit_);
            if (std::memcmp(slot.a.data() + at, slot.b.data() + at, part) != 0)
                found_.add(slot.offset + at, part);
            at += part;
        }
    }

    Contents& a_;
    Contents& b_;
    std::uint32_t unit_;
    Ranges& found_;
    std::array<Slot, most_ahead> slots_;
    std::size_t used_ = 0;
};

} // namespace

DifferenceReport findDifferences(const StoredBackup& a, const StoredBackup& b, Progress& progress,
                                 const StopSignal& stop,
                                 const std::function<void(std::uint64_t offset, std::uint64_t bytes)>& differs)
{
    const auto chain_a = Repository{a.path.parent_path()}.chain(a);
    const auto chain_b = Repository{b.path.parent_path()}.chain(b);
    const auto [both, larger] = std::minmax({a.manifest.deviceBytes, b.manifest.deviceBytes});
    DifferenceReport report{larger, std::min(a.manifest.blockSize, b.manifest.blockSize)};
    const Ranges suspects = whereTheyMayDiffer(chain_a, chain_b, both);
    std::uint64_t total = 0;
    for (const Range& range : suspects.all())
        total += range.bytes;

    Ranges found;
    if (!suspects.all().empty()) {
        progress.begin("comparing " + a.manifest.id + " with " + b.manifest.id, total);
        const auto contents_a = contentsOf(chain_a);
        const auto contents_b = contentsOf(chain_b);
        Pairs pairs{*contents_a, *contents_b, report.unit, found};
        for (const Range& range : suspects.all())
            for (std::uint64_t at = range.offset, end = std::min(both, range.offset + range.bytes); at < end;) {
                throwIfStopped(stop);
                const std::uint64_t part = std::min<std::uint64_t>(end - at, image_piece_bytes);
                pairs.add(at, part);
                at += part;
                report.compared += part;
                progress.advance(part);
            }
        pairs.finish();
        progress.end();
    }
    if (larger > both)
        found.add(both, larger - both);
    for (const Range& range : found.all()) {
        ++report.ranges;
        report.differing += range.bytes;
        differs(range.offset, range.bytes);
    }
    return report;
}

} // namespace qbackup
