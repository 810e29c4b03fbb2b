// SPDX-License-Identifier: GPL-2.0-only
#include "image_merge.h"

#include "child_process.h"
#include "data_file.h"
#include "image_backup.h"
#include "image_layer.h"
#include "image_writer.h"

#include <nlohmann/json.hpp>

#include <fcntl.h>

#include <algorithm>
#include <cerrno>
#include <deque>
#include <memory>
#include <utility>

namespace qbackup
{
namespace
{

using nlohmann::json;

constexpr const char* journal_name = ".merge.json";
constexpr const char* made = "merge"; // what is made is called so until it has its place

struct Layer {
    std::string id;
    std::string sumsHash;
};

// What is to be done.
struct Journal {
    std::vector<Layer> layers; // the oldest first; the last one is kept
    bool intoFull = false;     // the oldest one is full, and takes up the others
    std::uint64_t bytes = 0;   // of the device
    std::string made;          // the hash of the manifest that the one that is kept gets
};

fs::path madeFile(const fs::path& folder, const char* end) { return partialOf(folder, made, end); }

void write(const fs::path& folder, const Journal& journal)
{
    json document{{"intoFull", journal.intoFull}, {"bytes", journal.bytes}, {"manifestHash", journal.made}, {"layers", json::array()}};
    for (const Layer& layer : journal.layers)
        document["layers"].push_back({{"id", layer.id}, {"sumsHash", layer.sumsHash}});
    const fs::path fresh = folder / (std::string{partial_prefix} + "journal");
    std::error_code error;
    fs::remove(fresh, error);
    writeDurably(fresh, asBytes(document.dump(2) + "\n"));
    moveFile(fresh, folder / journal_name);
    syncDirectory(folder);
}

Journal read(const fs::path& folder)
try {
    const json document = json::parse(readText(folder / journal_name));
    Journal journal{{}, document.at("intoFull"), document.at("bytes"), document.at("manifestHash")};
    for (const json& layer : document.at("layers"))
        journal.layers.push_back({layer.at("id"), layer.at("sumsHash")});
    return journal;
} catch (const json::exception& error) {
    throw Failure{Exit::damaged, (folder / journal_name).string() + " cannot be understood: " + error.what()};
}

// Of all layers together, so that many of them take no more memory than one.
constexpr std::size_t pieces_ahead = 64;

// Those from `from` on, the newest on top.
MergedLayers merged(const fs::path& folder, const Journal& journal, std::size_t from)
{
    std::vector<std::unique_ptr<LayerReader>> layers;
    for (std::size_t i = journal.layers.size(); i-- > from;)
        layers.push_back(std::make_unique<ImageLayer>(fileOf(folder, journal.layers[i].id, image_end), fileOf(folder, journal.layers[i].id, sums_end),
                                                      journal.layers[i].sumsHash, journal.bytes,
                                                      std::max<std::size_t>(4, pieces_ahead / (journal.layers.size() - from))));
    return MergedLayers{std::move(layers)};
}

void put(ImageWriter& writer, const LayerReader::Piece& piece)
{
    if (piece.data.empty())
        writer.putZeros(piece.offset, piece.bytes);
    else
        writer.put(piece.offset, piece.data);
}

// The cells of an image of which other layers have a part: read before their turn comes, but for those that they have whole.
class CellsAhead
{
  public:
    // `sums`: of the layers, the newest first. `image` is used by at() alone, and ends before this.
    CellsAhead(OpenImage& image, std::vector<std::unique_ptr<SumsReader>> sums, std::uint64_t end)
        : image_{image}, end_{end}, pieces_{std::move(sums)}, piece_{pieces_.next()}
    {
    }

    // What the image has in a cell, until the next call; empty when nothing of that is left. Cells are asked for in ascending
    // order.
    std::span<const std::byte> at(std::uint64_t cell)
    {
        while (!requests_.empty() && requests_.front().cell < cell)
            done();
        while (requests_.size() < most && askNext()) {
        }
        if (requests_.empty() || requests_.front().cell != cell)
            throw Failure{Exit::failed, "internal error: the sums of the layers do not tell of byte " + std::to_string(cell)};
        Request& request = requests_.front();
        if (!std::exchange(request.is_there, true))
            image_.wait(request.number);
        return request.data;
    }

  private:
    static constexpr std::size_t most = 32;
    struct Request {
        std::uint64_t cell;
        std::vector<std::byte> data;
        std::int64_t number = 0;
        bool is_there = false;
    };

    void done()
    {
        if (!requests_.front().is_there)
            image_.wait(requests_.front().number);
        requests_.pop_front();
    }

