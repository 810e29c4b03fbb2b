// SPDX-License-Identifier: GPL-2.0-only
// The way over a device node, against a kernel that is played: the linker puts the functions below in the place of the
// C library's, which pass on what is not for the node.
#include "client/control_device.h"
#include "client/transport.h"

#include <gtest/gtest.h>

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <sys/types.h>

#include <cerrno>
#include <cstdarg>
#include <cstring>
#include <string>
#include <vector>

namespace
{

constexpr const char* node = "/played/quendrel";
constexpr int node_fd = 987654;

// What the kernel answers, and what it was asked.
struct Kernel {
    unsigned major_number = 120;
    std::vector<int> open_errors; // one for each open; then it succeeds
    long ioctl_result = 0;        // as the kernel gives it: negative is an errno
    long mmap_result = 0;         // 0: a real mapping

    int opens = 0;
    int closes = 0;
    int open_flags = 0;
    unsigned long request = 0;
    unsigned long argument = 0;
    int protection = 0;
    int flags = 0;
};
Kernel kernel;

// How the C library hands on what a system call gave.
long fromKernel(long value)
{
    if (value >= 0 || value < -4095)
        return value;
    errno = static_cast<int>(-value);
    return -1;
}

} // namespace

extern "C" {

int __real_stat(const char* path, struct stat* st);
int __wrap_stat(const char* path, struct stat* st)
{
    if (std::strcmp(path, node) != 0)
        return __real_stat(path, st);
    *st = {};
    st->st_mode = S_IFCHR | 0660;
    st->st_rdev = makedev(kernel.major_number, 0);
    return 0;
}

int __real_open(const char* path, int flags, unsigned mode);
int __wrap_open(const char* path, int flags, ...)
{
    va_list more;
    va_start(more, flags);
    const unsigned mode = va_arg(more, unsigned);
    va_end(more);
    if (std::strcmp(path, node) != 0)
        return __real_open(path, flags, mode);
    kernel.open_flags = flags;
    if (static_cast<std::size_t>(kernel.opens) < kernel.open_errors.size()) {
        errno = kernel.open_errors[static_cast<std::size_t>(kernel.opens++)];
        return -1;
    }
    ++kernel.opens;
    return node_fd;
}

int __real_close(int fd);
int __wrap_close(int fd)
{
    if (fd != node_fd)
        return __real_close(fd);
    ++kernel.closes;
    return 0;
}

int __wrap_ioctl(int fd, unsigned long request, ...)
{
    va_list more;
    va_start(more, request);
    kernel.argument = va_arg(more, unsigned long);
    va_end(more);
    kernel.request = request;
    return fd == node_fd ? static_cast<int>(fromKernel(kernel.ioctl_result)) : -1;
}

void* __real_mmap(void* at, std::size_t bytes, int protection, int flags, int fd, off_t offset);
void* __wrap_mmap(void* at, std::size_t bytes, int protection, int flags, int fd, off_t offset)
{
    if (fd != node_fd)
        return __real_mmap(at, bytes, protection, flags, fd, offset);
    kernel.protection = protection;
    kernel.flags = flags;
    if (kernel.mmap_result != 0)
        return reinterpret_cast<void*>(fromKernel(kernel.mmap_result));
    return __real_mmap(nullptr, bytes, protection, flags | MAP_ANONYMOUS, -1, 0);
}

} // extern "C"

