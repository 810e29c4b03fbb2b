/* SPDX-License-Identifier: GPL-2.0-only */
// A repository of images: TARGET/repository.json, and TARGET/HOST/DEVICE/ with the backups of one device of one machine.
//
// TARGET/HOST/host.json tells which machine the name stands for, TARGET/HOST/DEVICE/device.json which device: a machine of
// the same name, or another disk under the same device's name, is not mixed with it.
#pragma once

#include "device_identity.h"
#include "repository.h"

#include <functional>
#include <optional>
#include <string>

namespace qbackup
{

// Whether TARGET is such a repository. Throws Failure when it is one that this program does not know.
bool isImageRepository(const fs::path& target);
// Makes one of a directory that is not there yet, or is empty. Throws Failure (refused) otherwise. Its id.
std::string makeImageRepository(const fs::path& target);

struct Host {
    std::string name;
    std::string id; // its machine-id; empty: not known
};
// This machine. `etc`: where its machine-id is.
Host thisHost(const fs::path& etc = "/etc");

// The machine that a host's folder stands for, and what the device of a folder in it is known by. Nothing when the folder
// does not say so. Throws Failure.
std::optional<Host> hostOf(const fs::path& folder);
std::optional<DeviceIdentity> identityIn(const fs::path& folder);

struct DevicePlace {
    Host host;
    std::string device; // the name of its folder when it gets one
    DeviceIdentity identity;
    bool fresh = false; // a folder of its own even if another device has that name
    // What a device that is there now by that name is known by; nothing when there is none. Null: none is there.
    std::function<std::optional<DeviceIdentity>(const std::string& device)> present{};
};
// The folder of the device, found by its identity, or where it would be made; nothing is. Throws Failure.
fs::path imageFolderOf(const fs::path& target, const DevicePlace& place);
// The folder of the device, found by its identity, else made; locked and free of what dead runs left. Throws Failure.
Repository openImagesForBackup(const fs::path& target, const DevicePlace& place, const Patience& patience = {});

} // namespace qbackup
