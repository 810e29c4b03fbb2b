// SPDX-License-Identifier: GPL-2.0-only
#include "engine.h"

#include "comparison.h"
#include "drained_blocks.h"
#include "ledger.h"
#include "preflight.h"
#include "snapshot.h"
#include "transfer.h"
#include "used_blocks.h"
#include "utc.h"

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <limits>
#include <memory>
#include <optional>
#include <thread>
#include <vector>

namespace qbackup
{
namespace
{

using quendrel::Bitmap;
using quendrel::ControlDevice;
using quendrel::Error;
using quendrel::SessionKey;

// Until the driver knows which blocks are wanted, it saves what is overwritten of all of them.
constexpr auto most_looking = std::chrono::seconds{20};
// How long a killed run may take to be closed.
constexpr auto most_closing = std::chrono::seconds{10};

class Session
{
  public:
    Session(ControlDevice device, const Repository& repository, const BackupJob& job, Progress& progress,
            const StopSignal& stop)
        : device_{std::in_place, std::move(device)}, repository_{repository}, job_{job}, progress_{progress}, stop_{
                                                                                                                  stop}
    {
    }

    StoredBackup run(const PendingBackup::Watcher& watcher)
    {
        measure();
        choosePrevious();
        openLedger();
        DrainedBlocks drained{manifest_.blockSize, job_.drainBytes, job_.spool, progress_};
        const std::unique_ptr<PendingBackup> pending = repository_.begin();
        start();
        Bitmap map = takeSnapshot();
        pending->start(manifest_, previous_);
        throwIfStopped(stop_);
        ask([&] { device_->loadBlockMap(map); });
        expectState(*device_, job_.device.name, QUENDREL_STATE_MAP_LOADED, "after the map was loaded");
        if (comparison_)
            comparison_->sendTo(*pending);
        copy(map, drained, comparison_ ? static_cast<BlockSink&>(*comparison_) : *pending);
        checkStillGood();
        device_.reset(); // ends the driver's part: from here on writes need no copying
        throwIfStopped(stop_);
        const auto taken = std::chrono::ceil<std::chrono::milliseconds>(std::chrono::steady_clock::now() - begun_);
        manifest_.seconds = static_cast<double>(taken.count()) / 1000;
        // A signal may have come while what is on its way was waited for.
        const auto before_it_counts = [&](const char* step) {
            if (watcher)
                watcher(step);
            if (std::string_view{step} == "manifest")
                throwIfStopped(stop_);
        };
        return pending->commit(manifest_, comparison_ ? comparison_->finish() : map, before_it_counts);
    }

    BackupPlan plan()
    {
        measure();
        choosePrevious();
        openLedger();
        if (previous_ && (!ledger_ || !ledger_->since(previous_->manifest.key)))
            giveUpIncremental("what changed since backup " + previous_->manifest.id + " is not known");
        if (!previous_ && mayCompare())
            previous_ = last_;
        return {previous_ ? Mode::incremental : Mode::full, previous_ ? previous_->manifest.id : "", reason_};
    }

    bool fellBack() const noexcept { return fell_back_; }

  private:
    [[noreturn]] void lost(const std::string& what, bool still_tracked = false)
    {
        const bool known = still_tracked && linked_;
        throwLost(job_.device.name, what, known);
    }

    // Behind the snapshot a command is refused when the backup has failed meanwhile; the state says why, and with it
    // tracking has ended.
    template <typename Command> void ask(const Command& command)
    try {
        command();
    } catch (const Error& error) {
        loseIfFailed(error);
        throw;
    }
    void loseIfFailed(const Error& error)
    {
        if (error.code() != QUENDREL_REFUSED)
            return;
        if (const auto state = device_->state().state; state > QUENDREL_STATE_CLOSING)
            lost(quendrel::stateText(state));
    }

