// SPDX-License-Identifier: GPL-2.0-only
#include "host_freezer.h"

#include "host_mounts.h"

#include <linux/fs.h>
#include <sys/ioctl.h>

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
    auto mounted = open_mount_at(file_, start_);
    if (!mounted) {
        const auto point = mount_point_at(file_, start_);
        report_("freeze: the file system at sector " + std::to_string(start_) + " of " + file_ +
                (point ? " is mounted on " + *point +
                             ", where it cannot be reached (mostly something else is mounted over it; unmount that)"
                       : " was unmounted meanwhile; try again"));
        return false;
    }
    mounted_at_ = mounted->point;
    since_ = std::chrono::steady_clock::now();
    directory_ = std::move(mounted->directory);
    const int error = guardian_->freeze(directory_.get(), frozen_);
    if (error == 0)
        return true;
    // It may have frozen it. Should somebody else have, that is undone as well: better than frozen for ever.
    if (error == -ECONNRESET)
        ::ioctl(directory_.get(), FITHAW, 0);
    frozen_ = 0;
    directory_.reset();
    const bool gone = error == -EPIPE || error == -ECONNRESET;
    report_("freeze: " + mounted_at_ + ": " +
            (error == -EBUSY ? "frozen already by somebody else; thaw it first (fsfreeze --unfreeze)"
             : gone          ? "the guardian process is gone; restart the daemon"
                             : std::strerror(-error)));
    return false;
}

void HostFreezer::thaw()
{
    std::lock_guard lock(mutex_);
    if (!frozen_)
        return;
    int error = guardian_->thaw(frozen_);
    const bool gone = error == -EPIPE || error == -ECONNRESET;
    if (gone)
        error = ::ioctl(directory_.get(), FITHAW, 0) == 0 ? 0 : -errno;
    frozen_ = 0;
    directory_.reset();
    // A line may find no memory: only now.
    if (gone)
        report_("thaw: " + mounted_at_ + ": the guardian process is gone; thawed without it; restart the daemon");
    // -EINVAL: somebody thawed it already, which makes the copy less consistent, but nothing is stuck.
    if (error)
        return report_("thaw: " + mounted_at_ + ": " + std::strerror(-error));
    const auto lasted = std::chrono::steady_clock::now() - since_;
    report_(mounted_at_ + ": frozen for " +
            std::to_string(std::chrono::duration_cast<std::chrono::milliseconds>(lasted).count()) + " ms");
}

} // namespace quendreld