    // Whether there is one.
    bool askNext()
    {
        if (!piece_)
            return false;
        const std::uint64_t cell = piece_->offset - piece_->offset % cell_bytes;
        const std::uint64_t size = std::min<std::uint64_t>(cell_bytes, end_ - cell);
        std::uint64_t covered = 0;
        while (piece_ && piece_->offset < cell + size) {
            const std::uint64_t part = std::min<std::uint64_t>(piece_->bytes, cell + size - piece_->offset);
            covered += part;
            if (part == piece_->bytes)
                piece_ = pieces_.next();
            else
                piece_ = cut(*piece_, part, piece_->bytes - part);
        }
        Request& request = requests_.emplace_back(Request{cell, {}, 0, covered == size});
        if (covered < size) {
            request.data.resize(size);
            request.number = image_.read(cell, request.data);
        }
        return true;
    }

    OpenImage& image_;
    std::uint64_t end_; // of the last block
    Merged<std::unique_ptr<SumsReader>, LayerPiece> pieces_;
    std::optional<LayerPiece> piece_; // what is left of the one that is next
    std::deque<Request> requests_;    // a deque: the data stays where it is
};

// The sums of a full image as they will be when other layers have been written into it. Of the image only the cells are
// read of which others have a part.
class SumsOfMerged
{
  public:
    // `layers`: the sums of those that are written into it, the newest first.
    SumsOfMerged(const fs::path& image, SumsReader sums, std::vector<std::unique_ptr<SumsReader>> layers, const fs::path& result, std::uint64_t end)
        : image_path_{image}, end_{end}, old_{std::move(sums)}, ahead_{image_, std::move(layers), end}, image_{image, OpenImage::For::reading},
          result_{result}, cell_(cell_bytes)
    {
        record_ = old_.next();
    }

    void add(const LayerReader::Piece& piece)
    {
        std::uint64_t at = piece.offset;
        const std::uint64_t stop = piece.offset + piece.bytes;
        while (at < stop) {
            const std::uint64_t cell = at - at % cell_bytes;
            const std::uint64_t part = std::min(stop, cell + cell_bytes) - at;
            if (!open_ || cell != cell_at_) {
                closeCell();
                openCell(cell);
            }
            const auto to = cell_.begin() + static_cast<std::ptrdiff_t>(at - cell);
            if (piece.data.empty())
                std::fill_n(to, part, std::byte{0});
            else
                std::copy_n(piece.data.begin() + static_cast<std::ptrdiff_t>(at - piece.offset), part, to);
            at += part;
        }
    }

    struct Result {
        std::string hash;
        std::uint64_t dataBytes;
    };
    Result finish()
    {
        closeCell();
        passOn(end_);
        endZeros();
        return {result_.finish(), data_bytes_};
    }

  private:
    std::uint64_t sizeOf(std::uint64_t cell) const { return std::min<std::uint64_t>(cell_bytes, end_ - cell); }

    // The old records up to `until`, the border of a cell, as they are.
    void passOn(std::uint64_t until)
    {
        while (record_ && record_->offset < until)
            add(takeUpTo(until));
    }

    // The old record, or its part before `until`; only zeros reach beyond a cell.
    LayerPiece takeUpTo(std::uint64_t until)
    {
        LayerPiece piece = *record_;
        if (piece.offset + piece.bytes > until) {
            piece.bytes = static_cast<std::uint32_t>(until - piece.offset);
            record_->bytes -= piece.bytes;
            record_->offset = until;
        } else {
            record_ = old_.next();
        }
        return piece;
    }

    void openCell(std::uint64_t cell)
    {
        passOn(cell);
        open_ = true;
        cell_at_ = cell;
        std::fill(cell_.begin(), cell_.end(), std::byte{0});
        const std::span<const std::byte> before = ahead_.at(cell);
        while (record_ && record_->offset < cell + sizeOf(cell)) {
            const LayerPiece piece = takeUpTo(cell + sizeOf(cell));
            if (piece.zeros || before.empty())
                continue;
            const auto data = before.subspan(piece.offset - cell, piece.bytes);
            std::copy(data.begin(), data.end(), cell_.begin() + static_cast<std::ptrdiff_t>(piece.offset - cell));
            if (!XXH128_isEqual(XXH3_128bits(data.data(), data.size()), piece.hash))
                throw Failure{Exit::damaged, image_path_.string() + " is damaged between byte " + std::to_string(piece.offset) + " and byte " +
                                                 std::to_string(piece.offset + piece.bytes) + " of the disk"};
        }
    }

