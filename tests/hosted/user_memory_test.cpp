// SPDX-License-Identifier: GPL-2.0-only
// Reaching a process's memory: the simulated one, and a live one of this host.
#include "hosted.h"

#include <csignal>
#include <cstring>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/mman.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

using namespace hosted;

TEST(SimulatedMemory, BuffersAreZeroedAndLieBetweenUnmappedPages)
{
    SimulatedMemory memory;
    u32 a = memory.allocate(PAGE_BYTES);
    u32 b = memory.allocate(100);
    EXPECT_EQ(a % PAGE_BYTES, 0u);
    char text[PAGE_BYTES + 1];
    EXPECT_EQ(memory.read(a, text, PAGE_BYTES), 0u);
    EXPECT_EQ(text[0], 0);
    EXPECT_EQ(memory.read(a, text, PAGE_BYTES + 1), 1u) << "the bytes not copied";
    EXPECT_EQ(memory.read(a - 1, text, 4), 4u);
    EXPECT_EQ(memory.at(a - 1), nullptr);
    EXPECT_NE(memory.at(b), nullptr);
    EXPECT_EQ(memory.read(0, text, 1), 1u);
    EXPECT_EQ(memory.read(0xFFFFFFFF, text, 2), 2u);
}

TEST(SimulatedMemory, OneByteBeyondAnEndAlignedBufferIsUnmapped)
{
    SimulatedMemory memory;
    u32 a = memory.allocate(20, true, true);
    char text[32] = "0123456789abcdefghi";
    EXPECT_EQ(memory.write(a, text, 20), 0u);
    EXPECT_EQ(memory.write(a, text, 21), 1u);
    EXPECT_STREQ(reinterpret_cast<char*>(memory.at(a)), text);
}

TEST(SimulatedMemory, ReadOnlyAndReleasedBuffersRefuse)
{
    SimulatedMemory memory;
    u32 a = memory.allocate(8, false);
    int value = 1;
    EXPECT_EQ(memory.write(a, &value, 4), 4u);
    EXPECT_EQ(memory.read(a, &value, 4), 0u);
    memory.release(a);
    EXPECT_EQ(memory.read(a, &value, 4), 4u);
}

#if !defined(__i386__)

namespace
{

// A process with three pages below 4 GiB of which the last is unreadable.
class Child
{
  public:
    Child()
    {
        base_ = static_cast<char*>(
            mmap(nullptr, 3 * PAGE_BYTES, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS | MAP_32BIT, -1, 0));
        std::memset(base_, 'x', 2 * PAGE_BYTES);
        munmap(base_ + 2 * PAGE_BYTES, PAGE_BYTES);
        pid_ = fork();
        if (pid_ == 0) {
            for (;;)
                pause();
        }
        std::memset(base_, 'p', 2 * PAGE_BYTES); // the parent's own copy differs
        pidfd_ = int(syscall(SYS_pidfd_open, pid_, 0));
    }
    ~Child()
    {
        end();
        close(pidfd_);
        munmap(base_, 2 * PAGE_BYTES);
    }
    void end()
    {
        if (pid_ > 0) {
            kill(pid_, SIGKILL);
            waitpid(pid_, nullptr, 0);
            pid_ = -1;
        }
    }
    u32 address() const { return u32(reinterpret_cast<std::uintptr_t>(base_)); }
    int pid() const { return pid_; }
    int pidfd() const { return pidfd_; }

  private:
    char* base_;
    pid_t pid_;
    int pidfd_;
};

} // namespace

TEST(ProcessMemory, ReadsAndWritesTheOtherProcess)
{
    Child child;
    auto memory = process_memory(child.pid(), child.pidfd(), geteuid());
    char text[16] = {};
    EXPECT_EQ(memory->read(child.address() + 100, text, 4), 0u);
    EXPECT_STREQ(text, "xxxx");
    EXPECT_EQ(memory->write(child.address() + 101, "ab", 2), 0u);
    EXPECT_EQ(memory->read(child.address() + 100, text, 4), 0u);
    EXPECT_STREQ(text, "xabx");
}

