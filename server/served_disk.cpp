// SPDX-License-Identifier: GPL-2.0-only
#include "served_disk.h"

#include <algorithm>
#include <cerrno>
#include <new>

namespace quendreld
{

namespace
{

using hosted::GuestRequest;
using hosted::Op;

// From the start of the disk, of a partition and of what lies behind one, and to the end of the disk: here stand tables
// (GPT with sectors of 4 KiB: 6 of them; extended boot records) and the super blocks of file systems (btrfs: at 64 KiB).
constexpr std::uint64_t description_bytes = 136 << 10;

void end(IoRequest* r, int error)
{
    if (r->describes)
        r->disk->describe_anew();
    r->done(r, error);
}

void drop_part(IoRequest* r)
{
    if (r->parts.fetch_sub(1) == 1)
        end(r, r->error.load());
}

struct Waiting : IoRequest {
    std::atomic<bool> finished = false;
    int result = 0;
};

} // namespace

ServedDisk::ServedDisk(std::shared_ptr<hosted::Disk> disk, bool read_only)
    : disk_(std::move(disk)), size_(disk_->size()), read_only_(read_only)
{
    set_borders({disk_->partitions(), {}, {}});
}

void ServedDisk::set_borders(const hosted::PartitionTable& table)
{
    std::vector<std::uint64_t> places;
    for (const hosted::PartitionSpec& part : table.partitions) {
        places.push_back(part.start * 512);
        places.push_back((part.start + part.sectors) * 512);
    }
    for (const sector_type record : table.records)
        places.push_back(record * 512);
    borders_.set(std::move(places));
}

void ServedDisk::set_table(const hosted::PartitionTable& table)
{
    disk_->set_partitions(table.partitions);
    set_borders(table);
    disk_->new_edition();
}

void ServedDisk::describe_anew()
{
    descriptions_.fetch_add(1);
    if (watcher_)
        watcher_();
}

void ServedDisk::submit(IoRequest* r)
{
    if (read_only_ && r->op != Op::read && r->op != Op::flush)
        return r->done(r, -EROFS);
    if ((r->offset | r->bytes) % 512 || !inside(r->offset, r->bytes))
        return r->done(r, -EINVAL);
    if (r->bytes == 0 && r->op != Op::flush)
        return r->done(r, 0);

    r->disk = this;
    send(r);
}

void ServedDisk::send(IoRequest* r)
{
    const u32 edition = disk_->edition(); // before the borders are looked at
    const Borders::Neighbours borders = borders_.around(r->offset);
    const std::uint64_t end = r->offset + r->bytes;
    r->describes = r->op != Op::read && r->op != Op::flush &&
                   (r->offset - borders.below < description_bytes || end > borders.above ||
                    size_ - end < description_bytes);
    if (r->op == Op::flush || end <= borders.above) {
        r->guest = GuestRequest{};
        r->guest.op = r->op;
        r->guest.fua = r->fua;
        r->guest.may_unmap = r->may_unmap;
        r->guest.offset = r->offset;
        r->guest.bytes = r->bytes;
        r->guest.data = r->data;
        r->guest.edition = r->op == Op::flush ? 0 : edition;
        r->guest.done = whole_done;
        r->guest.context = r;
        return disk_->submit(&r->guest);
    }
    r->error.store(0);
    r->parts.store(1); // this function's own
    send_parts(r, r->offset, end);
    drop_part(r);
}

void ServedDisk::send_parts(IoRequest* r, std::uint64_t from, std::uint64_t to)
{
    while (from < to) {
        const u32 edition = disk_->edition();
        const std::uint64_t border = std::min(to, borders_.around(from).above);
        auto* part = new (std::nothrow) GuestRequest;
        if (!part) {
            r->error.store(-ENOMEM);
            return;
        }
        part->op = r->op;
        part->fua = r->fua;
        part->may_unmap = r->may_unmap;
        part->offset = from;
        part->bytes = border - from;
        part->data = r->data ? r->data + (from - r->offset) : nullptr;
        part->edition = edition;
        part->done = part_done;
        part->context = r;
        r->parts.fetch_add(1);
        disk_->submit(part);
        from = border;
    }
}

void ServedDisk::whole_done(GuestRequest* guest, int error)
{
    auto* r = static_cast<IoRequest*>(guest->context);
    if (guest->outdated)
        r->disk->send(r);
    else
        end(r, error);
}

void ServedDisk::part_done(GuestRequest* guest, int error)
{
    auto* r = static_cast<IoRequest*>(guest->context);
    const std::uint64_t from = guest->offset, to = from + guest->bytes;
    const bool outdated = guest->outdated;
    delete guest;
    if (outdated)
        r->disk->send_parts(r, from, to);
    else if (error)
        r->error.store(error);
    drop_part(r);
}

int ServedDisk::run(Op op, std::uint64_t offset, std::uint64_t bytes, std::byte* data, bool fua, bool may_unmap)
{
    Waiting r;
    r.op = op;
    r.offset = offset;
    r.bytes = bytes;
    r.data = data;
    r.fua = fua;
    r.may_unmap = may_unmap;
    // The waiter may be gone as soon as it sees `finished`, so nothing of the record is touched after the store; the
    // wake-up that follows only uses its address.
    r.done = [](IoRequest* done, int error) {
        auto* waiting = static_cast<Waiting*>(done);
        waiting->result = error;
        waiting->finished.store(true, std::memory_order_release);
        waiting->finished.notify_one();
    };
    submit(&r);
    r.finished.wait(false, std::memory_order_acquire);
    return r.result;
}

int ServedDisk::extents(std::uint64_t offset, std::uint64_t bytes, std::size_t most,
                        std::vector<hosted::Extent>& into) const
{
    if (bytes == 0 || !inside(offset, bytes))
        return -EINVAL;
    try {
        return disk_->store().extents(offset, bytes, most, into);
    } catch (const std::bad_alloc&) {
        return -ENOMEM;
    }
}

int ServedDisk::prefetch(std::uint64_t offset, std::uint64_t bytes) const
{
    if (!inside(offset, bytes))
        return -EINVAL;
    disk_->store().prefetch(offset, bytes);
    return 0;
}

} // namespace quendreld
