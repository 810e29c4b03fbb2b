// SPDX-License-Identifier: GPL-2.0-only
// Recording writes: every write to a tracked device sets its blocks in the device's tracking map.
//
// Runs on the write path: it allocates nothing and keeps no lock of its own while it sets bits; for a held write the
// caller holds `writers`. The reference taken here keeps the session and its map alive; whoever frees or swaps them waits
// for it.
#include "qdrlib.h"

// `bio` is a write as it entered the queue's function, `bioMinor` the minor number of the partition it falls in. A
// block beyond the map means that the device has grown: the session goes out of sync, and every such block is logged.
void updateAM(bio* bio, int bioMinor)
{
    AutoMapSession* ams = getAMS(kdev_make(kdev_major(bdev_dev(bio_bdev(bio))), u32(bioMinor)));
    if (!ams)
        return;
    u32 startBN, endBN;
    BIOToBlockNumbers(&ams->diskInfo, bio, &startBN, &endBN);
    if (load_acquire(&ams->state) == 1) {
        for (u64 i = startBN; i <= endBN; i++) {
            const u32 beyond = setBlock(&ams->map, u32(i));
            if (beyond == 0)
                continue;
            set_mb(&ams->state, 0);
            printk("<4>%s: device resize detected (block %d in size %d) in automap update, automap not in sync%s",
                   __func__, int(beyond), int(ams->map.size), "\n");
        }
    }
    putAMS(ams);
}
