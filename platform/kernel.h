/* SPDX-License-Identifier: GPL-2.0-only */
// The contract: every operation and type of a kernel that the driver core may use.
//
// The core (quendrel/2.6/) includes this header and no other header of a platform. Each platform implements it
// once: platform/hosted/ in user space, platform/linux/ on real kernels. The operations keep the names and the
// meanings that they have in Linux 2.6.29; where a newer kernel has something else, its glue brings it back to
// what is written here.
//
// How it is cut:
//   - Kernel structures (bio, buffer_head, request_queue, ...) are opaque. Their layout differs by kernel and by
//     configuration, so the few fields that the core needs are reached through the accessors below.
//   - Locks, counters and completions stand inside the core's own records. They are storage whose size comes from
//     the platform's "kernel_platform.h" (hand-written where the platform is ours, generated from the kernel's own
//     headers on kernels).
//   - "kernel_platform.h" may also define any operation below as an inline function, by the macro
//     KERNEL_PLATFORM_INLINES that names a header to include at the end of this one.
//   - Words shared between threads without a lock are loaded and stored through load_acquire, store_release and
//     set_mb, on both sides; atomic_t and the bit operations are fully ordered.
//
// Context: "may sleep" operations must not be called with a spin lock held. Unless a comment says otherwise an
// operation cannot fail.
#pragma once

// What the platform chooses. Required macros: KERNEL_SPINLOCK_SIZE, KERNEL_SEMAPHORE_SIZE, KERNEL_RWSEM_SIZE,
// KERNEL_COMPLETION_SIZE (bytes), KERNEL_LOCK_ALIGN (bytes).
#include "kernel_platform.h"

using u8 = unsigned char;
using u16 = unsigned short;
using u32 = unsigned int;
using s32 = int;
using u64 = unsigned long long;
using s64 = long long;
using kernel_size_t = __SIZE_TYPE__;
using pid_type = int;

// A sector is 512 bytes; a sector number counts from the start of the whole disk unless said otherwise.
using sector_type = u64;

// A device number in the kernel's own form: major in the top 12 bits, minor in the low 20.
using kdev_t = u32;
constexpr u32 kdev_major(kdev_t dev) { return dev >> 20; }
constexpr u32 kdev_minor(kdev_t dev) { return dev & 0xFFFFFu; }
constexpr kdev_t kdev_make(u32 major, u32 minor) { return (major << 20) | minor; }

// An address in the memory of the task that issued the current command. Always 32 bits wide: the driver's records
// hold 32-bit pointers on every platform, and wider kernels zero-extend them. Never dereferenced by the core.
enum class user_addr : u32 {};
constexpr user_addr user_addr_add(user_addr base, u32 bytes) { return user_addr(u32(base) + bytes); }

constexpr u32 PAGE_BYTES = 4096;

// Negative kernel errors that pass through the core.
constexpr int KERNEL_EFAULT = 14;
constexpr int KERNEL_EOPNOTSUPP = 95;

// Allocation contexts.
using gfp_type = u32;
constexpr gfp_type GFP_KERNEL = 1;    // may sleep, may start I/O; pages have a kernel address and can be shared with user space
constexpr gfp_type GFP_NOIO = 2;      // may sleep, never starts I/O: safe below a block device
constexpr gfp_type GFP_HIGHUSER = 3;  // pages only: may lie in high memory, to be reached through kmap
constexpr gfp_type GFP_NOFAIL = 16;   // added to one of the above: the allocation is retried until it succeeds

struct bio;
struct block_device;
struct buffer_head;
struct file;
struct gendisk;
struct inode;
struct kmem_cache;
struct kernel_module;
struct page;
struct poll_table;
struct request_queue;
struct super_block;
struct vm_area_struct;
struct vm_fault;

