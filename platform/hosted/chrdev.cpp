// SPDX-License-Identifier: GPL-2.0-only
// Character devices: the table of majors, open files, and mappings with their faults.
//
// A file's calls run on the calling thread with the file's process as the current one. A mapping keeps a reference
// on every page that was faulted in, until it is unmapped: pages first, then the driver's close, as the kernel does.
// Lock order: a file's mutex, then a mapping's.
#include "memory.h"
#include "module.h"
#include "task.h"
#include "faults.h"

#include <cerrno>
#include <map>
#include <mutex>
#include <shared_mutex>
#include <utility>

struct inode {
    unsigned major;
};

struct file {
    void* private_data = nullptr;
    const file_operations* operations = nullptr;
    inode node{};
};

struct vm_area_struct {
    unsigned long start;
    unsigned long end;
    unsigned long flags;
    unsigned long page_offset;
    file* mapped_file;
    const vm_operations* operations = nullptr;
};

struct vm_fault {
    unsigned long address;
    page* result = nullptr;
};

struct poll_table {
};

using namespace hosted;

namespace
{

struct Device {
    std::string name;
    const file_operations* operations;
};
struct Table {
    std::mutex mutex; // guards the map
    std::map<unsigned, Device> devices;
};
Table& table()
{
    static Immortal<Table> the;
    return the.get();
}

// The calling thread works for a process.
class OnBehalfOf
{
  public:
    explicit OnBehalfOf(AddressSpace* memory) : task_(this_task()), before_(task_.memory) { task_.memory = memory; }
    ~OnBehalfOf() { task_.memory = before_; }
    OnBehalfOf(const OnBehalfOf&) = delete;
    OnBehalfOf& operator=(const OnBehalfOf&) = delete;

  private:
    Task& task_;
    AddressSpace* before_;
    SubmissionRun run_;
};

class MappingImpl;

struct OpenFile : std::enable_shared_from_this<OpenFile> {
    file handle;
    std::shared_ptr<AddressSpace> memory;
    // The driver's areas and their pages: written by what makes and ends one, read by faults and commands, so that an area
    // stays while a disk writes to its pages. Outside of all of the driver's locks; inside a mapping's own.
    std::shared_mutex areas;
    std::mutex mutex; // guards mappings
    std::vector<MappingImpl*> mappings;
};

class MappingImpl final : public Mapping
{
  public:
    MappingImpl(std::shared_ptr<OpenFile> f, const vm_area_struct& area)
        : file_(std::move(f)), area_(area), present_((area.end - area.start) / PAGE_BYTES)
    {
    }
    ~MappingImpl() override { unmap(); }

    vm_area_struct& area() { return area_; }
    // So that enlist, after the driver has agreed, allocates nothing. A process maps one at a time.
    void make_room()
    {
        std::lock_guard lock(file_->mutex);
        file_->mappings.reserve(file_->mappings.size() + 1);
    }
    void enlist()
    {
        std::lock_guard lock(file_->mutex);
        file_->mappings.push_back(this);
        count(Counter::mappings, 1);
        mapped_ = true;
    }

    u32 start() const override { return u32(area_.start); }
    u32 pages() const override { return u32(present_.size()); }
    const std::byte* fault(u32 index) override
    {
        page* p = touch(index);
        return p ? static_cast<std::byte*>(page_address(p)) : nullptr;
    }
    std::optional<std::uint64_t> fault_offset(u32 index) override
    {
        page* p = touch(index);
        std::int64_t offset = p ? transfer_offset(p) : -1;
        return offset < 0 ? std::nullopt : std::optional<std::uint64_t>(std::uint64_t(offset));
    }
    void unmap() override
    {
        {
            std::lock_guard lock(file_->mutex);
            if (std::erase(file_->mappings, this) == 0)
                return;
        }
        tear_down();
    }
    std::unique_ptr<Mapping> duplicate() override
    {
        auto copy = std::make_unique<MappingImpl>(file_, area_);
        copy->enlist();
        OnBehalfOf process(file_->memory.get());
        if (area_.operations && area_.operations->open)
            area_.operations->open(&copy->area_);
        return copy;
    }
    void lose_file() override { area_.mapped_file = nullptr; }

