// SPDX-License-Identifier: GPL-2.0-only
// Open files of the control device: calls, mappings and their pages, and the order in which things close.
#include "test_driver.h"

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

using namespace hosted;
using test_driver::calls;
using test_driver::major_number;

namespace
{

std::vector<std::string> order;
std::vector<page*> area;

int fault(vm_area_struct* vma, vm_fault* vmf)
{
    std::size_t index = (vm_fault_address(vmf) - vma_start(vma)) / PAGE_BYTES;
    order.push_back("fault " + std::to_string(index));
    if (index >= area.size())
        return VM_FAULT_SIGBUS;
    get_page(area[index]);
    vm_fault_set_page(vmf, area[index]);
    return 0;
}
void opened(vm_area_struct*) { order.push_back("vm open"); }
void closed(vm_area_struct*)
{
    order.push_back("vm close");
    for (page* p : area)
        free_page_ref(p);
    area.clear();
}
const vm_operations operations{opened, closed, fault};

int accept_mapping(file*, vm_area_struct* vma)
{
    std::size_t pages = (vma_end(vma) - vma_start(vma)) / PAGE_BYTES;
    for (std::size_t i = 0; i < pages; ++i)
        area.push_back(alloc_page(GFP_KERNEL));
    vma_set_ops(vma, &operations);
    return 0;
}

std::unique_ptr<ControlFile> open_file(std::shared_ptr<AddressSpace> memory = {})
{
    std::unique_ptr<ControlFile> f;
    EXPECT_EQ(open_control(major_number, std::move(memory), f), 0);
    return f;
}

} // namespace

TEST(ControlDevice, CallsReachTheDriverWithTheProcessMemory)
{
    test_driver::Loaded driver;
    auto memory = std::make_shared<SimulatedMemory>();
    u32 address = memory->allocate(8);
    std::memcpy(memory->at(address), "abcdefgh", 8);
    calls.ioctl = [](file*, unsigned command, unsigned long argument) {
        char text[8];
        if (copy_from_user(text, user_addr(u32(argument)), 8) != 0)
            return 6;
        return std::memcmp(text, "abcdefgh", 8) == 0 ? int(command) : -1;
    };
    auto f = open_file(memory);
    EXPECT_EQ(f->ioctl(77, address), 77);
    EXPECT_EQ(f->ioctl(77, address + PAGE_BYTES), 6);
    char byte;
    EXPECT_EQ(copy_from_user(&byte, user_addr(address), 1), 1u) << "outside a command there is no process";
}

TEST(ControlDevice, AFailedOpenGivesNoFileAndIsNotReleased)
{
    test_driver::Loaded driver;
    bool released = false;
    calls.open = [](file*) { return 3; };
    calls.release = [&](file*) {
        released = true;
        return 0;
    };
    std::unique_ptr<ControlFile> f;
    EXPECT_EQ(open_control(major_number, nullptr, f), 3);
    EXPECT_EQ(f, nullptr);
    EXPECT_FALSE(released);
    EXPECT_EQ(open_control(major_number + 1, nullptr, f), -ENXIO);
    EXPECT_EQ(unload_driver(), 0) << "a failed open keeps nothing";
}

TEST(ControlDevice, AnOpenFileKeepsTheDriverLoaded)
{
    test_driver::Loaded driver;
    auto f = open_file();
    EXPECT_EQ(live().files, 1);
    EXPECT_EQ(unload_driver(), -EBUSY);
    f.reset();
    EXPECT_EQ(live().files, 0);
    EXPECT_EQ(unload_driver(), 0);
    std::unique_ptr<ControlFile> later;
    EXPECT_EQ(open_control(major_number, nullptr, later), -ENXIO);
}

