// SPDX-License-Identifier: GPL-2.0-only
// Preloaded into a daemon: calls that fail to order, as they do on a host that is short of something (shortage.h).
//
// Only in a daemon whose environment names the file: in other programs, in the command that starts it, and in its
// guardian every call goes through. The daemon leads a session of its own.
#include "shortage.h"

#include <dlfcn.h>
#include <execinfo.h>
#include <fcntl.h>
#include <link.h>
#include <pthread.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <new>

extern "C" {
void* __libc_malloc(std::size_t);
void* __libc_calloc(std::size_t, std::size_t);
void* __libc_memalign(std::size_t, std::size_t);
}

namespace
{

using shortage::Call;

shortage::Shortage* order = nullptr;
const char* program_begin = nullptr;
const char* program_end = nullptr;

template <typename Function> Function* next(Function*& kept, const char* name)
{
    if (!kept)
        kept = reinterpret_cast<Function*>(::dlsym(RTLD_NEXT, name));
    return kept;
}

void note_stack()
{
    void* frames[40];
    const int depth = ::backtrace(frames, 40);
    std::size_t used = 0;
    for (int i = 2; i < depth && used < sizeof order->where; ++i) {
        Dl_info info{};
        if (!::dladdr(frames[i], &info) || !info.dli_fname)
            continue;
        const auto offset = static_cast<const char*>(frames[i]) - static_cast<const char*>(info.dli_fbase);
        used += std::size_t(std::max(0, std::snprintf(order->where + used, sizeof order->where - used, "%s+0x%lx\n",
                                                      info.dli_fname, long(offset))));
    }
}

bool fails(Call call)
{
    if (!order || order->call.load(std::memory_order_relaxed) != call || ::getsid(0) != ::getpid())
        return false;
    const std::uint32_t number = order->seen.fetch_add(1) + 1;
    const std::uint32_t first = order->first.load();
    if (number < first || number - first >= order->count.load())
        return false;
    if (order->failed.fetch_add(1) == 0)
        note_stack();
    return true;
}

bool by_the_program(const void* caller)
{
    const char* at = static_cast<const char*>(caller);
    return at >= program_begin && at < program_end;
}

__attribute__((constructor)) void find_order()
{
    const char* name = std::getenv(shortage::variable);
    if (!name || std::strcmp(program_invocation_short_name, "quendreld") != 0)
        return;
    void* frames[1];
    ::backtrace(frames, 1); // loads what it needs now
    ::dl_iterate_phdr(
        [](dl_phdr_info* info, std::size_t, void*) {
            for (int i = 0; i < info->dlpi_phnum; ++i) {
                const auto& part = info->dlpi_phdr[i];
                if (part.p_type != PT_LOAD || !(part.p_flags & PF_X))
                    continue;
                program_begin = reinterpret_cast<const char*>(info->dlpi_addr + part.p_vaddr);
                program_end = program_begin + part.p_memsz;
            }
            return 1; // the first one is the program
        },
        nullptr);
    const int fd = ::open(name, O_RDWR | O_CLOEXEC);
    void* at = ::mmap(nullptr, sizeof *order, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
    ::close(fd);
    if (at != MAP_FAILED)
        order = static_cast<shortage::Shortage*>(at);
}

void* allocate(std::size_t bytes, std::size_t alignment = 0)
{
    if (fails(Call::allocation))
        return nullptr;
    return alignment ? __libc_memalign(alignment, bytes) : __libc_malloc(bytes ? bytes : 1);
}

void* allocate_or_throw(std::size_t bytes, std::size_t alignment = 0)
{
    void* p = allocate(bytes, alignment);
    if (!p)
        throw std::bad_alloc();
    return p;
}

} // namespace

void* operator new(std::size_t bytes) { return allocate_or_throw(bytes); }
void* operator new[](std::size_t bytes) { return allocate_or_throw(bytes); }
void* operator new(std::size_t bytes, std::align_val_t a) { return allocate_or_throw(bytes, std::size_t(a)); }
void* operator new[](std::size_t bytes, std::align_val_t a) { return allocate_or_throw(bytes, std::size_t(a)); }
void* operator new(std::size_t bytes, const std::nothrow_t&) noexcept { return allocate(bytes); }
void* operator new[](std::size_t bytes, const std::nothrow_t&) noexcept { return allocate(bytes); }
// What belongs to them, so that a compiler sees pairs.
void operator delete(void* p) noexcept { std::free(p); }
void operator delete[](void* p) noexcept { std::free(p); }
void operator delete(void* p, std::size_t) noexcept { std::free(p); }
void operator delete[](void* p, std::size_t) noexcept { std::free(p); }
void operator delete(void* p, std::align_val_t) noexcept { std::free(p); }
void operator delete[](void* p, std::align_val_t) noexcept { std::free(p); }
void operator delete(void* p, std::size_t, std::align_val_t) noexcept { std::free(p); }
void operator delete[](void* p, std::size_t, std::align_val_t) noexcept { std::free(p); }

extern "C" {

void* malloc(std::size_t bytes)
{
    if (by_the_program(__builtin_return_address(0)) && fails(Call::memory)) {
        errno = ENOMEM;
        return nullptr;
    }
    return __libc_malloc(bytes);
}

void* calloc(std::size_t n, std::size_t bytes)
{
    if (by_the_program(__builtin_return_address(0)) && fails(Call::memory)) {
        errno = ENOMEM;
        return nullptr;
    }
    return __libc_calloc(n, bytes);
}

void* aligned_alloc(std::size_t alignment, std::size_t bytes)
{
    if (by_the_program(__builtin_return_address(0)) && fails(Call::memory)) {
        errno = ENOMEM;
        return nullptr;
    }
    return __libc_memalign(alignment, bytes);
}

int pthread_create(pthread_t* thread, const pthread_attr_t* attributes, void* (*start)(void*), void* argument)
{
    static decltype(&pthread_create) real = nullptr;
    if (fails(Call::thread))
        return EAGAIN;
    return next(real, "pthread_create")(thread, attributes, start, argument);
}

int accept4(int fd, sockaddr* address, socklen_t* bytes, int flags)
{
    static decltype(&accept4) real = nullptr;
    if (fails(Call::accept)) {
        errno = EMFILE;
        return -1;
    }
    return next(real, "accept4")(fd, address, bytes, flags);
}

int memfd_create(const char* name, unsigned flags) noexcept
{
    static int (*real)(const char*, unsigned) = nullptr;
    if (fails(Call::memfd)) {
        errno = EMFILE;
        return -1;
    }
    return next(real, "memfd_create")(name, flags);
}

void* mmap(void* at, std::size_t bytes, int protection, int flags, int fd, off_t offset) noexcept
{
    static void* (*real)(void*, std::size_t, int, int, int, off_t) = nullptr;
    if (fails(Call::map)) {
        errno = ENOMEM;
        return MAP_FAILED;
    }
    return next(real, "mmap")(at, bytes, protection, flags, fd, offset);
}

int openat(int directory, const char* path, int flags, ...)
{
    static int (*real)(int, const char*, int, ...) = nullptr;
    mode_t mode = 0;
    if (__OPEN_NEEDS_MODE(flags)) {
        va_list arguments;
        va_start(arguments, flags);
        mode = va_arg(arguments, mode_t);
        va_end(arguments);
    }
    if (fails(Call::open)) {
        errno = EMFILE;
        return -1;
    }
    return next(real, "openat")(directory, path, flags, mode);
}

int open(const char* path, int flags, ...)
{
    mode_t mode = 0;
    if (__OPEN_NEEDS_MODE(flags)) {
        va_list arguments;
        va_start(arguments, flags);
        mode = va_arg(arguments, mode_t);
        va_end(arguments);
    }
    return openat(AT_FDCWD, path, flags, mode);
}

// On 64-bit machines the same under other names, which libraries use.
void* mmap64(void*, std::size_t, int, int, int, off64_t) noexcept __attribute__((alias("mmap")));
int openat64(int, const char*, int, ...) __attribute__((alias("openat")));
int open64(const char*, int, ...) __attribute__((alias("open")));

} // extern "C"
