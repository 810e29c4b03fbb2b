// SPDX-License-Identifier: GPL-2.0-only
// The command line of quendreld.
#include "attach.h"
#include "launcher.h"
#include "run_dir.h"

#include <grp.h>
#include <limits.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <filesystem>
#include <iostream>
#include <nlohmann/json.hpp>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <vector>

namespace
{

using namespace quendreld;

std::string absolute(const std::string& path)
{
    // It may not exist yet; what leads to it is resolved, as the kernel will name it, but not the directory itself: that
    // must be none that somebody else's link names.
    namespace fs = std::filesystem;
    fs::path full = fs::absolute(path);
    while (!full.has_filename() && full.has_relative_path())
        full = full.parent_path();
    if (full.filename() == "." || full.filename() == ".." || !full.has_filename())
        return fs::weakly_canonical(full).string();
    return (fs::weakly_canonical(full.parent_path()) / full.filename()).string();
}

int group_number(const std::string& name)
{
    if (name.empty())
        return -1;
    if (const group* found = ::getgrnam(name.c_str()))
        return int(found->gr_gid);
    char* end = nullptr;
    const long number = std::strtol(name.c_str(), &end, 10);
    if (*end == 0 && number >= 0 && number < INT_MAX)
        return int(number);
    throw std::runtime_error(name + ": no such group");
}

constexpr int usage_error = 2;

// A configuration file: a line "key = value" for each long option of the command line, "#" before comments.
class ConfigFile : public CLI::ConfigTOML
{
  public:
    // A key that comes again further down would be left out in silence.
    std::vector<CLI::ConfigItem> from_config(std::istream& input) const override
    {
        std::vector<CLI::ConfigItem> items = CLI::ConfigTOML::from_config(input);
        std::set<std::string> seen;
        for (const CLI::ConfigItem& item : items)
            if (!seen.insert(item.fullname()).second)
                throw CLI::ConfigError(item.fullname() + ": stands here twice, with others between; put the lines together");
        return items;
    }
};

// What is wrong with the command line. A word that is not known goes before one that is missing: it is often the missing
// one, misspelt.
std::string complaint(const CLI::App* app, const CLI::Error& error)
{
    for (const std::string& word : app->remaining()) {
        if (word == "--")
            continue;
        const std::string name = word.substr(0, word.find('='));
        return "quendreld: " + name + (name.starts_with('-') ? ": unknown option" : ": not expected here") + "; see " +
               app->get_name() + " --help\n";
    }
    const CLI::Option* config = app->get_config_ptr();
    const std::string file = config && config->count() ? config->as<std::string>() : std::string();
    if (!file.empty() && !::access(file.c_str(), R_OK)) {
        constexpr std::string_view unknown = "INI was not able to parse ";
        std::string what = error.what();
        if (what.starts_with(unknown))
            what = what.substr(unknown.size()) + ": unknown key";
        return "quendreld: " + file + ": " + what + "; see quendreld(8)\n";
    }
    if (!file.empty())
        return "quendreld: " + file + ": cannot be read: " + std::strerror(errno) + "\n";
    return "quendreld: " + std::string(error.what()) + "; see " + app->get_name() + " --help\n";
}

// Reads the command line. A value is the exit code of a program that ends with that: it was asked for help, or cannot
// understand what it was asked for.
std::optional<int> ends_with(CLI::App& app, int argc, char** argv)
{
    app.failure_message(complaint);
    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError& error) {
        return app.exit(error) == 0 ? 0 : usage_error;
    }
    return std::nullopt;
}

DiskRecord find_disk(const std::string& run_dir, const std::string& name)
{
    const RunDir run(run_dir);
    if (!run.taken())
        throw std::runtime_error(run_dir + ": no daemon runs there; start one with quendreld DISK --run-dir");
    std::string known;
    for (DiskRecord& disk : disks_from_json(run.read(run.disks_json()))) {
        if (disk.name == name)
            return disk;
        known += (known.empty() ? "" : ", ") + disk.name;
    }
    throw std::runtime_error(name + ": no such disk there; it serves " + known);
}

// What a user wants to know when it runs.
void tell_what_is_served(const RunDir& run)
{
    for (const DiskRecord& disk : disks_from_json(run.read(run.disks_json()))) {
        std::cout << disk.name << "  " << disk.bytes << " bytes  nbd " << disk.nbd;
        if (!disk.file.empty())
            std::cout << "  file " << disk.file;
        std::cout << "\n";
        if (!disk.flush_error.empty())
            std::cout << "  A FLUSH FAILED (" << disk.flush_error
                      << "): what was written since the one before may be lost; check the disk below, serve it anew\n";
        for (const PartitionRecord& part : disk.partitions)
            std::cout << "  " << part.name << "  " << part.sectors * 512 << " bytes"
                      << (part.file_system ? "  " + part.file_system->type : "") << "\n";
    }
    std::cout << "control device  " << run.control_socket() << "\nlog             " << run.log() << "\n" << std::flush;
}

