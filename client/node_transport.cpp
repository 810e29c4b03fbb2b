// SPDX-License-Identifier: GPL-2.0-only
// The control device as a character device of this machine's kernel.
//
// Positive results of the driver reach a program as they are: as ioctl()'s own value, and as an address below 4096 from
// mmap(). An open has no such way out, since a descriptor is positive too: there the kernel side answers an errno.
#include "base/descriptor.h"
#include "client/error.h"
#include "client/transport.h"
#include "quendrel.h"

#include <fcntl.h>
#include <sys/ioctl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>

#include <cerrno>
#include <fstream>
#include <utility>

namespace quendrel
{
namespace
{

class NodeTransport final : public Transport
{
  public:
    explicit NodeTransport(base::Descriptor fd) : fd_{std::move(fd)} {}

    int command(std::uint32_t number, std::uint32_t argument) override
    {
        // The driver's positive codes are ioctl()'s own return value; only kernel errors go through errno. A command
        // has no harmless repetition, so EINTR is reported like any other error.
        const int result = ::ioctl(fd_.get(), static_cast<unsigned long>(number), static_cast<unsigned long>(argument));
        return result >= 0 ? result : -errno;
    }

    Mapping map(std::size_t bytes) override
    {
        // A 32-bit kernel has nothing else and leaves MAP_32BIT unread.
        void* p = ::mmap(nullptr, bytes, PROT_READ, MAP_PRIVATE | MAP_32BIT, fd_.get(), 0);
        if (p == MAP_FAILED)
            return {-errno, nullptr};
        const auto address = reinterpret_cast<std::uintptr_t>(p);
        // A positive code of the driver comes back as if it were the address of the mapping.
        if (address < 4096)
            return {static_cast<int>(address), nullptr};
        return {0, static_cast<std::byte*>(p)};
    }

    void unmap(std::byte* data, std::size_t bytes) noexcept override { ::munmap(data, bytes); }

    std::optional<std::uint64_t> closes() const override
    {
        std::ifstream parameter{"/sys/module/quendrel/parameters/closes"};
        std::uint64_t count;
        if (!(parameter >> count))
            return std::nullopt;
        return count;
    }

  private:
    base::Descriptor fd_;
};

} // namespace

std::unique_ptr<Transport> openNodeTransport(const std::string& path)
{
    // Opening some devices does something (a watchdog starts, a tape is wound back): the right one is told by its number.
    struct stat st {
    };
    if (::stat(path.c_str(), &st) != 0)
        throw Error{"open", "", path, -errno};
    if (major(st.st_rdev) != QUENDREL_CHRDEV_MAJOR)
        throw Error{"open", "", path, -ENOTTY,
                    "It is a character device of major number " + std::to_string(major(st.st_rdev)) + ", and the control "
                    "device has " + std::to_string(QUENDREL_CHRDEV_MAJOR)};
    base::Descriptor fd;
    do
        fd.reset(::open(path.c_str(), O_RDWR | O_CLOEXEC));
    while (!fd && errno == EINTR);
    if (!fd)
        throw Error{"open", "", path, -errno};
    return std::make_unique<NodeTransport>(std::move(fd));
}

} // namespace quendrel
