// SPDX-License-Identifier: GPL-2.0-only
#include "liveness.h"

#include <string>

namespace quendreld
{

Liveness::Liveness(const std::vector<ServedDisk*>& disks, std::function<void(std::string_view)> report)
    : report_(std::move(report))
{
    for (ServedDisk* disk : disks) {
        auto probe = std::make_unique<Probe>();
        probe->served = disk;
        probe->bytes = probe->sector.size();
        probe->data = probe->sector.data();
        probe->done = [](IoRequest* r, int) {
            static_cast<Probe*>(r)->answered.store(true, std::memory_order_release);
        };
        probes_.push_back(std::move(probe));
    }
}

bool Liveness::look()
{
    bool all = true;
    for (const auto& probe : probes_) {
        const bool answered = probe->answered.load(std::memory_order_acquire);
        all = all && answered;
        if (probe->sent && answered == probe->missed) {
            probe->missed = !answered;
            report_(probe->served->name() + (answered
                                               ? ": answers again"
                                               : ": has not answered a read; if that lasts, the service manager is "
                                                 "left to end this daemon and start another"));
        }
        if (probe->sent && !answered)
            continue;
        probe->sent = true;
        probe->answered.store(false, std::memory_order_relaxed);
        probe->served->submit(probe.get());
    }
    return all;
}

} // namespace quendreld