int serve(int argc, char** argv)
{
    CLI::App app("Serves disks with the quendrel driver loaded. See also: quendreld status|stop|attach|detach --help",
                 "quendreld");
    Config config;
    std::vector<std::string> paths;
    std::string run_dir, group, format;
    bool no_fuse = false;
    app.set_config("--config", "", "file with options, a line each: \"run-dir = DIR\", \"disk = PATH\", \"read-only = true\"");
    app.config_formatter(std::make_shared<ConfigFile>());
    app.allow_config_extras(CLI::config_extras_mode::error);
    app.add_option("DISK", paths, "disk image or block device; the first is sda, the next sdb, ...")
        ->required()
        ->ignore_case(); // "disk" in a file
    app.add_option("--run-dir", run_dir, "directory for sockets, disk files and log")->required();
    app.add_flag("--foreground", config.foreground, "stay in the foreground, log to standard error too");
    app.add_flag("--direct", config.direct, "bypass the host's page cache (O_DIRECT)");
    app.add_flag("--read-only", config.read_only, "refuse changes");
    app.add_option("--format", format, "raw: serve the bytes as they are, even if they look like a container's")
        ->check(CLI::IsMember({"raw"}));
    app.add_flag("--multi-client", config.multi_client,
                 "let several clients open the control device (each open or close ends a running backup)");
    app.add_flag("--no-fuse", no_fuse, "NBD only, no disk files");
    app.add_option("--group", group, "group that may use the sockets");
    app.set_version_flag("--version", "quendreld 3.1.0");
    if (const auto end = ends_with(app, argc, argv))
        return *end;

    config.fuse = !no_fuse;
    config.group = group_number(group);
    config.run_dir = absolute(run_dir);
    config.images = check_images(paths, config.read_only, format == "raw");
    return launch(config, [&config] { tell_what_is_served(RunDir(config.run_dir)); });
}

int status(int argc, char** argv)
{
    CLI::App app("Tells what the daemon of a run directory serves, and what is wrong with it.", "quendreld status");
    std::string run_dir;
    bool json = false;
    app.add_option("--run-dir", run_dir)->required();
    app.add_flag("--json", json, "print JSON: what is in RUN/disks.json");
    if (const auto end = ends_with(app, argc, argv))
        return *end;
    const RunDir run(absolute(run_dir));
    if (!run.taken())
        throw std::runtime_error(run_dir + ": no daemon runs there");
    if (json)
        std::cout << run.read(run.disks_json());
    else
        tell_what_is_served(run);
    return 0;
}

int stop(int argc, char** argv)
{
    CLI::App app("Ends the daemon of a run directory.", "quendreld stop");
    std::string run_dir;
    bool force = false;
    app.add_option("--run-dir", run_dir)->required();
    app.add_flag("--force", force, "even when a disk is mounted on this host; it is written out first");
    if (const auto end = ends_with(app, argc, argv))
        return *end;
    stop_daemon(absolute(run_dir), force);
    return 0;
}

int attach(int argc, char** argv)
{
    CLI::App app("Makes a served disk a loop device of this host, with its partitions.", "quendreld attach");
    std::string run_dir, name;
    bool json = false, read_only = false;
    app.add_option("DISK", name, "its name: sda")->required();
    app.add_option("--run-dir", run_dir)->required();
    app.add_flag("--json", json, "print JSON");
    app.add_flag("--read-only", read_only);
    if (const auto end = ends_with(app, argc, argv))
        return *end;

    const DiskRecord disk = find_disk(absolute(run_dir), name);
    const HostLoop loop = attach_disk(disk, read_only);
    nlohmann::ordered_json out{{"disk", name}, {"loop", loop.node}, {"partitions", nlohmann::ordered_json::array()}};
    for (const HostDevice& device : loop.devices) {
        if (device.partition == 0)
            continue;
        out["partitions"].push_back({{"name", name + std::to_string(device.partition)}, {"device", device.node}});
    }
    if (json) {
        std::cout << out.dump() << "\n";
    } else {
        std::cout << name << "  " << loop.node << "\n";
        for (const auto& part : out["partitions"])
            std::cout << "  " << part["name"].get<std::string>() << "  " << part["device"].get<std::string>() << "\n";
    }
    return 0;
}

int detach(int argc, char** argv)
{
    CLI::App app("Takes a disk's loop device away. Refused while something on it is mounted.", "quendreld detach");
    std::string run_dir, name;
    app.add_option("DISK", name, "its name: sda")->required();
    app.add_option("--run-dir", run_dir)->required();
    if (const auto end = ends_with(app, argc, argv))
        return *end;
    if (!detach_disk(find_disk(absolute(run_dir), name)))
        std::cout << name << " is not attached\n";
    return 0;
}

} // namespace

int main(int argc, char** argv)
{
    try {
        if (argc > 1) {
            const std::string word = argv[1];
            if (word == "status")
                return status(argc - 1, argv + 1);
            if (word == "stop")
                return stop(argc - 1, argv + 1);
            if (word == "attach")
                return attach(argc - 1, argv + 1);
            if (word == "detach")
                return detach(argc - 1, argv + 1);
        }
        return serve(argc, argv);
    } catch (const std::exception& error) {
        std::cerr << "quendreld: " << error.what() << "\n";
        return 1;
    }
}
