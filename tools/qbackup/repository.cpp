// SPDX-License-Identifier: GPL-2.0-only
#include "repository.h"

#include "failure.h"
#include "utc.h"

#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <tuple>

namespace qbackup
{
namespace
{

constexpr const char* partial_prefix = ".partial-";
constexpr const char* lock_name = ".lock";

void writeDurably(const fs::path& path, std::span<const std::byte> bytes)
{
    File file{path, O_WRONLY | O_CREAT | O_EXCL};
    file.writeAt(0, bytes);
    file.sync();
    file.close();
}

bool looksLikeBackup(const fs::path& path)
{
    std::error_code error;
    return fs::exists(path / "manifest.json", error);
}

std::vector<std::byte> readChecked(const fs::path& path, const std::string& hash)
{
    const File file{path, O_RDONLY};
    std::vector<std::byte> bytes(file.size());
    file.readAt(0, bytes);
    if (hashText(bytes) != hash)
        throw Failure{Exit::damaged, path.string() + " is damaged: it does not match the hash in the manifest"};
    return bytes;
}

} // namespace

PendingBackup::PendingBackup(fs::path repository, std::uint32_t sequence, std::string stamp)
    : repository_{std::move(repository)}, directory_{repository_ /
                                                     (partial_prefix + stamp + "-" + std::to_string(::getpid()))},
      sequence_{sequence}, stamp_{std::move(stamp)}
{
    fs::create_directory(directory_);
    try {
        data_ = std::make_unique<DataWriter>(directory_ / "data");
    } catch (...) {
        std::error_code error;
        fs::remove_all(directory_, error);
        throw;
    }
}

PendingBackup::~PendingBackup()
{
    data_.reset();
    std::error_code error;
    if (!directory_.empty())
        fs::remove_all(directory_, error);
}

StoredBackup PendingBackup::commit(Manifest manifest, const quendrel::Bitmap& map, const Watcher& watcher)
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
    char number[16];
    std::snprintf(number, sizeof number, "%06u", sequence_);
    manifest.id = std::string{number} + "-" + stamp_ + "-" + toString(manifest.mode);
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
    fs::rename(directory_, final_name);
    directory_.clear();
    step("parent");
    syncDirectory(repository_);
    step("done");
    return {final_name, std::move(manifest), hashText(asBytes(text))};
}

Repository::Repository(fs::path directory) : directory_{std::move(directory)} {}

Repository::Repository(fs::path directory, File lock) : directory_{std::move(directory)}, lock_{std::move(lock)} {}

Repository Repository::openForBackup(const fs::path& target, const std::string& device)
{
    const fs::path directory = target / device;
    std::error_code error;
    if (!fs::is_directory(target, error))
        throw Failure{Exit::refused, "the target " + target.string() + " is not a directory; create it first"};
    fs::create_directory(directory, error);
    if (error)
        throw Failure{Exit::refused, "cannot create " + directory.string() + ": " + error.message()};
    File lock{directory / lock_name, O_RDWR | O_CREAT | O_NOFOLLOW};
    if (::flock(lock.fd(), LOCK_EX | LOCK_NB) != 0)
        throw Failure{Exit::busy, "another qbackup is writing to " + directory.string() + ". Wait for it to end"};
    for (const auto& entry : fs::directory_iterator{directory})
        if (entry.path().filename().string().starts_with(partial_prefix))
            fs::remove_all(entry.path());
    syncDirectory(target);
    return Repository{directory, std::move(lock)};
}

std::vector<StoredBackup> Repository::backups(std::vector<DamagedBackup>* damaged) const
{
    std::vector<StoredBackup> result;
    for (const auto& entry : fs::directory_iterator{directory_}) {
        if (!entry.is_directory() || entry.path().filename().string().starts_with("."))
            continue;
        try {
            result.push_back(readBackup(entry.path()));
        } catch (const Failure& failure) {
            if (damaged != nullptr)
                damaged->push_back({entry.path(), failure.what()});
        }
    }
    std::sort(result.begin(), result.end(), [](const StoredBackup& a, const StoredBackup& b) {
        return std::tie(a.manifest.sequence, a.manifest.id) < std::tie(b.manifest.sequence, b.manifest.id);
    });
    return result;
}

std::vector<StoredBackup> Repository::chain(const StoredBackup& last) const
{
    std::vector<StoredBackup> links{last};
    while (links.back().manifest.mode == Mode::incremental) {
        const Manifest& child = links.back().manifest;
        const std::string needed = links.back().directory.string() + " builds on backup " + child.parent;
        if (!looksLikeBackup(directory_ / child.parent))
            throw Failure{Exit::damaged, needed + ", which is missing in " + directory_.string()};
        StoredBackup parent = readBackup(directory_ / child.parent);
        if (parent.manifestHash != child.parentHash)
            throw Failure{Exit::damaged, needed + ", but another backup stands there under that name"};
        if (parent.manifest.blockSize != child.blockSize || parent.manifest.blocks != child.blocks ||
            parent.manifest.deviceBytes != child.deviceBytes || parent.manifest.sequence >= child.sequence)
            throw Failure{Exit::damaged, needed + ", which is not of the same size"};
        links.push_back(std::move(parent));
    }
    std::reverse(links.begin(), links.end());
    return links;
}

