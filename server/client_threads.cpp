// SPDX-License-Identifier: GPL-2.0-only
#include "client_threads.h"

#include <pthread.h>

#include <algorithm>
#include <exception>

namespace quendreld
{

ClientThreads::ClientThreads(Options options)
    : options_(std::move(options)), quietly_(options_.listener.report), listener_(options_.listener)
{
    thread_ = std::thread([this] { listen_loop(); });
}

ClientThreads::~ClientThreads()
{
    {
        std::lock_guard lock(mutex_);
        stop_ = true;
        for (Entry& entry : entries_)
            if (!entry.finished)
                entry.client->hang_up();
    }
    left_.notify_all();
    listener_.wake();
    thread_.join();
    for (Entry& entry : entries_)
        entry.thread.join();
}

std::size_t ClientThreads::clients() const
{
    std::lock_guard lock(mutex_);
    return std::size_t(std::count_if(entries_.begin(), entries_.end(), [](const Entry& e) { return !e.finished; }));
}

void ClientThreads::listen_loop()
{
    pthread_setname_np(pthread_self(), (options_.thread_name + "-listen").c_str());
    for (;;) {
        reap();
        {
            std::unique_lock lock(mutex_);
            if (!stop_ && entries_.size() >= options_.most) {
                if (!options_.when_full.empty())
                    quietly_(options_.when_full);
                left_.wait(lock, [this] {
                    return stop_ || std::any_of(entries_.begin(), entries_.end(), [](auto& e) { return e.finished; });
                });
            }
            if (stop_)
                return;
            if (entries_.size() >= options_.most)
                continue;
        }
        if (base::Descriptor socket = listener_.accept())
            take(std::move(socket));
    }
}

void ClientThreads::take(base::Descriptor socket)
{
    std::list<Entry> one;
    try {
        Entry& entry = one.emplace_back();
        entry.client = options_.make(std::move(socket));
        std::lock_guard lock(mutex_);
        if (stop_)
            return;
        entry.thread = std::thread([this, &entry] { run(entry); });
        entries_.splice(entries_.end(), one);
    } catch (const std::exception& error) {
        if (!one.empty() && one.front().client)
            one.front().client->turned_away();
        quietly_({options_.client_name, " was turned away: ", error.what()});
    }
}

void ClientThreads::run(Entry& entry)
{
    pthread_setname_np(pthread_self(), options_.thread_name.c_str());
    try {
        entry.client->serve();
    } catch (const std::exception& error) { // no memory, for one
        quietly_({options_.client_name, " was cut off: ", error.what()});
    }
    // Under the lock to the end: afterwards this may be gone.
    std::lock_guard lock(mutex_);
    entry.finished = true;
    left_.notify_all();
    listener_.wake();
}

void ClientThreads::reap()
{
    std::list<Entry> left;
    {
        std::lock_guard lock(mutex_);
        for (auto at = entries_.begin(); at != entries_.end();) {
            const auto next = std::next(at);
            if (at->finished)
                left.splice(left.end(), entries_, at);
            at = next;
        }
    }
    for (Entry& entry : left)
        entry.thread.join();
}

} // namespace quendreld