TEST(ControlDevice, AModuleReferenceKeepsTheDriverLoaded)
{
    test_driver::Loaded driver;
    EXPECT_EQ(try_module_get(this_module()), 1);
    EXPECT_EQ(driver_references(), 1);
    EXPECT_EQ(unload_driver(), -EBUSY);
    module_put(this_module());
    faults::module_going(true);
    EXPECT_EQ(try_module_get(this_module()), 0);
    EXPECT_EQ(module_is_going(this_module()), 1);
    faults::clear();
}

TEST(ControlDevice, RegistrationFailsToOrderAndWhenTheMajorIsTaken)
{
    faults::fail_register(-EIO);
    EXPECT_EQ(load_driver(), -EIO);
    EXPECT_FALSE(driver_loaded());
    faults::clear();
    test_driver::Loaded driver;
    static const file_operations other{};
    EXPECT_EQ(register_chrdev(major_number, "other", &other), -EBUSY);
}

TEST(ControlDevice, FaultsBringPagesThatTheDescriptorShows)
{
    test_driver::Loaded driver;
    calls.mmap = accept_mapping;
    order.clear();
    auto f = open_file();
    std::unique_ptr<Mapping> m;
    ASSERT_EQ(f->mmap({0x10000000, 2 * PAGE_BYTES}, m), 0);
    ASSERT_EQ(m->pages(), 2u);
    const std::byte* first = m->fault(0);
    ASSERT_NE(first, nullptr);
    EXPECT_EQ(m->fault(0), first);
    EXPECT_EQ(order, std::vector<std::string>{"fault 0"}) << "a page that is there does not fault again";
    auto offset = m->fault_offset(1);
    ASSERT_TRUE(offset);
    std::strcpy(static_cast<char*>(page_address(area[1])), "seen by the other process");
    void* shared = mmap(nullptr, PAGE_BYTES, PROT_READ, MAP_PRIVATE, transfer_memory_fd(), off_t(*offset));
    ASSERT_NE(shared, MAP_FAILED);
    EXPECT_STREQ(static_cast<char*>(shared), "seen by the other process");
    std::strcpy(static_cast<char*>(page_address(area[1])), "and what comes later");
    EXPECT_STREQ(static_cast<char*>(shared), "and what comes later");
    char byte = 1;
    EXPECT_EQ(pwrite(transfer_memory_fd(), &byte, 1, 0), -1) << "the descriptor is read-only";
    EXPECT_EQ(mmap(nullptr, PAGE_BYTES, PROT_WRITE, MAP_SHARED, transfer_memory_fd(), 0), MAP_FAILED);
    m.reset();
    EXPECT_EQ(static_cast<char*>(shared)[0], 0) << "a freed page shows nothing to its last user";
    munmap(shared, PAGE_BYTES);
    EXPECT_EQ(live().pages, 0);
}

TEST(TransferMemory, CannotBeWrittenNorResizedByWhoeverOpensItAnew)
{
    const std::string path = "/proc/self/fd/" + std::to_string(transfer_memory_fd());
    const int fd = open(path.c_str(), O_RDWR | O_CLOEXEC);
    ASSERT_GE(fd, 0) << "its own user may open it";
    const char byte = 'x';
    EXPECT_EQ(pwrite(fd, &byte, 1, 0), -1);
    EXPECT_EQ(errno, EPERM);
    EXPECT_EQ(mmap(nullptr, PAGE_BYTES, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0), MAP_FAILED);
    EXPECT_EQ(ftruncate(fd, 0), -1);
    EXPECT_EQ(errno, EPERM);
    struct stat status;
    ASSERT_EQ(fstat(fd, &status), 0);
    EXPECT_EQ(ftruncate(fd, status.st_size + PAGE_BYTES), -1);
    EXPECT_EQ(fallocate(fd, FALLOC_FL_PUNCH_HOLE | FALLOC_FL_KEEP_SIZE, 0, PAGE_BYTES), -1);
    EXPECT_EQ(fcntl(fd, F_ADD_SEALS, F_SEAL_WRITE), -1) << "nor sealed against the daemon";
    close(fd);
}

