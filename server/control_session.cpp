// SPDX-License-Identifier: GPL-2.0-only
#include "control_session.h"

#include "quendrel.h"

#include <algorithm>
#include <cerrno>
#include <cstring>

namespace quendreld
{

namespace wire = quendrel::wire;

namespace
{

constexpr unsigned control_major = 120;

// Into the driver's tables.
bool fits(const ClientMemory::Number& device)
{
    return std::all_of(device.begin(), device.end(), [](u32 n) { return n <= 255; });
}

} // namespace

ControlSession::~ControlSession()
{
    mappings_.clear();
    if (file_ && alone_) {
        file_->close();
    } else if (file_) {
        // A close detaches the backup that runs on another file. What the driver holds for that one then would never
        // get on, and the close of the other file wait for it for ever.
        const hosted::ClosedDoors nothing_is_held;
        file_->close();
    }
    if (backed_up_)
        observer_->after_backup(*backed_up_);
}

int ControlSession::open()
{
    if (observer_)
        observer_->before_open();
    return hosted::open_control(control_major, memory_, file_);
}

ControlSession::Answer ControlSession::answer(int result)
{
    Answer a;
    a.reply.result = result;
    a.reply.version = wire::protocol_version;
    a.reply.count = 0;
    a.bytes = wire::reply_header_bytes;
    a.pass_memory = false;
    return a;
}

std::optional<ControlSession::Answer> ControlSession::handle(const void* packet, std::size_t bytes)
{
    wire::Request request;
    if (!file_ || bytes != sizeof request)
        return std::nullopt;
    std::memcpy(&request, packet, sizeof request);
    switch (request.kind) {
    case wire::Kind::ioctl:
        if (request.c || request.d)
            return std::nullopt;
        return answer(command(request.a, request.b));
    case wire::Kind::mmap:
        return map(request);
    case wire::Kind::munmap: {
        const auto found = mappings_.find(request.a);
        if (found == mappings_.end() || request.c || request.d)
            return std::nullopt;
        if (request.b && request.b != found->second->pages() * PAGE_BYTES)
            return std::nullopt;
        mappings_.erase(found);
        return answer(0);
    }
    case wire::Kind::take_over: // with arguments
        break;
    }
    return std::nullopt;
}

bool ControlSession::is_take_over(const void* packet, std::size_t bytes)
{
    wire::Request request;
    if (bytes != sizeof request)
        return false;
    std::memcpy(&request, packet, sizeof request);
    return request.kind == wire::Kind::take_over && !request.a && !request.b && !request.c && !request.d;
}

std::optional<ClientMemory::Number> ClientMemory::hold_number(u32 record)
{
    Number number{};
    if (memory_->read(record, number.data(), sizeof number) == 0) {
        record_ = record;
        held_ = number;
    }
    return held_;
}

std::size_t ClientMemory::read(u32 from, void* to, std::size_t bytes)
{
    const std::size_t missing = memory_->read(from, to, bytes);
    if (missing == 0 && held_ && from == record_ && bytes >= sizeof *held_)
        std::memcpy(to, held_->data(), sizeof *held_);
    return missing;
}

int ControlSession::command(u32 number, u32 argument)
{
    if (number == QUENDREL_START_BACKUP)
        return start(argument);
    if (observer_ && number == QUENDREL_GET_BLOCK_SIZE)
        if (ClientMemory::Number device; memory_->read(argument, device.data(), sizeof device) == 0 && fits(device))
            observer_->before_geometry(kdev_make(device[0], device[1]));
    const bool of_backup =
        number == QUENDREL_SNAPSHOT || number == QUENDREL_GET_STATE || number == QUENDREL_GET_AUTOMAP_STATE;
    if (of_backup && backed_up_)
        observer_->before_command(*backed_up_);
    const int result = file_->ioctl(number, argument);
    if (number == QUENDREL_SNAPSHOT && backed_up_)
        observer_->after_snapshot(*backed_up_);
    return result;
}

// A second StartBackup puts the file into a state whose close leaves the driver busy for good, so one client could end
// all backups of this daemon. Where a file is alone, nobody else's close would change what the second one is told, so
// it is told that without the driver.
int ControlSession::start(u32 record)
{
    if (alone_ && began_)
        return QUENDREL_BUSY;
    const auto device = memory_->hold_number(record);
    const bool unfit = device && !fits(*device);
    std::optional<kdev_t> observed;
    if (observer_ && device && !unfit && !backed_up_) {
        observed = kdev_make((*device)[0], (*device)[1]);
        observer_->before_backup(*observed);
    }
    const int result = file_->ioctl(QUENDREL_START_BACKUP, record);
    memory_->let_go();
    if (result == QUENDREL_OK && observed)
        backed_up_ = observed;
    else if (observed)
        observer_->after_backup(*observed);
    // A start that ended before it took the driver's one backup lets the client try another one. "Refused" is a number
    // which does not fit the driver's tables, or a size that it does not take.
    began_ = result != QUENDREL_COPY_FROM_USER && !(result == QUENDREL_REFUSED && unfit);
    return result;
}

std::optional<ControlSession::Answer> ControlSession::map(const wire::Request& request)
{
    const u64 bytes = (u64(request.b) + PAGE_BYTES - 1) / PAGE_BYTES * PAGE_BYTES;
    const u64 end = u64(request.a) + bytes;
    if (request.b == 0 || request.a == 0 || request.a % PAGE_BYTES || end > (u64(1) << 32))
        return std::nullopt;
    if (request.c & ~u32(VM_READ | VM_WRITE | VM_SHARED))
        return std::nullopt;
    if (mappings_.size() >= most_mappings)
        return std::nullopt;
    for (const auto& [start, mapping] : mappings_)
        if (request.a < u64(start) + u64(mapping->pages()) * PAGE_BYTES && start < end)
            return std::nullopt;

    std::unique_ptr<hosted::Mapping> mapping;
    const int result = file_->mmap({request.a, request.b, request.c, request.d}, mapping);
    Answer a = answer(result);
    if (result != 0 || !mapping)
        return a;
    if (mapping->pages() > wire::max_pages)
        return std::nullopt;
    for (u32 i = 0; i < mapping->pages(); ++i) {
        const auto offset = mapping->fault_offset(i);
        if (!offset)
            return answer(-EFAULT);
        a.reply.pages[i] = std::uint32_t(*offset / PAGE_BYTES);
    }
    a.reply.count = mapping->pages();
    a.bytes += a.reply.count * sizeof a.reply.pages[0];
    a.pass_memory = true;
    mappings_.emplace(request.a, std::move(mapping));
    return a;
}

} // namespace quendreld