    // Block size and number of blocks of the device, and what the manifest says of it.
    void measure()
    {
        const auto geometry = device_->blockSize(job_.device.number);
        const Identity found = identity();
        const std::uint64_t bytes = found.bytes != 0 ? found.bytes : std::uint64_t{geometry.sizeKiB} * 1024;
        // The driver's figure is a word.
        if (static_cast<std::uint32_t>(bytes / 1024) != geometry.sizeKiB)
            throw Failure{Exit::refused, "the size of " + job_.device.name +
                                             " changed this moment: its disk is being laid out anew. Start the backup again"};
        // What lies beyond the last whole block belongs to no block of the file system.
        const std::uint64_t blocks = bytes / geometry.blockSize;
        if (const auto problem = unfitBlockSize(job_.device.name, geometry.blockSize))
            throw Failure{Exit::refused, *problem};
        if (blocks == 0 || blocks > std::numeric_limits<std::uint32_t>::max() - 8)
            throw Failure{Exit::refused, job_.device.name + " has " + std::to_string(blocks) +
                                             " blocks; the driver handles from 1 to 2^32 - 8"};
        manifest_.device = job_.device.name;
        manifest_.number = job_.device.number;
        manifest_.deviceBytes = bytes;
        manifest_.blockSize = geometry.blockSize;
        manifest_.blocks = static_cast<std::uint32_t>(blocks);
        manifest_.instance = found.instance;
    }

    Identity identity() const { return job_.identity ? job_.identity() : Identity{"", job_.device.bytes}; }

    // The stored backup that an incremental would build on, or the reason why there can be none.
    void choosePrevious()
    {
        std::vector<DamagedBackup> damaged;
        const auto backups = repository_.backups(&damaged);
        for (const DamagedBackup& other : damaged)
            if (other.newerFormat)
                throw Failure{Exit::refused, other.problem + ". Nothing was backed up"};
        if (job_.wanted == Wanted::full) {
            reason_ = "asked for";
            return;
        }
        if (backups.empty()) {
            giveUpIncremental(damaged.empty() ? "there is no earlier backup in " + repository_.directory().string()
                                              : "no earlier backup is readable: " + damaged[0].problem);
            return;
        }
        const StoredBackup& last = backups.back();
        last_ = last;
        for (const DamagedBackup& other : damaged)
            if (other.path.filename() > last.manifest.id)
                progress_.warn("a backup that is newer than " + last.manifest.id + " cannot be read, and is not built on: " + other.problem);
        const Manifest& m = last.manifest;
        if (m.number != manifest_.number || m.blockSize != manifest_.blockSize || m.blocks != manifest_.blocks ||
            m.deviceBytes != manifest_.deviceBytes) {
            giveUpIncremental("the device is not of the size and number it had at backup " + m.id);
            return;
        }
        if (m.instance != manifest_.instance) {
            giveUpIncremental("the device was not there all the time since backup " + m.id +
                              ": the machine or the daemon was started anew, or the disk was taken away, laid out anew "
                              "or replaced");
            return;
        }
        try {
            repository_.expectComplete(last);
            if (!repository_.mayGrow(last)) {
                giveUpIncremental("as many backups build on each other as can");
                return;
            }
        } catch (const Failure& failure) {
            giveUpIncremental(failure.what());
            return;
        }
        previous_ = last;
    }

    void giveUpIncremental(const std::string& reason)
    {
        reason_ = reason;
        previous_.reset();
        fell_back_ = true;
    }

    void start()
    {
        const std::uint64_t cache = job_.cacheBlocks != 0
                                        ? job_.cacheBlocks
                                        : std::max<std::uint64_t>(1, default_cache_bytes / manifest_.blockSize);
        const auto give_up = std::chrono::steady_clock::now() + most_closing;
        while (!startNow(static_cast<std::uint32_t>(cache), job_.reopen && std::chrono::steady_clock::now() < give_up)) {
            throwIfStopped(stop_);
            std::this_thread::sleep_for(std::chrono::milliseconds{100});
            device_.reset();
            device_.emplace(job_.reopen());
        }
        const auto state = device_->state();
        if (state.state != QUENDREL_STATE_STARTED)
            lost("the driver did not start it (" + quendrel::stateText(state.state) + ")");
        if (state.blockSize != manifest_.blockSize)
            lost("the file system was replaced by one of another block size meanwhile");
        area_bytes_ = state.mapBytes;
    }

    // Whether the driver is not busy with another one; where it may not be, that is an error.
    bool startNow(std::uint32_t cache, bool may_be_busy)
    try {
        closes_ = device_->closes();
        device_->start(job_.device.number, manifest_.blocks, cache);
        return true;
    } catch (const Error& error) {
        if (error.code() != QUENDREL_BUSY || !may_be_busy)
            throw;
        return false;
    }

