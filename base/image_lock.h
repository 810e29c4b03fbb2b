/* SPDX-License-Identifier: GPL-2.0-only */
// One program at a time writes to an image, and nobody reads it as a whole meanwhile: the locks that tell others, and
// are told by them.
//
// Two kinds, as neither is known to all: flock, which our own daemons and losetup's users can test, and open-file-
// description locks on single bytes in the way of QEMU's programs. There byte 100 + n is held by who uses permission
// n, byte 200 + n by who does not share it; 0 is reading what stays consistent, 1 writing, 3 changing the size. All are
// read locks, so that they exclude nobody by themselves; who comes looks at the other row before going on.
#pragma once

#include <string>

namespace base
{

// Takes both for as long as the descriptor (open for reading) is open. Empty, or what stands in the way, as a sentence
// without the path. A file system that knows no such locks stands in nobody's way.
std::string lock_image(int fd, bool read_only);

} // namespace base
