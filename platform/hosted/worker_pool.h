/* SPDX-License-Identifier: GPL-2.0-only */
// A few threads for requests that block. The first is there from the start, others are started when a request finds none
// idle, up to a limit, and stay. When the host gives no more the request waits for those that there are.
#pragma once

#include "hosted.h"

#include <condition_variable>
#include <exception>
#include <functional>
#include <mutex>
#include <thread>
#include <utility>
#include <vector>

namespace hosted
{

class WorkerPool
{
  public:
    // `work` is called for each request, on one of the threads, and does not throw.
    WorkerPool(unsigned most, std::function<void(StoreRequest*)> work) : most_(most), work_(std::move(work))
    {
        threads_.reserve(most);
        threads_.emplace_back([this] { run(); }); // throws std::system_error
    }
    // Finishes what was pushed.
    ~WorkerPool()
    {
        {
            std::lock_guard lock(mutex_);
            stop_ = true;
        }
        came_.notify_all();
        for (std::thread& t : threads_)
            t.join();
    }
    WorkerPool(const WorkerPool&) = delete;
    WorkerPool& operator=(const WorkerPool&) = delete;

    void push(StoreRequest* r) noexcept
    {
        std::lock_guard lock(mutex_);
        r->next = nullptr;
        *end_ = r;
        end_ = &r->next;
        if (++waiting_ > idle_ && threads_.size() < most_) {
            try {
                threads_.emplace_back([this] { run(); });
                return;
            } catch (const std::exception&) { // no thread, or no memory for one
            }
        }
        came_.notify_one();
    }

  private:
    void run()
    {
        std::unique_lock lock(mutex_);
        for (;;) {
            ++idle_;
            came_.wait(lock, [this] { return stop_ || first_; });
            --idle_;
            StoreRequest* r = first_;
            if (!r)
                return;
            first_ = r->next;
            if (!first_)
                end_ = &first_;
            --waiting_;
            lock.unlock();
            work_(r);
            lock.lock();
        }
    }

    const unsigned most_;
    const std::function<void(StoreRequest*)> work_;
    std::mutex mutex_; // guards the rest
    std::condition_variable came_;
    StoreRequest* first_ = nullptr;
    StoreRequest** end_ = &first_;
    std::size_t waiting_ = 0;
    std::size_t idle_ = 0;
    bool stop_ = false;
    std::vector<std::thread> threads_;
};

} // namespace hosted
