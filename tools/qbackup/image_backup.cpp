// SPDX-License-Identifier: GPL-2.0-only
#include "image_backup.h"

#include "data_file.h"
#include "failure.h"
#include "layer_sums.h"
#include "qemu_image.h"

#include <fcntl.h>

#include <algorithm>
#include <array>
#include <deque>
#include <set>
#include <utility>

namespace qbackup
{
namespace
{

constexpr const char* image_end = ".qcow2";
constexpr const char* sums_end = ".sums";
constexpr const char* manifest_end = ".json";

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

fs::path fileOf(const fs::path& folder, const std::string& id, const char* end) { return folder / (id + end); }
fs::path partialOf(const fs::path& folder, const std::string& id, const char* end) { return folder / (partial_prefix + id + end); }

// What the backup keeps beside its image.
fs::path besides(const StoredBackup& backup, const char* end) { return backup.path.parent_path() / (backup.manifest.id + end); }

// Puts blocks into an image: pieces of data, each hashed and written while the next ones come. Zeros that lie over
// something are made; over nothing they are there already.
class ImageWriter
{
  public:
    ImageWriter(const fs::path& image, const fs::path& sums, bool over_another)
        : image_{image, OpenImage::For::writing}, sums_{sums}, over_another_{over_another}
    {
        for (Slot& slot : slots_)
            slot.data.resize(image_piece_bytes);
    }

    void put(std::uint64_t offset, std::span<const std::byte> bytes)
    {
        while (!bytes.empty()) {
            // To the next border of what an image keeps apart.
            const auto part = bytes.first(std::min<std::size_t>(bytes.size(), image_granule_bytes - offset % image_granule_bytes));
            allZero(part) ? addZeros(offset, part.size()) : addData(offset, part);
            offset += part.size();
            bytes = bytes.subspan(part.size());
        }
    }

    // The hash of what the image holds.
    std::string finish()
    {
        endData();
        endZeros();
        for (Slot& slot : slots_)
            settle(slot);
        image_.flush();
        image_.finish();
        return sums_.finish();
    }

    std::uint64_t dataBytes() const noexcept { return data_bytes_; }
    std::uint64_t received() const noexcept { return received_; }

  private:
    struct Slot {
        std::vector<std::byte> data;
        std::int64_t request = 0; // none: 0
    };

    void settle(Slot& slot)
    {
        if (slot.request != 0)
            image_.wait(slot.request);
        slot.request = 0;
    }

    Slot& current() { return slots_[slot_]; }
    void nextSlot()
    {
        slot_ = (slot_ + 1) % slots_.size();
        settle(current());
    }

    void addData(std::uint64_t offset, std::span<const std::byte> part)
    {
        endZeros();
        if (data_.bytes != 0 && (data_.offset + data_.bytes != offset || offset % image_piece_bytes == 0))
            endData();
        if (data_.bytes == 0)
            data_.offset = offset;
        std::copy(part.begin(), part.end(), current().data.begin() + data_.bytes);
        data_.bytes += static_cast<std::uint32_t>(part.size());
        received_ += part.size();
    }

    void endData()
    {
        if (data_.bytes == 0)
            return;
        const std::span<const std::byte> bytes{current().data.data(), data_.bytes};
        data_.hash = XXH3_128bits(bytes.data(), bytes.size());
        sums_.add(data_);
        current().request = image_.write(data_.offset, bytes);
        data_bytes_ += bytes.size();
        data_ = {};
        nextSlot();
    }

    void addZeros(std::uint64_t offset, std::size_t bytes)
    {
        endData();
        received_ += bytes;
        if (zeros_.bytes != 0 && (zeros_.offset + zeros_.bytes != offset || zeros_.bytes >= most_zeros))
            endZeros();
        if (zeros_.bytes == 0)
            zeros_.offset = offset;
        zeros_.bytes += static_cast<std::uint32_t>(bytes);
    }

    void endZeros()
    {
        if (zeros_.bytes == 0)
            return;
        zeros_.zeros = true;
        sums_.add(zeros_);
        if (over_another_) {
            current().request = image_.zero(zeros_.offset, zeros_.bytes);
            nextSlot();
        }
        zeros_ = {};
    }

    static constexpr std::uint32_t most_zeros = 1u << 30;

