// SPDX-License-Identifier: GPL-2.0-only
#include "repository.h"

#include "failure.h"
#include "utc.h"

#include <fcntl.h>
#include <sys/stat.h>
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

// Not what this program keeps beside its backups, nor what file systems put into their topmost directory.
bool mayHoldBackups(const fs::path& path)
{
    const std::string name = path.filename();
    std::error_code error;
    return !name.starts_with(".") && name != "lost+found" && fs::is_directory(path, error);
}

bool holdsBackups(const fs::path& directory)
{
    const auto entries = entriesOf(directory);
    return std::any_of(entries.begin(), entries.end(),
                       [](const fs::path& entry) { return mayHoldBackups(entry) && looksLikeBackup(entry); });
}

bool isAt(const File& file, const fs::path& path)
{
    struct stat own {
    };
    struct stat there {
    };
    return ::fstat(file.fd(), &own) == 0 && ::stat(path.c_str(), &there) == 0 && own.st_dev == there.st_dev &&
           own.st_ino == there.st_ino;
}

struct LockedDirectory {
    File lock;
    bool made = false; // for this
};

// Makes the directory if it is not there, and takes its lock. The holder before may just have removed both.
LockedDirectory lockDirectory(const fs::path& directory, const Patience& patience)
{
    const fs::path path = directory / lock_name;
    LockedDirectory result;
    for (;;) {
        std::error_code error;
        result.made = fs::create_directory(directory, error) || result.made;
        if (error)
            throw Failure{exitOf(error.value(), Exit::refused), "cannot create " + directory.string() + ": " + error.message()};
        try {
            result.lock = File{path, O_RDWR | O_CREAT | O_NOFOLLOW};
        } catch (const Failure&) {
            if (fs::exists(directory, error))
                throw;
            continue;
        }
        if (!takeLock(result.lock, patience))
            throw Failure{Exit::busy, "another qbackup is writing to " + directory.string() +
                                          ". Wait for it to end, or give --wait"};
        if (isAt(result.lock, path))
            return result;
    }
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

bool looksLikeBackup(const fs::path& path)
{
    const std::string name = path.filename();
    std::error_code error;
    return fs::exists(path / "manifest.json", error) ||
           (name.size() > 7 && name.find_first_not_of("0123456789") == 6 && name[6] == '-' &&
            (name.ends_with("-full") || name.ends_with("-inc")) && fs::is_directory(path, error));
}

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

Repository::Repository(fs::path directory, File lock, Made made)
    : directory_{std::move(directory)}, lock_{std::move(lock)}, made_{std::move(made)}
{
}

Repository::Made::~Made()
{
    if (directory_.empty())
        return;
    std::error_code error;
    fs::directory_iterator entry{directory_, error};
    for (; !error && entry != fs::directory_iterator{}; entry.increment(error))
        if (entry->path().filename() != lock_name)
            return;
    if (error)
        return;
    fs::remove(directory_ / lock_name, error);
    fs::remove(directory_, error);
}

Repository Repository::openForBackup(const fs::path& target, const std::string& device, const Patience& patience)
{
    const fs::path directory = target / device;
    std::error_code error;
    if (!fs::is_directory(target, error))
        throw Failure{Exit::refused, "the target " + target.string() + " is not a directory; create it first"};
    if (holdsBackups(target))
        throw Failure{Exit::refused, target.string() + " holds the backups of one device; name the directory above it, " +
                                         fs::weakly_canonical(target / "..").string()};
    LockedDirectory locked = lockDirectory(directory, patience);
    Repository repository{directory, std::move(locked.lock), locked.made ? Made{directory} : Made{}};
    for (const fs::path& entry : entriesOf(directory))
        if (entry.filename().string().starts_with(partial_prefix))
            fs::remove_all(entry);
    syncDirectory(target);
    return repository;
}

std::vector<StoredBackup> Repository::backups(std::vector<DamagedBackup>* damaged) const
{
    std::vector<StoredBackup> result;
    for (const fs::path& entry : entriesOf(directory_)) {
        if (!mayHoldBackups(entry))
            continue;
        try {
            result.push_back(readBackup(entry));
        } catch (const Failure& failure) {
            if (failure.exitCode() == static_cast<int>(Exit::denied))
                throw;
            if (damaged != nullptr)
                damaged->push_back({entry, failure.what()});
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
    while (links.back().manifest.mode == Mode::incremental)
        links.push_back(parentOf(links.back()));
    std::reverse(links.begin(), links.end());
    return links;
}

StoredBackup Repository::parentOf(const StoredBackup& backup) const
{
    const Manifest& child = backup.manifest;
    const std::string needed = backup.directory.string() + " builds on backup " + child.parent;
    std::error_code error;
    if (!fs::exists(directory_ / child.parent / "manifest.json", error))
        throw Failure{Exit::damaged, needed + ", which is missing in " + directory_.string()};
    StoredBackup parent = readBackup(directory_ / child.parent);
    if (parent.manifestHash != child.parentHash)
        throw Failure{Exit::damaged, needed + ", but another backup stands there under that name"};
    if (parent.manifest.blockSize != child.blockSize || parent.manifest.blocks != child.blocks ||
        parent.manifest.deviceBytes != child.deviceBytes || parent.manifest.sequence >= child.sequence)
        throw Failure{Exit::damaged, needed + ", which is not of the same size"};
    return parent;
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
    if (std::error_code error; fs::status(path, error).type() == fs::file_type::not_found)
        throw Failure{Exit::damaged, path.string() + " is missing"};
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
    std::error_code error;
    const fs::file_status status = fs::status(target, error);
    if (status.type() == fs::file_type::not_found)
        throw Failure{Exit::nothing, "there is no " + target.string()};
    if (fs::exists(status) && !fs::is_directory(status))
        throw Failure{Exit::nothing, target.string() + " is not a directory with backups"};
    if (holdsBackups(target))
        return {target};
    std::vector<fs::path> result;
    for (const fs::path& entry : entriesOf(target))
        if (mayHoldBackups(entry) && holdsBackups(entry))
            result.push_back(entry);
    if (result.empty())
        throw Failure{Exit::nothing, "there is no backup in " + target.string()};
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
    const auto backups = Repository{repositories[0]}.backups(&damaged);
    if (backups.empty())
        throw Failure{Exit::damaged, "there is no readable backup in " + place.string() +
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
