/* SPDX-License-Identifier: GPL-2.0-only */
// A driver for tests of the hosted kernel alone: it registers a control device whose calls do what a test says, and
// can put a hook of the test's in front of a disk.
#pragma once

#include "hosted.h"

#include <functional>

namespace test_driver
{

constexpr unsigned major_number = 120;

struct Calls {
    std::function<int(file*)> open;
    std::function<int(file*)> release;
    std::function<int(file*, unsigned, unsigned long)> ioctl;
    std::function<int(file*, vm_area_struct*)> mmap;
    std::function<void()> exit;
};
extern Calls calls;

// Loads the driver for a test and takes it away again, with whatever the test left in `calls`.
class Loaded
{
  public:
    Loaded();
    ~Loaded();
};

// The hook: what it is to do with a bio before it goes on to `real`.
extern std::function<void(bio*)> on_bio;
extern make_request_fn* real;
int hook(request_queue* q, bio* b);
void install(hosted::Disk& disk);
void uninstall(hosted::Disk& disk);

// A disk in memory of so many bytes, as sda, added for the object's life.
class MemoryDisk
{
  public:
    explicit MemoryDisk(std::uint64_t bytes, std::vector<hosted::PartitionSpec> partitions = {},
                        std::unique_ptr<hosted::Store> store = {});
    // Also shows that the test left nothing behind but the references of bdget, and drops these.
    ~MemoryDisk();
    std::shared_ptr<hosted::Disk> disk;
};

} // namespace test_driver
