/* SPDX-License-Identifier: GPL-2.0-only */
// What the core's C++ gets from this platform in place of a call.
#pragma once

extern "C" void qk_report_bug(const char* file, int line);
// The checker of the kernel's objects wants to see where control ends.
#define qk_kernel_bug(file, line) (qk_report_bug(file, line), __builtin_trap())