TEST(ControlDevice, APageBeyondTheAreaIsABusError)
{
    test_driver::Loaded driver;
    calls.mmap = accept_mapping;
    auto f = open_file();
    std::unique_ptr<Mapping> m;
    ASSERT_EQ(f->mmap({0x10000000, 2 * PAGE_BYTES}, m), 0);
    free_page_ref(area.back());
    area.pop_back();
    EXPECT_EQ(m->fault(1), nullptr);
    EXPECT_EQ(m->fault_offset(2), std::nullopt);
    EXPECT_NE(m->fault(0), nullptr);
}

TEST(ControlDevice, AMappingKeepsItsPagesUntilItIsUnmapped)
{
    test_driver::Loaded driver;
    calls.mmap = accept_mapping;
    auto f = open_file();
    std::unique_ptr<Mapping> m;
    ASSERT_EQ(f->mmap({0x10000000, PAGE_BYTES}, m), 0);
    ASSERT_NE(m->fault(0), nullptr);
    page* p = area[0];
    area.clear();
    free_page_ref(p); // the driver's own reference
    EXPECT_EQ(live().pages, 1);
    m->unmap();
    EXPECT_EQ(live().pages, 0);
}

TEST(ControlDevice, ClosingUnmapsFirstAndReleasesThen)
{
    test_driver::Loaded driver;
    calls.mmap = accept_mapping;
    calls.release = [](file*) {
        order.push_back("release");
        return 2;
    };
    auto f = open_file();
    std::unique_ptr<Mapping> m;
    ASSERT_EQ(f->mmap({0x10000000, PAGE_BYTES}, m), 0);
    order.clear();
    EXPECT_EQ(f->close(), 2);
    EXPECT_EQ(order, (std::vector<std::string>{"vm close", "release"}));
    EXPECT_EQ(live().mappings, 0);
    EXPECT_EQ(m->fault(0), nullptr);
    f.reset();
    m.reset();
    EXPECT_EQ(order.size(), 2u) << "neither happens twice";
}

TEST(ControlDevice, ARefusedMappingIsNotClosed)
{
    test_driver::Loaded driver;
    calls.mmap = [](file*, vm_area_struct* vma) { return vma_flags(vma) == VM_READ ? 5 : 2; };
    order.clear();
    auto f = open_file();
    std::unique_ptr<Mapping> m;
    EXPECT_EQ(f->mmap({0x10000000, PAGE_BYTES}, m), 5);
    EXPECT_EQ(f->mmap({0x10000000, PAGE_BYTES, VM_READ | VM_WRITE, 0}, m), 2);
    EXPECT_EQ(f->mmap({0x10000100, PAGE_BYTES}, m), -EINVAL);
    EXPECT_EQ(f->mmap({0xFFFFF000, 4 * PAGE_BYTES}, m), -ENOMEM);
    EXPECT_EQ(m, nullptr);
    EXPECT_TRUE(order.empty());
    EXPECT_EQ(live().mappings, 0);
}

TEST(ControlDevice, ACopiedMappingIsOpenedAndHasAnAreaOfItsOwn)
{
    test_driver::Loaded driver;
    vm_area_struct* given = nullptr;
    calls.mmap = [&](file* f, vm_area_struct* vma) {
        given = vma;
        return accept_mapping(f, vma);
    };
    order.clear();
    auto f = open_file();
    std::unique_ptr<Mapping> m;
    ASSERT_EQ(f->mmap({0x10000000, PAGE_BYTES}, m), 0);
    auto copy = m->duplicate();
    EXPECT_EQ(order, std::vector<std::string>{"vm open"});
    EXPECT_EQ(copy->start(), m->start());
    EXPECT_NE(copy->fault(0), nullptr);
    EXPECT_EQ(live().mappings, 2);
    EXPECT_NE(vma_file(given), nullptr);
    m->lose_file();
    EXPECT_EQ(vma_file(given), nullptr);
}
