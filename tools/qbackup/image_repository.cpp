// SPDX-License-Identifier: GPL-2.0-only
#include "image_repository.h"

#include "dead_files.h"
#include "failure.h"

#include <nlohmann/json.hpp>

#include <fcntl.h>
#include <sys/random.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <climits>
#include <fstream>
#include <optional>

namespace qbackup
{
namespace
{

using nlohmann::json;

constexpr int format_version = 2;
constexpr const char* repository_file = "repository.json";
constexpr const char* host_file = "host.json";
constexpr const char* device_file = "device.json";

json readJson(const fs::path& path)
try {
    return json::parse(readText(path));
} catch (const json::exception& error) {
    throw Failure{Exit::damaged, path.string() + " cannot be understood: " + error.what()};
}

// Replaces the file as a whole, or it stays as it is.
void writeJson(const fs::path& path, const json& document)
{
    const std::string begin = partial_prefix + path.filename().string() + "-";
    removeDeadFiles(path.parent_path(), begin);
    const fs::path fresh = path.parent_path() / (begin + std::to_string(::getpid()));
    writeDurably(fresh, asBytes(document.dump(2) + "\n"));
    try {
        moveFile(fresh, path);
    } catch (...) {
        std::error_code error;
        fs::remove(fresh, error);
        throw;
    }
    syncDirectory(path.parent_path());
}

std::string newId()
{
    std::array<std::uint8_t, 16> bytes{};
    if (::getrandom(bytes.data(), bytes.size(), 0) != static_cast<ssize_t>(bytes.size()))
        throw Failure{Exit::failed, "there are no random numbers: " + errnoText(errno)};
    return toHex(bytes);
}

// Whether the folder says that it is this machine's. Throws Failure (refused) when it is another one's.
bool isNamedAfter(const fs::path& folder, const Host& host)
{
    if (!isPresent(folder / host_file))
        return false;
    const std::string known = readJson(folder / host_file).value("machineId", "");
    if (!known.empty() && !host.id.empty() && known != host.id)
        throw Failure{Exit::refused, folder.string() + " has the backups of another machine of that name: its machine-id is " + known +
                                         ", this one's is " + host.id +
                                         ". Give --host NAME for another name in this repository; if it is the same machine, installed anew, remove " +
                                         (folder / host_file).string()};
    return !known.empty() || host.id.empty();
}

// The folder that the machine's name stands for, if it stands for this machine.
fs::path hostFolder(const fs::path& target, const Host& host)
{
    const fs::path folder = target / host.name;
    makeDirectory(folder);
    syncDirectory(target); // also if it was made by a run that came no further
    if (!isNamedAfter(folder, host))
        writeJson(folder / host_file, {{"name", host.name}, {"machineId", host.id}});
    return folder;
}

void expectFit(const DevicePlace& place)
{
    const auto fit = [](const std::string& name) {
        return !name.empty() && !name.starts_with(".") && name.find('/') == std::string::npos;
    };
    if (!fit(place.host.name))
        throw Failure{Exit::refused, "'" + place.host.name + "' cannot be the name of a folder; give another one with --host"};
    if (!fit(place.device))
        throw Failure{Exit::refused, "'" + place.device + "' cannot be the name of a folder"};
}

// The name of the device's folder.
std::string chooseFolder(const fs::path& host, const DevicePlace& place)
{
    const auto there = identityIn(host / place.device);
    if (there && there->matches(place.identity))
        return place.device;
    // Under another name: those that a kernel gives change from one start to the next.
    if (!place.identity.marks.empty())
        for (const fs::path& folder : entriesOf(host))
            if (typeOf(folder) == fs::file_type::directory)
                if (const auto other = identityIn(folder); other && !other->marks.empty() && other->matches(place.identity)) {
                    const std::string name = folder.filename();
                    const auto now = place.present ? place.present(name) : std::nullopt;
                    if (!now || !now->matches(*other))
                        return name;
                    // Both are there: one is a copy of the other.
                    if (!place.fresh && !there)
                        throw Failure{Exit::refused, place.device + " cannot be told from " + name + ", whose backups are in " + folder.string() +
                                                         ": both are " + place.identity.text() + ". Give --new for a folder of its own"};
                }
    if (!there)
        return place.device;
    if (!place.fresh)
        throw Failure{Exit::refused, place.device + " is not the device whose backups are in " + (host / place.device).string() + ": that is " +
                                         there->text() + ", this is " + place.identity.text() +
                                         ". Give --new for a folder of its own"};
    for (unsigned number = 2;; ++number) {
        const std::string name = place.device + "-" + std::to_string(number);
        if (!identityIn(host / name))
            return name;
    }
}

} // namespace

std::optional<Host> hostOf(const fs::path& folder)
{
    if (!isPresent(folder / host_file))
        return std::nullopt;
    const json document = readJson(folder / host_file);
    return Host{document.value("name", folder.filename().string()), document.value("machineId", "")};
}

std::optional<DeviceIdentity> identityIn(const fs::path& folder)
{
    if (!isPresent(folder / device_file))
        return std::nullopt;
    DeviceIdentity identity;
    const json document = readJson(folder / device_file);
    const json marks = document.value("identity", json::object());
    for (const auto& [name, value] : marks.items())
        if (value.is_string())
            identity.marks[name] = value;
    return identity;
}

bool isImageRepository(const fs::path& target)
{
    if (!isPresent(target / repository_file))
        return false;
    const json document = readJson(target / repository_file);
    if (const int version = document.value("format", 0); version != format_version)
        throw Failure{Exit::refused, target.string() + " is a repository of format " + std::to_string(version) +
                                         ", which this program does not know; use a newer qbackup"};
    return true;
}

std::string makeImageRepository(const fs::path& target)
{
    if (isPresent(target / repository_file))
        throw Failure{Exit::refused, target.string() + " is a repository already"};
    if (const fs::file_type type = typeOf(target); type == fs::file_type::not_found) {
        makeDirectory(target);
        syncDirectory(fs::canonical(target).parent_path());
    } else if (type != fs::file_type::directory) {
        throw Failure{Exit::refused, target.string() + " is not a directory"};
    }
    for (const fs::path& entry : entriesOf(target))
        if (entry.filename() != "lost+found" && !entry.filename().string().starts_with(partial_prefix))
            throw Failure{Exit::refused, target.string() + " is not empty: it has " + entry.filename().string() +
                                             ". Name a directory that is not there yet, or an empty one"};
    const std::string id = newId();
    writeJson(target / repository_file, {{"format", format_version}, {"id", id}});
    return id;
}

Host thisHost(const fs::path& etc)
{
    std::array<char, HOST_NAME_MAX + 1> name{};
    if (::gethostname(name.data(), name.size() - 1) != 0 || name[0] == '\0')
        throw Failure{Exit::refused, "this machine has no name; give it one, or name it with --host"};
    std::string id;
    std::ifstream{etc / "machine-id"} >> id;
    return {name.data(), id};
}

fs::path imageFolderOf(const fs::path& target, const DevicePlace& place)
{
    expectFit(place);
    const fs::path host = target / place.host.name;
    if (!isPresent(host))
        return host / place.device;
    isNamedAfter(host, place.host);
    return host / chooseFolder(host, place);
}

Repository openImagesForBackup(const fs::path& target, const DevicePlace& place, const Patience& patience)
{
    expectFit(place);
    const fs::path host = hostFolder(target, place.host);
    const std::string folder = chooseFolder(host, place);
    Repository repository = Repository::openImages(host / folder, patience);
    const auto known = identityIn(host / folder);
    json marks = known ? known->marks : place.identity.marks;
    for (const auto& [name, value] : place.identity.marks)
        marks[name] = value;
    if (!known || marks != json(known->marks))
        writeJson(host / folder / device_file, {{"name", place.device}, {"identity", marks}});
    syncDirectory(host);
    return repository;
}

} // namespace qbackup
