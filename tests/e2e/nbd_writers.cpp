// SPDX-License-Identifier: GPL-2.0-only
#include "nbd_writers.h"

#include <libnbd.h>

#include <chrono>
#include <cstring>
#include <fstream>
#include <memory>
#include <random>

namespace backup_rig
{

using namespace std::chrono_literals;

namespace
{

// What write number `number` puts into a block.
std::vector<char> content_of(std::uint64_t block, std::uint64_t number)
{
    std::vector<char> content(NbdWriters::block_bytes);
    std::mt19937_64 random(block * 1'000'003 + number);
    std::memcpy(content.data(), &number, 8);
    for (std::size_t at = 8; at < content.size(); at += 8) {
        const std::uint64_t word = random();
        std::memcpy(content.data() + at, &word, 8);
    }
    return content;
}

} // namespace

NbdWriters::NbdWriters(const std::string& uri, std::uint64_t start, unsigned blocks, unsigned writers)
    : uri_(uri), start_(start), writers_(writers), blocks_(blocks), flushes_(writers)
{
    for (unsigned i = 0; i < writers; ++i)
        threads_.emplace_back([this, i] { work(i); });
}

NbdWriters::~NbdWriters() { stop(); }

void NbdWriters::stop()
{
    stop_ = true;
    for (std::thread& thread : threads_)
        if (thread.joinable())
            thread.join();
}

void NbdWriters::work(unsigned writer)
{
    std::unique_ptr<nbd_handle, void (*)(nbd_handle*)> nbd(nbd_create(), nbd_close);
    if (!nbd || nbd_connect_uri(nbd.get(), uri_.c_str()) != 0)
        return;
    std::mt19937 random(writer);
    const unsigned own = unsigned(blocks_.size()) / writers_;
    std::vector<unsigned> unflushed;
    for (std::uint64_t number = 1; !stop_; ++number) {
        const unsigned index = random() % own * writers_ + writer;
        Block& block = blocks_[index];
        const auto content = content_of(index, number);
        block.sent = number;
        if (nbd_pwrite(nbd.get(), content.data(), content.size(), start_ + std::uint64_t(index) * block_bytes, 0) != 0)
            return;
        block.answered = number;
        unflushed.push_back(index);
        ++answered_;
        if (unflushed.size() < 16)
            continue;
        if (nbd_flush(nbd.get(), 0) != 0)
            return;
        for (const unsigned flushed : unflushed)
            blocks_[flushed].promised = blocks_[flushed].answered;
        unflushed.clear();
        ++flushes_[writer];
    }
}

bool NbdWriters::goes_on(unsigned flushes) const
{
    std::vector<std::uint64_t> wanted;
    for (const auto& done : flushes_)
        wanted.push_back(done + flushes);
    for (int i = 0; i < 1000; ++i) {
        bool all = true;
        for (std::size_t w = 0; w < wanted.size(); ++w)
            all = all && flushes_[w] >= wanted[w];
        if (all)
            return true;
        std::this_thread::sleep_for(10ms);
    }
    return false;
}

std::uint64_t NbdWriters::answered() const { return answered_; }

std::uint64_t NbdWriters::promised() const
{
    std::uint64_t count = 0;
    for (const Block& block : blocks_)
        count += block.promised != 0;
    return count;
}

std::string NbdWriters::complaint(const std::string& image) const
{
    std::ifstream in(image, std::ios::binary);
    std::vector<char> found(block_bytes);
    for (unsigned i = 0; i < blocks_.size(); ++i) {
        const Block& block = blocks_[i];
        if (block.promised == 0)
            continue;
        in.seekg(std::streamoff(start_ + std::uint64_t(i) * block_bytes));
        if (!in.read(found.data(), block_bytes))
            return image + ": cannot be read";
        std::uint64_t number;
        std::memcpy(&number, found.data(), 8);
        const std::string which = "block " + std::to_string(i) + ": write " + std::to_string(block.promised) +
                                  " is promised, the newest sent is " + std::to_string(block.sent) + ", found ";
        if (number < block.promised || number > block.sent)
            return which + std::to_string(number);
        // A write without an answer may be there in part only.
        if (number == block.answered && found != content_of(i, number))
            return which + "that write's number with other bytes";
    }
    return {};
}

} // namespace backup_rig