    // Takes the snapshot and gives the blocks to copy.
    Bitmap takeSnapshot()
    {
        SnapshotTask task{job_.device.name, manifest_.number, manifest_.blocks, knownKeys(), ledger_ ? &*ledger_ : nullptr,
                          closes_, job_.written, job_.snapshotWatcher};
        Snapshot taken = takeBetweenCalls(task);
        if (job_.apart)
            openLedger(); // as the other process has left it
        manifest_.time = taken.time;
        manifest_.key = taken.key;
        linked_ = taken.linked;
        if (!taken.warning.empty())
            progress_.warn(taken.warning);
        std::optional<Bitmap> changed = changedSincePrevious(taken);
        manifest_.mode = changed ? Mode::incremental : Mode::full;
        if (!changed && canCompare()) {
            manifest_.mode = Mode::incremental;
            manifest_.compared = reason_;
        }
        if (manifest_.mode == Mode::incremental) {
            manifest_.parent = previous_->manifest.id;
            manifest_.parentMark = previous_->mark;
        } else {
            manifest_.fullReason = reason_;
            manifest_.compressed = job_.compress;
        }
        announce();
        const bool all = !changed;
        if (all)
            changed = allThatCounts();
        if (const std::uint32_t group = repository_.granule() / manifest_.blockSize; group > 1)
            changed->widen(group);
        if (all)
            manifest_.unusedBlocks = manifest_.blocks - changed->count();
        return std::move(*changed);
    }

    // The blocks of a backup of all of the device. A folder holds every one.
    Bitmap allThatCounts()
    {
        if (job_.allBlocks || repository_.granule() == 1)
            return Bitmap{manifest_.blocks, true};
        const quendrel::TransferArea area = device_->map(area_bytes_);
        const auto end = std::chrono::steady_clock::now() + most_looking;
        bool slow = false;
        UsedBlocks used;
        try {
            used = usedBlocks(manifest_.blockSize, manifest_.blocks, static_cast<std::uint32_t>(area_bytes_ / manifest_.blockSize),
                              [&](std::uint32_t first, std::span<std::byte> to) {
                                  throwIfStopped(stop_);
                                  if ((slow = std::chrono::steady_clock::now() > end))
                                      throw Failure{Exit::failed, "it takes too long to tell"};
                                  ask([&] { device_->readBlocks(first, static_cast<std::uint32_t>(to.size() / manifest_.blockSize), area); });
                                  std::copy_n(area.data().begin(), to.size(), to.begin());
                              });
        } catch (const Failure& failure) {
            if (!slow)
                throw;
            used = {Bitmap{manifest_.blocks, true}, failure.what()};
        }
        if (!used.doubt.empty())
            progress_.say("all blocks of " + job_.device.name + " are read, whether its file system uses them or not: " + used.doubt);
        return std::move(used.map);
    }

    Snapshot takeBetweenCalls(const SnapshotTask& task)
    {
        throwIfStopped(stop_);
        struct Afterwards {
            ~Afterwards()
            {
                if (call)
                    call();
            }
            const std::function<void()>& call;
        } const afterwards{job_.afterSnapshot};
        if (job_.beforeSnapshot)
            job_.beforeSnapshot();
        return job_.apart ? takeSnapshotApart(*device_, task, stop_) : qbackup::takeSnapshot(*device_, task, stop_);
    }

    // Whether all blocks may be compared with the newest backup, so that only those that differ are stored.
    bool mayCompare()
    try {
        if (job_.wanted == Wanted::full || repository_.granule() == 1 || !last_ || last_->manifest.blockSize != manifest_.blockSize ||
            last_->manifest.blocks != manifest_.blocks || last_->manifest.deviceBytes != manifest_.deviceBytes)
            return false;
        repository_.expectComplete(*last_);
        return repository_.mayGrow(*last_);
    } catch (const Failure& failure) {
        reason_ = failure.what();
        return false;
    }

    // They can be, and will.
    bool canCompare()
    {
        if (!mayCompare())
            return false;
        try {
            comparison_.emplace(repository_, *last_);
        } catch (const Failure& failure) {
            reason_ = failure.what();
            return false;
        }
        previous_ = last_;
        fell_back_ = false;
        return true;
    }

    void openLedger()
    {
        if (!job_.ledger.empty())
            ledger_.emplace(job_.ledger, manifest_.instance, manifest_.blockSize, manifest_.blocks);
    }

    // Those that may be the tracking session's.
    std::vector<SessionKey> knownKeys() const
    {
        std::vector<SessionKey> keys;
        if (ledger_ && ledger_->newest())
            keys.push_back(*ledger_->newest());
        if (previous_ && (keys.empty() || keys[0] != previous_->manifest.key))
            keys.push_back(previous_->manifest.key);
        return keys;
    }

