/* SPDX-License-Identifier: GPL-2.0-only */
// The block layer's structures behind the contract's opaque names.
//
// A bio's way: Disk::submit -> generic_make_request -> the queue's entry point (the disk's own function, or a hook of
// the driver that calls it in the end) -> the task's plug, where the store completes later -> the store -> bio_end_io.
// The structures of a disk, once there, stay until no driver is loaded, those of a partition that is gone among them, and
// what changes in them is atomic: looking at them needs no lock.
#pragma once

#include "hosted.h"
#include "task.h"

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <mutex>
#include <thread>

struct bio_vec {
    page* p;
    u32 bytes;
    u32 offset;
};

struct bio {
    std::atomic<int> references{1};
    u32 size = 0;
    sector_type sector = 0;
    block_device* bdev = nullptr;
    hosted::Op op = hosted::Op::read;
    bool fua = false;
    bool may_unmap = false;
    bool read_ahead = false;
    bool up_to_date = true;
    bool eopnotsupp = false;
    bool from_driver = false; // counted
    void* private_data = nullptr;
    bio_end_io_fn* end_io = nullptr;
    u32 vectors = 0;
    u32 vector_room = 1;
    bio* next = nullptr;            // in a plug, a batch or a bio_list
    std::byte* raw = nullptr;       // a guest's bio: its buffer, instead of vectors
    hosted::StoreRequest request{}; // when it is sent alone
    hosted::StoreRequest::Piece piece{};
    bio_vec vector[1] = {}; // vector_room of them
};

struct request_queue {
    spinlock lock;
    spinlock* lock_pointer; // null: a queue without a lock
    std::atomic<make_request_fn*> entry;
    make_request_fn* own; // the disk's own function
    hosted::DiskImpl* disk;
};

// Where a partition lies. Changed by one thread at a time, looked at by any.
class PartitionSlot
{
  public:
    // False: there is no such partition (now).
    bool get(sector_type* start, sector_type* sectors) const
    {
        for (;;) {
            const u32 before = changes_.load(std::memory_order_acquire);
            *sectors = sectors_.load(std::memory_order_acquire);
            *start = start_.load(std::memory_order_acquire);
            if (before % 2 == 0 && changes_.load(std::memory_order_acquire) == before)
                return *sectors != 0;
        }
    }
    void set(sector_type start, sector_type sectors)
    {
        changes_.fetch_add(1);
        start_.store(start);
        sectors_.store(sectors);
        changes_.fetch_add(1);
    }

  private:
    std::atomic<u32> changes_{0}; // odd: one is being made
    std::atomic<sector_type> start_{0};
    std::atomic<sector_type> sectors_{0}; // 0: there is none
};

struct gendisk {
    request_queue* queue;
    hosted::DiskImpl* disk;
    sector_type capacity;
    u32 major;
    u32 first_minor;
    u32 minors;
    std::unique_ptr<PartitionSlot[]> slots; // `minors` of them, by index; slot 0 is unused
    std::atomic<u32> slots_used{1};         // behind the highest index that there ever was
};

struct block_device {
    kdev_t dev;
    std::atomic<gendisk*> disk{nullptr};
    std::atomic<block_device*> contains{nullptr};
    std::atomic<u32> partition{0}; // index, 0: the whole disk
    bool referenced = false;       // by bdget; guarded by the table's mutex
};

namespace hosted
{

// Everything of a disk that is not the kernel's view of it.
class DiskImpl final : public Disk, public std::enable_shared_from_this<DiskImpl>
{
  public:
    explicit DiskImpl(DiskConfig config);
    ~DiskImpl() override;

    const std::string& name() const override { return name_; }
    std::uint64_t size() const override { return store_->size(); }
    kdev_t device(u32 partition) const override;
    std::vector<PartitionSpec> partitions() const override;
    void set_partitions(std::vector<PartitionSpec> partitions) override;
    u32 edition() const override { return edition_.load(); }
    void new_edition() override
    {
        if (edition_.fetch_add(1) + 1 == 0)
            edition_.fetch_add(1);
    }
    Store& store() override { return *store_; }
    request_queue* queue() override { return &queue_; }
    void submit(GuestRequest* r, u32 partition) noexcept override;
    void unplug() override;

    gendisk& disk() { return gendisk_; }
    bool gone() const { return gone_.load(std::memory_order_acquire); }
    bool inline_store() const { return inline_store_; }
    void attach(); // makes its block devices answer
    void detach();
    void wait_until_idle();

    // Holds guest requests that change sectors of the range at the door, or `reads` of them too, and waits for those
    // inside. False: they did not leave in time, or there is no thread for the door, and nothing is held.
    bool close_door(sector_type start, sector_type sectors, bool reads = false);
    void open_door(sector_type start, sector_type sectors);

    // The end of a guest request's last bio.
    void finish(GuestRequest* r);

  private:
    struct Guest; // in GuestRequest::reserved
    bool held(const GuestRequest& r) const; // door_mutex_ is held
    bool enter(GuestRequest* r);            // false: it lies before the door, or is done
    void send(GuestRequest* r);
    GuestRequest* take_free();
    void porter();
    void leave(unsigned epoch);
    bool drain(unsigned epoch, std::chrono::steady_clock::time_point deadline);
    int check(const GuestRequest& r, u32 partition) const;
    void check(const std::vector<PartitionSpec>& partitions) const;
    void place(u32 partition, sector_type start, sector_type sectors);
    static void guest_end_io(bio* b, int error);
    static void part_over(GuestRequest* r, int error);

    std::string name_;
    std::unique_ptr<Store> store_;
    mutable std::mutex partitions_mutex_; // guards partitions_ and changes of the slots; before the block device table's
    std::vector<PartitionSpec> partitions_;
    std::atomic<u32> edition_{1};
    request_queue queue_;
    gendisk gendisk_;
    std::vector<std::atomic<block_device*>> bdevs_; // by partition index; null: never was there
    std::atomic<bool> gone_{false};
    bool inline_store_;

    // Guest requests inside, by the epoch in which they came; a closing of the door begins a new epoch and waits for
    // the old one to drain.
    std::atomic<unsigned> epoch_{0};
    std::atomic<int> inside_[2] = {0, 0};
    std::atomic<int> doors_closed_{0};
    std::mutex door_mutex_; // guards closed_, the list before the door and what belongs to it
    std::condition_variable door_opened_;
    GuestRequest* before_door_ = nullptr;
    GuestRequest** before_door_end_ = &before_door_;
    std::atomic<long> before_door_count_{0};
    bool porter_ends_ = false;
    std::thread porter_; // lets in who waited; started by the first closing
    struct Range {
        sector_type start;
        sector_type sectors;
        bool reads;
    };
    std::vector<Range> closed_;
    std::mutex closing_; // one closing at a time; before door_mutex_
};

// The disk's own request function.
int disk_make_request(request_queue* q, bio* b);
void bio_endio(bio* b, int error);

// A bio of the platform's own, of one raw buffer; not counted, freed by bio_put. Null: no memory.
bio* new_raw_bio();

block_device* bdev_for(kdev_t dev); // as bdget, without a reference
void forget_block_devices();        // the driver's references
long referenced_block_devices();
void forget_supers();
void forget_removed_disks(); // frees the structures of removed disks; no driver may be loaded
void restore_all_queues();   // gives every queue its own function back
bool is_loaded();

// Waits until no task is inside a hooked function that was there at the call.
void wait_for_hooks();

} // namespace hosted
