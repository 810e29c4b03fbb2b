// SPDX-License-Identifier: GPL-2.0-only
#include "serve.h"

#include "child_process.h"
#include "folder_hold.h"
#include "qemu_image.h"
#include "unix_socket.h"

#include <chrono>
#include <span>
#include <thread>

namespace qbackup
{

void serveBackup(const StoredBackup& backup, const fs::path& socket, const StopSignal& stop,
                 const std::function<void(const std::string& uri)>& ready)
{
    requireQemu();
    const base::Descriptor hold = holdForReading(backup.path.parent_path());
    const std::vector<fs::path> images = Repository{backup.path.parent_path()}.images(backup);
    const NamedSocket listening{fs::absolute(socket)};
    // The name of the export is the backup's: who connects sees what he gets.
    ChildProcess server{withSocket({"qemu-nbd", "--read-only", "--persistent", "--shared=0", "--export-name=" + backup.manifest.id,
                                    imageChain(images.front(), std::span{images}.subspan(1))}),
                        "qemu-utils", listening.fd()};
    ready("nbd+unix:///" + backup.manifest.id + "?socket=" + fs::absolute(socket).string());
    while (stop.load(std::memory_order_relaxed) == 0) {
        if (!server.running())
            throw Failure{Exit::failed, "serving " + backup.path.string() + " has ended: " + server.said()};
        std::this_thread::sleep_for(std::chrono::milliseconds{50});
    }
}

} // namespace qbackup