TEST(ProcessMemory, StopsAtAPageThatIsNotThereAndSaysHowMuchIsLeft)
{
    Child child;
    auto memory = process_memory(child.pid(), child.pidfd(), geteuid());
    char bytes[3 * PAGE_BYTES];
    EXPECT_EQ(memory->read(child.address(), bytes, sizeof bytes), PAGE_BYTES);
    EXPECT_EQ(bytes[2 * PAGE_BYTES - 1], 'x');
    EXPECT_EQ(memory->write(child.address() + 2 * PAGE_BYTES - 3, bytes, 10), 7u);
    EXPECT_EQ(memory->read(0, bytes, 8), 8u);
    // A sanitizer has something at the end of the 4 GiB.
    EXPECT_GE(memory->read(0xFFFFFFF0, bytes, 64), 48u) << "the address does not wrap";
}

TEST(ProcessMemory, IsGoneWhenTheProcessExecutesAnotherProgram)
{
    constexpr u32 address = 0x10000000;
    constexpr char program[] = "import ctypes, os, sys\n"
                               "map = ctypes.CDLL(None).mmap\n"
                               "map.restype = ctypes.c_void_p\n"
                               "map.argtypes = [ctypes.c_void_p, ctypes.c_size_t] + [ctypes.c_int] * 3 + [ctypes.c_long]\n"
                               "at = map(0x10000000, 4096, 3, 0x32, -1, 0)\n"
                               "ctypes.memset(at, ord('n'), 4096)\n"
                               "os.write(1, b'ready\\n')\n"
                               "sys.stdin.read()\n";
    int go[2], told[2];
    ASSERT_EQ(pipe(go), 0);
    ASSERT_EQ(pipe(told), 0);
    ASSERT_EQ(mmap(reinterpret_cast<void*>(std::uintptr_t(address)), PAGE_BYTES, PROT_READ | PROT_WRITE,
                   MAP_PRIVATE | MAP_ANONYMOUS | MAP_FIXED_NOREPLACE, -1, 0),
              reinterpret_cast<void*>(std::uintptr_t(address)));
    std::memset(reinterpret_cast<void*>(std::uintptr_t(address)), 'o', PAGE_BYTES);
    const pid_t pid = fork();
    if (pid == 0) {
        char c;
        dup2(go[0], 0);
        dup2(told[1], 1);
        if (read(0, &c, 1) == 1)
            execlp("python3", "python3", "-c", program, nullptr);
        _exit(1);
    }
    const int pidfd = int(syscall(SYS_pidfd_open, pid, 0));
    auto memory = process_memory(pid, pidfd, geteuid());
    auto after = std::unique_ptr<AddressSpace>();
    char text[8] = {};
    EXPECT_EQ(memory->read(address, text, 1), 0u);
    EXPECT_EQ(text[0], 'o');
    EXPECT_EQ(write(go[1], "g", 1), 1);
    EXPECT_EQ(read(told[0], text, 6), 6) << "the other program did not start";
    EXPECT_EQ(memory->read(address, text, 1), 1u) << "it reads the other program's memory";
    EXPECT_EQ(memory->write(address, "w", 1), 1u) << "it writes to the other program's memory";
    after = process_memory(pid, pidfd, geteuid());
    EXPECT_EQ(after->read(address, text, 1), 0u);
    EXPECT_EQ(text[0], 'n');
    kill(pid, SIGKILL);
    waitpid(pid, nullptr, 0);
    for (const int fd : {go[0], go[1], told[0], told[1], pidfd})
        close(fd);
    munmap(reinterpret_cast<void*>(std::uintptr_t(address)), PAGE_BYTES);
}

TEST(ProcessMemory, OfAnotherUsersProgramOrADeadProcessIsRefused)
{
    Child child;
    EXPECT_THROW(process_memory(child.pid(), child.pidfd(), geteuid() + 1), std::system_error);
    child.end();
    EXPECT_THROW(process_memory(getpid(), child.pidfd(), geteuid()), std::system_error) << "its number was given again";
}

TEST(ProcessMemory, ADeadProcessHasNone)
{
    Child child;
    auto memory = process_memory(child.pid(), child.pidfd(), geteuid());
    child.end();
    int value;
    EXPECT_EQ(memory->read(child.address(), &value, 4), 4u);
    EXPECT_EQ(memory->write(child.address(), &value, 4), 4u);
}

#endif
