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
        mprotect(base_ + 2 * PAGE_BYTES, PAGE_BYTES, PROT_NONE);
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
        munmap(base_, 3 * PAGE_BYTES);
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
    auto memory = process_memory(child.pid(), child.pidfd());
    char text[16] = {};
    EXPECT_EQ(memory->read(child.address() + 100, text, 4), 0u);
    EXPECT_STREQ(text, "xxxx");
    EXPECT_EQ(memory->write(child.address() + 101, "ab", 2), 0u);
    EXPECT_EQ(memory->read(child.address() + 100, text, 4), 0u);
    EXPECT_STREQ(text, "xabx");
}

TEST(ProcessMemory, StopsAtAnUnreadablePageAndSaysHowMuchIsLeft)
{
    Child child;
    auto memory = process_memory(child.pid(), child.pidfd());
    char bytes[3 * PAGE_BYTES];
    EXPECT_EQ(memory->read(child.address(), bytes, sizeof bytes), PAGE_BYTES);
    EXPECT_EQ(bytes[2 * PAGE_BYTES - 1], 'x');
    EXPECT_EQ(memory->write(child.address() + 2 * PAGE_BYTES - 3, bytes, 10), 7u);
    EXPECT_EQ(memory->read(0, bytes, 8), 8u);
    EXPECT_EQ(memory->read(0xFFFFFFF0, bytes, 64), 64u) << "the address does not wrap";
}

TEST(ProcessMemory, ADeadProcessHasNone)
{
    Child child;
    auto memory = process_memory(child.pid(), child.pidfd());
    child.end();
    int value;
    EXPECT_EQ(memory->read(child.address(), &value, 4), 4u);
    EXPECT_EQ(memory->write(child.address(), &value, 4), 4u);
}

#endif
