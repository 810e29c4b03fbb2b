// SPDX-License-Identifier: GPL-2.0-only
#include "command.h"

#include "common.h"
#include "device_catalog.h"
#include "disk_layout.h"
#include "engine.h"
#include "image_repository.h"
#include "output.h"
#include "preflight.h"
#include "run_lock.h"

#include <sys/sysmacros.h>

#include <cstdint>
#include <cstdio>
#include <map>
#include <memory>
#include <string>
#include <vector>

namespace qbackup
{
namespace
{

struct Options {
    std::vector<std::string> devices;
    fs::path target;
    Wanted wanted = Wanted::automatic;
    std::uint32_t cacheBlocks = 0;
    bool allBlocks = false; // also those that the file system does not use
    fs::path spool;                 // a directory; empty: none
    std::uint64_t bytesPerSecond = 0; // 0: as fast as it goes
    std::uint64_t wait = 0; // seconds, for another run to end
    std::string host;       // what this machine is called in a repository of images; empty: its name
    bool fresh = false;     // a folder of its own for a device that has another's name
};

// The device's place in the target, locked.
Repository openTarget(const Options& options, const DeviceCatalog& catalog, const Device& device, const Patience& patience)
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
Exit backUp(const Context& context, const Options& options, const std::string& name, Progress& progress)
{
    // First: what is found out behind it is not from before a long wait.
    const Patience patience{std::chrono::seconds{options.wait}, &context.stop};
    const RunLock lock{RunLock::placeFor(context.control),
                       "backup of " + name + " to " + fs::absolute(options.target).string(), context.control,
                       patience};
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
    job.spool = options.spool;
    job.bytesPerSecond = options.bytesPerSecond;

    job.apart = catalog.offersTakeOver();
    job.ledger = RunLock::placeFor(context.control).parent_path() / "ledger" / toString(job.device.number);
    const Repository repository = openTarget(options, catalog, job.device, patience);
    if (options.wanted == Wanted::full || repository.backups().empty())
        if (const auto warning = checkSpace(job.device, host, options.target))
            progress.warn(*warning);

    const BackupReport report = runBackup(openControl(context.control), repository, job, progress, context.stop);
    const Manifest& m = report.backup.manifest;
    const Exit exit = options.wanted == Wanted::incremental && report.fellBack ? Exit::warned : Exit::ok;
    if (context.json) {
        nlohmann::json document = describe(report.backup);
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

int backup(const Context& context, const Options& options)
{
    Progress progress{Progress::styleFor(context.quiet)};
    requireControl(context.control);
    if (options.devices.size() == 1)
        return static_cast<int>(backUp(context, options, options.devices[0], progress));
    // One that fails keeps no other from being backed up; of the exit codes a failure's goes before a warning's.
    int exit = 0;
    for (const std::string& name : options.devices) {
        int code = 0;
        try {
            code = static_cast<int>(backUp(context, options, name, progress));
        } catch (...) {
            code = reportCurrentFailure(context.json);
        }
        if (code != 0 && (exit == 0 || exit == static_cast<int>(Exit::warned)))
            exit = code;
    }
    return exit;
}

} // namespace

void addBackup(CLI::App& app, Context& context)
{
    const auto options = std::make_shared<Options>();
    const std::map<std::string, Wanted> modes{
        {"auto", Wanted::automatic}, {"full", Wanted::full}, {"inc", Wanted::incremental}};
    CLI::App* command = app.add_subcommand("backup", "Back up a device");
    command->add_option("DEVICE,--device", options->devices, "Device: sda1, 8:1 or /dev/sda1; several one after the other")
        ->required();
    command->add_option("--to", options->target, "Repository (see init), or another directory, which gets folders")->required();
    command->add_option("--mode", options->wanted, "auto, full or inc; inc and auto take a full backup when they must")
        ->transform(CLI::Transformer{modes})
        ->type_name("MODE")
        ->default_str("auto");
    command->add_flag("--all-blocks", options->allBlocks, "Read the blocks that the file system does not use, too");
    command->add_option("--cache-blocks", options->cacheBlocks,
                        "Most overwritten blocks kept in memory during the backup (default: 256 MiB's worth)")
        ->check(CLI::Range(1u, 0xffffffffu));
    command->add_option("--spool", options->spool,
                        "Directory, not on the device, for what is overwritten during the backup faster than it can be stored\n"
                        "(default: 64 MiB of it in this program's memory, then the driver's)");
    command->add_option("--limit-rate", options->bytesPerSecond, "Store at most so many bytes a second, as 20M (default: no limit)")
        ->transform(CLI::AsSizeValue{false});
    addWait(*command, options->wait);
    command->add_option("--host", options->host, "What this machine is called in a repository of images (default: its name)");
    command->add_flag("--new", options->fresh, "A folder of its own for a device that has got the name of another one");
    command->callback([&context, options] { context.chosen = [&context, options] { return backup(context, *options); }; });
}

} // namespace qbackup
