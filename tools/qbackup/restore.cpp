// SPDX-License-Identifier: GPL-2.0-only
#include "restore.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>

namespace qbackup
{
namespace
{

// Where the restored bytes go. Unless finish() is reached, an image file in the making is removed.
class Destination
{
  public:
    Destination(const fs::path& to, std::uint64_t bytes, bool force) : to_{to}
    {
        struct stat st {
        };
        const bool exists = ::stat(to.c_str(), &st) == 0;
        if (exists && S_ISBLK(st.st_mode)) {
            openDevice(bytes);
            return;
        }
        if (exists && !S_ISREG(st.st_mode))
            throw Failure{Exit::refused, to.string() + " is neither a file nor a block device"};
        if (exists && st.st_size > 0 && !force)
            throw Failure{Exit::refused, to.string() + " exists and is not empty; name another file, or give --force "
                                                       "to replace it"};
        const fs::path directory = to.has_parent_path() ? to.parent_path() : fs::path{"."};
        temporary_ = directory / ("." + to.filename().string() + ".partial-" + std::to_string(::getpid()));
        std::error_code error;
        fs::remove(temporary_, error);
        file_ = File{temporary_, O_RDWR | O_CREAT | O_EXCL};
        file_.truncate(bytes);
    }
    ~Destination()
    {
        std::error_code error;
        if (!temporary_.empty())
            fs::remove(temporary_, error);
    }
    Destination(const Destination&) = delete;
    Destination& operator=(const Destination&) = delete;

    const File& file() const noexcept { return file_; }
    // A new image file reads as zeros until it is written.
    bool fresh() const noexcept { return !temporary_.empty(); }

    void finish()
    {
        file_.sync();
        file_.close();
        if (temporary_.empty())
            return;
        fs::rename(temporary_, to_);
        temporary_.clear();
        syncDirectory(to_.has_parent_path() ? to_.parent_path() : fs::path{"."});
    }

  private:
    void openDevice(std::uint64_t bytes)
    {
        // The kernel refuses an exclusive opening of a device that is mounted or otherwise in use.
        if (!base::Descriptor{::open(to_.c_str(), O_RDWR | O_EXCL | O_CLOEXEC)} && errno == EBUSY)
            throw Failure{Exit::refused, to_.string() + " is mounted or in use; unmount it before restoring to it"};
        file_ = File{to_, O_RDWR | O_EXCL};
        const off_t end = ::lseek(file_.fd(), 0, SEEK_END);
        if (end < 0 || static_cast<std::uint64_t>(end) < bytes)
            throw Failure{Exit::refused, to_.string() + " has " + std::to_string(end) + " bytes; the backup needs " +
                                             std::to_string(bytes)};
    }

    fs::path to_;
    fs::path temporary_;
    File file_;
};

// Writes the blocks of one backup to their places.
void apply(const StoredBackup& backup, const Destination& destination, bool skip_zeros, Progress& progress,
           const StopSignal& stop)
{
    const std::uint32_t block_size = backup.manifest.blockSize;
    const quendrel::Bitmap map = readMap(backup);
    DataReader data = openData(backup);
    if (backup.manifest.segmentBytes % block_size != 0)
        throw Failure{Exit::damaged, backup.directory.string() + ": the manifest's sizes contradict each other"};
    std::uint32_t next = 0;
    for (auto piece = data.next(); !piece.empty(); piece = data.next()) {
        throwIfStopped(stop);
        progress.advance(piece.size());
        while (!piece.empty()) {
            // The map has as many blocks as the data: readMap() and openData() have checked both counts.
            const auto run = map.nextRun(next, static_cast<std::uint32_t>(piece.size() / block_size));
            const std::size_t bytes = std::size_t{run->count} * block_size;
            if (!(skip_zeros && allZero(piece.first(bytes))))
                destination.file().writeAt(std::uint64_t{run->first} * block_size, piece.first(bytes));
            piece = piece.subspan(bytes);
            next = run->first + run->count;
        }
    }
}

} // namespace

RestoreReport restoreBackup(const fs::path& from, const fs::path& to, bool force, Progress& progress,
                            const StopSignal& stop)
{
    const auto begun = std::chrono::steady_clock::now();
    RestoreReport report{findBackup(from)};
    const auto chain = Repository{fs::canonical(report.backup.directory).parent_path()}.chain(report.backup);
    report.chainLength = chain.size();
    for (const StoredBackup& link : chain)
        report.bytesRead += link.manifest.dataBytes;
    Destination destination{to, report.backup.manifest.deviceBytes, force};
    progress.begin("restoring " + report.backup.manifest.id, report.bytesRead);
    for (const StoredBackup& link : chain)
        apply(link, destination, destination.fresh() && link.manifest.mode == Mode::full, progress, stop);
    throwIfStopped(stop);
    destination.finish();
    progress.end();
    report.seconds = std::chrono::duration<double>{std::chrono::steady_clock::now() - begun}.count();
    return report;
}

} // namespace qbackup
