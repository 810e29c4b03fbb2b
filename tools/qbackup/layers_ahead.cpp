// SPDX-License-Identifier: GPL-2.0-only
#include "layers_ahead.h"

#include "repository.h"

#include <utility>

namespace qbackup
{
namespace
{

constexpr std::size_t most_ahead = 2;

} // namespace

LayersAhead::LayersAhead(std::vector<StoredBackup> backups) : backups_{std::move(backups)}
{
    thread_ = std::thread{[this] { run(); }};
}

LayersAhead::~LayersAhead()
{
    {
        const std::lock_guard lock{mutex_};
        closed_ = true;
    }
    changed_.notify_all();
    thread_.join();
}

std::unique_ptr<LayerReader> LayersAhead::next()
{
    std::unique_lock lock{mutex_};
    changed_.wait(lock, [&] { return !opened_.empty(); });
    Opened first = std::move(opened_.front());
    opened_.pop();
    lock.unlock();
    changed_.notify_all();
    if (first.error)
        std::rethrow_exception(first.error);
    return std::move(first.layer);
}

void LayersAhead::run()
{
    std::unique_lock lock{mutex_};
    for (const StoredBackup& backup : backups_) {
        changed_.wait(lock, [&] { return opened_.size() < most_ahead || closed_; });
        if (closed_)
            return;
        lock.unlock();
        Opened one;
        try {
            one.layer = openLayer(backup);
        } catch (...) {
            one.error = std::current_exception();
        }
        lock.lock();
        opened_.push(std::move(one));
        changed_.notify_all();
    }
    changed_.wait(lock, [&] { return closed_; });
}

} // namespace qbackup
