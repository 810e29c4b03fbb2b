// SPDX-License-Identifier: GPL-2.0-only
// The memory of the processes that use the control device. A command reaches it through the task that executes it.
#include "base/descriptor.h"
#include "task.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <map>
#include <mutex>
#include <fcntl.h>
#include <poll.h>
#include <shared_mutex>
#include <sys/stat.h>
#include <system_error>
#include <unistd.h>

using namespace hosted;

unsigned long copy_from_user(void* to, user_addr from, unsigned long bytes)
{
    Task& task = this_task();
    may_sleep(task, "copy_from_user");
    return bytes == 0 ? 0 : task.memory ? task.memory->read(u32(from), to, bytes) : bytes;
}

unsigned long copy_to_user(user_addr to, const void* from, unsigned long bytes)
{
    Task& task = this_task();
    may_sleep(task, "copy_to_user");
    return bytes == 0 ? 0 : task.memory ? task.memory->write(u32(to), from, bytes) : bytes;
}

int put_user_u32(u32 value, user_addr to) { return copy_to_user(to, &value, sizeof value) ? -KERNEL_EFAULT : 0; }

namespace hosted
{

struct SimulatedMemory::Impl {
    struct Range {
        std::vector<std::byte> bytes; // whole pages
        bool writable;
    };
    std::shared_mutex mutex;          // guards the map; the bytes belong to whoever the test lets use them
    std::map<u32, Range> ranges;      // by first page's address
    std::map<u32, u32> first_page_of; // by the address that allocate gave out
    u32 next = 0x100000;

    // The range that holds the address, and the bytes left in it from there; null when it is unmapped.
    std::byte* find(u32 address, std::size_t& left, bool& writable)
    {
        auto at = ranges.upper_bound(address);
        if (at == ranges.begin())
            return nullptr;
        --at;
        std::size_t offset = address - at->first;
        if (offset >= at->second.bytes.size())
            return nullptr;
        left = at->second.bytes.size() - offset;
        writable = at->second.writable;
        return at->second.bytes.data() + offset;
    }

    // Calls copy(piece, bytes) along the range; the bytes that could not be reached.
    template <typename Copy> std::size_t walk(u32 address, std::size_t bytes, bool write, Copy copy)
    {
        std::shared_lock lock(mutex);
        std::uint64_t at = address;
        while (bytes > 0 && at <= 0xFFFFFFFFu) {
            std::size_t left = 0;
            bool writable = false;
            std::byte* p = find(u32(at), left, writable);
            if (!p || (write && !writable))
                break;
            std::size_t n = std::min(bytes, left);
            copy(p, n);
            at += n;
            bytes -= n;
        }
        return bytes;
    }
};

SimulatedMemory::SimulatedMemory() : impl_(std::make_unique<Impl>()) {}
SimulatedMemory::~SimulatedMemory() = default;

u32 SimulatedMemory::allocate(std::size_t bytes, bool writable, bool align_end)
{
    std::unique_lock lock(impl_->mutex);
    std::size_t pages = std::max<std::size_t>(1, (bytes + PAGE_BYTES - 1) / PAGE_BYTES);
    // Addresses are not used twice before they run out, so that a stale pointer is seen.
    std::uint64_t whole = (std::uint64_t(pages) + 1) * PAGE_BYTES;
    if (impl_->next + whole > 0xFFFFF000u)
        impl_->next = 0x100000;
    u32 start = impl_->next;
    for (auto at = impl_->ranges.begin(); at != impl_->ranges.end(); ++at) {
        if (at->first < start + whole && start < at->first + at->second.bytes.size() + PAGE_BYTES) {
            start = u32(at->first + at->second.bytes.size() + PAGE_BYTES);
            if (start + whole > 0xFFFFF000u)
                throw std::bad_alloc();
        }
    }
    impl_->next = u32(start + whole);
    impl_->ranges[start] = {std::vector<std::byte>(pages * PAGE_BYTES), writable};
    u32 address = align_end ? u32(start + pages * PAGE_BYTES - bytes) : start;
    impl_->first_page_of[address] = start;
    return address;
}

void SimulatedMemory::release(u32 address)
{
    std::unique_lock lock(impl_->mutex);
    auto at = impl_->first_page_of.find(address);
    if (at == impl_->first_page_of.end())
        return;
    impl_->ranges.erase(at->second);
    impl_->first_page_of.erase(at);
}

std::byte* SimulatedMemory::at(u32 address)
{
    std::shared_lock lock(impl_->mutex);
    std::size_t left = 0;
    bool writable = false;
    return impl_->find(address, left, writable);
}

std::size_t SimulatedMemory::read(u32 from, void* to, std::size_t bytes)
{
    auto* out = static_cast<std::byte*>(to);
    return impl_->walk(from, bytes, false, [&](const std::byte* p, std::size_t n) {
        std::memcpy(out, p, n);
        out += n;
    });
}

std::size_t SimulatedMemory::write(u32 to, const void* from, std::size_t bytes)
{
    auto* in = static_cast<const std::byte*>(from);
    return impl_->walk(to, bytes, true, [&](std::byte* p, std::size_t n) {
        std::memcpy(p, in, n);
        in += n;
    });
}

namespace
{

// By its /proc/PID/mem, which stays the memory of the program that ran when it was opened: none is left when the process
// executes another one, or ends.
class ProcessMemory final : public AddressSpace
{
  public:
    explicit ProcessMemory(base::Descriptor memory) : memory_(std::move(memory)) {}

