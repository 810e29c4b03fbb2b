// SPDX-License-Identifier: GPL-2.0-only
#include "device_backups.h"

#include "common.h"
#include "device_catalog.h"
#include "disk_layout.h"
#include "image_repository.h"
#include "output.h"
#include "preflight.h"
#include "run_lock.h"

#include <sys/sysmacros.h>

#include <cstdio>

namespace qbackup
{
namespace
{

struct Done {
    Exit exit;
    fs::path folder; // the device's, in the target
};

// The device's place in the target, locked; in a dry run only looked at.
Repository openTarget(const BackupOptions& options, const DeviceCatalog& catalog, const Device& device,
                      const Patience& patience)
{
    if (!isImageRepository(options.target)) {
        // One level too deep it would become a target of another kind.
        for (const fs::path& above : {options.target / "..", options.target / "../.."})
            if (isImageRepository(above))
                throw Failure{Exit::refused, options.target.string() + " lies in the repository " +
                                                 fs::weakly_canonical(above).string() + "; name that one"};
        return options.dryRun ? Repository::lookForBackup(options.target, device.name)
                              : Repository::openForBackup(options.target, device.name, patience);
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
    const DevicePlace place{hostCalled(options.host), device.name, identityOf(device), options.fresh, present};
    if (options.dryRun)
        return Repository::lookAtImages(imageFolderOf(options.target, place));
    Repository repository = openImagesForBackup(options.target, place, patience);
    if (const auto layout = layoutOf(device))
        keepLayout(repository.directory().parent_path(), *layout);
    return repository;
}

// What a backup would be.
void tell(const Context& context, const BackupJob& job, const Repository& repository, const BackupPlan& plan)
{
    const bool full = plan.mode == Mode::full;
    if (context.json) {
        nlohmann::json document{{"ok", true}, {"exit", 0}, {"dryRun", true}, {"device", job.device.name}, {"number", toString(job.device.number)},
                                {"directory", repository.directory().string()}, {"mode", toString(plan.mode)}};
        if (!full)
            document["parent"] = plan.parent;
        if (!plan.reason.empty())
            document[full ? "fullReason" : "comparedBecause"] = plan.reason;
        print(document);
        return;
    }
    const std::string what = full                  ? "in full: " + plan.reason
                             : plan.reason.empty() ? "what changed since backup " + plan.parent
                                                   : "all is read and compared with backup " + plan.parent + ": " + plan.reason;
    std::printf("would back up %s into %s: %s\n", job.device.name.c_str(), repository.directory().c_str(), what.c_str());
}

// Backs up one device and tells of it.
Done backUpOne(const Context& context, const BackupOptions& options, const std::string& name, Progress& progress,
               const JobPart& part)
{
    // First: what is found out behind it is not from before a long wait.
    const Patience patience{std::chrono::seconds{options.wait}, &context.stop};
    const RunLock lock{RunLock::placeFor(context.control),
                       "backup of " + name + " to " + fs::absolute(options.target).string(), context.control, patience};
    const HostBlocks host;
    const DeviceCatalog catalog{context.control, host};
    BackupJob job{catalog.find(name), options.wanted, options.cacheBlocks};
    refuseUnfitDevice(job.device);
    if (catalog.runDirectory().empty()) {
        refuseUnfitFileSystem(job.device);
        job.identity = [&host, &job] {
            return Identity{host.instance(makedev(job.device.number.major, job.device.number.minor)), job.device.bytes};
        };
        job.written = [&host, number = job.device.number] { return host.written(makedev(number.major, number.minor)); };
    } else {
        job.identity = [&host, &context, number = job.device.number] {
            const DeviceCatalog now{context.control, host};
            const Device device = now.find(std::to_string(number.major) + ":" + std::to_string(number.minor));
            return Identity{device.instance, device.bytes};
        };
    }
    refuseOnDevice(job.device, host, options.target, "the target directory");
    refuseOnDevice(job.device, host, catalog.runDirectory(), "the daemon's run directory");
    refuseOnDevice(job.device, host, options.spool, "the spool directory");
    refuseOutputOnDevice(job.device, host);
    job.reopen = [&context] { return openControl(context.control); };
    job.allBlocks = options.allBlocks;
    job.compress = options.compress;
    job.spool = options.spool;
    job.bytesPerSecond = options.bytesPerSecond;

    job.apart = catalog.offersTakeOver();
    job.ledger = RunLock::placeFor(context.control).parent_path() / "ledger" / toString(job.device.number);
    const Repository repository = openTarget(options, catalog, job.device, patience);
    if (options.compress && repository.granule() == 1)
        throw Failure{Exit::refused, options.target.string() + " gets folders, and only images can be compressed; make a repository of images "
                                                               "with 'qbackup init', or leave out --compress"};
    if (options.wanted == Wanted::full || repository.backups().empty())
        if (const auto warning = checkSpace(job.device, host, options.target))
            progress.warn(*warning);

    if (options.dryRun) {
        tell(context, job, repository, planBackup(openControl(context.control), repository, job, progress, context.stop));
        return {Exit::ok, repository.directory()};
    }
    SnapshotCommands commands{part.commands, part.name, name, context.stop};
    job.beforeSnapshot = [&commands] { commands.before(); };
    job.afterSnapshot = [&commands, &progress] {
        commands.after();
        if (commands.problem())
            progress.warn(*commands.problem());
    };
    const BackupReport report = runBackup(openControl(context.control), repository, job, progress, context.stop);
    const Manifest& m = report.backup.manifest;
    const bool otherwise = (options.wanted == Wanted::incremental && report.fellBack) || commands.problem();
    const Exit exit = otherwise ? Exit::warned : Exit::ok;
    if (context.json) {
        nlohmann::json document = describe(report.backup);
        document["ok"] = true;
        document["exit"] = static_cast<int>(exit);
        document["fellBack"] = report.fellBack;
        if (!part.name.empty())
            document["job"] = part.name;
        if (commands.problem())
            document["warning"] = *commands.problem();
        document["seconds"] = report.seconds;
        print(document);
    } else {
        std::printf("%s backup %s: %u of %u blocks, %s, %.1f s\n", toString(m.mode), report.backup.path.c_str(),
                    m.copiedBlocks, m.blocks, formatBytes(m.dataBytes).c_str(), report.seconds);
    }
    return {exit, repository.directory()};
}

} // namespace

DeviceBackups backUp(const Context& context, const BackupOptions& options, const std::vector<std::string>& devices,
                     Progress& progress, const JobPart& job)
{
    DeviceBackups all;
    for (const std::string& name : devices)
        all.exit = ofBoth(all.exit, attempt(context.json, [&] {
                              const Done done = backUpOne(context, options, name, progress, job);
                              all.folders.push_back(done.folder);
                              return static_cast<int>(done.exit);
                          }));
    return all;
}

} // namespace qbackup
