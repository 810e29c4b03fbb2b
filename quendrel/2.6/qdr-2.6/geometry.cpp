// SPDX-License-Identifier: GPL-2.0-only
// What a block device is: its number turned into the file system's block size, the partition's place, the queue.
#include "qdrlib.h"

static s32 lowestSetBit(u32 word) { return __builtin_ctz(word); }

// Describes device `kdev`; numBlocks and realMRF are the caller's to fill. 0, or QUENDREL_NOT_MOUNTED, or
// QUENDREL_GOING_AWAY when the block size is below 512. The block device reference is kept.
int getDiskInfo(DiskInfo* diskInfo, kdev_t kdev)
{
    diskInfo->superBlock = nullptr;
    diskInfo->kdev = kdev;
    diskInfo->bdev = bdget(kdev);
    super_block* sb = get_super(diskInfo->bdev);
    if (!sb) {
        printk("<3>%s: device major=%d minor=%d not found, getting super block failed\n", __func__,
               int(kdev_major(kdev)), int(kdev_minor(kdev)));
        return QUENDREL_NOT_MOUNTED;
    }
    diskInfo->blockSize = s32(super_block_size(sb));
    diskInfo->sectorsPerBlock = diskInfo->blockSize >> 9;
    diskInfo->blocksPerPage = diskInfo->blockSize > 0 ? PAGE_BYTES / u32(diskInfo->blockSize) : 0;
    if (diskInfo->sectorsPerBlock == 0) {
        printk("<4>%s: device %x has bad block size %d\n", __func__, kdev, diskInfo->blockSize);
        drop_super(sb);
        return QUENDREL_GOING_AWAY;
    }
    diskInfo->sectorsPerBlockShift = lowestSetBit(u32(diskInfo->sectorsPerBlock));
    diskInfo->partitionStart = bdev_partition_start(diskInfo->bdev);
    if (bdev_has_partition(diskInfo->bdev))
        diskInfo->partitionLen = bdev_partition_sectors(diskInfo->bdev);
    else if (gendisk* disk = bdev_disk(diskInfo->bdev))
        diskInfo->partitionLen = disk_capacity(disk);
    else
        printk("<4>%s: can't detect device %x size.\n", __func__, kdev);
    diskInfo->partitionSizeKB = diskInfo->partitionLen >> 1;
    drop_super(sb);
    return QUENDREL_OK;
}

request_queue* getRequestQueue(DiskInfo* diskInfo) { return qdrGetRequestQueue(diskInfo->bdev); }

void closeDiskInfo(DiskInfo* diskInfo)
{
    if (diskInfo->superBlock) {
        drop_super(diskInfo->superBlock);
        diskInfo->superBlock = nullptr;
    }
}

// The minor number of the whole disk that holds device `kdev`, or -1. The messages name the minor where the major is
// announced; the place announced for the minor has no value of its own and shows 0.
int getDiskMinor(kdev_t kdev)
{
    block_device* bdev = bdget(kdev);
    if (!bdev) {
        printk("<3>%s: Could not get block device for MAJOR=%d, MINOR=%d\n", __func__, int(kdev_minor(kdev)), 0);
        return -1;
    }
    block_device* whole = bdev_contains(bdev);
    if (!whole) {
        printk("<3>%s: Parent block device not valid for MAJOR=%d, MINOR=%d\n", __func__, int(kdev_minor(kdev)), 0);
        return -1;
    }
    return int(kdev_minor(bdev_dev(whole)));
}

// GetBlockSize: works on any open file, with or without a backup. The codes of getDiskInfo, with nothing written, or
// QUENDREL_COPY_TO_USER.
int ioctlGetBlockSize(Backup*, kdev_t kdev, user_addr userBS, u32 bsLen)
{
    BlockSize answer = {kdev_major(kdev), kdev_minor(kdev), -1, 0};
    DiskInfo diskInfo;
    memset(&diskInfo, 0, sizeof diskInfo);
    if (int result = getDiskInfo(&diskInfo, kdev))
        return result;
    answer.blockSize = diskInfo.blockSize;
    answer.partitionSizeKB = u32(diskInfo.partitionSizeKB);
    if (copy_to_user(userBS, &answer, bsLen < sizeof answer ? bsLen : sizeof answer)) {
        printk("<3>%s: copy to user space %s\n", __func__, "failed");
        return QUENDREL_COPY_TO_USER;
    }
    closeDiskInfo(&diskInfo);
    return QUENDREL_OK;
}
