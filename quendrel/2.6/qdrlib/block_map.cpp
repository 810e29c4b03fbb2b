// SPDX-License-Identifier: GPL-2.0-only
// The paged block bitmap: making, filling, freeing, and the three bit operations.
//
// Bit operations may sleep. Each counts itself in at the map's drain gate, so that whoever swaps or frees the pages
// can wait until none is inside.
#include "guards.h"
#include "qdrlib.h"

// Pages that the map's bits take, computed from `size` in 32 bits.
u32 numPagesInBlockMap(const BlockMap* bmap) { return ((bmap->size + 7) / 8 + PAGE_BYTES - 1) / PAGE_BYTES; }

// Makes a map of `size` blocks. `data` is the user's bitmap, or 0: then every bit is clear when zeroFill is 1 and set
// for any other value. 0 and the pages taken in *numPagesAlloc, or
//   QUENDREL_REFUSED         size is 0 or so large that its byte count wraps; the record is untouched
//   QUENDREL_NO_MEMORY       the record is empty
//   QUENDREL_COPY_FROM_USER  the record is empty
int newBlockMap(BlockMap* bmap, u32 size, user_addr data, int zeroFill, u32* numPagesAlloc)
{
    const u32 bytesInMap = (size + 7) >> 3;
    if (bytesInMap == 0) {
        printk("<3>%s: block size size=%u invalid\n", __func__, size);
        return QUENDREL_REFUSED;
    }
    memset(bmap, 0, sizeof *bmap);
    const u32 numPages = (bytesInMap + PAGE_BYTES - 1) >> 12;
    bmap->map = static_cast<page**>(vmalloc(numPages * sizeof(page*)));
    if (!bmap->map) {
        // The figure counts 4-byte pointers, the size they have where the driver lives.
        printk("<3>%s: failed allocating (%d) bytes of memory for block map page array\n", __func__, int(numPages * 4));
        return QUENDREL_NO_MEMORY;
    }
    memset(bmap->map, 0, numPages * sizeof(page*));
    bmap->size = size;
    bmap->numBytes = bytesInMap;

    int result = QUENDREL_OK;
    for (u32 i = 0; i < numPages; i++) {
        u32 count = PAGE_BYTES;
        if (i == numPages - 1 && bytesInMap % PAGE_BYTES != 0)
            count = bytesInMap % PAGE_BYTES;
        bmap->map[i] = alloc_page(GFP_HIGHUSER);
        if (!bmap->map[i]) {
            printk("<3>%s: failed allocating page number (%d) for block map\n", __func__, int(i));
            result = QUENDREL_NO_MEMORY;
            break;
        }
        const user_addr piece = user_addr_add(data, i * PAGE_BYTES);
        unsigned long notCopied = 0;
        void* bytes = kmap(bmap->map[i]);
        if (data == user_addr(0))
            memset(bytes, zeroFill == 1 ? 0x00 : 0xFF, count);
        else
            notCopied = copy_from_user(bytes, piece, count);
        kunmap(bmap->map[i]);
        if (notCopied) {
            printk("<3>%s: copy to user space failed data=%p bytesCopied=%d bytesInMap=%d\n", __func__,
                   reinterpret_cast<void*>(kernel_size_t(piece)), int(count), int(bytesInMap));
            result = QUENDREL_COPY_FROM_USER;
            break;
        }
    }
    if (result != QUENDREL_OK) {
        u32 scratch;
        printk("<3>%s: Out of Memory Error.%s", __func__, "\n");
        closeBlockMap(bmap, &scratch);
        return result;
    }
    spin_lock_init(&bmap->usersLock);
    atomic_set(&bmap->users, 1);
    sema_init(&bmap->sem, 1);
    *numPagesAlloc = numPages;
    return QUENDREL_OK;
}

// Frees the map's pages, their number in *numPagesFreed; an empty map is left alone and the number unwritten. The
// caller has made sure that no bit operation is inside.
void closeBlockMap(BlockMap* bmap, u32* numPagesFreed)
{
    if (!bmap->map)
        return;
    const u32 numPages = numPagesInBlockMap(bmap);
    for (u32 i = 0; i < numPages; i++) {
        if (bmap->map[i]) {
            free_page_ref(bmap->map[i]);
            bmap->map[i] = nullptr;
        }
    }
    vfree(bmap->map);
    bmap->map = nullptr;
    bmap->size = 0;
    *numPagesFreed = numPages;
}

// Runs `operation(bits, bit)` on the page of a block within the map; `outside` when the block lies beyond it.
template <typename Result, typename Operation>
static inline Result withBlock(BlockMap* bm, u32 blockNum, Result outside, Operation operation)
{
    UserGuard user(&bm->users, &bm->usersLock);
    if (blockNum >= bm->size)
        return outside;
    SemaphoreGuard sem(&bm->sem);
    page* p = bm->map[blockNum >> BLOCKS_PER_MAP_PAGE_SHIFT];
    Result result = operation(kmap(p), blockNum & (BLOCKS_PER_MAP_PAGE - 1));
    kunmap(p);
    return result;
}

// 0 when the bit was set; the block's own number when it lies beyond the map (which is 0 for block 0 of an empty
// map).
u32 setBlock(BlockMap* bm, u32 blockNum)
{
    return withBlock(bm, blockNum, blockNum, [](void* bits, u32 bit) {
        set_bit(bit, bits);
        return 0u;
    });
}

// 0 when the bit was cleared; 1 when the block lies beyond the map.
int unSetBlock(BlockMap* bm, u32 blockNum)
{
    return withBlock(bm, blockNum, 1, [](void* bits, u32 bit) {
        clear_bit(bit, bits);
        return 0;
    });
}

// -1 (all bits set) when the block is in the set; 0 when not, or when it lies beyond the map.
int blockInMap(BlockMap* bm, u32 blockNum)
{
    return withBlock(bm, blockNum, 0, [](void* bits, u32 bit) { return test_bit(bit, bits) ? -1 : 0; });
}

// Returns holding the map's usersLock with no bit operation inside.
void waitForBlockMapUsers(BlockMap* bm, unsigned long* flags) { waitForUsers(&bm->users, &bm->usersLock, flags); }
