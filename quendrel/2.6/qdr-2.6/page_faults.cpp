// SPDX-License-Identifier: GPL-2.0-only
// Page faults and the end of a transfer mapping. They run in the mapping process without any of the driver's locks,
// and rely on an area being complete before its mapping is published.
#include "qdrlib.h"

const vm_operations qdrVMOps = {
    .open = qdrVMopen,
    .close = qdrVMclose,
    .fault = qdrVMfault,
};

static Backup* backupOf(vm_area_struct* vma) { return static_cast<Backup*>(file_private(vma_file(vma))); }

void qdrVMopen(vm_area_struct*) {}

void qdrVMclose(vm_area_struct* vma)
{
    if (!vma_file(vma))
        return;
    Backup* b = backupOf(vma);
    BackupVMA* bVMA = nullptr;
    if (!b || !findVMA(b, vma, &bVMA))
        return;
    store_release(&bVMA->vma, nullptr);
    freeMMPages(b, bVMA);
}

// The page that backs `address`, with one more reference, or null. A mapping that no area records, such as a copy of
// an area's mapping, is served from area 0.
page* qdrVMnopage(vm_area_struct* vma, unsigned long address, int*)
{
    if (!vma_file(vma)) {
        printk("<4>%s: vma does not have associated backup%s", __func__, "\n");
        return nullptr;
    }
    Backup* b = backupOf(vma);
    BackupVMA* bVMA = nullptr;
    if (!b || !findVMA(b, vma, &bVMA)) {
        if (!b || !load_acquire(&b->vmAreas[0].vma)) {
            printk("<3>%s: vma is not found in associated backup%s", __func__, "\n");
            return nullptr;
        }
        bVMA = &b->vmAreas[0];
    }
    const unsigned long index = (address - vma_start(vma)) / PAGE_BYTES;
    if (index >= (unsigned long)(bVMA->vmPages)) {
        printk("<4>%s: Bad vm address%s", __func__, "\n");
        return nullptr;
    }
    get_page(bVMA->mmPages[index]);
    return bVMA->mmPages[index];
}

int qdrVMfault(vm_area_struct* vma, vm_fault* vmf)
{
    page* p = qdrVMnopage(vma, vm_fault_address(vmf), nullptr);
    if (!p)
        return VM_FAULT_SIGBUS;
    vm_fault_set_page(vmf, p);
    return 0;
}