    std::size_t read(u32 from, void* to, std::size_t bytes) override
    {
        auto* here = static_cast<std::byte*>(to);
        return transfer(from, bytes, [&](std::size_t n, off64_t at) {
            const ssize_t moved = ::pread64(memory_.get(), here, n, at);
            here += std::max<ssize_t>(moved, 0);
            return moved;
        });
    }
    std::size_t write(u32 to, const void* from, std::size_t bytes) override
    {
        auto* here = static_cast<const std::byte*>(from);
        return transfer(to, bytes, [&](std::size_t n, off64_t at) {
            const ssize_t moved = ::pwrite64(memory_.get(), here, n, at);
            here += std::max<ssize_t>(moved, 0);
            return moved;
        });
    }

  private:
    // The bytes that could not be moved.
    template <typename Move> static std::size_t transfer(u32 address, std::size_t bytes, Move move)
    {
        std::uint64_t there = address;
        const std::uint64_t room = (std::uint64_t(1) << 32) - there;
        const std::size_t beyond = bytes > room ? std::size_t(bytes - room) : 0;
        bytes -= beyond;
        while (bytes > 0) {
            const ssize_t n = move(bytes, off64_t(there));
            if (n < 0 && errno == EINTR)
                continue;
            if (n <= 0)
                break;
            there += std::uint64_t(n);
            bytes -= std::size_t(n);
        }
        return bytes + beyond;
    }

    base::Descriptor memory_;
};

bool has_ended(int pidfd)
{
    pollfd p{pidfd, POLLIN, 0};
    return ::poll(&p, 1, 0) != 0;
}

} // namespace

std::unique_ptr<AddressSpace> process_memory(int pid, int pidfd, unsigned user)
{
    const std::string path = "/proc/" + std::to_string(pid) + "/mem";
    base::Descriptor memory(::open(path.c_str(), O_RDWR | O_CLOEXEC));
    if (!memory)
        throw std::system_error(errno, std::generic_category(), path);
    // In this order: whoever is what he was now was it when the memory was opened. A program that has or had more rights
    // than its caller, a set-user-ID one, belongs to root here.
    struct stat status;
    if (::stat(path.c_str(), &status) != 0 || status.st_uid != user || (pidfd >= 0 && has_ended(pidfd)))
        throw std::system_error(EPERM, std::generic_category(),
                                "process " + std::to_string(pid) + " is not the program of user " +
                                    std::to_string(user) + " that connected, or has changed its rights");
    return std::make_unique<ProcessMemory>(std::move(memory));
}

} // namespace hosted
