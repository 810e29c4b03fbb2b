// SPDX-License-Identifier: GPL-2.0-only
#include "repository.h"

#include "failure.h"
#include "folder_backup.h"
#include "folder_hold.h"
#include "image_backup.h"
#include "image_merge.h"
#include "qemu_image.h"
#include "utc.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <set>
#include <tuple>

namespace qbackup
{
namespace
{

constexpr const char* lock_name = ".lock";
// In a chain. Each is opened for reading at once, and QEMU takes more time for each.
constexpr std::size_t most_images = 100;
constexpr const char* device_name = "device.json"; // what tells whose images these are

// Not what this program keeps beside its backups, nor what file systems put into their topmost directory.
bool mayHoldBackups(const fs::path& path)
{
    const std::string name = path.filename();
    return !name.starts_with(".") && name != "lost+found" && typeOf(path) == fs::file_type::directory;
}

bool holdsBackups(const fs::path& directory)
{
    const auto entries = entriesOf(directory);
    return std::any_of(entries.begin(), entries.end(), [](const fs::path& entry) {
        return looksLikeImageBackup(entry) || (mayHoldBackups(entry) && looksLikeFolderBackup(entry));
    });
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
        result.made = makeDirectory(directory) || result.made;
        try {
            result.lock = File{path, O_RDWR | O_CREAT | O_NOFOLLOW};
        } catch (const Failure&) {
            if (isPresent(directory))
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

} // namespace

std::string numbered(std::uint32_t sequence, const std::string& stamp)
{
    char number[16];
    std::snprintf(number, sizeof number, "%06u", sequence);
    return std::string{number} + "-" + stamp;
}

bool looksLikeBackup(const fs::path& path) { return looksLikeFolderBackup(path) || looksLikeImageBackup(path); }

StoredBackup readBackup(const fs::path& path)
{
    return looksLikeFolderBackup(path) ? readFolderBackup(path) : readImageBackup(path);
}

std::unique_ptr<LayerReader> openLayer(const StoredBackup& backup)
{
    return backup.manifest.format == 1 ? openFolderLayer(backup) : openImageLayer(backup);
}

Repository::Repository(fs::path directory) : directory_{std::move(directory)} {}

Repository::Repository(fs::path directory, bool images, File lock, Made made)
    : directory_{std::move(directory)}, images_{images}, lock_{std::move(lock)}, made_{std::move(made)}
{
}

Repository::Made::~Made()
{
    if (directory_.empty())
        return;
    std::error_code error;
    fs::directory_iterator entry{directory_, error};
    for (; !error && entry != fs::directory_iterator{}; entry.increment(error))
        if (const std::string name = entry->path().filename(); name != lock_name && name != device_name && name != hold_name)
            return;
    if (error)
        return;
    fs::remove(directory_ / device_name, error);
    fs::remove(directory_ / hold_name, error);
    fs::remove(directory_ / lock_name, error);
    fs::remove(directory_, error);
}

// As of a target of folders.
static void expectTarget(const fs::path& target)
{
    if (typeOf(target) != fs::file_type::directory)
        throw Failure{Exit::refused, "the target " + target.string() + " is not a directory; create it first"};
    if (holdsBackups(target))
        throw Failure{Exit::refused, target.string() + " holds the backups of one device; name the directory above it, " +
                                         fs::weakly_canonical(target / "..").string()};
}

Repository Repository::lookForBackup(const fs::path& target, const std::string& device)
{
    expectTarget(target);
    return Repository{target / device};
}

Repository Repository::lookAtImages(fs::path directory) { return {std::move(directory), true, {}, {}}; }

Repository Repository::openForBackup(const fs::path& target, const std::string& device, const Patience& patience)
{
    const fs::path directory = target / device;
    expectTarget(target);
    LockedDirectory locked = lockDirectory(directory, patience);
    Repository repository{directory, false, std::move(locked.lock), locked.made ? Made{directory} : Made{}};
    for (const fs::path& entry : entriesOf(directory))
        if (entry.filename().string().starts_with(partial_prefix))
            fs::remove_all(entry);
    syncDirectory(target);
    return repository;
}

Repository Repository::openImages(const fs::path& directory, const Patience& patience)
{
    LockedDirectory locked = lockDirectory(directory, patience);
    Repository repository{directory, true, std::move(locked.lock), locked.made ? Made{directory} : Made{}};
    // For those who read, and may not be allowed to make it.
    File{directory / hold_name, O_RDONLY | O_CREAT}.close();
    if (isMergeUnfinished(directory)) {
        const base::Descriptor hold = holdForChanging(directory, patience);
        finishMerge(directory);
    }
    removeDeadImages(directory);
    return repository;
}

std::vector<StoredBackup> Repository::backups(std::vector<DamagedBackup>* damaged) const
{
    std::vector<StoredBackup> result;
    if (!isPresent(directory_))
        return result;
    const auto add = [&](const fs::path& path, const auto& read) {
        try {
            result.push_back(read(path));
        } catch (const NewerFormat& failure) {
            if (damaged != nullptr)
                damaged->push_back({path, failure.what(), Exit::damaged, true});
        } catch (const Failure& failure) {
            if (failure.exitCode() == static_cast<int>(Exit::denied))
                throw;
            if (damaged != nullptr)
                damaged->push_back({path, failure.what(), static_cast<Exit>(failure.exitCode())});
        }
    };
    for (const fs::path& entry : entriesOf(directory_))
        if (mayHoldBackups(entry))
            add(entry, readFolderBackup);
    const std::set<std::string> going = idsGoing(directory_);
    for (const std::string& id : imageIds(directory_))
        if (!going.contains(id))
            add(directory_ / id, readImageBackup);
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

std::vector<fs::path> Repository::images(const StoredBackup& last) const
{
    std::vector<fs::path> paths;
    for (const StoredBackup& link : chain(last)) {
        if (link.manifest.format == 1)
            throw Failure{Exit::refused, link.path.string() + " is no image; 'qbackup import' makes images of such backups"};
        expectImageComplete(link);
        paths.insert(paths.begin(), link.path);
    }
    return paths;
}

StoredBackup Repository::parentOf(const StoredBackup& backup) const
{
    const Manifest& child = backup.manifest;
    const std::string needed = backup.path.string() + " builds on backup " + child.parent;
    if (!looksLikeBackup(directory_ / child.parent))
        throw Failure{Exit::damaged, needed + ", which is missing in " + directory_.string()};
    StoredBackup parent = readBackup(directory_ / child.parent);
    if (parent.mark != child.parentMark)
        throw Failure{Exit::damaged, needed + ", but another backup stands there under that name"};
    if (parent.manifest.blockSize != child.blockSize || parent.manifest.blocks != child.blocks ||
        parent.manifest.deviceBytes != child.deviceBytes || parent.manifest.sequence >= child.sequence)
        throw Failure{Exit::damaged, needed + ", which is not of the same size"};
    return parent;
}

void Repository::expectComplete(const StoredBackup& last) const
{
    for (const StoredBackup& link : chain(last))
        link.manifest.format == 1 ? expectFolderComplete(link) : expectImageComplete(link);
}

std::uint32_t Repository::granule() const noexcept { return images_ ? image_granule_bytes : 1; }

bool Repository::mayGrow(const StoredBackup& last) const { return !images_ || chain(last).size() < most_images; }

std::unique_ptr<PendingBackup> Repository::begin() const
{
    // A damaged backup keeps its number, which stands at the start of its name.
    std::uint32_t highest = 0;
    for (const fs::path& entry : entriesOf(directory_))
        highest = std::max(highest, static_cast<std::uint32_t>(std::strtoul(entry.filename().c_str(), nullptr, 10)));
    const std::string stamp = utcNow("%Y%m%dT%H%M%SZ");
    if (images_)
        return beginImage(directory_, highest + 1, stamp);
    return std::make_unique<PendingFolder>(directory_, highest + 1, stamp);
}

std::unique_ptr<PendingBackup> Repository::beginImageAs(std::uint32_t sequence, const std::string& stamp) const
{
    return beginImage(directory_, sequence, stamp);
}

void settle(const fs::path& directory)
try {
    if (isMergeUnfinished(directory))
        Repository::openImages(directory);
} catch (const Failure& failure) {
    if (failure.exitCode() == static_cast<int>(Exit::busy))
        throw Failure{Exit::busy, "backups are being dropped from " + directory.string() + "; try again when that prune has ended"};
    throw Failure{static_cast<Exit>(failure.exitCode()),
                  "a prune of " + directory.string() + " was cut off, and has to be finished first: " + failure.what()};
}

std::vector<fs::path> findRepositories(const fs::path& target)
{
    const fs::file_type type = typeOf(target);
    if (type == fs::file_type::not_found)
        throw Failure{Exit::nothing, "there is no " + target.string()};
    if (type != fs::file_type::directory)
        throw Failure{Exit::nothing, target.string() + " is not a directory with backups"};
    if (holdsBackups(target))
        return {target};
    std::vector<fs::path> result;
    for (const fs::path& entry : entriesOf(target)) {
        if (!mayHoldBackups(entry))
            continue;
        if (holdsBackups(entry)) {
            result.push_back(entry);
            continue;
        }
        // One of images has a level more, for the machines.
        if (isPresent(entry / "host.json"))
            for (const fs::path& device : entriesOf(entry))
                if (mayHoldBackups(device) && holdsBackups(device))
                    result.push_back(device);
    }
    if (result.empty())
        throw Failure{Exit::nothing, "there is no backup in " + target.string()};
    return result;
}

namespace
{

// "20261121T111641Z" of a backup's name, also of one that cannot be read.
std::string stampIn(const fs::path& path)
{
    const std::string name = path.filename();
    const std::size_t dash = name.find('-');
    return dash == std::string::npos ? "" : name.substr(dash + 1, 16);
}

StoredBackup chooseBackup(const Repository& repository, const std::string& at)
{
    const auto time = at.empty() ? std::nullopt : utcOf(at);
    std::vector<DamagedBackup> damaged;
    auto backups = repository.backups(&damaged);
    if (!at.empty()) {
        for (const StoredBackup& backup : backups)
            if (backup.manifest.id == at)
                return backup;
        for (const DamagedBackup& other : damaged)
            if (other.path.filename() == at)
                throw Failure{other.exit, other.problem};
        if (!time)
            throw Failure{Exit::nothing, "there is no backup " + at + " in " + repository.directory().string() +
                                             ", and it is no time as 2026-11-21T11:16"};
        std::erase_if(backups, [&](const StoredBackup& backup) { return backup.manifest.time > time->text; });
        std::erase_if(damaged, [&](const DamagedBackup& other) { return stampIn(other.path) > time->stamp; });
        if (backups.empty() && damaged.empty())
            throw Failure{Exit::nothing, "there is no backup from " + at + " or before in " + repository.directory().string()};
    }
    if (backups.empty())
        throw Failure{damaged.empty() ? Exit::damaged : damaged[0].exit, "there is no readable backup in " + repository.directory().string() +
                                         (damaged.empty() ? "" : ": " + damaged[0].problem)};
    // Taking the newest readable one for the newest would restore an older state without a word.
    for (const DamagedBackup& other : damaged)
        if (other.path.filename() > backups.back().path.filename())
            throw Failure{other.exit, "the newest backup in " + repository.directory().string() + " cannot be read: " + other.problem +
                                             ". Name an older one, as in " + backups.back().path.string()};
    return backups.back();
}

} // namespace

StoredBackup findBackup(const fs::path& from, const std::string& at)
{
    if (looksLikeBackup(from)) {
        if (!at.empty())
            throw Failure{Exit::refused, from.string() + " is one backup; for --at name the directory that has several"};
        settle(fs::absolute(from).parent_path());
        return looksLikeFolderBackup(from) ? readFolderBackup(fs::canonical(from))
                                           : readImageBackup(fs::canonical(fs::absolute(from).parent_path()) / from.filename());
    }
    const fs::path place = from.filename() == "latest" ? from.parent_path() : from;
    const std::vector<fs::path> repositories = findRepositories(place.empty() ? "." : place);
    if (repositories.size() > 1) {
        std::string names;
        for (const fs::path& repository : repositories)
            names += (names.empty() ? "" : ", ") + repository.string();
        throw Failure{Exit::refused, place.string() + " has backups of several devices; name one of " + names};
    }
    settle(repositories[0]);
    return chooseBackup(Repository{repositories[0]}, at);
}

} // namespace qbackup