PendingBackup Repository::begin() const
{
    // A damaged backup keeps its number, which stands at the start of its name.
    std::uint32_t highest = 0;
    for (const auto& entry : fs::directory_iterator{directory_})
        highest =
            std::max(highest, static_cast<std::uint32_t>(std::strtoul(entry.path().filename().c_str(), nullptr, 10)));
    return PendingBackup{directory_, highest + 1, utcNow("%Y%m%dT%H%M%SZ")};
}

StoredBackup readBackup(const fs::path& directory)
{
    const fs::path path = directory / "manifest.json";
    const std::string text = readText(path);
    StoredBackup backup{directory, decode(text, path.string()), hashText(asBytes(text))};
    if (fs::canonical(directory).filename() != backup.manifest.id)
        throw Failure{Exit::damaged, directory.string() + " holds backup " + backup.manifest.id +
                                         "; give the directory that name again"};
    return backup;
}

quendrel::Bitmap readMap(const StoredBackup& backup)
{
    const fs::path path = backup.directory / "map";
    const std::vector<std::byte> bytes = readChecked(path, backup.manifest.mapHash);
    quendrel::Bitmap map{backup.manifest.blocks};
    if (bytes.size() != map.bytes().size())
        throw Failure{Exit::damaged, path.string() + " is not the map of " + std::to_string(map.blocks()) + " blocks"};
    std::memcpy(map.bytes().data(), bytes.data(), bytes.size());
    if (map.count() != backup.manifest.copiedBlocks)
        throw Failure{Exit::damaged, path.string() + " does not have as many blocks as the manifest says"};
    return map;
}

DataReader openData(const StoredBackup& backup)
{
    const Manifest& m = backup.manifest;
    if (m.dataBytes != std::uint64_t{m.copiedBlocks} * m.blockSize)
        throw Failure{Exit::damaged, backup.directory.string() + ": the manifest's sizes contradict each other"};
    return DataReader{backup.directory / "data", readChecked(backup.directory / "sums", m.sumsHash), m.dataBytes,
                      m.segmentBytes};
}

std::vector<fs::path> findRepositories(const fs::path& target)
{
    const auto holdsBackups = [](const fs::path& directory) {
        std::error_code error;
        for (fs::directory_iterator entry{directory, error}, end; !error && entry != end; entry.increment(error))
            if (!entry->path().filename().string().starts_with(".") && looksLikeBackup(entry->path()))
                return true;
        return fs::exists(directory / lock_name, error);
    };
    std::error_code error;
    if (!fs::is_directory(target, error))
        throw Failure{Exit::refused, target.string() + " is not a directory"};
    if (holdsBackups(target))
        return {target};
    std::vector<fs::path> result;
    for (const auto& entry : fs::directory_iterator{target})
        if (entry.is_directory() && holdsBackups(entry.path()))
            result.push_back(entry.path());
    std::sort(result.begin(), result.end());
    return result;
}

StoredBackup findBackup(const fs::path& from)
{
    if (looksLikeBackup(from))
        return readBackup(fs::canonical(from));
    const fs::path place = from.filename() == "latest" ? from.parent_path() : from;
    const std::vector<fs::path> repositories = findRepositories(place.empty() ? "." : place);
    if (repositories.size() > 1) {
        std::string names;
        for (const fs::path& repository : repositories)
            names += (names.empty() ? "" : ", ") + repository.string();
        throw Failure{Exit::refused, place.string() + " has backups of several devices; name one of " + names};
    }
    std::vector<DamagedBackup> damaged;
    const auto backups =
        repositories.empty() ? std::vector<StoredBackup>{} : Repository{repositories[0]}.backups(&damaged);
    if (backups.empty())
        throw Failure{damaged.empty() ? Exit::refused : Exit::damaged,
                      "there is no " + std::string{damaged.empty() ? "" : "readable "} + "backup in " + place.string() +
                          (damaged.empty() ? "" : ": " + damaged[0].problem)};
    // Taking the newest readable one for the newest would restore an older state without a word.
    for (const DamagedBackup& other : damaged)
        if (other.directory.filename() > backups.back().directory.filename())
            throw Failure{Exit::damaged, "the newest backup in " + place.string() +
                                             " cannot be read: " + other.problem + ". Name an older one, as in " +
                                             backups.back().directory.string()};
    return backups.back();
}

} // namespace qbackup
