/* SPDX-License-Identifier: GPL-2.0-only */
// A file descriptor with one owner, who closes it at the end. Negative: none.
//
// Its namespace is not the library's, which shows programs every name of that.
#pragma once

#include <unistd.h>

#include <utility>

namespace base
{

class Descriptor
{
  public:
    Descriptor() noexcept = default;
    explicit Descriptor(int fd) noexcept : fd_{fd} {}
    Descriptor(Descriptor&& other) noexcept : fd_{other.release()} {}
    Descriptor& operator=(Descriptor&& other) noexcept
    {
        reset(other.release());
        return *this;
    }
    ~Descriptor() { reset(); }

    int get() const noexcept { return fd_; }
    explicit operator bool() const noexcept { return fd_ >= 0; }
    [[nodiscard]] int release() noexcept { return std::exchange(fd_, -1); }
    // Closes what it has and takes this one.
    void reset(int fd = -1) noexcept
    {
        if (fd_ >= 0)
            ::close(fd_);
        fd_ = fd;
    }

  private:
    int fd_ = -1;
};

} // namespace base
