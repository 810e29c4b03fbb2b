// SPDX-License-Identifier: GPL-2.0-only
#include "host_freezer.h"

#include "host_mounts.h"

#include <cerrno>
#include <cstring>

namespace quendreld
{

HostFreezer::HostFreezer(std::shared_ptr<Guardian> guardian, std::string file, std::uint64_t start,
                         std::function<void(std::string_view)> report)
    : guardian_(std::move(guardian)), file_(std::move(file)), start_(start), report_(std::move(report))
{
}

bool HostFreezer::present() { return mount_point_at(file_, start_).has_value(); }

bool HostFreezer::freeze()
{
    std::lock_guard lock(mutex_);
    const auto mounted = open_mount_at(file_, start_);
    if (!mounted) {
        const auto point = mount_point_at(file_, start_);
        report_("freeze: the file system at sector " + std::to_string(start_) + " of " + file_ +
                (point ? " is mounted on " + *point + ", where something else is found; unmount what covers it"
                       : " was unmounted meanwhile; try again"));
        return false;
    }
    mounted_at_ = mounted->point;
    since_ = std::chrono::steady_clock::now();
    const int error = guardian_->freeze(mounted->directory.get(), frozen_);
    if (error == 0)
        return true;
    frozen_ = 0;
    report_("freeze: " + mounted_at_ + ": " +
            (error == -EBUSY   ? "frozen already by somebody else; thaw it first (fsfreeze --unfreeze)"
             : error == -EPIPE ? "the guardian process is gone; restart the daemon"
                               : std::strerror(-error)));
    return false;
}

void HostFreezer::thaw()
{
    std::lock_guard lock(mutex_);
    if (!frozen_)
        return;
    const int error = guardian_->thaw(frozen_);
    frozen_ = 0;
    // -EINVAL: somebody thawed it already, which makes the copy less consistent, but nothing is stuck.
    if (error)
        return report_("thaw: " + mounted_at_ + ": " + std::strerror(-error));
    const auto lasted = std::chrono::steady_clock::now() - since_;
    report_(mounted_at_ + ": frozen for " +
            std::to_string(std::chrono::duration_cast<std::chrono::milliseconds>(lasted).count()) + " ms");
}

} // namespace quendreld
