// SPDX-License-Identifier: GPL-2.0-only
#include "output.h"

#include "files.h"
#include "progress.h"

#include <cerrno>
#include <cstdio>

namespace qbackup
{

using nlohmann::json;

// A name need not be text in any encoding.
void print(const json& document)
{
    std::printf("%s\n", document.dump(-1, ' ', false, json::error_handler_t::replace).c_str());
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
    if (m.unusedBlocks != 0)
        document["unusedBlocks"] = m.unusedBlocks;
    if (m.compressed)
        document["compressed"] = true;
    if (m.seconds > 0)
        document["seconds"] = m.seconds;
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

int reportFailure(bool as_json, int code, const std::string& text)
{
    if (as_json)
        print({{"ok", false}, {"exit", code}, {"error", text}});
    std::fprintf(stderr, "qbackup: %s\n", text.c_str());
    return code;
}

int attempt(bool as_json, const std::function<int()>& work)
try {
    return work();
} catch (const Interrupted&) {
    throw;
} catch (const Failure& failure) {
    return reportFailure(as_json, failure.exitCode(), failure.what());
} catch (const std::exception& error) {
    return reportFailure(as_json, static_cast<int>(Exit::failed), error.what());
}

int ofBoth(int first, int second)
{
    return first == 0 || (first == static_cast<int>(Exit::warned) && second != 0) ? second : first;
}

void finishOutput()
{
    if (std::fflush(stdout) != 0 || std::ferror(stdout) != 0)
        throw Failure{Exit::failed, "what was to be told on standard output could not be written there: " + errnoText(errno)};
}

} // namespace qbackup