    // By whoever took it off the file's list.
    void tear_down()
    {
        OnBehalfOf process(file_->memory.get());
        {
            std::lock_guard lock(mutex_);
            mapped_ = false;
            for (page*& p : present_) {
                if (p)
                    free_page_ref(std::exchange(p, nullptr));
            }
        }
        if (area_.operations && area_.operations->close) {
            std::unique_lock areas(file_->areas);
            area_.operations->close(&area_);
        }
        count(Counter::mappings, -1);
    }

  private:
    page* touch(u32 index)
    {
        std::lock_guard lock(mutex_);
        if (!mapped_ || index >= present_.size())
            return nullptr;
        if (present_[index])
            return present_[index];
        if (!area_.operations || !area_.operations->fault)
            return nullptr;
        OnBehalfOf process(file_->memory.get());
        std::shared_lock areas(file_->areas);
        vm_fault fault{area_.start + index * PAGE_BYTES};
        // Any other answer would be taken for a page, or for something to try again.
        if (const int answer = area_.operations->fault(&area_, &fault)) {
            if (answer != VM_FAULT_SIGBUS)
                die("a fault was answered with %d", answer);
            return nullptr;
        }
        present_[index] = fault.result;
        return fault.result;
    }

    std::shared_ptr<OpenFile> file_;
    vm_area_struct area_;
    std::mutex mutex_; // guards the rest
    bool mapped_ = false;
    std::vector<page*> present_;
};

class ControlFileImpl final : public ControlFile
{
  public:
    ControlFileImpl(const file_operations* operations, unsigned major, std::shared_ptr<AddressSpace> memory)
        : file_(std::make_shared<OpenFile>())
    {
        file_->handle.operations = operations;
        file_->handle.node.major = major;
        file_->memory = std::move(memory);
    }
    ~ControlFileImpl() override { close(); }

    // Closed until this has succeeded.
    int open()
    {
        if (operations().open) {
            OnBehalfOf process(file_->memory.get());
            if (const int result = operations().open(&file_->handle.node, raw()))
                return result;
        }
        closed_ = false;
        return 0;
    }

    int ioctl(u32 command, u32 argument) override
    {
        if (closed_ || !operations().ioctl)
            return closed_ ? -EBADF : -ENOTTY;
        OnBehalfOf process(file_->memory.get());
        std::shared_lock areas(file_->areas);
        const int freezes = this_task().freezes;
        const int result = operations().ioctl(&file_->handle.node, raw(), command, argument);
        if (this_task().freezes != freezes)
            die("a command has begun a freeze that it did not end");
        return result;
    }
    int mmap(const MmapArguments& a, std::unique_ptr<Mapping>& mapping) override
    {
        if (closed_)
            return -EBADF;
        if (!operations().mmap)
            return -ENODEV;
        std::uint64_t length = (std::uint64_t(a.bytes) + PAGE_BYTES - 1) / PAGE_BYTES * PAGE_BYTES;
        if (length == 0 || a.address % PAGE_BYTES != 0)
            return -EINVAL;
        if (a.address + length > 0xFFFFF000u)
            return -ENOMEM;
        vm_area_struct area{a.address, (unsigned long)(a.address + length), a.flags, a.page_offset, raw()};
        // The driver keeps the area's address: it must be where it stays.
        auto made = std::make_unique<MappingImpl>(file_, area);
        made->make_room();
        OnBehalfOf process(file_->memory.get());
        std::unique_lock areas(file_->areas);
        int result = operations().mmap(raw(), &made->area());
        if (result != 0)
            return result;
        made->enlist();
        mapping = std::move(made);
        return 0;
    }
    long read(u32 buffer, std::size_t bytes) override
    {
        if (closed_ || !operations().read)
            return closed_ ? -EBADF : -EINVAL;
        OnBehalfOf process(file_->memory.get());
        return operations().read(raw(), user_addr(buffer), bytes, &position_);
    }
    long write(u32 buffer, std::size_t bytes) override
    {
        if (closed_ || !operations().write)
            return closed_ ? -EBADF : -EINVAL;
        OnBehalfOf process(file_->memory.get());
        return operations().write(raw(), user_addr(buffer), bytes, &position_);
    }
    unsigned poll() override
    {
        if (closed_ || !operations().poll)
            return 0;
        OnBehalfOf process(file_->memory.get());
        poll_table polled;
        return operations().poll(raw(), &polled);
    }
    int close() override
    {
        if (closed_)
            return -EBADF;
        closed_ = true;
        for (;;) {
            MappingImpl* mapping;
            {
                std::lock_guard lock(file_->mutex);
                if (file_->mappings.empty())
                    break;
                mapping = file_->mappings.back();
                file_->mappings.pop_back();
            }
            mapping->tear_down();
        }
        int result = 0;
        if (operations().release) {
            OnBehalfOf process(file_->memory.get());
            this_task().in_release = true;
            result = operations().release(&file_->handle.node, raw());
            this_task().in_release = false;
        }
        count(Counter::files, -1);
        module_leave();
        release_deferred_memory();
        return result;
    }
    file* raw() override { return &file_->handle; }