namespace
{

using quendrel::Error;

class Node : public testing::Test
{
  protected:
    Node() { kernel = {}; }
};

std::string whyNotOpened(int number)
{
    kernel = {};
    kernel.open_errors = {number};
    try {
        quendrel::openTransport(node);
    } catch (const Error& error) {
        EXPECT_EQ(error.code(), -number);
        return error.what();
    }
    return "";
}

TEST_F(Node, IsOpenedForReadingAndWritingAndClosed)
{
    quendrel::openTransport(node).reset();
    EXPECT_EQ(kernel.open_flags & O_ACCMODE, O_RDWR);
    EXPECT_NE(kernel.open_flags & O_CLOEXEC, 0);
    EXPECT_EQ(kernel.opens, 1);
    EXPECT_EQ(kernel.closes, 1);
}

TEST_F(Node, ReasonWhyItCannotBeOpenedComesWithWhatToDo)
{
    for (const int number : {ENXIO, ENODEV})
        EXPECT_NE(whyNotOpened(number).find("modprobe quendrel"), std::string::npos) << number;
    for (const int number : {EACCES, EPERM})
        EXPECT_NE(whyNotOpened(number).find("as root, or as a member of the group"), std::string::npos) << number;
    EXPECT_NE(whyNotOpened(EBUSY).find("another program has the control device open"), std::string::npos);
    EXPECT_NE(whyNotOpened(EBUSY).find("fuser -v"), std::string::npos);
    EXPECT_NE(whyNotOpened(EMFILE).find("Too many open files"), std::string::npos);
}

TEST_F(Node, InterruptedOpenIsRepeated)
{
    kernel.open_errors = {EINTR, EINTR};
    EXPECT_NO_THROW(quendrel::openTransport(node));
    EXPECT_EQ(kernel.opens, 3);
}

TEST_F(Node, OtherCharacterDeviceIsNotEvenOpened)
{
    kernel.major_number = 10; // watchdogs among others
    try {
        quendrel::openTransport(node);
        FAIL();
    } catch (const Error& error) {
        EXPECT_NE(std::string{error.what()}.find("major number 10,"), std::string::npos) << error.what();
    }
    EXPECT_EQ(kernel.opens, 0);
}

TEST_F(Node, DriversPositiveCodeIsTheResult)
{
    quendrel::ControlDevice device{node};
    kernel.ioctl_result = QUENDREL_BUSY;
    try {
        device.start({259, 1}, 100, 10);
        FAIL();
    } catch (const Error& error) {
        EXPECT_EQ(error.code(), QUENDREL_BUSY);
        EXPECT_EQ(error.device(), "259:1");
    }
    EXPECT_EQ(kernel.request, QUENDREL_START_BACKUP);
}

TEST_F(Node, KernelsErrorIsTheNegativeErrno)
{
    quendrel::ControlDevice device{node};
    kernel.ioctl_result = -EINTR;
    try {
        device.sync();
        FAIL();
    } catch (const Error& error) {
        EXPECT_EQ(error.code(), -EINTR);
    }
}

TEST_F(Node, CommandAndAddressAreNeverSignExtended)
{
    const auto transport = quendrel::openTransport(node);
    EXPECT_EQ(transport->command(0xc0de0001u, 0xbffff000u), 0);
    EXPECT_EQ(kernel.request, 0xc0de0001ul);
    EXPECT_EQ(kernel.argument, 0xbffff000ul);
}

TEST_F(Node, MappingIsPrivateReadOnlyAndBelow4GiB)
{
    quendrel::ControlDevice device{node};
    const auto area = device.map(256 * 4096);
    EXPECT_EQ(kernel.protection, PROT_READ);
    EXPECT_EQ(kernel.flags, MAP_PRIVATE | MAP_32BIT);
    EXPECT_LT(reinterpret_cast<std::uintptr_t>(area.data().data()) + area.data().size(), 1ull << 32);
}

TEST_F(Node, AddressBelow4096IsTheDriversCode)
{
    quendrel::ControlDevice device{node};
    for (const int code : {QUENDREL_REFUSED, QUENDREL_NO_MEMORY}) {
        kernel.mmap_result = code;
        try {
            device.map(4096);
            FAIL();
        } catch (const Error& error) {
            EXPECT_EQ(error.command(), "mmap");
            EXPECT_EQ(error.code(), code);
        }
    }
    kernel.mmap_result = -ENOMEM;
    try {
        device.map(4096);
        FAIL();
    } catch (const Error& error) {
        EXPECT_EQ(error.code(), -ENOMEM);
    }
}

} // namespace
