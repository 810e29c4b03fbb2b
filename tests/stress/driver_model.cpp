// SPDX-License-Identifier: GPL-2.0-only
#include "driver_model.h"

#include <algorithm>

namespace model {

Bytes Model::block(const Bytes& image, u32 partition, u32 number) const
{
    const u64 bytes = blockBytes(partition);
    return Bytes(image.begin() + long(number * bytes), image.begin() + long((number + 1) * bytes));
}

const Session* Model::session(u32 partition) const
{
    auto found = sessions_.find(partition);
    return found == sessions_.end() ? nullptr : &found->second;
}

int Model::trackedOnQueue() const
{
    return int(std::count_if(registered_.begin(), registered_.end(), [&](u32 p) { return sessions_.contains(p); }));
}

void Model::unhook()
{
    for (u32 p : registered_)
        if (auto found = sessions_.find(p); found != sessions_.end())
            found->second.inSync = false;
    registered_.clear();
    hook_ = Hook::none;
}

void Model::unregister(u32 partition)
{
    registered_.erase(partition);
    if (registered_.empty())
        hook_ = Hook::none;
}

void Model::errorTracking()
{
    int own = 0;
    if (auto found = sessions_.find(backup_->partition); found != sessions_.end()) {
        found->second.inSync = false;
        own = 1;
    }
    if (trackedOnQueue() > own) {
        registered_.insert(backup_->partition);
        hook_ = Hook::tracking;
    } else {
        unhook();
    }
}

bool Model::needsSaving(u32 block) const
{
    if (backup_->state == QUENDREL_STATE_MAP_LOADED && !backup_->map.contains(block))
        return false;
    return !backup_->marked.contains(block);
}

void Model::copyOnWrite(u32 first, u32 last)
{
    BackupModel& b = *backup_;
    bool hold = false;
    for (u32 i = first; i <= last; i++)
        hold |= needsSaving(i);
    if (!hold)
        return;
    for (u32 i = first; i <= last; i++) {
        if (!needsSaving(i) || b.state > QUENDREL_STATE_MAP_LOADED)
            continue;
        if (b.cache.size() == b.maxCacheBlocks) {
            b.state = QUENDREL_STATE_CACHE_EXHAUSTED;
            b.protectedAll = false;
            errorTracking();
        } else {
            b.cache[i] = block(content_.at(b.partition), b.partition, i);
        }
    }
    for (u32 i = first; i <= last; i++)
        if (needsSaving(i) && i < b.blocks)
            b.marked.insert(i);
}

void Model::write(u32 partition, sector_type sector, u32 sectors, unsigned char value)
{
    const u32 perBlock = blockBytes(partition) / 512;
    const u32 first = u32(sector / perBlock);
    const u32 last = u32((sector + sectors - 1) / perBlock);
    // Recorded with the hook as it is when the write arrives, whatever copy-on-write does to it.
    if (hook_ != Hook::none) {
        if (auto found = sessions_.find(partition); found != sessions_.end() && found->second.inSync) {
            for (u32 i = first; i <= last; i++) {
                if (i < found->second.blocks)
                    found->second.written.insert(i);
                else
                    found->second.inSync = false;  // sectors behind the last whole block
            }
        }
    }
    if (hook_ == Hook::backup && backup_ && backup_->attached && backup_->partition == partition &&
        backup_->state >= QUENDREL_STATE_SNAPSHOT && backup_->state <= QUENDREL_STATE_MAP_LOADED)
        copyOnWrite(first, last);
    Bytes& bytes = content_.at(partition);
    const u64 end = std::min<u64>((sector + sectors) * 512, bytes.size());
    for (u64 at = sector * 512; at < end; at++)
        bytes[at] = std::byte(value);
}

void Model::start(u32 partition, u32 blocks, u32 maxCacheBlocks)
{
    backup_.emplace();
    backup_->partition = partition;
    backup_->blocks = blocks;
    backup_->maxCacheBlocks = maxCacheBlocks;
}

int Model::snapshot(const Options& options)
{
    BackupModel& b = *backup_;
    auto found = sessions_.find(b.partition);
    auto replace = [&] {
        sessions_.erase(b.partition);
        unregister(b.partition);
        sessions_[b.partition] = Session{false, b.blocks, {}};
    };
    bool reuse = false;
    if (options.noStart) {
        if (found != sessions_.end()) {
            sessions_.erase(found);
            unregister(b.partition);
        }
    } else if (found == sessions_.end()) {
        sessions_[b.partition] = Session{false, b.blocks, {}};
    } else if (!found->second.inSync || options.noLoad) {
        replace();
    } else if (!options.keyMatches) {
        return 0;
    } else if (found->second.blocks != b.blocks) {
        replace();
    } else {
        reuse = true;
    }
    // The pages for the exchange are made here and stay, empty, when the freeze fails; the next attempt frees them.
    b.mapFromTracking = reuse;
    b.changed.clear();
    registered_.insert(b.partition);
    hook_ = Hook::backup;
    if (options.freezeFails)
        return QUENDREL_REFUSED;
    b.frozen = content_.at(b.partition);
    if (!options.noStart) {
        Session& session = sessions_.at(b.partition);
        if (reuse) {
            b.changed.swap(session.written);
            session.written.clear();
        }
        session.inSync = true;
    }
    b.state = QUENDREL_STATE_SNAPSHOT;
    return 0;
}

void Model::loadMap(const rig::Bits& bits)
{
    BackupModel& b = *backup_;
    const auto members = bits.members();
    b.map = std::set<u32>(members.begin(), members.end());
    b.mapBlocks = bits.blocks();
    b.state = QUENDREL_STATE_MAP_LOADED;
    for (auto entry = b.cache.begin(); entry != b.cache.end();) {
        if (b.map.contains(entry->first)) {
            ++entry;
        } else {
            b.marked.erase(entry->first);
            entry = b.cache.erase(entry);
        }
    }
}

Bytes Model::read(u32 number)
{
    BackupModel& b = *backup_;
    auto cached = b.cache.find(number);
    const Bytes result =
        cached != b.cache.end() ? cached->second : block(content_.at(b.partition), b.partition, number);
    if (b.state == QUENDREL_STATE_MAP_LOADED) {
        b.map.erase(number);
        if (cached != b.cache.end()) {
            b.marked.erase(number);
            b.cache.erase(cached);
        }
    }
    return result;
}

void Model::closeBackup()
{
    const u32 partition = backup_->partition;
    auto found = sessions_.find(partition);
    if (found != sessions_.end() && found->second.inSync) {
        registered_.insert(partition);
        hook_ = Hook::tracking;
    } else if (trackedOnQueue() >= 2) {
        registered_.insert(partition);
        hook_ = Hook::tracking;
    } else {
        unhook();
    }
    backup_.reset();
}

void Model::shutdown()
{
    while (!sessions_.empty()) {
        const u32 partition = sessions_.begin()->first;
        sessions_.erase(sessions_.begin());
        unregister(partition);
    }
    if (backup_ && hook_ != Hook::backup)
        backup_->protectedAll = false;
}

}  // namespace model
