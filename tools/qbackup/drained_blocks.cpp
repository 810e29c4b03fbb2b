// SPDX-License-Identifier: GPL-2.0-only
#include "drained_blocks.h"

#include "failure.h"

#include <fcntl.h>

#include <algorithm>
#include <iterator>
#include <utility>

namespace qbackup
{

DrainedBlocks::DrainedBlocks(std::uint32_t block_size, std::uint64_t memory_bytes, const fs::path& spool, Progress& progress)
    : block_size_{block_size}, memory_bytes_{memory_bytes}, progress_{progress}
{
    if (spool.empty())
        return;
    try {
        spool_ = File{spool, O_TMPFILE | O_RDWR, 0600};
        spool_works_ = true;
    } catch (const Failure& failure) {
        throw Failure{Exit::refused, "the spool directory cannot be used: " + std::string{failure.what()} + ". Name a directory on a local file system"};
    }
}

bool DrainedBlocks::spooled(std::span<const std::byte> blocks)
try {
    spool_.writeAt(spool_end_, blocks);
    return true;
} catch (const Failure& failure) {
    progress_.warn(std::string{failure.what()} + "; what is overwritten from now on waits in the driver's cache, and the backup fails if that gets full");
    spool_works_ = false;
    return false;
}

void DrainedBlocks::put(std::uint32_t first, std::span<const std::byte> blocks)
{
    Kept kept{static_cast<std::uint32_t>(blocks.size() / block_size_), nullptr, spool_end_};
    if (!inMemory() && spool_works_ && spooled(blocks)) {
        spool_end_ += blocks.size();
    } else {
        kept.data = std::make_unique_for_overwrite<std::byte[]>(blocks.size());
        std::copy(blocks.begin(), blocks.end(), kept.data.get());
        memory_used_ += blocks.size();
    }
    runs_.emplace(first, std::move(kept));
}

std::optional<DrainedBlocks::Run> DrainedBlocks::next(std::uint32_t from) const
{
    const auto found = runs_.lower_bound(from);
    if (found == runs_.end())
        return std::nullopt;
    return Run{found->first, found->second.count};
}

bool DrainedBlocks::holds(std::uint32_t block) const
{
    const auto behind = runs_.upper_bound(block);
    return behind != runs_.begin() && block - std::prev(behind)->first < std::prev(behind)->second.count;
}

std::optional<DrainedBlocks::Run> DrainedBlocks::before(std::uint32_t block) const
{
    const auto behind = runs_.lower_bound(block);
    if (behind == runs_.begin())
        return std::nullopt;
    const auto& [first, kept] = *std::prev(behind);
    if (first + kept.count != block)
        return std::nullopt;
    return Run{first, kept.count};
}

void DrainedBlocks::take(std::uint32_t first, std::span<std::byte> to)
{
    const auto found = runs_.find(first);
    const Kept& kept = found->second;
    if (kept.data == nullptr) {
        spool_.readAt(kept.at, to);
    } else {
        std::copy_n(kept.data.get(), to.size(), to.begin());
        memory_used_ -= to.size();
    }
    runs_.erase(found);
    // What the spool holds is not needed any more, and may take much of a file system.
    if (runs_.empty() && spool_end_ != 0) {
        spool_.truncate(0);
        spool_end_ = 0;
    }
}

} // namespace qbackup
