// SPDX-License-Identifier: GPL-2.0-only
// The transfer areas: up to two private, read-only mappings of the control device, each of which a ReadBlocks fills.
//
// Page j of an area is at the mapping's start + j * 4096; block i of a read is blockSize bytes of page
// i / blocksPerPage. All pages are there when the mapping is made: a fault never allocates, and a read never waits
// for memory.
#include "guards.h"
#include "qdrlib.h"

// 1 and the area whose mapping begins exactly at user address `data`, else 0.
int checkVMA(Backup* b, user_addr data, BackupVMA** bVMAPtr)
{
    for (BackupVMA& area : b->vmAreas) {
        vm_area_struct* vma = load_acquire(&area.vma);
        if (vma && vma_start(vma) == u32(data)) {
            *bVMAPtr = &area;
            return 1;
        }
    }
    return 0;
}

// 1 and the area of this mapping, else 0.
int findVMA(Backup* b, const vm_area_struct* vmaToFind, BackupVMA** bVMAPtr)
{
    for (BackupVMA& area : b->vmAreas) {
        if (load_acquire(&area.vma) == vmaToFind) {
            *bVMAPtr = &area;
            return 1;
        }
    }
    return 0;
}

// 0 and the first free area; 1 and null when both are in use.
int maxBVMAs(Backup* b, BackupVMA** bVMAPtr)
{
    for (BackupVMA& area : b->vmAreas) {
        if (!load_acquire(&area.vma)) {
            *bVMAPtr = &area;
            return 0;
        }
    }
    *bVMAPtr = nullptr;
    return 1;
}

int getVMAPageCount(Backup* b)
{
    int pages = 0;
    for (BackupVMA& area : b->vmAreas)
        if (load_acquire(&area.vma))
            pages += area.vmPages;
    return pages;
}

// The user mapping's own references keep a page alive until it drops them.
void freeMMPages(Backup* b, BackupVMA* bVMA)
{
    for (s32 j = 0; j < bVMA->vmPages; j++) {
        if (bVMA->mmPages[j]) {
            free_page_ref(bVMA->mmPages[j]);
            bVMA->mmPages[j] = nullptr;
            atomic_dec(&b->curAllocPages);
        }
    }
    bVMA->vmPages = 0;
}

void freeAllMMPages(Backup* b)
{
    for (BackupVMA& area : b->vmAreas)
        freeMMPages(b, &area);
}

// Kernel address of block `index` of an area.
char* mmPageAddr(Backup* b, int index, BackupVMA* bVMA)
{
    const u32 blocksPerPage = b->diskInfo.blocksPerPage;
    if (blocksPerPage == 1)
        return static_cast<char*>(page_address(bVMA->mmPages[index]));
    return static_cast<char*>(page_address(bVMA->mmPages[u32(index) / blocksPerPage])) +
           u32(index) % blocksPerPage * u32(b->diskInfo.blockSize);
}

// The mmap entry point: 0, QUENDREL_REFUSED or QUENDREL_NO_MEMORY.
int qdrMMAP(file* file, vm_area_struct* vma)
{
    Backup* b = static_cast<Backup*>(file_private(file));
    if (!b)
        return QUENDREL_REFUSED;
    if ((vma_flags(vma) & (VM_READ | VM_WRITE | VM_SHARED)) != VM_READ)
        return QUENDREL_REFUSED;

    SemaphoreGuard session(&b->bSem);
    BackupVMA* area;
    if (load_acquire(&b->state) <= QUENDREL_STATE_STARTING || vma_page_offset(vma) != 0 || maxBVMAs(b, &area))
        return QUENDREL_REFUSED;
    const long pages = long((vma_end(vma) - vma_start(vma)) / PAGE_BYTES);
    if (pages <= 0 || pages > b->maxVMPages)
        return QUENDREL_REFUSED;
    area->vmPages = s32(pages);
    for (long j = 0; j < pages; j++) {
        area->mmPages[j] = alloc_page(GFP_KERNEL);
        if (!area->mmPages[j]) {
            store_release(&area->vma, nullptr);
            freeMMPages(b, area);
            return QUENDREL_NO_MEMORY;
        }
        atomic_inc(&b->totalAllocPages);
        atomic_inc(&b->curAllocPages);
    }
    vma_set_ops(vma, &qdrVMOps);
    store_release(&area->vma, vma);
    return QUENDREL_OK;
}