    // What an incremental backup has to copy; nothing, and the reason is set, when there can be none.
    std::optional<Bitmap> changedSincePrevious(Snapshot& taken)
    {
        if (!previous_)
            return std::nullopt;
        const Manifest& m = previous_->manifest;
        if (!taken.since) {
            giveUpIncremental("changes were not tracked from backup " + m.id +
                              " on (another backup was started since, or one failed)");
        } else if (taken.empty) {
            giveUpIncremental("tracking names no changed block since backup " + m.id +
                              ", which cannot be told from tracking that was lost");
        } else if (!taken.changed) {
            giveUpIncremental("changes since backup " + m.id +
                              " are not known: the driver was loaded anew or its tracking fell out of sync");
        } else if (*taken.since == m.key) {
            return std::move(taken.changed);
        } else if (auto changed = linked_ ? ledger_->since(m.key) : std::nullopt) {
            return changed;
        } else {
            giveUpIncremental("what changed since backup " + m.id +
                              " is not known any more: tracking was lost since, or another program took a snapshot");
        }
        return std::nullopt;
    }

    void announce()
    {
        if (comparison_)
            progress_.say("backing up " + job_.device.name + ": all is read and compared with backup " + manifest_.parent + ": " + reason_);
        else if (manifest_.mode == Mode::incremental)
            progress_.say("backing up " + job_.device.name + ": what changed since backup " + manifest_.parent);
        else if (job_.wanted == Wanted::incremental)
            progress_.warn("taking a full backup instead of an incremental one: " + reason_);
        else
            progress_.say("backing up " + job_.device.name + " in full: " + reason_);
    }

    void copy(const Bitmap& map, DrainedBlocks& drained, BlockSink& out)
    {
        progress_.begin("copying " + job_.device.name, std::uint64_t{map.count()} * manifest_.blockSize);
        try {
            transfer({*device_, map, manifest_.blockSize, area_bytes_}, drained, job_.bytesPerSecond, out, progress_, stop_);
        } catch (const Error& error) {
            loseIfFailed(error);
            // With a daemon goes its tracking.
            lost(error.what(), error.code() != -ECONNRESET && error.code() != -EPIPE);
        }
        progress_.end();
    }

    // The last look before the backup counts: it covers every write up to now, held back or tracked.
    void checkStillGood()
    {
        expectState(*device_, job_.device.name, QUENDREL_STATE_MAP_LOADED, "after the last block");
        expectNoOtherClose(*device_, job_.device.name, closes_, linked_);
        const auto tracking = device_->autoMapState();
        // First, as tracking does not outlive it.
        if (identity().instance != manifest_.instance)
            lost("the disk was taken away, laid out anew or replaced during the backup");
        if (!tracking.inSync)
            lost("the driver's tracking of the device fell out of sync during the backup");
        if (tracking.key != manifest_.key)
            lost("another program took a snapshot of the device during the backup");
    }

    const std::chrono::steady_clock::time_point begun_ = std::chrono::steady_clock::now();
    std::optional<ControlDevice> device_;
    const Repository& repository_;
    const BackupJob& job_;
    Progress& progress_;
    const StopSignal& stop_;
    Manifest manifest_;
    std::optional<StoredBackup> last_; // the newest one
    std::optional<StoredBackup> previous_;
    std::optional<Comparison> comparison_; // with previous_, when it is not known what has changed since
    std::string reason_; // why this is a full backup
    bool fell_back_ = false;
    std::size_t area_bytes_ = 0;
    std::optional<std::uint64_t> closes_; // of the control device, at the start
    std::optional<Ledger> ledger_;
    bool linked_ = false; // what the snapshot has handed out is in the ledger
};

} // namespace

BackupPlan planBackup(ControlDevice device, const Repository& repository, const BackupJob& job, Progress& progress, const StopSignal& stop)
try {
    return Session{std::move(device), repository, job, progress, stop}.plan();
} catch (const Error& error) {
    throw failureOf(error);
}

BackupReport runBackup(ControlDevice device, const Repository& repository, const BackupJob& job, Progress& progress,
                       const StopSignal& stop, const PendingBackup::Watcher& watcher)
try {
    const auto begun = std::chrono::steady_clock::now();
    Session session{std::move(device), repository, job, progress, stop};
    BackupReport report{session.run(watcher), session.fellBack(), 0};
    report.seconds = std::chrono::duration<double>{std::chrono::steady_clock::now() - begun}.count();
    return report;
} catch (const Error& error) {
    throw failureOf(error);
}

} // namespace qbackup