struct alignas(KERNEL_LOCK_ALIGN) spinlock { unsigned char storage[KERNEL_SPINLOCK_SIZE]; };
struct alignas(KERNEL_LOCK_ALIGN) semaphore { unsigned char storage[KERNEL_SEMAPHORE_SIZE]; };
struct alignas(KERNEL_LOCK_ALIGN) rw_semaphore { unsigned char storage[KERNEL_RWSEM_SIZE]; };
struct alignas(KERNEL_LOCK_ALIGN) completion { unsigned char storage[KERNEL_COMPLETION_SIZE]; };
struct atomic_int { int counter; };

struct kernel_timespec {
    s32 tv_sec;
    s32 tv_nsec;
};

// A queue's entry point. 0: the request was taken; anything else: the request was redirected to another device and
// the caller submits it again (generic_make_request).
using make_request_fn = int(request_queue* q, bio* b);
using bio_end_io_fn = void(bio* b, int error);
using bh_end_io_fn = void(buffer_head* bh, int uptodate);

// Operations of a mapping. fault gets the faulting address from vm_fault_address and answers with vm_fault_set_page
// and 0, or with VM_FAULT_SIGBUS.
struct vm_operations {
    void (*open)(vm_area_struct* vma);
    void (*close)(vm_area_struct* vma);
    int (*fault)(vm_area_struct* vma, vm_fault* vmf);
};
constexpr int VM_FAULT_SIGBUS = 2;
constexpr unsigned long VM_READ = 1;
constexpr unsigned long VM_WRITE = 2;
constexpr unsigned long VM_SHARED = 8;

// Entry points of a character device. Results are handed to user space unchanged, positive codes included.
struct file_operations {
    kernel_module* owner;
    long (*read)(file* f, user_addr buffer, kernel_size_t count, s64* position);
    long (*write)(file* f, user_addr buffer, kernel_size_t count, s64* position);
    unsigned (*poll)(file* f, poll_table* table);
    int (*ioctl)(inode* i, file* f, unsigned cmd, unsigned long arg);
    int (*mmap)(file* f, vm_area_struct* vma);
    int (*open)(inode* i, file* f);
    int (*release)(inode* i, file* f);
};