    void closeCell()
    {
        if (!open_)
            return;
        open_ = false;
        const std::span<const std::byte> all = std::span{cell_}.first(sizeOf(cell_at_));
        for (std::size_t at = 0; at < all.size();) {
            const auto granule = [&](std::size_t from) { return all.subspan(from, std::min<std::size_t>(image_granule_bytes, all.size() - from)); };
            const bool zeros = allZero(granule(at));
            std::size_t stop = at;
            while (stop < all.size() && allZero(granule(stop)) == zeros)
                stop += granule(stop).size();
            LayerPiece piece{cell_at_ + at, static_cast<std::uint32_t>(stop - at), zeros};
            if (!zeros)
                piece.hash = XXH3_128bits(all.data() + at, stop - at);
            add(piece);
            at = stop;
        }
    }

    // Zeros that touch become one record.
    void add(const LayerPiece& piece)
    {
        constexpr std::uint32_t most = 1u << 30;
        if (piece.zeros && zeros_.bytes != 0 && zeros_.offset + zeros_.bytes == piece.offset && zeros_.bytes + piece.bytes <= most) {
            zeros_.bytes += piece.bytes;
            return;
        }
        endZeros();
        if (piece.zeros) {
            zeros_ = piece;
        } else {
            result_.add(piece);
            data_bytes_ += piece.bytes;
        }
    }
    void endZeros()
    {
        if (zeros_.bytes != 0)
            result_.add(zeros_);
        zeros_ = {};
    }

    fs::path image_path_;
    std::uint64_t end_; // of the last block
    SumsReader old_;
    std::optional<LayerPiece> record_; // what is left of the one that is next
    CellsAhead ahead_;
    OpenImage image_; // behind what it reads into: ends before that goes
    SumsWriter result_;
    std::vector<std::byte> cell_; // as it will be
    std::uint64_t cell_at_ = 0;
    bool open_ = false;
    LayerPiece zeros_; // being gathered
    std::uint64_t data_bytes_ = 0;
};

// Into what takes the place of the last one's image: over an older one, or a compressed full one.
std::unique_ptr<ImageWriter> newImage(const fs::path& folder, const Manifest& manifest)
{
    const fs::path image = madeFile(folder, image_end);
    const fs::path sums = madeFile(folder, sums_end);
    if (manifest.compressed) {
        createCompressed(image, manifest.deviceBytes);
        return std::make_unique<ImageWriter>(image, sums, manifest.deviceBytes);
    }
    createImage(image, manifest.deviceBytes, manifest.parent + image_end);
    return std::make_unique<ImageWriter>(image, sums, ZerosAre::written);
}

// Makes what takes the place of the last one's files, and changes nothing.
void prepare(const fs::path& folder, const std::vector<StoredBackup>& run, Journal& journal, Progress& progress, const StopSignal& stop)
{
    const StoredBackup& oldest = run.front();
    Manifest manifest = run.back().manifest;
    manifest.mode = oldest.manifest.mode;
    manifest.parent = oldest.manifest.parent;
    manifest.parentMark = oldest.manifest.parentMark;
    manifest.fullReason = oldest.manifest.fullReason;
    manifest.compressed = oldest.manifest.compressed;
    if (manifest.mode == Mode::full)
        manifest.compared.clear();
    const auto each = [&](MergedLayers layers, const auto& use) {
        for (auto piece = layers.next(); piece; piece = layers.next()) {
            throwIfStopped(stop);
            progress.advance(piece->data.size());
            use(*piece);
        }
    };
    if (journal.intoFull) {
        std::vector<std::unique_ptr<SumsReader>> layers;
        for (std::size_t i = journal.layers.size(); i-- > 1;)
            layers.push_back(std::make_unique<SumsReader>(fileOf(folder, journal.layers[i].id, sums_end), journal.layers[i].sumsHash));
        SumsOfMerged sums{oldest.path, SumsReader{besides(oldest, sums_end), oldest.manifest.sumsHash}, std::move(layers), madeFile(folder, sums_end),
                          std::uint64_t{manifest.blocks} * manifest.blockSize};
        each(merged(folder, journal, 1), [&](const LayerReader::Piece& piece) { sums.add(piece); });
        const auto result = sums.finish();
        manifest.sumsHash = result.hash;
        manifest.dataBytes = result.dataBytes;
        manifest.copiedBlocks = manifest.blocks;
    } else {
        const std::unique_ptr<ImageWriter> writer = newImage(folder, manifest);
        each(merged(folder, journal, 0), [&](const LayerReader::Piece& piece) { put(*writer, piece); });
        manifest.sumsHash = writer->finish();
        manifest.dataBytes = writer->dataBytes();
        manifest.copiedBlocks = static_cast<std::uint32_t>(writer->received() / manifest.blockSize);
    }
    const std::string text = encode(manifest);
    journal.made = hashText(asBytes(text));
    writeDurably(madeFile(folder, manifest_end), asBytes(text));
    syncDirectory(folder);
}

// Space that is taken, until it is needed for something else.
class Reserve
{
  public:
    // Throws Failure when there is not so much.
    Reserve(const fs::path& folder, std::uint64_t bytes) : path_{madeFile(folder, ".space")}
    {
        const File file{path_, O_WRONLY | O_CREAT};
        int problem = 0;
        do
            problem = ::fallocate(file.fd(), 0, 0, static_cast<off_t>(bytes)) == 0 ? 0 : errno;
        while (problem == EINTR);
        // Not every file system can.
        if (problem != ENOSPC && problem != EDQUOT && problem != EFBIG && problem != EIO)
            return;
        giveBack();
        throw Failure{exitOf(problem), "cannot drop backups from " + folder.string() + ": " + formatBytes(bytes) +
                                           " are needed there for it, and are not free: " + errnoText(problem) + ". Make room, or drop fewer at once"};
    }
    ~Reserve() { giveBack(); }
    Reserve(const Reserve&) = delete;
    Reserve& operator=(const Reserve&) = delete;
    void giveBack()
    {
        std::error_code error;
        fs::remove(path_, error);
    }

