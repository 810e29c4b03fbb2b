/* SPDX-License-Identifier: GPL-2.0-only */
// One entry of the registry of hooked request queues. An entry exists exactly while at least one device on its queue
// is of interest, and a queue that carries one of the driver's functions always has one.
#pragma once

#include "kernel.h"
#include "list.h"

typedef struct _QueueList {
    request_queue* rQueue;    // the key
    make_request_fn* realMRF; // the queue's function before it was first hooked; never replaced
    list_head devList;        // DevList, in order of registration
    list_head list;           // in queueListHead
} QueueList;
