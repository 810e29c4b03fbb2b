/* SPDX-License-Identifier: GPL-2.0-only */
// A few threads for calls that block. The first is there from the start, others are started when work finds none idle,
// up to a limit, and stay. When the host gives no more the work waits for those that there are.
#pragma once

#include <condition_variable>
#include <deque>
#include <functional>
#include <mutex>
#include <system_error>
#include <thread>
#include <vector>

namespace hosted
{

class WorkerPool
{
  public:
    explicit WorkerPool(unsigned most) : most_(most)
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
        work_.notify_all();
        for (std::thread& t : threads_)
            t.join();
    }
    WorkerPool(const WorkerPool&) = delete;
    WorkerPool& operator=(const WorkerPool&) = delete;

    void push(std::function<void()> job)
    {
        std::lock_guard lock(mutex_);
        jobs_.push_back(std::move(job));
        if (jobs_.size() > idle_ && threads_.size() < most_) {
            try {
                threads_.emplace_back([this] { run(); });
                return;
            } catch (const std::system_error&) {
            }
        }
        work_.notify_one();
    }

  private:
    void run()
    {
        std::unique_lock lock(mutex_);
        for (;;) {
            ++idle_;
            work_.wait(lock, [this] { return stop_ || !jobs_.empty(); });
            --idle_;
            if (jobs_.empty())
                return;
            auto job = std::move(jobs_.front());
            jobs_.pop_front();
            lock.unlock();
            job();
            lock.lock();
        }
    }

    const unsigned most_;
    std::mutex mutex_; // guards the rest
    std::condition_variable work_;
    std::deque<std::function<void()>> jobs_;
    std::size_t idle_ = 0;
    bool stop_ = false;
    std::vector<std::thread> threads_;
};

} // namespace hosted