    std::array<Slot, 16> slots_; // used in turn; the current one is free
    OpenImage image_;
    SumsWriter sums_;
    bool over_another_;
    std::size_t slot_ = 0;
    LayerPiece data_;  // being gathered, in the current slot
    LayerPiece zeros_; // being gathered; at most one of the two
    std::uint64_t data_bytes_ = 0;
    std::uint64_t received_ = 0;
};

class PendingImage : public PendingBackup
{
  public:
    PendingImage(fs::path folder, const std::string& id) : folder_{std::move(folder)}, id_{id} { requireQemu(); }
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
        const fs::path image = partialOf(folder_, id_, image_end);
        createImage(image, manifest.deviceBytes, parent ? parent->path.filename().string() : "");
        writer_.emplace(image, partialOf(folder_, id_, sums_end), parent.has_value());
    }

    void put(std::uint32_t first, std::span<const std::byte> blocks) override
    {
        writer_->put(std::uint64_t{first} * block_size_, blocks);
    }

    StoredBackup commit(Manifest manifest, const quendrel::Bitmap& map, const Watcher& watcher) override
    {
        const auto step = [&](const char* name) {
            if (watcher)
                watcher(name);
        };
        const std::uint64_t expected = std::uint64_t{map.count()} * manifest.blockSize;
        if (writer_->received() != expected)
            throw Failure{Exit::failed, "internal error: " + std::to_string(writer_->received()) +
                                            " bytes copied, but the map stands for " + std::to_string(expected)};
        manifest.format = 2;
        manifest.id = id_;
        manifest.sequence = static_cast<std::uint32_t>(std::stoul(id_));
        manifest.copiedBlocks = map.count();
        step("data");
        manifest.sumsHash = writer_->finish();
        manifest.dataBytes = writer_->dataBytes();
        writer_.reset();
        File{partialOf(folder_, id_, image_end), O_RDONLY}.sync();
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
        return {fileOf(folder_, id_, image_end), std::move(manifest), hashText(asBytes(text))};
    }

  private:
    void rename(const char* end) { fs::rename(partialOf(folder_, id_, end), fileOf(folder_, id_, end)); }

    fs::path folder_;
    std::string id_;
    std::uint32_t block_size_ = 0;
    bool named_ = false; // files may have their names already
    bool done_ = false;
    std::optional<ImageWriter> writer_;
};

// Reads ahead: the requests for the next pieces are on their way while one is looked at.
class ImageLayer : public LayerReader
{
  public:
    explicit ImageLayer(const StoredBackup& backup)
        : path_{backup.path}, bytes_{backup.manifest.deviceBytes}, full_{backup.manifest.mode == Mode::full},
          sums_{besides(backup, sums_end), backup.manifest.sumsHash}, image_{backup.path, OpenImage::For::reading},
          layout_{image_.layout()}
    {
        expectNothingElse(backup);
    }

    std::optional<Piece> next() override
    {
        if (handed_out_)
            ahead_.pop_front();
        handed_out_ = false;
        fill();
        if (ahead_.empty())
            return std::nullopt;
        Request& first = ahead_.front();
        handed_out_ = true;
        if (!first.piece.zeros)
            image_.wait(first.request);
        if (!first.piece.zeros && !XXH128_isEqual(XXH3_128bits(first.data.data(), first.data.size()), first.piece.hash))
            throw damage(first.piece.offset, first.piece.offset + first.piece.bytes);
        return Piece{first.piece.offset, first.piece.bytes, first.data};
    }

  private:
    struct Request {
        LayerPiece piece;
        std::vector<std::byte> data;
        std::int64_t request;
    };
    static constexpr std::size_t most_ahead = 8;

    Failure damage(std::uint64_t from, std::uint64_t to) const
    {
        return Failure{Exit::damaged, path_.string() + " is damaged between byte " + std::to_string(from) + " and byte " +
                                          std::to_string(to) + " of the disk"};
    }

    void fill()
    {
        while (ahead_.size() < most_ahead) {
            const std::optional<LayerPiece> piece = sums_.next();
            if (!piece)
                return;
            if (piece->offset + piece->bytes > bytes_ || (piece->zeros && !isZero(piece->offset, piece->bytes)))
                throw damage(piece->offset, piece->offset + piece->bytes);
            ahead_.push_back({*piece, std::vector<std::byte>(piece->zeros ? 0 : piece->bytes), 0});
            if (!piece->zeros)
                ahead_.back().request = image_.read(piece->offset, ahead_.back().data);
        }
    }

    // By what QEMU says of it; it is asked about in ascending order.
    bool isZero(std::uint64_t offset, std::uint64_t bytes)
    {
        const auto& zeros = layout_.zeros;
        while (next_zeros_ < zeros.size() && zeros[next_zeros_].offset + zeros[next_zeros_].bytes <= offset)
            ++next_zeros_;
        return next_zeros_ < zeros.size() && zeros[next_zeros_].offset <= offset &&
               zeros[next_zeros_].offset + zeros[next_zeros_].bytes >= offset + bytes;
    }

