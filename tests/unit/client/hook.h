/* SPDX-License-Identifier: GPL-2.0-only */
// A function that a test sets while another thread may be calling it.
#pragma once

#include <functional>
#include <memory>
#include <mutex>

namespace fake
{

template <typename Signature> class Hook
{
  public:
    void set(std::function<Signature> function)
    {
        auto shared = function ? std::make_shared<std::function<Signature>>(std::move(function)) : nullptr;
        const std::lock_guard lock{mutex_};
        function_ = std::move(shared);
    }
    // Null when there is none. Called without the lock, so that it may wait for what another thread does.
    std::shared_ptr<std::function<Signature>> get() const
    {
        const std::lock_guard lock{mutex_};
        return function_;
    }

  private:
    mutable std::mutex mutex_; // guards function_; taken alone
    std::shared_ptr<std::function<Signature>> function_;
};

} // namespace fake
