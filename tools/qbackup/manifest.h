/* SPDX-License-Identifier: GPL-2.0-only */
// What a backup says of itself: manifest.json. docs/qbackup-repository.5 describes it field by field, docs/backup-format.md that of a
// folder.
#pragma once

#include "client/control_device.h"
#include "failure.h"

#include <cstdint>
#include <span>
#include <string>

namespace qbackup
{

enum class Mode { full, incremental };
const char* toString(Mode mode);

struct Manifest {
    int format = 1; // 1: a folder, 2: an image
    std::string id;
    std::uint32_t sequence = 0;
    std::string parent;     // id; empty for a full backup
    std::string parentMark; // 32 hexadecimal digits
    Mode mode = Mode::full;
    std::string fullReason; // why this is a full backup
    std::string compared;   // of an increment: why all was read and compared; empty: what changed was known
    std::string device;
    quendrel::DeviceNumber number;
    std::string instance; // of the device, see HostBlocks::instance(); empty when the device cannot be exchanged
    std::uint32_t blockSize = 0;
    std::uint32_t blocks = 0;
    std::uint64_t deviceBytes = 0;
    quendrel::SessionKey key{}; // of the tracking session right after the snapshot
    std::string time;           // of the snapshot, UTC, as 2026-11-21T11:16:41Z
    double seconds = 0;         // that the run took until all was copied; 0: not known
    std::uint32_t copiedBlocks = 0;
    std::uint32_t unusedBlocks = 0; // which the file system did not use, so that they were not read
    bool compressed = false;        // an image's data; of a full backup alone
    std::uint64_t dataBytes = 0;    // stored; of an image without the blocks of zeros
    std::uint32_t segmentBytes = 0; // format 1 only, as what follows
    std::string mapHash;
    std::string sumsHash;
};

// The text of manifest.json. It carries a hash of itself.
std::string encode(const Manifest& manifest);
// A manifest of a format that a newer program writes.
class NewerFormat : public Failure
{
  public:
    using Failure::Failure;
};

// Throws Failure (damaged) that names `where` when the text is no manifest or was changed; NewerFormat.
Manifest decode(const std::string& text, const std::string& where);

// What a backup is named by in the manifests of those that build on it: of a folder the hash of its manifest file, of an
// image one that stays when the manifest changes, as it does when older ones are dropped.
std::string markOf(const Manifest& manifest, const std::string& text);

// Two hexadecimal digits a byte. fromHex() throws std::invalid_argument unless there are exactly that many.
std::string toHex(std::span<const std::uint8_t> bytes);
void fromHex(const std::string& text, std::span<std::uint8_t> bytes);

} // namespace qbackup
