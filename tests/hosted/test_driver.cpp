// SPDX-License-Identifier: GPL-2.0-only
#include "test_driver.h"

#include <gtest/gtest.h>

namespace test_driver
{

Calls calls;
std::function<void(bio*)> on_bio;
make_request_fn* real = nullptr;

namespace
{

int do_open(inode*, file* f) { return calls.open ? calls.open(f) : 0; }
int do_release(inode*, file* f) { return calls.release ? calls.release(f) : 0; }
int do_ioctl(inode*, file* f, unsigned command, unsigned long argument)
{
    return calls.ioctl ? calls.ioctl(f, command, argument) : 0;
}
int do_mmap(file* f, vm_area_struct* vma) { return calls.mmap ? calls.mmap(f, vma) : 2; }

file_operations operations{};

} // namespace

int hook(request_queue* q, bio* b)
{
    if (on_bio)
        on_bio(b);
    return real(q, b);
}

void install(hosted::Disk& disk)
{
    // The same function for every disk; guests that are still inside the hook read it.
    if (make_request_fn* own = queue_make_request_fn(disk.queue()); own != real)
        real = own;
    queue_set_make_request_fn(disk.queue(), hook);
}

void uninstall(hosted::Disk& disk) { queue_set_make_request_fn(disk.queue(), real); }

Loaded::Loaded() { hosted::load_driver(); }
Loaded::~Loaded()
{
    hosted::unload_driver();
    calls = {};
    on_bio = nullptr;
}

MemoryDisk::MemoryDisk(std::uint64_t bytes, std::vector<hosted::PartitionSpec> partitions,
                       std::unique_ptr<hosted::Store> store)
{
    hosted::DiskConfig config;
    config.name = "sda";
    config.store = store ? std::move(store) : hosted::make_memory_store(bytes);
    config.partitions = std::move(partitions);
    disk = hosted::add_disk(std::move(config));
}

MemoryDisk::~MemoryDisk()
{
    hosted::remove_disk(disk);
    if (hosted::driver_loaded())
        return;
    hosted::Live left = hosted::live();
    left.block_devices = 0;
    EXPECT_EQ(left, hosted::Live{}) << hosted::describe(left);
    hosted::forget_leaks();
}

} // namespace test_driver

void driver_static_init()
{
    using namespace test_driver;
    operations = {};
    operations.owner = this_module();
    operations.open = do_open;
    operations.release = do_release;
    operations.ioctl = do_ioctl;
    operations.mmap = do_mmap;
}

int driver_init() { return register_chrdev(test_driver::major_number, "test", &test_driver::operations); }

void driver_device_changed(kdev_t) {}

void driver_exit()
{
    if (test_driver::calls.exit)
        test_driver::calls.exit();
    unregister_chrdev(test_driver::major_number, "test");
}
