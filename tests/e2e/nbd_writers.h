/* SPDX-License-Identifier: GPL-2.0-only */
// Writers that speak NBD to the daemon and keep account of what they were promised, so that the image can be held
// against it after the daemon was killed.
//
// Each writer has blocks of its own and one request at a time. A block's content names the write that made it. After
// a flush has been answered, every write answered before it is promised: the image has to hold it, or a later one.
#pragma once

#include <atomic>
#include <cstdint>
#include <string>
#include <thread>
#include <vector>

namespace backup_rig
{

class NbdWriters
{
  public:
    static constexpr unsigned block_bytes = 4096;

    // Starts `writers` threads, which write to blocks of `blocks` from byte `start` of the export on.
    NbdWriters(const std::string& uri, std::uint64_t start, unsigned blocks, unsigned writers);
    ~NbdWriters(); // stops them

    bool goes_on(unsigned flushes = 4) const; // every writer has that many more flushes answered within ten seconds
    // Ends the writers: after their request, or when the daemon is gone.
    void stop();
    std::uint64_t answered() const; // writes
    std::uint64_t promised() const; // blocks of which a write is promised

    // What in the image is not as promised: "" or a text. After stop() only.
    std::string complaint(const std::string& image) const;

  private:
    struct Block {
        std::uint64_t sent = 0, answered = 0, promised = 0; // numbers of writes, rising
    };
    void work(unsigned writer);

    const std::string uri_;
    const std::uint64_t start_;
    const unsigned writers_;
    std::vector<Block> blocks_; // block i is written by thread i % writers_
    std::vector<std::atomic<std::uint64_t>> flushes_;
    std::atomic<std::uint64_t> answered_ = 0;
    std::atomic<bool> stop_ = false;
    std::vector<std::thread> threads_;
};

} // namespace backup_rig