extern "C" {

// ---- What the driver gives to the platform -------------------------------------------------------------------

// Gives every global of the driver the value that a freshly loaded module has. The platform calls it before each
// driver_init, because an opaque lock cannot have a static initialiser.
void driver_static_init();
int driver_init();   // module load: 0 or a negative kernel error
void driver_exit();  // module unload; called only when no reference on the module is held
// The device's contents or its place on the disk have changed without a write that the driver saw: what it recorded of
// the device counts no more. While the driver is loaded; from a task that may sleep and holds no lock of the driver.
void driver_device_changed(kdev_t dev);

// ---- Log and fatal stop ----------------------------------------------------------------------------------------

// The format begins with a priority marker "<2>" to "<6>". %p prints hexadecimal without prefix on every platform.
int printk(const char* format, ...) __attribute__((format(printf, 1, 2)));
// An inconsistency that nothing can repair: stops the kernel (ends the process, in user space).
[[noreturn]] void kernel_bug(const char* file, int line);

// ---- Memory bytes and text ---------------------------------------------------------------------------------------

void* memcpy(void* to, const void* from, kernel_size_t bytes) noexcept;
void* memset(void* to, int value, kernel_size_t bytes) noexcept;
int memcmp(const void* a, const void* b, kernel_size_t bytes) noexcept;
int sprintf(char* to, const char* format, ...) noexcept __attribute__((format(printf, 2, 3)));

// ---- Allocation (may sleep; null when there is no memory) ------------------------------------------------------

void* kmalloc(kernel_size_t bytes, gfp_type gfp);
void kfree(const void* p);  // null is ignored
void* vmalloc(unsigned long bytes);
void vfree(const void* p);  // null is ignored

page* alloc_page(gfp_type gfp);
void free_page_ref(page* p);  // drops one reference; the last one frees the page (__free_page)
void get_page(page* p);       // takes one more reference
void* kmap(page* p);          // may sleep; the page's kernel address until kunmap
void kunmap(page* p);
void* page_address(page* p);  // of a page that does not lie in high memory

// Objects aligned for any record, and to the hardware's cache line where the platform has room for that; no constructor.
// The name is copied; two caches may share one name.
kmem_cache* kmem_cache_create(const char* name, kernel_size_t objectBytes);
void* kmem_cache_alloc(kmem_cache* cache, gfp_type gfp);
void kmem_cache_free(kmem_cache* cache, void* object);
void kmem_cache_destroy(kmem_cache* cache);  // null is ignored; no object may be alive

// ---- User memory (of the task that issued the current command; may sleep) ----------------------------------------

unsigned long copy_from_user(void* to, user_addr from, unsigned long bytes);  // returns the bytes NOT copied
unsigned long copy_to_user(user_addr to, const void* from, unsigned long bytes);  // returns the bytes NOT copied
int put_user_u32(u32 value, user_addr to);  // 0 or -KERNEL_EFAULT

// ---- Locks -----------------------------------------------------------------------------------------------------

void spin_lock_init(spinlock* lock);
void spin_lock_irqsave(spinlock* lock, unsigned long* flags);  // interrupts off, their former state into *flags
void spin_unlock_irqrestore(spinlock* lock, unsigned long flags);

void sema_init(semaphore* sem, int count);
void down(semaphore* sem);               // may sleep
int down_interruptible(semaphore* sem);  // may sleep; non-zero when a signal ended the wait, the count not taken
int down_trylock(semaphore* sem);        // 0 when taken, 1 when not
void up(semaphore* sem);

// Fair to writers: a waiting writer keeps later readers out.
void init_rwsem(rw_semaphore* sem);
void down_read(rw_semaphore* sem);
void up_read(rw_semaphore* sem);
void down_write(rw_semaphore* sem);
void up_write(rw_semaphore* sem);

void init_completion(completion* c);
void complete(completion* c);
void wait_for_completion(completion* c);  // may sleep

// ---- Threads -----------------------------------------------------------------------------------------------------

// Starts a kernel thread that runs fn(arg). Its id (positive), or a negative kernel error. fn ends the thread with
// complete_and_exit.
pid_type kernel_thread(int (*fn)(void*), void* arg, unsigned long flags);
void daemonize(const char* name);  // names the calling kernel thread and detaches it from its creator's task
void allow_signal_kill();          // lets SIGKILL wake the calling kernel thread from down_interruptible
[[noreturn]] void complete_and_exit(completion* c, long code);
void schedule();                   // gives up the processor; the caller stays runnable
void set_current_running();        // set_current_state(TASK_RUNNING)

// ---- Time and randomness ---------------------------------------------------------------------------------------

void current_kernel_time(kernel_timespec* now);  // wall-clock time
void get_random_bytes(void* to, int bytes);

// ---- Modules and character devices -------------------------------------------------------------------------------

kernel_module* this_module();            // the driver's own
int module_is_going(kernel_module* m);   // 1 while the module is being unloaded
int try_module_get(kernel_module* m);    // 1 when a reference was taken, 0 when the module is going away
void module_put(kernel_module* m);
int register_chrdev(unsigned major, const char* name, const file_operations* fops);  // 0 or a negative kernel error
void unregister_chrdev(unsigned major, const char* name);

void* file_private(file* f);
void file_set_private(file* f, void* data);

// ---- User mappings -----------------------------------------------------------------------------------------------

unsigned long vma_start(vm_area_struct* vma);  // first user address
unsigned long vma_end(vm_area_struct* vma);    // one past the last
unsigned long vma_flags(vm_area_struct* vma);  // VM_READ, VM_WRITE, VM_SHARED; other bits are unspecified
unsigned long vma_page_offset(vm_area_struct* vma);
file* vma_file(vm_area_struct* vma);           // null when the mapping has no file
void vma_set_ops(vm_area_struct* vma, const vm_operations* ops);
unsigned long vm_fault_address(vm_fault* vmf);
void vm_fault_set_page(vm_fault* vmf, page* p);  // takes over one reference

// ---- Block devices, disks, file systems --------------------------------------------------------------------------

// One object per device number; never null (a number without a device gets one with no disk and nothing mounted).
block_device* bdget(kdev_t dev);
kdev_t bdev_dev(block_device* bdev);
gendisk* bdev_disk(block_device* bdev);            // null when the device is gone
block_device* bdev_contains(block_device* bdev);   // the whole disk's device (itself for a whole disk); null when none
int bdev_has_partition(block_device* bdev);        // 1 when the device has a partition record
sector_type bdev_partition_start(block_device* bdev);  // of that record; 0 without one
sector_type bdev_partition_sectors(block_device* bdev);
// The lock around a look at the device's partition table. May sleep on some platforms.
void bdev_lock_partitions(block_device* bdev);
void bdev_unlock_partitions(block_device* bdev);

request_queue* disk_queue(gendisk* disk);
sector_type disk_capacity(gendisk* disk);  // sectors
u32 disk_first_minor(gendisk* disk);
u32 disk_minors(gendisk* disk);            // minors of the disk, its own included
u32 disk_partition_slots(gendisk* disk);   // length of the partition table, slot 0 (the whole disk) included
// 1 and the partition's place when slot `index` (from 1) holds a partition, else 0.
int disk_partition(gendisk* disk, u32 index, sector_type* start, sector_type* sectors);

super_block* get_super(block_device* bdev);  // of the file system mounted on the device, with a reference; or null
void drop_super(super_block* sb);
u32 super_block_size(super_block* sb);       // the file system's block size in bytes, at most PAGE_BYTES
super_block* freeze_bdev(block_device* bdev);  // may sleep; null when the file system could not be frozen
void thaw_bdev(block_device* bdev, super_block* sb);  // sb null: the freeze had failed, nothing is thawed
void fsync_bdev(block_device* bdev);         // may sleep; null is ignored

// ---- Request queues ------------------------------------------------------------------------------------------------

spinlock* queue_lock(request_queue* q);  // null when the queue has none
// Loads and stores of the queue's entry point; made with queue_lock held when there is one.
make_request_fn* queue_make_request_fn(request_queue* q);
void queue_set_make_request_fn(request_queue* q, make_request_fn* fn);
void generic_make_request(bio* b);  // submits to the queue of the bio's device

// ---- Bios ----------------------------------------------------------------------------------------------------------

bio* bio_alloc(gfp_type gfp, int vectors);  // zeroed, one reference; may sleep, null when there is no memory
void bio_get(bio* b);
void bio_put(bio* b);
block_device* bio_bdev(bio* b);
void bio_set_bdev(bio* b, block_device* bdev);
sector_type bio_sector(bio* b);
void bio_set_sector(bio* b, sector_type sector);
u32 bio_size(bio* b);  // bytes
// The low two bits: 0 read, 1 write, 2 read-ahead, 3 write with the ahead bit. Discards, write-zeroes and
// secure-erases answer 1 on every platform: they change data.
u32 bio_rw(bio* b);
void bio_set_read(bio* b);
void bio_set_single_vector(bio* b, page* p, u32 bytes, u32 offset);  // vector 0; count 1, index 0, size `bytes`
u32 bio_vectors(bio* b);
void bio_vector(bio* b, u32 index, page** p, u32* bytes, u32* offset);
void* bio_private(bio* b);
void bio_set_private(bio* b, void* data);
void bio_set_end_io(bio* b, bio_end_io_fn* fn);
int bio_uptodate(bio* b);  // BIO_UPTODATE; set on a fresh bio, cleared by a failed request
void bio_set_eopnotsupp(bio* b);

// ---- Buffer heads --------------------------------------------------------------------------------------------------

constexpr u32 BUFFER_LOCKED = 1;
constexpr u32 BUFFER_REQ = 2;
constexpr u32 BUFFER_MAPPED = 4;

buffer_head* alloc_buffer_head(gfp_type gfp);  // zeroed, no reference; may sleep, null when there is no memory
void free_buffer_head(buffer_head* bh);        // waits until a completion under way has let go of it
void set_bh_page(buffer_head* bh, page* p, u32 offset);
void bh_set_block(buffer_head* bh, block_device* bdev, u64 block, u32 bytes);
void bh_set_state(buffer_head* bh, u32 state);  // exactly these of BUFFER_*, all others clear
void bh_set_end_io(buffer_head* bh, bh_end_io_fn* fn);
void bh_init_assoc(buffer_head* bh);            // empty association list
block_device* bh_bdev(buffer_head* bh);
u64 bh_block(buffer_head* bh);
u32 bh_bytes(buffer_head* bh);
page* bh_page(buffer_head* bh);
u32 bh_offset(buffer_head* bh);                 // of the data within the page
void bh_end_io(buffer_head* bh, int uptodate);  // calls the buffer's completion
void get_bh(buffer_head* bh);
void put_bh(buffer_head* bh);                   // below zero is no error
int bh_count(buffer_head* bh);
int buffer_locked(buffer_head* bh);
void set_buffer_uptodate(buffer_head* bh);
void set_buffer_eopnotsupp(buffer_head* bh);
void unlock_buffer(buffer_head* bh);
void wait_on_buffer_locked(buffer_head* bh);    // __wait_on_buffer: may sleep; returns when the buffer is unlocked

}  // extern "C"

