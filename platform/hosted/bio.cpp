// SPDX-License-Identifier: GPL-2.0-only
// Bios: allocation, reference counts and fields.
#include "block.h"
#include "faults.h"

#include <cstdlib>
#include <new>

using namespace hosted;

namespace
{

void destroy(bio* b)
{
    if (b->from_driver)
        count(Counter::bios, -1);
    b->~bio();
    std::free(b);
}

bio* make(u32 vectors)
{
    std::size_t extra = vectors > 1 ? (vectors - 1) * sizeof(bio_vec) : 0;
    void* memory = std::malloc(sizeof(bio) + extra);
    if (!memory)
        return nullptr;
    bio* b = new (memory) bio;
    for (u32 i = 1; i < vectors; ++i)
        b->vector[i] = {};
    b->vector_room = vectors ? vectors : 1;
    return b;
}

} // namespace

namespace hosted
{

bio* new_raw_bio() { return make(1); }

void bio_endio(bio* b, int error)
{
    if (error)
        b->up_to_date = false;
    else if (!b->up_to_date)
        error = -5;
    if (b->end_io)
        b->end_io(b, error);
}

} // namespace hosted

bio* bio_alloc(gfp_type gfp, int vectors)
{
    may_sleep(this_task(), "bio_alloc");
    if (vectors < 0 || allocation_fails(faults::Kind::bio, gfp))
        return nullptr;
    bio* b;
    while (!(b = make(u32(vectors))) && (gfp & GFP_NOFAIL))
        schedule();
    if (!b)
        return nullptr;
    b->from_driver = true;
    count(Counter::bios, 1);
    return b;
}

void bio_get(bio* b) { b->references.fetch_add(1, std::memory_order_relaxed); }
void bio_put(bio* b)
{
    int before = b->references.fetch_sub(1, std::memory_order_acq_rel);
    if (before <= 0)
        die("the reference count of bio %p fell below zero", static_cast<void*>(b));
    if (before == 1)
        destroy(b);
}
block_device* bio_bdev(bio* b) { return b->bdev; }
void bio_set_bdev(bio* b, block_device* bdev) { b->bdev = bdev; }
sector_type bio_sector(bio* b) { return b->sector; }
void bio_set_sector(bio* b, sector_type sector) { b->sector = sector; }
u32 bio_size(bio* b) { return b->size; }

u32 bio_rw(bio* b)
{
    switch (b->op) {
    case Op::read:
        return b->read_ahead ? 2 : 0;
    case Op::flush:
        return 2; // changes nothing and must pass held writes: the kind that is never held
    default:
        return 1;
    }
}
void bio_set_read(bio* b)
{
    b->op = Op::read;
    b->read_ahead = false;
}
void bio_set_single_vector(bio* b, page* p, u32 bytes, u32 offset)
{
    b->vector[0] = {p, bytes, offset};
    b->vectors = 1;
    b->size = bytes;
}
u32 bio_vectors(bio* b) { return b->vectors; }
void bio_vector(bio* b, u32 index, page** p, u32* bytes, u32* offset)
{
    if (index >= b->vectors)
        die("vector %u of a bio that has %u", index, b->vectors);
    *p = b->vector[index].p;
    *bytes = b->vector[index].bytes;
    *offset = b->vector[index].offset;
}
void* bio_private(bio* b) { return b->private_data; }
void bio_set_private(bio* b, void* data) { b->private_data = data; }
void bio_set_end_io(bio* b, bio_end_io_fn* fn) { b->end_io = fn; }
int bio_uptodate(bio* b) { return b->up_to_date; }
void bio_set_eopnotsupp(bio* b) { b->eopnotsupp = true; }
