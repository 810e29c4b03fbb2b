// SPDX-License-Identifier: GPL-2.0-only
#include "serve.h"

#include "child_process.h"
#include "folder_hold.h"
#include "qemu_image.h"
#include "unix_socket.h"

#include <cctype>
#include <chrono>
#include <cstring>
#include <span>
#include <thread>

namespace qbackup
{

namespace
{

std::string escaped(const std::string& text)
{
    constexpr char digits[] = "0123456789ABCDEF";
    std::string result;
    for (const char c : text) {
        const auto byte = static_cast<unsigned char>(c);
        if (std::isalnum(byte) != 0 || std::strchr("/-._~", c) != nullptr)
            result += c;
        else
            result += {'%', digits[byte >> 4], digits[byte & 15]};
    }
    return result;
}

} // namespace

void serveBackup(const StoredBackup& found, const fs::path& socket, const StopSignal& stop,
                 const std::function<void(const std::string& uri)>& ready)
{
    requireQemu();
    const base::Descriptor hold = holdForReading(found.path.parent_path());
    const StoredBackup backup = readBackup(found.path);
    const std::vector<fs::path> images = Repository{backup.path.parent_path()}.images(backup);
    const NamedSocket listening{fs::absolute(socket)};
    // The name of the export is the backup's: who connects sees what he gets.
    ChildProcess server{withSocket({"qemu-nbd", "--read-only", "--persistent", "--shared=0", "--export-name=" + backup.manifest.id,
                                    imageChain(images.front(), std::span{images}.subspan(1))}),
                        "qemu-utils", listening.fd()};
    ready("nbd+unix:///" + backup.manifest.id + "?socket=" + escaped(fs::absolute(socket).string()));
    while (stop.load(std::memory_order_relaxed) == 0) {
        if (!server.running())
            throw Failure{Exit::failed, "serving " + backup.path.string() + " has ended: " + server.said()};
        std::this_thread::sleep_for(std::chrono::milliseconds{50});
    }
}

} // namespace qbackup
