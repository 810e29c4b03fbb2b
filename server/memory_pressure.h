/* SPDX-License-Identifier: GPL-2.0-only */
// How the daemon lives on when the host is short of memory. Pages are freed by writing them to disks, and some of these
// are its own: it must neither be the process that is killed, nor wait for the memory that waits for it.
//
// Both answer with a line for the log, which says what could not be had, and with an empty one when all is well. They
// act on the calling thread or process and on what is started from there later.
#pragma once

#include <string>

namespace quendreld
{

// Makes this process one of the last that the kernel kills for their memory, if it is root's and nobody has chosen
// otherwise (choom, the service manager).
std::string spare_from_oom_killer();

// From now on memory for this thread is not freed by writing to disks (PR_SET_IO_FLUSHER), and what it writes is not
// slowed down for what others write.
std::string allocate_without_disks();

} // namespace quendreld
