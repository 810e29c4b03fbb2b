// SPDX-License-Identifier: GPL-2.0-only
#include "commands.h"

#include "device_catalog.h"
#include "disk_layout.h"
#include "image_repository.h"
#include "import.h"
#include "preflight.h"
#include "qemu_image.h"
#include "restore.h"
#include "run_lock.h"
#include "serve.h"
#include "verify.h"

#include <nlohmann/json.hpp>

#include <sys/sysmacros.h>

#include <cerrno>
#include <chrono>
#include <cstdio>
#include <thread>

namespace qbackup
{
namespace
{

using nlohmann::json;

// A name need not be text in any encoding.
void print(const json& document)
{
    std::printf("%s\n", document.dump(-1, ' ', false, json::error_handler_t::replace).c_str());
}

// The lock keeps other qbackups out. A daemon may still be closing the file of one that was killed a moment ago.
quendrel::ControlDevice openControl(const fs::path& control)
{
    constexpr auto patience = std::chrono::seconds{10};
    const auto give_up = std::chrono::steady_clock::now() + patience;
    for (;;) {
        try {
            return quendrel::ControlDevice{control.string()};
        } catch (const quendrel::Error& error) {
            const bool busy = error.code() == QUENDREL_BUSY || error.code() == -EBUSY;
            if (!busy || std::chrono::steady_clock::now() >= give_up)
                throw Failure{busy ? Exit::busy : exitOf(-error.code(), Exit::refused), error.what()};
        }
        std::this_thread::sleep_for(std::chrono::milliseconds{100});
    }
}

void requireControl(const fs::path& control)
{
    std::error_code error;
    if (!fs::exists(control, error))
        throw Failure{Exit::refused, "there is no control device at " + control.string() +
                                         ": load the driver (modprobe quendrel) or start the daemon, and name its "
                                         "socket with --control or QUENDREL_CONTROL"};
}

json describe(const StoredBackup& backup)
{
    const Manifest& m = backup.manifest;
    json document{{"id", m.id},
                  {"path", backup.path.string()},
                  {"mode", toString(m.mode)},
                  {"device", m.device},
                  {"number", quendrel::toString(m.number)},
                  {"time", m.time},
                  {"blockSize", m.blockSize},
                  {"blocks", m.blocks},
                  {"copiedBlocks", m.copiedBlocks},
                  {"dataBytes", m.dataBytes}};
    if (m.mode == Mode::incremental)
        document["parent"] = m.parent;
    else
        document["fullReason"] = m.fullReason;
    if (!m.compared.empty())
        document["comparedBecause"] = m.compared;
    return document;
}

void printLine(const StoredBackup& backup)
{
    const Manifest& m = backup.manifest;
    std::printf("%-8s %-36s %-5s %s  %10u blocks  %10s\n", m.device.c_str(), m.id.c_str(), toString(m.mode),
                m.time.c_str(), m.copiedBlocks, formatBytes(m.dataBytes).c_str());
}

std::vector<fs::path> repositoriesIfAny(const fs::path& target)
try {
    return findRepositories(target);
} catch (const Failure& failure) {
    if (failure.exitCode() != static_cast<int>(Exit::nothing))
        throw;
    return {};
}

Host hostCalled(const std::string& name)
{
    Host host = thisHost();
    if (!name.empty())
        host.name = name;
    return host;
}

// The device's place in the target, locked.
Repository openTarget(const BackupOptions& options, const DeviceCatalog& catalog, const Device& device, const Patience& patience)
{
    if (!isImageRepository(options.target)) {
        // One level too deep it would become a target of another kind.
        for (const fs::path& above : {options.target / "..", options.target / "../.."})
            if (isImageRepository(above))
                throw Failure{Exit::refused, options.target.string() + " lies in the repository " +
                                                 fs::weakly_canonical(above).string() + "; name that one"};
        return Repository::openForBackup(options.target, device.name, patience);
    }
    const auto present = [&](const std::string& name) -> std::optional<DeviceIdentity> {
        try {
            const Device other = catalog.find(name);
            if (other.number != device.number)
                return identityOf(other);
        } catch (const Failure&) {
        }
        return std::nullopt;
    };
    Repository repository =
        openImagesForBackup(options.target, {hostCalled(options.host), device.name, identityOf(device), options.fresh, present}, patience);
    if (const auto layout = layoutOf(device))
        keepLayout(repository.directory().parent_path(), *layout);
    return repository;
}

// Backs up one device and tells of it.
Exit backUp(const CommonOptions& common, const BackupOptions& options, const std::string& name, Progress& progress,
            const StopSignal& stop)
{
    // First: what is found out behind it is not from before a long wait.
    const Patience patience{std::chrono::seconds{options.wait}, &stop};
    const RunLock lock{RunLock::placeFor(common.control),
                       "backup of " + name + " to " + fs::absolute(options.target).string(), common.control,
                       patience};
    const HostBlocks host;
    const DeviceCatalog catalog{common.control, host};
    BackupJob job{catalog.find(name), options.wanted, options.cacheBlocks};
    refuseUnfitDevice(job.device);
    if (catalog.runDirectory().empty()) {
        refuseUnfitFileSystem(job.device);
        job.identity = [&host, &job] {
            return Identity{host.instance(makedev(job.device.number.major, job.device.number.minor)), job.device.bytes};
        };
        job.written = [&host, number = job.device.number] { return host.written(makedev(number.major, number.minor)); };
    } else {
        job.identity = [&host, &common, number = job.device.number] {
            const DeviceCatalog now{common.control, host};
            const Device device = now.find(std::to_string(number.major) + ":" + std::to_string(number.minor));
            return Identity{device.instance, device.bytes};
        };
    }
    refuseOnDevice(job.device, host, options.target, "the target directory");
    refuseOnDevice(job.device, host, catalog.runDirectory(), "the daemon's run directory");
    refuseOutputOnDevice(job.device, host);

    job.apart = catalog.offersTakeOver();
    job.ledger = RunLock::placeFor(common.control).parent_path() / "ledger" / toString(job.device.number);
    const Repository repository = openTarget(options, catalog, job.device, patience);
    if (options.wanted == Wanted::full || repository.backups().empty())
        if (const auto warning = checkSpace(job.device, host, options.target))
            progress.warn(*warning);

    const BackupReport report = runBackup(openControl(common.control), repository, job, progress, stop);
    const Manifest& m = report.backup.manifest;
    const Exit exit = options.wanted == Wanted::incremental && report.fellBack ? Exit::warned : Exit::ok;
    if (common.json) {
        json document = describe(report.backup);
        document["ok"] = true;
        document["exit"] = static_cast<int>(exit);
        document["fellBack"] = report.fellBack;
        document["seconds"] = report.seconds;
        print(document);
    } else {
        std::printf("%s backup %s: %u of %u blocks, %s, %.1f s\n", toString(m.mode), report.backup.path.c_str(),
                    m.copiedBlocks, m.blocks, formatBytes(m.dataBytes).c_str(), report.seconds);
    }
    return exit;
}

} // namespace

int reportFailure(bool as_json, int code, const std::string& text)
{
    if (as_json)
        print({{"ok", false}, {"exit", code}, {"error", text}});
    std::fprintf(stderr, "qbackup: %s\n", text.c_str());
    return code;
}

void finishOutput()
{
    if (std::fflush(stdout) != 0 || std::ferror(stdout) != 0)
        throw Failure{Exit::failed, "what was to be told on standard output could not be written there: " + errnoText(errno)};
}

int commandInit(const CommonOptions& common, const fs::path& target)
{
    requireQemu();
    const std::string id = makeImageRepository(target);
    if (common.json)
        print({{"ok", true}, {"path", target.string()}, {"id", id}});
    else
        std::printf("made the repository %s\n", target.c_str());
    return static_cast<int>(Exit::ok);
}

int commandBackup(const CommonOptions& common, const BackupOptions& options, const StopSignal& stop)
{
    Progress progress{Progress::styleFor(common.quiet)};
    requireControl(common.control);
    if (options.devices.size() == 1)
        return static_cast<int>(backUp(common, options, options.devices[0], progress, stop));
    // One that fails keeps no other from being backed up; of the exit codes a failure's goes before a warning's.
    int exit = 0;
    for (const std::string& name : options.devices) {
        int code = 0;
        try {
            code = static_cast<int>(backUp(common, options, name, progress, stop));
        } catch (const Interrupted&) {
            throw;
        } catch (const Failure& failure) {
            code = reportFailure(common.json, failure.exitCode(), failure.what());
        } catch (const std::exception& error) {
            code = reportFailure(common.json, static_cast<int>(Exit::failed), error.what());
        }
        if (code != 0 && (exit == 0 || exit == static_cast<int>(Exit::warned)))
            exit = code;
    }
    return exit;
}

int commandRestore(const CommonOptions& common, const RestoreOptions& options, const StopSignal& stop)
{
    Progress progress{Progress::styleFor(common.quiet)};
    const RestoreReport report = restoreBackup(options.from, options.to, options.force, progress, stop, options.at);
    if (common.json) {
        print({{"ok", true},
               {"id", report.backup.manifest.id},
               {"to", options.to.string()},
               {"chain", report.chainLength},
               {"bytes", report.backup.manifest.deviceBytes},
               {"bytesRead", report.bytesRead},
               {"seconds", report.seconds}});
    } else {
        std::printf("restored %s to %s: %s, from %zu backup%s, %.1f s\n", report.backup.manifest.id.c_str(),
                    options.to.c_str(), formatBytes(report.backup.manifest.deviceBytes).c_str(), report.chainLength,
                    report.chainLength == 1 ? "" : "s", report.seconds);
    }
    return static_cast<int>(Exit::ok);
}

int commandStatus(const CommonOptions& common, const StatusOptions& options)
{
    requireControl(common.control);
    json document{{"ok", true}, {"control", common.control.string()}, {"running", nullptr}};
    std::string text;
    const DeviceCatalog catalog{common.control, HostBlocks{}};
    std::vector<Device> devices = catalog.listed();
    if (!options.device.empty())
        devices = {catalog.find(options.device)};

    // Opening the control device would detach a running backup: it is opened only while this program holds the lock.
    const fs::path lock_file = RunLock::placeFor(common.control);
    std::optional<RunLock> lock;
    try {
        lock.emplace(lock_file, "status", common.control);
    } catch (const Failure& failure) {
        const auto holder = RunLock::holder(lock_file);
        if (failure.exitCode() != static_cast<int>(Exit::busy) || !holder)
            throw;
        document["running"] = *holder;
        text += "running: " + *holder + "\n";
    }
    std::optional<quendrel::ControlDevice> control;
    if (lock) {
        text += "no backup is running\n";
        control.emplace(openControl(common.control));
        const auto version = control->version();
        document["driver"] = std::to_string(version.major) + "." + std::to_string(version.minor);
        text += "driver " + std::to_string(version.major) + "." + std::to_string(version.minor) + " at " +
                common.control.string() + "\n";
    }
    document["devices"] = json::array();
    for (const Device& device : devices) {
        json entry{{"name", device.name}, {"number", toString(device.number)}, {"bytes", device.bytes}};
        std::string line = device.name + " (" + toString(device.number) + "), " + formatBytes(device.bytes);
        if (!device.type.empty()) {
            entry["type"] = device.type;
            line += ", " + device.type;
        }
        if (control && device.partitions.empty()) {
            try {
                const auto geometry = control->blockSize(device.number);
                entry["blockSize"] = geometry.blockSize;
                line += ", blocks of " + std::to_string(geometry.blockSize) + " bytes";
            } catch (const quendrel::Error& error) {
                const auto known = device.blockSize != 0 ? unfitBlockSize(device.name, device.blockSize) : std::nullopt;
                const std::string problem = known.value_or(quendrel::codeText(error.command(), error.code()));
                entry["problem"] = problem;
                line += ": cannot be backed up: " + problem;
            }
        }
        document["devices"].push_back(entry);
        text += line + "\n";
    }
    if (!options.target.empty()) {
        document["lastBackups"] = json::array();
        for (const fs::path& directory : repositoriesIfAny(options.target)) {
            const auto backups = Repository{directory}.backups();
            if (backups.empty())
                continue;
            document["lastBackups"].push_back(describe(backups.back()));
            text += "last backup of " + backups.back().manifest.device + ": " + backups.back().manifest.id + " (" +
                    std::to_string(backups.size()) + " stored)\n";
        }
    }
    if (common.json)
        print(document);
    else
        std::fputs(text.c_str(), stdout);
    return static_cast<int>(Exit::ok);
}

int commandVerify(const CommonOptions& common, const fs::path& from, const StopSignal& stop)
{
    Progress progress{Progress::styleFor(common.quiet)};
    const auto results = verifyBackups(from, progress, stop);
    bool good = true;
    for (const VerifyResult& result : results) {
        good = good && result.problem.empty();
        json document{{"path", result.directory.string()}, {"ok", result.problem.empty()}};
        if (!result.id.empty())
            document["id"] = result.id;
        if (!result.problem.empty())
            document["problem"] = result.problem;
        if (common.json)
            print(document);
        else
            std::printf("%-7s %s%s%s\n", result.problem.empty() ? "ok" : "DAMAGED", result.directory.c_str(),
                        result.problem.empty() ? "" : ": ", result.problem.c_str());
    }
    return static_cast<int>(good ? Exit::ok : Exit::damaged);
}

int commandImport(const CommonOptions& common, const ImportOptions& options, const StopSignal& stop)
{
    Progress progress{Progress::styleFor(common.quiet)};
    if (!isImageRepository(options.to))
        throw Failure{Exit::nothing, options.to.string() + " is no repository of images; make one with 'qbackup init'"};
    const Patience patience{std::chrono::seconds{options.wait}, &stop};
    bool good = true;
    for (const fs::path& directory : findRepositories(options.from)) {
        const Repository from{directory};
        const auto backups = from.backups();
        // What the device is known by is not in a folder; the next backup of it tells.
        const std::string name = backups.empty() ? fs::canonical(directory).filename().string() : backups.back().manifest.device;
        const Repository to = openImagesForBackup(options.to, {hostCalled(options.host), name, {}}, patience);
        for (const Imported& one : importBackups(from, to, progress, stop)) {
            good = good && one.problem.empty();
            if (common.json) {
                json document{{"ok", one.problem.empty()}, {"from", one.from.string()}};
                if (!one.to.empty())
                    document["path"] = one.to.string();
                if (!one.problem.empty())
                    document["problem"] = one.problem;
                print(document);
            } else if (!one.problem.empty()) {
                std::printf("DAMAGED  %s: %s\n", one.from.c_str(), one.problem.c_str());
            } else {
                std::printf("%s %s\n", one.before ? "there already:" : "imported", one.to.c_str());
            }
        }
    }
    return static_cast<int>(good ? Exit::ok : Exit::damaged);
}

int commandServe(const CommonOptions& common, const fs::path& from, const std::string& at, const fs::path& socket, const StopSignal& stop)
{
    const StoredBackup backup = findBackup(from, at);
    serveBackup(backup, socket, stop, [&](const std::string& uri) {
        if (common.json)
            print({{"ok", true}, {"id", backup.manifest.id}, {"uri", uri}});
        else
            std::printf("serving %s, read-only, until this program is ended: %s\n", backup.path.c_str(), uri.c_str());
        finishOutput();
    });
    return static_cast<int>(Exit::ok);
}

int commandPrune(const CommonOptions& common, const PruneOptions& options, const StopSignal& stop)
{
    if (!options.rules.any())
        throw Failure{Exit::usage, "nothing says what to keep; give --keep-last, --keep-daily or another of them"};
    Progress progress{Progress::styleFor(common.quiet)};
    const Patience patience{std::chrono::seconds{options.wait}, &stop};
    int exit = 0;
    for (const fs::path& folder : findRepositories(options.from)) {
        std::vector<Choice> choices;
        // What goes wrong with one device is no reason to keep everything of the others.
        try {
            choices = pruneBackups(folder, options.rules, options.dryRun, patience, progress, stop);
        } catch (const Interrupted&) {
            throw;
        } catch (const Failure& failure) {
            const int code = reportFailure(common.json, failure.exitCode(), failure.what());
            exit = exit == 0 ? code : exit;
        } catch (const std::exception& error) {
            const int code = reportFailure(common.json, static_cast<int>(Exit::failed), error.what());
            exit = exit == 0 ? code : exit;
        }
        for (const Choice& choice : choices) {
            const bool kept = !choice.reasons.empty();
            std::string reasons;
            for (const std::string& reason : choice.reasons)
                reasons += (reasons.empty() ? "" : ", ") + reason;
            if (common.json)
                print({{"ok", true}, {"id", choice.backup.manifest.id}, {"path", choice.backup.path.string()}, {"kept", kept}, {"reasons", choice.reasons}, {"dryRun", options.dryRun}});
            else
                std::printf("%-10s %s%s\n", kept ? "keep" : options.dryRun ? "would drop" : "dropped", choice.backup.path.c_str(), kept ? ("  (" + reasons + ")").c_str() : "");
        }
    }
    return exit;
}

int commandList(const CommonOptions& common, const fs::path& from)
{
    bool good = true;
    for (const fs::path& directory : findRepositories(from)) {
        std::vector<DamagedBackup> damaged;
        for (const StoredBackup& backup : Repository{directory}.backups(&damaged)) {
            if (common.json)
                print(describe(backup));
            else
                printLine(backup);
        }
        for (const DamagedBackup& backup : damaged) {
            good = false;
            if (common.json)
                print({{"path", backup.path.string()}, {"problem", backup.problem}});
            else
                std::printf("DAMAGED  %s: %s\n", backup.path.c_str(), backup.problem.c_str());
        }
    }
    return static_cast<int>(good ? Exit::ok : Exit::damaged);
}

} // namespace qbackup
