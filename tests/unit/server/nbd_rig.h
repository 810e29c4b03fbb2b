/* SPDX-License-Identifier: GPL-2.0-only */
// NBD connections over disks in memory whose requests a test can hold, without a daemon.
#pragma once

#include "nbd/connection.h"
#include "nbd_client.h"
#include "served_disk.h"

#include <gtest/gtest.h>
#include <sys/eventfd.h>
#include <sys/socket.h>

#include <condition_variable>
#include <deque>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace nbd_rig
{

using namespace nbd_client;
using quendreld::ServedDisk;
using base::Descriptor;
using quendreld::nbd::Connection;
using wire::Command;
using wire::Error;
using wire::Option;
using wire::OptionReply;

// Memory whose requests wait for `release` while it holds, and are then done by a thread of its own, last ones first.
class HeldStore final : public hosted::Store
{
  public:
    explicit HeldStore(std::uint64_t bytes) : memory_(hosted::make_memory_store(bytes)) {}
    ~HeldStore() override { release(); }
    std::uint64_t size() const override { return memory_->size(); }
    void submit(hosted::StoreRequest* r) override
    {
        {
            std::lock_guard lock(mutex_);
            ++seen_;
            if (holding_) {
                held_.push_back(r);
                came_.notify_all();
                return;
            }
        }
        memory_->submit(r);
    }
    void hold()
    {
        std::lock_guard lock(mutex_);
        holding_ = true;
    }
    void release()
    {
        std::deque<hosted::StoreRequest*> held;
        {
            std::lock_guard lock(mutex_);
            holding_ = false;
            held.swap(held_);
        }
        std::thread([&] {
            for (; !held.empty(); held.pop_back())
                memory_->submit(held.back());
        }).join();
    }
    bool wait_for(std::size_t count)
    {
        std::unique_lock lock(mutex_);
        return came_.wait_for(lock, std::chrono::seconds(10), [&] { return held_.size() >= count; });
    }
    std::size_t seen() const
    {
        std::lock_guard lock(mutex_);
        return seen_;
    }
    std::span<std::byte> bytes() { return hosted::memory_store_bytes(*memory_); }

  private:
    std::unique_ptr<hosted::Store> memory_;
    mutable std::mutex mutex_;
    std::condition_variable came_;
    bool holding_ = false;
    std::size_t seen_ = 0;
    std::deque<hosted::StoreRequest*> held_;
};

struct NbdRig : testing::Test {
    static constexpr std::uint64_t disk_bytes = 8 << 20;

    NbdRig()
    {
        auto held = std::make_unique<HeldStore>(disk_bytes);
        store = held.get();
        add("sda", std::move(held));
        add("sdb", hosted::make_memory_store(1 << 20));
        shared.report = [this](std::string_view line) {
            std::lock_guard lock(log_mutex);
            log.emplace_back(line);
        };
    }
    ~NbdRig() override
    {
        store->release();
        for (Served& one : served) {
            if (one.connection)
                one.connection->hang_up();
            if (one.thread.joinable())
                one.thread.join();
        }
        for (const auto& disk : disks)
            hosted::remove_disk(disk->disk());
    }

    ServedDisk& add(const std::string& name, std::unique_ptr<hosted::Store> backing, bool read_only = false)
    {
        hosted::DiskConfig config;
        config.name = name;
        config.first_minor = u32(16 * disks.size());
        config.store = std::move(backing);
        disks.push_back(std::make_unique<ServedDisk>(hosted::add_disk(std::move(config)), read_only));
        shared.exports.push_back(disks.back().get());
        return *disks.back();
    }

    // A connection's other end; the connection runs on a thread of its own.
    Client connect()
    {
        int pair[2];
        EXPECT_EQ(::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, pair), 0);
        Served& one = served.emplace_back();
        one.connection =
            std::make_unique<Connection>(Descriptor(pair[0]), Descriptor(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)), shared);
        one.thread = std::thread([c = one.connection.get()] { c->run(); });
        return Client(Descriptor(pair[1]));
    }
    // The newest connection's run has returned.
    void join()
    {
        served.back().thread.join();
        served.back().connection.reset();
    }
    std::vector<std::string> lines()
    {
        std::lock_guard lock(log_mutex);
        return log;
    }

    struct Served {
        std::unique_ptr<Connection> connection;
        std::thread thread;
    };
    quendreld::nbd::Shared shared;
    std::vector<std::unique_ptr<ServedDisk>> disks;
    HeldStore* store = nullptr; // sda's
    std::deque<Served> served;
    std::mutex log_mutex;
    std::vector<std::string> log;
};

inline Bytes pattern(std::size_t bytes, unsigned seed)
{
    Bytes data(bytes);
    for (std::size_t i = 0; i < bytes; ++i)
        data[i] = std::byte((i * 31 + i / 512 * 7 + seed * 13 + 1) & 255);
    return data;
}

} // namespace nbd_rig
