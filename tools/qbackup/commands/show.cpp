// SPDX-License-Identifier: GPL-2.0-only
#include "command.h"

#include "backup_contents.h"
#include "common.h"
#include "folder_hold.h"
#include "image_repository.h"
#include "output.h"
#include "repository.h"

#include <algorithm>
#include <cstdio>
#include <memory>
#include <string>
#include <vector>

namespace qbackup
{
namespace
{

struct Options {
    fs::path from;
    std::string at; // time or id; empty: the newest
};

// What the backup holds itself.
struct Held {
    std::uint64_t ranges = 0; // that do not touch
    std::uint64_t dataBytes = 0;
    std::uint64_t zeroBytes = 0;
};

Held heldBy(const StoredBackup& backup)
{
    Held held;
    std::uint64_t end = 0; // of the range before
    const auto extents = extentsOf(backup);
    for (auto extent = extents->next(); extent; extent = extents->next()) {
        if (held.ranges == 0 || extent->offset != end)
            ++held.ranges;
        end = extent->offset + extent->bytes;
        (extent->zeros ? held.zeroBytes : held.dataBytes) += extent->bytes;
    }
    return held;
}

std::vector<std::string> idsOf(const std::vector<StoredBackup>& backups)
{
    std::vector<std::string> ids;
    for (const StoredBackup& backup : backups)
        ids.push_back(backup.manifest.id);
    return ids;
}

std::string joined(const std::vector<std::string>& words)
{
    std::string text;
    for (const std::string& word : words)
        text += (text.empty() ? "" : ", ") + word;
    return text;
}

// "12345 bytes" beside what is easier to read.
std::string exactBytes(std::uint64_t bytes) { return formatBytes(bytes) + " (" + std::to_string(bytes) + " bytes)"; }

void printField(const char* name, const std::string& value) { std::printf("%-12s%s\n", name, value.c_str()); }

int show(const Context& context, const Options& options)
{
    const StoredBackup found = findBackup(options.from, options.at);
    const fs::path folder = found.path.parent_path();
    const base::Descriptor hold = holdForReading(folder);
    const StoredBackup backup = readBackup(found.path);
    const Manifest& m = backup.manifest;
    const Repository repository{folder};
    const std::vector<std::string> chain = idsOf(repository.chain(backup));
    auto users = repository.backups();
    std::erase_if(users, [&](const StoredBackup& other) {
        return other.manifest.mode == Mode::full || other.manifest.parent != m.id ||
               other.manifest.parentMark != backup.mark;
    });
    const std::vector<std::string> used_by = idsOf(users);
    const Held held = heldBy(backup);
    const std::uint64_t allocated = allocatedBytes(backup);
    const auto host = m.format == 1 ? std::nullopt : hostOf(folder.parent_path());
    const auto identity = m.format == 1 ? std::nullopt : identityIn(folder);
    const std::string digest =
        m.format == 1 ? "XXH3-128 of each " + formatBytes(m.segmentBytes) + " of its data" : "XXH3-128 of each piece";

    if (context.json) {
        nlohmann::json document = describe(backup);
        document["ok"] = true;
        document["format"] = m.format;
        document["sequence"] = m.sequence;
        document["deviceBytes"] = m.deviceBytes;
        document["trackingKey"] = toHex(m.key);
        document["mark"] = backup.mark;
        document["instance"] = m.instance;
        document["allocatedBytes"] = allocated;
        document["ranges"] = held.ranges;
        document["heldDataBytes"] = held.dataBytes;
        document["heldZeroBytes"] = held.zeroBytes;
        document["chain"] = chain;
        document["usedBy"] = used_by;
        document["digest"] = "XXH3-128";
        document["sumsHash"] = m.sumsHash;
        if (host)
            document["host"] = {{"name", host->name}, {"machineId", host->id}};
        if (identity)
            document["identity"] = identity->marks;
        print(document);
        return static_cast<int>(Exit::ok);
    }
    printField("backup", m.id);
    printField("stored", backup.path.string() + (m.format == 1 ? " (a folder)" : m.compressed ? " (a compressed image)" : " (an image)"));
    if (host)
        printField("machine", host->name + (host->id.empty() ? "" : " (machine-id " + host->id + ")"));
    printField("device", m.device + " (" + toString(m.number) + "), " + exactBytes(m.deviceBytes) + ", blocks of " +
                             std::to_string(m.blockSize) + " bytes");
    if (identity)
        printField("known by", identity->text());
    if (!m.instance.empty())
        printField("instance", m.instance);
    char seconds[32];
    std::snprintf(seconds, sizeof seconds, ", taken in %.1f s", m.seconds);
    printField("time", m.time + (m.seconds > 0 ? seconds : ""));
    printField("number", std::to_string(m.sequence));
    printField("mode", m.mode == Mode::full ? "full: " + m.fullReason : "incremental, on " + m.parent);
    if (!m.compared.empty())
        printField("compared", "all blocks were read and compared: " + m.compared);
    printField("holds", std::to_string(held.ranges) + (held.ranges == 1 ? " range: " : " ranges: ") +
                            exactBytes(held.dataBytes) + " of data" +
                            (held.zeroBytes == 0 ? "" : ", " + exactBytes(held.zeroBytes) + " of zeros"));
    if (m.unusedBlocks != 0)
        printField("left out", std::to_string(m.unusedBlocks) + " blocks that the file system did not use");
    printField("takes", exactBytes(allocated) + " on the disk");
    printField("rests on", chain.size() == 1 ? "nothing but itself" : joined({chain.begin(), chain.end() - 1}));
    printField("carries", used_by.empty() ? "nothing" : joined(used_by));
    printField("key", toHex(m.key));
    printField("mark", backup.mark);
    printField("digest", digest + "; of these: " + m.sumsHash);
    return static_cast<int>(Exit::ok);
}

} // namespace

void addShow(CLI::App& app, Context& context)
{
    const auto options = std::make_shared<Options>();
    CLI::App* command = app.add_subcommand("show", "Show everything about one backup");
    command
        ->add_option("BACKUP,--from", options->from,
                     "Backup, or TARGET, or what below it has the backups of one device")
        ->required();
    addAt(*command, options->at);
    command->callback(
        [&context, options] { context.chosen = [&context, options] { return show(context, *options); }; });
}

} // namespace qbackup
