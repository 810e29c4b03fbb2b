// SPDX-License-Identifier: GPL-2.0-only
// Wall-clock time and random bytes.
#include "hosted.h"
#include "task.h"

#include <cerrno>
#include <ctime>
#include <functional>
#include <utility>
#include <sys/random.h>

namespace
{

std::function<void()>& random_probe()
{
    static hosted::Immortal<std::function<void()>> the;
    return the.get();
}

} // namespace

void hosted::set_random_probe(std::function<void()> probe) { random_probe() = std::move(probe); }

void current_kernel_time(kernel_timespec* now)
{
    timespec t;
    clock_gettime(CLOCK_REALTIME, &t);
    now->tv_sec = s32(t.tv_sec);
    now->tv_nsec = s32(t.tv_nsec);
}

void get_random_bytes(void* to, int bytes)
{
    if (random_probe())
        random_probe()();
    auto* at = static_cast<unsigned char*>(to);
    while (bytes > 0) {
        ssize_t n = getrandom(at, std::size_t(bytes), 0);
        if (n < 0 && errno == EINTR)
            continue;
        if (n < 0)
            hosted::die("getrandom failed with errno %d", errno);
        at += n;
        bytes -= int(n);
    }
}
