/* SPDX-License-Identifier: GPL-2.0-only */
// The driver's life as a module, as the character device table needs it.
#pragma once

#include "hosted.h"

namespace hosted
{

// A file about to be opened keeps the driver from being unloaded. False: the driver is being unloaded.
bool module_enter();
void module_leave();

void reap_threads();     // joins kernel threads that have ended
void join_all_threads(); // the same for all that have left the driver's code, waiting for the last steps of each

void remove_all_chrdevs(); // those that the driver did not take back

} // namespace hosted
