// SPDX-License-Identifier: GPL-2.0-only
// Of ext2, ext3 and ext4, by their own library, which gets its blocks from the snapshot.
#include "used_blocks.h"

#include <ext2fs/ext2fs.h>

#include <algorithm>
#include <cstring>
#include <exception>
#include <memory>
#include <optional>
#include <vector>

namespace qbackup
{
namespace
{

// The library's view of the snapshot. It is read in pieces: the bitmaps of neighbouring groups mostly lie together.
class Snapshot
{
  public:
    Snapshot(std::uint32_t block_size, std::uint32_t blocks, std::uint32_t most, const BlockReader& read)
        : block_size_{block_size}, blocks_{blocks}, most_{most}, read_{read}
    {
    }

    // Whether all of it lies on the device.
    bool copy(std::uint64_t offset, std::span<char> to)
    {
        if (offset + to.size() > std::uint64_t{blocks_} * block_size_)
            return false;
        while (!to.empty()) {
            const auto block = static_cast<std::uint32_t>(offset / block_size_);
            if (block < first_ || block - first_ >= piece_.size() / block_size_)
                fetch(block);
            const std::uint64_t at = offset - std::uint64_t{first_} * block_size_;
            const std::size_t part = std::min<std::uint64_t>(to.size(), piece_.size() - at);
            std::memcpy(to.data(), piece_.data() + at, part);
            to = to.subspan(part);
            offset += part;
        }
        return true;
    }

    std::exception_ptr error; // of a read, which the library cannot pass on

  private:
    void fetch(std::uint32_t block)
    {
        const std::uint32_t count = std::min(most_, blocks_ - block);
        piece_.resize(std::size_t{count} * block_size_);
        read_(block, piece_);
        first_ = block;
    }

    std::uint32_t block_size_;
    std::uint32_t blocks_;
    std::uint32_t most_;
    const BlockReader& read_;
    std::uint32_t first_ = 0;
    std::vector<std::byte> piece_; // from first_ on
};

// The library's calls have no other way to it.
thread_local Snapshot* current = nullptr;

errcode_t closeChannel(io_channel channel)
{
    if (--channel->refcount == 0)
        delete channel;
    return 0;
}

errcode_t setBlockSize(io_channel channel, int bytes)
{
    channel->block_size = bytes;
    return 0;
}

// A negative count is one of bytes.
errcode_t readBlocks64(io_channel channel, unsigned long long block, int count, void* data)
try {
    const std::size_t bytes = count < 0 ? std::size_t(-static_cast<long long>(count)) : std::size_t(count) * std::size_t(channel->block_size);
    return current->copy(block * std::uint64_t(channel->block_size), {static_cast<char*>(data), bytes}) ? 0 : EXT2_ET_SHORT_READ;
} catch (...) {
    current->error = std::current_exception();
    return EXT2_ET_SHORT_READ;
}

errcode_t readBlocks(io_channel channel, unsigned long block, int count, void* data) { return readBlocks64(channel, block, count, data); }
errcode_t writeBlocks(io_channel, unsigned long, int, const void*) { return EXT2_ET_RO_FILSYS; }
errcode_t writeBlocks64(io_channel, unsigned long long, int, const void*) { return EXT2_ET_RO_FILSYS; }
errcode_t flush(io_channel) { return 0; }

extern struct_io_manager manager;

errcode_t openChannel(const char*, int, io_channel* channel)
{
    auto made = std::make_unique<struct_io_channel>();
    made->magic = EXT2_ET_MAGIC_IO_CHANNEL;
    made->manager = &manager;
    made->block_size = 1024;
    made->refcount = 1;
    *channel = made.release();
    return 0;
}

struct_io_manager manager = [] {
    struct_io_manager made{};
    made.magic = EXT2_ET_MAGIC_IO_MANAGER;
    made.name = "snapshot";
    made.open = openChannel;
    made.close = closeChannel;
    made.set_blksize = setBlockSize;
    made.read_blk = readBlocks;
    made.read_blk64 = readBlocks64;
    made.write_blk = writeBlocks;
    made.write_blk64 = writeBlocks64;
    made.flush = flush;
    return made;
}();

struct Close {
    void operator()(ext2_filsys fs) const { ext2fs_free(fs); }
};

// Clears the unused blocks in the map, or tells why none can be cleared.
std::optional<std::string> clearUnused(quendrel::Bitmap& map, std::uint32_t block_size)
{
    ext2_filsys opened = nullptr;
    const errcode_t not_opened = ext2fs_open2("", nullptr, EXT2_FLAG_64BITS | EXT2_FLAG_SKIP_MMP, 0, 0, &manager, &opened);
    if (not_opened != 0)
        return not_opened == EXT2_ET_BAD_MAGIC ? "no ext2, ext3 or ext4" : error_message(not_opened);
    const std::unique_ptr<struct_ext2_filsys, Close> fs{opened};
    if (fs->blocksize != block_size)
        return "its blocks are of another size than the driver's";
    if (ext2fs_has_feature_journal_needs_recovery(fs->super))
        return "it was not at rest: its journal has to be replayed first";
    if ((fs->super->s_state & EXT2_VALID_FS) == 0)
        return "it was not at rest";
    if ((fs->super->s_state & EXT2_ERROR_FS) != 0)
        return "it has noted errors";
    fs->default_bitmap_type = EXT2FS_BMAP64_RBTREE;
    if (const errcode_t error = ext2fs_read_block_bitmap(fs.get()); error != 0)
        return error_message(error);
    const blk64_t end = std::min<blk64_t>(ext2fs_blocks_count(fs->super), map.blocks());
    for (blk64_t block = fs->super->s_first_data_block; block < end;) {
        if (ext2fs_find_first_zero_block_bitmap2(fs->block_map, block, end - 1, &block) != 0)
            break;
        blk64_t behind = end;
        if (ext2fs_find_first_set_block_bitmap2(fs->block_map, block, end - 1, &behind) != 0)
            behind = end;
        for (; block < behind; ++block)
            map.clear(static_cast<std::uint32_t>(block));
    }
    return std::nullopt;
}

} // namespace

UsedBlocks usedBlocks(std::uint32_t block_size, std::uint32_t blocks, std::uint32_t most, const BlockReader& read)
{
    initialize_ext2_error_table();
    Snapshot snapshot{block_size, blocks, most, read};
    current = &snapshot;
    UsedBlocks used{quendrel::Bitmap{blocks, true}, ""};
    auto doubt = clearUnused(used.map, block_size);
    current = nullptr;
    if (snapshot.error)
        std::rethrow_exception(snapshot.error);
    if (doubt)
        used = {quendrel::Bitmap{blocks, true}, std::move(*doubt)};
    return used;
}

} // namespace qbackup