  private:
    const file_operations& operations() const { return *file_->handle.operations; }

    std::shared_ptr<OpenFile> file_;
    bool closed_ = true;
    s64 position_ = 0;
};

} // namespace

int register_chrdev(unsigned major, const char* name, const file_operations* operations)
{
    may_sleep(this_task(), "register_chrdev");
    if (int error = register_error())
        return error;
    Table& t = table();
    std::lock_guard lock(t.mutex);
    return t.devices.try_emplace(major, Device{name, operations}).second ? 0 : -EBUSY;
}

void unregister_chrdev(unsigned major, const char* name)
{
    Table& t = table();
    std::lock_guard lock(t.mutex);
    auto at = t.devices.find(major);
    if (at != t.devices.end() && at->second.name == name)
        t.devices.erase(at);
}

void* file_private(file* f) { return f->private_data; }
void file_set_private(file* f, void* data) { f->private_data = data; }

unsigned long vma_start(vm_area_struct* vma) { return vma->start; }
unsigned long vma_end(vm_area_struct* vma) { return vma->end; }
unsigned long vma_flags(vm_area_struct* vma) { return vma->flags; }
unsigned long vma_page_offset(vm_area_struct* vma) { return vma->page_offset; }
file* vma_file(vm_area_struct* vma) { return vma->mapped_file; }
void vma_set_ops(vm_area_struct* vma, const vm_operations* operations) { vma->operations = operations; }
unsigned long vm_fault_address(vm_fault* fault) { return fault->address; }
void vm_fault_set_page(vm_fault* fault, page* p) { fault->result = p; }

namespace hosted
{

void remove_all_chrdevs()
{
    Table& t = table();
    std::lock_guard lock(t.mutex);
    t.devices.clear();
}

int open_control(unsigned major, std::shared_ptr<AddressSpace> memory, std::unique_ptr<ControlFile>& opened)
{
    if (!module_enter())
        return -ENXIO;
    const file_operations* operations = nullptr;
    {
        Table& t = table();
        std::lock_guard lock(t.mutex);
        auto at = t.devices.find(major);
        if (at != t.devices.end())
            operations = at->second.operations;
    }
    if (!operations) {
        module_leave();
        return -ENXIO;
    }
    // All that may fail for want of memory comes before the driver hears of it.
    std::unique_ptr<ControlFileImpl> file;
    try {
        file = std::make_unique<ControlFileImpl>(operations, major, std::move(memory));
    } catch (const std::bad_alloc&) {
        module_leave();
        return -ENOMEM;
    }
    if (const int result = file->open()) {
        module_leave();
        return result;
    }
    count(Counter::files, 1);
    opened = std::move(file);
    return 0;
}

} // namespace hosted