  private:
    fs::path path_;
};

// What writing the others into the full image may take: their data, and tables for it.
std::uint64_t spaceFor(const std::vector<StoredBackup>& run)
{
    std::uint64_t bytes = 0;
    for (std::size_t i = 1; i < run.size(); ++i)
        bytes += run[i].manifest.dataBytes;
    const std::uint64_t most = run.front().manifest.deviceBytes;
    return std::min(bytes, most) + most / 4096 + (2u << 20);
}

// Files that have their place already are those of an earlier try.
void takePlace(const fs::path& folder, const char* end, const std::string& id)
{
    if (isPresent(madeFile(folder, end)))
        moveFile(madeFile(folder, end), fileOf(folder, id, end));
}

// The others' data goes into the full one. Done again from its start if it is ended.
void takeUp(const fs::path& folder, const Journal& journal, ImageWriter& writer, const StopSignal& stop)
{
    MergedLayers layers = merged(folder, journal, 1);
    for (auto piece = layers.next(); piece; piece = layers.next()) {
        if (stop.load(std::memory_order_relaxed) != 0)
            throw Failure{Exit::failed, "dropping backups from " + folder.string() + " was ended by a signal; the next command there finishes it"};
        put(writer, *piece);
    }
    writer.finish();
}

// What the journal is about, from where it is now: under its own name, or in its place already.
void expectWork(const fs::path& folder, const Journal& journal)
{
    const std::string& kept = journal.layers.back().id;
    const auto place = [&](const char* end) { return isPresent(madeFile(folder, end)) ? madeFile(folder, end) : fileOf(folder, kept, end); };
    const fs::path manifest = place(manifest_end);
    const std::string text = readText(manifest);
    if (hashText(asBytes(text)) != journal.made)
        throw Failure{Exit::damaged, manifest.string() + " is not what " + (folder / journal_name).string() + " is about"};
    const std::string sums_hash = decode(text, manifest.string()).sumsHash;
    if (journal.intoFull && isPresent(fileOf(folder, journal.layers.front().id, image_end))) {
        SumsReader{place(sums_end), sums_hash};
        MergedLayers layers = merged(folder, journal, 1);
        while (layers.next())
            ;
        return;
    }
    ImageLayer layer{place(image_end), place(sums_end), sums_hash, journal.bytes};
    while (layer.next())
        ;
}

// Whether there is something to finish. A journal that came into a copy of the folder without all that it is about tells of
// nothing, as long as nothing of what is dropped is gone. Throws Failure when it is.
bool isThere(const fs::path& folder, const Journal& journal)
try {
    expectWork(folder, journal);
    return true;
} catch (const Failure&) {
    for (const Layer& layer : std::span{journal.layers.data(), journal.layers.size() - 1})
        if (!isPresent(fileOf(folder, layer.id, manifest_end)))
            throw;
    return false;
}

// `writer`: of the full image; none: it is opened here.
void carryOut(const fs::path& folder, const Journal& journal, const MergeWatcher& watcher, const StopSignal& stop, std::unique_ptr<ImageWriter> writer)
{
    const auto step = [&](const char* name) {
        if (watcher)
            watcher(name);
    };
    const std::string& kept = journal.layers.back().id;
    const std::span dropped{journal.layers.data(), journal.layers.size() - 1};
    step("manifests");
    for (const Layer& layer : dropped)
        removeFile(fileOf(folder, layer.id, manifest_end));
    syncDirectory(folder);
    if (journal.intoFull) {
        const fs::path full = fileOf(folder, dropped.front().id, image_end);
        if (isPresent(full)) {
            if (!writer) {
                // What was cut off may have taken clusters that nothing names.
                ChildProcess check{{"qemu-img", "check", "-q", "-r", "leaks", full.string()}, "qemu-utils"};
                if (!check.wait())
                    throw Failure{Exit::damaged, "cannot go on with " + full.string() + ": " + check.said()};
                writer = std::make_unique<ImageWriter>(full, "", ZerosAre::written);
            }
            step("data");
            takeUp(folder, journal, *writer, stop);
            writer.reset();
            step("image");
            moveFile(full, fileOf(folder, kept, image_end));
        }
    } else {
        step("image");
        takePlace(folder, image_end, kept);
    }
    // Whatever is read again after a power cut: the image's new name is there before its new sums are.
    syncDirectory(folder);
    step("sums");
    takePlace(folder, sums_end, kept);
    step("manifest");
    takePlace(folder, manifest_end, kept);
    syncDirectory(folder);
    step("files");
    for (const Layer& layer : dropped)
        for (const char* end : {image_end, sums_end})
            removeFile(fileOf(folder, layer.id, end));
    syncDirectory(folder);
    step("journal");
    removeFile(folder / journal_name);
    syncDirectory(folder);
    step("done");
}

} // namespace

void mergeBackups(const fs::path& folder, const std::vector<StoredBackup>& run, Progress& progress, const StopSignal& stop,
                  const MergeWatcher& watcher)
{
    Journal journal{{}, run.front().manifest.mode == Mode::full && !run.front().manifest.compressed, run.front().manifest.deviceBytes, ""};
    for (const StoredBackup& backup : run)
        journal.layers.push_back({backup.manifest.id, backup.manifest.sumsHash});
    const auto clear = [&] {
        std::error_code error;
        for (const char* end : {image_end, sums_end, manifest_end})
            fs::remove(madeFile(folder, end), error);
    };
    clear();
    std::unique_ptr<ImageWriter> writer;
    try {
        prepare(folder, run, journal, progress, stop);
        if (journal.intoFull) {
            Reserve reserve{folder, spaceFor(run)};
            // Open from here on: nobody else can open it to read.
            writer = std::make_unique<ImageWriter>(run.front().path, "", ZerosAre::written);
        }
        if (watcher)
            watcher("prepared");
        write(folder, journal);
    } catch (...) {
        clear();
        throw;
    }
    carryOut(folder, journal, watcher, stop, std::move(writer));
}

void dropBackups(const fs::path& folder, const std::vector<StoredBackup>& dropped)
{
    // The newest first: what is left at any moment has all that it builds on. Its manifest gets the name of one that is in
    // the making: by that the next run knows that the rest goes.
    for (auto backup = dropped.rbegin(); backup != dropped.rend(); ++backup) {
        const std::string& id = backup->manifest.id;
        moveFile(fileOf(folder, id, manifest_end), partialOf(folder, id, manifest_end));
        syncDirectory(folder);
        for (const char* end : {image_end, sums_end})
            removeFile(fileOf(folder, id, end));
        syncDirectory(folder);
        removeFile(partialOf(folder, id, manifest_end));
    }
    syncDirectory(folder);
}

bool isMergeUnfinished(const fs::path& folder)
{
    return isPresent(folder / journal_name);
}

void finishMerge(const fs::path& folder, const MergeWatcher& watcher)
{
    if (!isMergeUnfinished(folder))
        return;
    const StopSignal never{0};
    const Journal journal = read(folder);
    if (isThere(folder, journal)) {
        carryOut(folder, journal, watcher, never, nullptr);
        return;
    }
    removeFile(folder / journal_name);
    syncDirectory(folder);
}

std::set<std::string> idsGoing(const fs::path& folder)
try {
    std::set<std::string> ids;
    if (!isMergeUnfinished(folder))
        return ids;
    const Journal journal = read(folder);
    for (const Layer& layer : std::span{journal.layers.data(), journal.layers.size() - 1})
        if (!isPresent(fileOf(folder, layer.id, manifest_end)))
            ids.insert(layer.id);
    return ids;
} catch (const Failure&) {
    if (isMergeUnfinished(folder))
        throw;
    return {}; // it has just been finished
}

} // namespace qbackup
