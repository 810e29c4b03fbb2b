// SPDX-License-Identifier: GPL-2.0-only
// The story's blocks in a file or block device of this machine.
#include "base/descriptor.h"
#include "block_target.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <system_error>

namespace
{

class PathTarget final : public BlockTarget
{
  public:
    explicit PathTarget(const std::string& path) : path_(path), fd_(::open(path.c_str(), O_WRONLY | O_DSYNC | O_CLOEXEC))
    {
        if (!fd_)
            throw std::system_error(errno, std::generic_category(), path);
    }

    void write(std::uint64_t offset, std::span<const char> bytes) override
    {
        const ssize_t done = ::pwrite(fd_.get(), bytes.data(), bytes.size(), static_cast<off_t>(offset));
        if (done != static_cast<ssize_t>(bytes.size()))
            throw std::system_error(done < 0 ? errno : ENOSPC, std::generic_category(), path_);
    }

  private:
    std::string path_;
    base::Descriptor fd_;
};

} // namespace

std::unique_ptr<BlockTarget> open_block_target(const std::string& name) { return std::make_unique<PathTarget>(name); }
