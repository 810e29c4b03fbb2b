// SPDX-License-Identifier: GPL-2.0-only
// The ways in which the hosted kernel stops.
#include "task.h"

#include <cstdarg>
#include <cstdio>
#include <cstdlib>

namespace hosted
{

void die(const char* format, ...)
{
    char text[512];
    va_list arguments;
    va_start(arguments, format);
    vsnprintf(text, sizeof text, format, arguments);
    va_end(arguments);
    fflush(stdout);
    fprintf(stderr, "hosted kernel: %s\n", text);
    fflush(stderr);
    abort();
}

} // namespace hosted

void kernel_bug(const char* file, int line) { hosted::die("kernel BUG at %s:%d", file, line); }
