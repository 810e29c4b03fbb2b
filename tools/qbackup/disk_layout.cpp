// SPDX-License-Identifier: GPL-2.0-only
#include "disk_layout.h"

#include "child_process.h"
#include "failure.h"
#include "stored_backup.h"
#include "utc.h"

namespace qbackup
{
namespace
{

constexpr const char* folder_name = "layout";
constexpr const char* name_end = ".sfdisk";

} // namespace

std::optional<DiskLayout> layoutOf(const Device& device, const fs::path& sys)
try {
    fs::path file = device.contents.file;
    std::string disk = file.filename();
    if (file.empty()) {
        const fs::path place = sys / "dev/block" / toString(device.number);
        if (device.hostDevices.empty() || !fs::exists(place / "partition"))
            return std::nullopt;
        disk = fs::canonical(place).parent_path().filename();
        file = "/dev" / fs::path{disk};
    } else if (device.contents.start == 0) {
        return std::nullopt;
    }
    ChildProcess sfdisk{{"sfdisk", "--dump", file.string()}, "fdisk"};
    if (!sfdisk.wait())
        return std::nullopt;
    return DiskLayout{disk, sfdisk.output()};
} catch (const std::exception&) {
    return std::nullopt;
}

bool keepLayout(const fs::path& host_folder, const DiskLayout& layout)
{
    const fs::path folder = host_folder / folder_name;
    if (makeDirectory(folder))
        syncDirectory(host_folder);
    const std::string begin = layout.disk + "-";
    fs::path newest;
    for (const fs::path& entry : entriesOf(folder)) {
        const std::string name = entry.filename();
        if (name.starts_with(begin) && name.size() == begin.size() + 16 + std::string{name_end}.size())
            newest = entry;
        if (name.starts_with(std::string{partial_prefix} + begin))
            removeFile(entry); // of a run that died
    }
    if (!newest.empty() && readText(newest) == layout.text)
        return false;
    const fs::path path = folder / (begin + utcNow("%Y%m%dT%H%M%SZ") + name_end);
    const fs::path fresh = folder / (partial_prefix + path.filename().string());
    writeDurably(fresh, asBytes(layout.text));
    moveFile(fresh, path);
    syncDirectory(folder);
    return true;
}

} // namespace qbackup