// ---- Words shared without a lock -----------------------------------------------------------------------------------

template <typename T>
inline T load_acquire(const volatile T* word)
{
    static_assert(sizeof(T) <= sizeof(void*));
    return __atomic_load_n(word, __ATOMIC_ACQUIRE);
}

template <typename T>
struct same_type {
    using type = T;
};

template <typename T>
inline void store_release(volatile T* word, typename same_type<T>::type value)
{
    static_assert(sizeof(T) <= sizeof(void*));
    __atomic_store_n(word, value, __ATOMIC_RELEASE);
}

// A store followed by a full memory barrier.
template <typename T>
inline void set_mb(volatile T* word, typename same_type<T>::type value)
{
    static_assert(sizeof(T) <= sizeof(void*));
    __atomic_store_n(word, value, __ATOMIC_SEQ_CST);
}

inline int atomic_read(const atomic_int* a) { return __atomic_load_n(&a->counter, __ATOMIC_ACQUIRE); }
inline void atomic_set(atomic_int* a, int value) { __atomic_store_n(&a->counter, value, __ATOMIC_RELEASE); }
inline void atomic_add(atomic_int* a, int n) { __atomic_fetch_add(&a->counter, n, __ATOMIC_SEQ_CST); }
inline void atomic_sub(atomic_int* a, int n) { __atomic_fetch_sub(&a->counter, n, __ATOMIC_SEQ_CST); }
inline void atomic_inc(atomic_int* a) { atomic_add(a, 1); }
inline void atomic_dec(atomic_int* a) { atomic_sub(a, 1); }
inline bool atomic_dec_and_test(atomic_int* a) { return __atomic_sub_fetch(&a->counter, 1, __ATOMIC_SEQ_CST) == 0; }

// Bit n is bit n mod 8, least significant first, of byte n / 8. Set and clear are atomic.
inline void set_bit(u32 n, void* bits)
{
    __atomic_fetch_or(static_cast<u8*>(bits) + (n >> 3), u8(1u << (n & 7)), __ATOMIC_SEQ_CST);
}
inline void clear_bit(u32 n, void* bits)
{
    __atomic_fetch_and(static_cast<u8*>(bits) + (n >> 3), u8(~(1u << (n & 7))), __ATOMIC_SEQ_CST);
}
inline bool test_bit(u32 n, const void* bits)
{
    return (__atomic_load_n(static_cast<const u8*>(bits) + (n >> 3), __ATOMIC_ACQUIRE) >> (n & 7)) & 1;
}

#ifdef KERNEL_PLATFORM_INLINES
#include KERNEL_PLATFORM_INLINES
#endif
