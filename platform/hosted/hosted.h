/* SPDX-License-Identifier: GPL-2.0-only */
// The hosted kernel as its owner sees it: a test or the daemon sets up disks and file systems, loads the driver,
// plays the guest that reads and writes, and plays the processes that use the control device.
//
// There is one hosted kernel in a process. The driver under it is whatever defines driver_static_init, driver_init
// and driver_exit (kernel.h); this header knows nothing else of it.
//
// Threads: every function may be called from any thread unless it says otherwise.
#pragma once

#include "kernel.h"

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace hosted
{

// ---- Where a disk's bytes live ------------------------------------------------------------------------------------

enum class Op : std::uint8_t { read, write, flush, discard, write_zeroes };

// One piece of backing I/O. `data` may be split over several buffers (adjacent bios merged into one request).
struct StoreRequest {
    Op op;
    bool fua = false;         // of a change: durable before it completes
    bool may_unmap = false;   // write_zeroes: may leave a hole
    bool more = false;        // the submitting thread has more to send: a store may spare it long copies
    std::uint64_t offset = 0; // bytes
    std::uint64_t bytes = 0;
    struct Piece {
        std::byte* data;
        std::uint32_t bytes;
    };
    std::span<const Piece> pieces;            // valid until done is called
    void (*done)(StoreRequest* r, int error); // 0 or a negative errno; from any thread, or before submit returns
    // the store's from submit to done
    StoreRequest* next = nullptr;
    bool quick_ways_failed = false;
};

// A piece of a store that is all data or all hole (reads as zeros, and takes no room).
struct Extent {
    std::uint64_t bytes;
    bool hole;
};

class Store
{
  public:
    virtual ~Store() = default;
    virtual std::uint64_t size() const = 0;   // bytes, a multiple of 512
    // A path that leads to the same file or device for as long as the store lives, whatever became of its name. Empty:
    // there is none.
    virtual std::string path() const { return {}; }
    // Never waits for the request to complete (memory: completes inside), and never throws: where there is no memory
    // the request ends with -ENOMEM, or goes a way that needs none.
    virtual void submit(StoreRequest* r) = 0;
    virtual void drain() {}                   // returns when every submitted request has completed
    // True: submit always completes before it returns, so that merging bios first would gain nothing.
    virtual bool completes_inline() const { return false; }
    // What requests have to be a multiple of, in bytes: 512 unless a device below wants more.
    virtual std::uint32_t logical_block_size() const { return 512; }
    // Appends the pieces of a range inside the store, from its start and at most `most`, neighbours of different kinds.
    // 0 or a negative errno.
    virtual int extents(std::uint64_t offset, std::uint64_t bytes, std::size_t most, std::vector<Extent>& into);
    // Asks the host to have a range in memory; does not wait for it.
    virtual void prefetch(std::uint64_t offset, std::uint64_t bytes);
    // 0, or the error of the first flush that failed: what was answered before it may be lost, and every later flush is
    // answered with it.
    virtual int flush_error() const { return 0; }
};

std::unique_ptr<Store> make_memory_store(std::uint64_t bytes);
// The bytes of a memory store made above, for looking behind the queue.
std::span<std::byte> memory_store_bytes(Store& store);

struct FileStoreOptions {
    bool direct = false; // O_DIRECT
    bool read_only = false;
    bool use_io_uring = true; // falls back to a thread pool where the host has none
    // Called once, when the first flush fails, with its negative errno; from any thread, must not wait.
    std::function<void(int error)> flush_failed = {};
};
// A raw image or a host block device. Throws std::system_error whose text names the path and what to do.
std::unique_ptr<Store> open_file_store(const std::string& path, FileStoreOptions options = {});

// ---- Disks ----------------------------------------------------------------------------------------------------------

struct PartitionSpec {
    u32 index = 0; // from 1
    sector_type start = 0;
    sector_type sectors = 0;
    bool operator==(const PartitionSpec&) const = default;
};

struct DiskConfig {
    std::string name; // "sda"
    u32 major = 8;
    u32 first_minor = 0;
    u32 minors = 16; // the disk's own included
    std::unique_ptr<Store> store;
    std::vector<PartitionSpec> partitions;
    bool queue_has_lock = true; // false: queue_lock is null, as on some real disks
};

struct PartitionTable {
    std::vector<PartitionSpec> partitions; // on the disk, none over another, in the table's order
    std::vector<sector_type> records;      // where the extended boot records lie
    std::vector<std::string> left_out;     // what was not taken from the table, and why: a sentence each
    bool operator==(const PartitionTable&) const = default;
};
// Reads the DOS or GPT table of an image or a block device with libblkid. Empty when there is none. `minors`: of the
// disk, its own included; a partition with a higher index is left out. Throws std::system_error when the file cannot be
// read.
// `sectors`: of the disk, where the file may have become larger.
PartitionTable read_partition_table(const std::string& path, u32 minors = 16, sector_type sectors = ~sector_type(0));

// A guest's request. It must stay alive until done is called.
struct GuestRequest {
    Op op = Op::read;
    bool fua = false;
    bool may_unmap = false;
    bool read_ahead = false;   // read only
    std::uint64_t offset = 0;  // bytes from the start of the device it is sent to; a multiple of 512
    std::uint64_t bytes = 0;   // a multiple of 512; 0 for flush
    std::byte* data = nullptr; // read and write
    u32 edition = 0;           // Disk::edition() before the partitions were looked at for it; 0: they do not matter
    // 0 or a negative errno; from any thread, or before submit returns. A store's own thread may call it, so it must
    // not wait for other requests; submitting a write may wait (the driver's hook sleeps) and belongs on another thread.
    void (*done)(GuestRequest* r, int error) = nullptr;
    void* context = nullptr;
    bool outdated = false; // in done: it came too late for its edition
    // owned by the hosted kernel from submit to done
    std::uint64_t reserved[4] = {};
};

class Disk
{
  public:
    Disk() = default;
    Disk(const Disk&) = delete;
    Disk& operator=(const Disk&) = delete;
    virtual ~Disk() = default;

    virtual const std::string& name() const = 0;
    virtual std::uint64_t size() const = 0;             // bytes
    virtual kdev_t device(u32 partition = 0) const = 0; // partition 0: the whole disk
    virtual std::vector<PartitionSpec> partitions() const = 0;
    // Puts another table in place of the disk's. A request under way may be counted to a partition of either. Throws
    // std::invalid_argument, and changes nothing, when one has no device number or does not lie on the disk. Whoever
    // knows that a file system's or a partition's place has changed tells the driver, by device_changed.
    virtual void set_partitions(std::vector<PartitionSpec> partitions) = 0;
    // Whoever cuts requests at the borders of partitions numbers them by the edition of those. One of an earlier edition
    // than the disk's is outdated: it ends with an error and has done nothing. It is to be cut again.
    virtual u32 edition() const = 0;
    virtual void new_edition() = 0; // the partitions have changed, and whoever looks at them from now on sees that
    virtual Store& store() = 0;
    virtual request_queue* queue() = 0;

    // Sends a guest request to the whole disk (partition 0) or to a partition, through generic_make_request. May
    // sleep (the driver's hook may hold the request), never waits for the disk and never throws. A large request becomes
    // several bios; bios sent in one run and adjacent are merged before they reach the store.
    virtual void submit(GuestRequest* r, u32 partition = 0) = 0;

    // The same, waiting for the result: 0 or a negative errno.
    int read(std::uint64_t offset, std::span<std::byte> into, u32 partition = 0);
    int write(std::uint64_t offset, std::span<const std::byte> from, u32 partition = 0, bool fua = false);
    int flush();
    int discard(std::uint64_t offset, std::uint64_t bytes, u32 partition = 0);
    int write_zeroes(std::uint64_t offset, std::uint64_t bytes, u32 partition = 0);

    // Takes the disk away, as an unplugged one: later bios fail with -ENODEV, bdev_disk answers null.
    virtual void unplug() = 0;
};

// Adds a disk. Throws std::invalid_argument when its device numbers overlap another disk's.
std::shared_ptr<Disk> add_disk(DiskConfig config);
// Waits for its requests in flight, then forgets it. No guest request may be submitted meanwhile or later.
void remove_disk(const std::shared_ptr<Disk>& disk);

// While it exists, requests to any disk, but for flushes, wait at its door, and none is inside, the driver's hands
// included: it holds reads as well as writes.
class ClosedDoors
{
  public:
    ClosedDoors(); // waits for those inside, as long as that takes
    ~ClosedDoors();
    ClosedDoors(const ClosedDoors&) = delete;
    ClosedDoors& operator=(const ClosedDoors&) = delete;

  private:
    std::vector<std::shared_ptr<Disk>> disks_;
};

// ---- File systems
// ----------------------------------------------------------------------------------------------------

// How a mounted file system is frozen and thawed. Both are called from the thread that issued the command, which
// serves no disk.
class Freezer
{
  public:
    virtual ~Freezer() = default;
    // Asked before each freeze: false when the file system is not mounted where this freezer could reach it (it is a
    // guest's, or nobody's). The gate that serves file systems without a freezer is then used for that freeze.
    virtual bool present() { return true; }
    virtual bool freeze() = 0; // false: could not be frozen
    virtual void thaw() = 0;   // only after a freeze that answered true
};

// Makes get_super answer for the device, if its blocks are no larger than a page. Without a freezer a freeze holds guest
// writes at the disk's door (Disk::submit does not wait for them) and waits for those in flight; thaw lets them on.
void mount_file_system(kdev_t dev, u32 block_size, std::shared_ptr<Freezer> freezer = {});
void unmount_file_system(kdev_t dev);

struct PlaceInfo {
    bool file_system; // and not swap space, a part of a volume group, ...
    std::string type; // "ext4"
    u32 block_size;   // bytes
};
// What libblkid finds at a place in an image, with the file system's real block size (xfs: from its super block).
// Nothing: nothing that it knows. `bytes` from `offset` on are looked at.
std::optional<PlaceInfo> probe_place(const std::string& path, std::uint64_t offset, std::uint64_t bytes);

// ---- The driver
// ------------------------------------------------------------------------------------------------------

int load_driver();   // 0 or the negative error of driver_init
int unload_driver(); // 0, or -EBUSY while a file is open; waits until no task is inside a hooked function
bool driver_loaded();
// Tells the driver, if it is loaded, that what it recorded of a device's changes counts no more.
void device_changed(kdev_t dev);
int driver_references(); // of the module: one per open file

// ---- Processes that use the control device
// -----------------------------------------------------------------------------

// The memory of a process, addressed by 32-bit words. Both return the bytes NOT copied.
class AddressSpace
{
  public:
    virtual ~AddressSpace() = default;
    virtual std::size_t read(u32 from, void* to, std::size_t bytes) = 0;
    virtual std::size_t write(u32 to, const void* from, std::size_t bytes) = 0;
};

// A process of the test's own making: 4 GiB of address space of which the allocated ranges exist.
class SimulatedMemory final : public AddressSpace
{
  public:
    SimulatedMemory();
    ~SimulatedMemory() override;
    // A zeroed buffer between two unmapped pages, page-aligned unless `align_end`: then its last byte is the last of
    // a page, so that one byte more is unmapped.
    u32 allocate(std::size_t bytes, bool writable = true, bool align_end = false);
    void release(u32 address);
    std::byte* at(u32 address); // null when unmapped
    std::size_t read(u32 from, void* to, std::size_t bytes) override;
    std::size_t write(u32 to, const void* from, std::size_t bytes) override;

  private:
    struct Impl;
    std::unique_ptr<Impl> impl_;
};

// The memory of a live process of this host, as long as it runs the program that it runs now. `pidfd` (owned elsewhere,
// -1 for none) guards against a recycled pid, `user` (a user's number) against a program that has other rights than its
// caller. Throws std::system_error. What a process has protected against itself is within reach.
std::unique_ptr<AddressSpace> process_memory(int pid, int pidfd, unsigned user);

class ControlFile;

// A mapping of the control device in a process.
class Mapping
{
  public:
    virtual ~Mapping() = default; // unmaps, if unmap was not called
    virtual u32 start() const = 0;
    virtual u32 pages() const = 0;
    // Touches page `index` as user space would: the page's bytes, or null for SIGBUS.
    virtual const std::byte* fault(u32 index) = 0;
    // The same for a mapping that is handed to another process: the page's place in transfer_memory_fd.
    virtual std::optional<std::uint64_t> fault_offset(u32 index) = 0;
    virtual void unmap() = 0;
    // A copy of the mapping as a fork or a split makes it: same range, file and operations, a vm_area_struct of its
    // own.
    virtual std::unique_ptr<Mapping> duplicate() = 0;
    // From now on the mapping has no file (vma_file answers null).
    virtual void lose_file() = 0;
};

// The memory that alloc_page(GFP_KERNEL) pages live in: a memfd that nobody else can write to or resize. The returned
// descriptor is read-only and owned by the hosted kernel. Throws std::system_error when the host has none to give.
int transfer_memory_fd();

struct MmapArguments {
    u32 address = 0x10000000;
    u32 bytes = 0;
    unsigned long flags = VM_READ; // VM_READ, VM_WRITE, VM_SHARED
    unsigned long page_offset = 0;
};

// An open file of the control device. Destroying it closes it: mappings first, then release, as a dying process.
class ControlFile
{
  public:
    virtual ~ControlFile() = default;
    virtual int ioctl(u32 command, u32 argument) = 0;
    virtual int mmap(const MmapArguments& arguments, std::unique_ptr<Mapping>& mapping) = 0;
    virtual long read(u32 buffer, std::size_t bytes) = 0;
    virtual long write(u32 buffer, std::size_t bytes) = 0;
    virtual unsigned poll() = 0;
    // Closes now; the result of release. The object may only be destroyed afterwards.
    virtual int close() = 0;
    virtual file* raw() = 0;
};

// Opens character device `major` on behalf of a process. On a result other than 0 `opened` stays null, and the file
// has been released as the kernel does for a failed open: not at all. (The driver's record of such an open stays
// behind; the leak tests list it.)
int open_control(unsigned major, std::shared_ptr<AddressSpace> memory, std::unique_ptr<ControlFile>& opened);

// ---- Log -----------------------------------------------------------------------------------------------------------

// Lines as the driver printed them, priority marker included, line end included as printed.
std::vector<std::string> log_lines();
void log_clear();
// Called for every line from now on, from the printing thread. Null: none. The ring is kept either way.
void log_set_sink(std::function<void(std::string_view)> sink);

// ---- Accounting and faults
// -------------------------------------------------------------------------------------------

struct Live { // objects alive now
    long kmallocs, vmallocs, pages, slab_caches, slab_objects, bios, buffer_heads, supers, block_devices, threads,
        mappings, files;
    bool operator==(const Live&) const = default;
};
Live live();
std::string describe(const Live& live); // only what is not zero, with the size and call site of each where known

// Frees whatever the driver left allocated, for tests of what it leaves behind deliberately. The driver must be
// unloaded.
void forget_leaks();

namespace faults
{
enum class Kind : unsigned {
    kmalloc = 1,
    vmalloc = 2,
    page = 4,
    slab = 8,
    slab_cache = 16,
    bio = 32,
    buffer_head = 64,
    thread = 128,
    any = 255
};
// The n-th allocation from now (from 1) of the kinds given fails, once. 0: none. Allocations that must not fail are
// neither counted nor failed.
void fail_allocation(unsigned n, unsigned kinds = unsigned(Kind::any));
// How many allocations of those kinds were made since the last call of fail_allocation.
unsigned allocations_seen();
// The n-th bio read (write) that reaches a disk's own function from now fails with -EIO, once. 0: none.
void fail_read(unsigned n);
void fail_write(unsigned n);
unsigned reads_seen();
unsigned writes_seen();
// register_chrdev fails with this (0: works).
void fail_register(int error);
// The next freezes fail.
void fail_freeze(bool on);
// try_module_get answers 0, as a module being unloaded.
void module_going(bool on);
void clear();
} // namespace faults

// Called by a disk's own function for each bio before it goes to the store, outside all locks: a test blocks here to
// force an order. Null: none.
struct BioView {
    bool write;
    sector_type sector;
    u32 bytes;
};
void set_disk_probe(std::function<void(const BioView&)> probe);
// Called by the thread that asks for random bytes, before it gets them: another place to force an order. Null: none.
// Set while no driver's code runs.
void set_random_probe(std::function<void()> probe);

} // namespace hosted