    // What the image has but the sums do not would be in whatever is read through it.
    void expectNothingElse(const StoredBackup& backup)
    {
        SumsReader sums{besides(backup, sums_end), backup.manifest.sumsHash};
        // Over nothing, zeros are nothing.
        const auto nextOwn = [&] {
            std::optional<LayerPiece> piece = sums.next();
            while (piece && piece->zeros && full_)
                piece = sums.next();
            return piece;
        };
        std::optional<LayerPiece> piece = nextOwn();
        for (const OpenImage::Part& part : layout_.own) {
            std::uint64_t at = part.offset;
            const std::uint64_t end = part.offset + part.bytes;
            while (at < end) {
                while (piece && roundedUp(piece->offset + piece->bytes) <= at)
                    piece = nextOwn();
                if (!piece || piece->offset > at)
                    throw Failure{Exit::damaged, path_.string() + " is damaged: it has data at byte " + std::to_string(at) +
                                                     " of the disk, where nothing was stored"};
                at = roundedUp(piece->offset + piece->bytes);
            }
        }
    }

    static std::uint64_t roundedUp(std::uint64_t bytes)
    {
        return (bytes + image_granule_bytes - 1) / image_granule_bytes * image_granule_bytes;
    }

    fs::path path_;
    std::uint64_t bytes_;
    bool full_;
    SumsReader sums_;
    std::deque<Request> ahead_; // a deque: the data stays where it is
    bool handed_out_ = false;   // the first one
    OpenImage image_;           // behind what it reads into: ends before that goes
    OpenImage::Layout layout_;
    std::size_t next_zeros_ = 0; // where in the layout's zeros
};

} // namespace

std::string idOf(const fs::path& path)
{
    const std::string end = path.extension();
    return end == image_end || end == sums_end || end == manifest_end ? path.stem() : path.filename();
}

bool looksLikeImageBackup(const fs::path& path)
{
    std::error_code error;
    const std::string id = idOf(path);
    return isId(id) && (fs::exists(fileOf(path.parent_path(), id, manifest_end), error) ||
                        fs::exists(fileOf(path.parent_path(), id, image_end), error));
}

StoredBackup readImageBackup(const fs::path& path)
{
    const std::string id = idOf(path);
    const fs::path manifest = fileOf(path.parent_path(), id, manifest_end);
    if (std::error_code error; fs::status(manifest, error).type() == fs::file_type::not_found)
        throw Failure{Exit::damaged, manifest.string() + " is missing"};
    const std::string text = readText(manifest);
    StoredBackup backup{fileOf(path.parent_path(), id, image_end), decode(text, manifest.string()), hashText(asBytes(text))};
    if (id != backup.manifest.id)
        throw Failure{Exit::damaged, manifest.string() + " is the manifest of backup " + backup.manifest.id +
                                         "; give its files that name again"};
    return backup;
}

void expectImageComplete(const StoredBackup& backup)
{
    std::error_code error;
    for (const fs::path& path : {backup.path, besides(backup, sums_end)})
        if (!fs::exists(path, error))
            throw Failure{Exit::damaged, path.string() + " is missing"};
}

std::unique_ptr<LayerReader> openImageLayer(const StoredBackup& backup)
{
    expectImageComplete(backup);
    return std::make_unique<ImageLayer>(backup);
}

std::vector<std::string> imageIds(const fs::path& folder)
{
    std::set<std::string> ids;
    std::error_code error;
    for (const fs::path& entry : entriesOf(folder))
        if (isId(idOf(entry)) && entry.has_extension() && !fs::exists(partialOf(folder, idOf(entry), manifest_end), error))
            ids.insert(idOf(entry));
    return {ids.begin(), ids.end()};
}

void removeDeadImages(const fs::path& folder)
{
    std::vector<fs::path> markers;
    for (const fs::path& entry : entriesOf(folder)) {
        const std::string name = entry.filename();
        if (!name.starts_with(partial_prefix) || fs::is_directory(entry))
            continue;
        const fs::path rest{name.substr(std::string{partial_prefix}.size())};
        if (rest.extension() != manifest_end) {
            fs::remove(entry);
            continue;
        }
        for (const char* end : {image_end, sums_end})
            fs::remove(fileOf(folder, idOf(rest), end));
        markers.push_back(entry);
    }
    if (markers.empty())
        return;
    syncDirectory(folder);
    for (const fs::path& marker : markers)
        fs::remove(marker);
}

std::unique_ptr<PendingBackup> beginImage(const fs::path& folder, std::uint32_t sequence, const std::string& stamp)
{
    return std::make_unique<PendingImage>(folder, numbered(sequence, stamp));
}

} // namespace qbackup
