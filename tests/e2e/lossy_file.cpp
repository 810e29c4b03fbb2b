// SPDX-License-Identifier: GPL-2.0-only
#include "lossy_file.h"

#define FUSE_USE_VERSION 314
#include <fuse.h>

#include <sys/stat.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <map>
#include <mutex>
#include <random>
#include <stdexcept>
#include <string_view>
#include <thread>
#include <vector>

namespace backup_rig
{

namespace
{

constexpr std::size_t page_bytes = 4096;
constexpr std::string_view name = "/disk.img";
using Page = std::array<char, page_bytes>;

} // namespace

struct LossyFile::Impl {
    std::string mount_point;
    std::atomic<std::chrono::milliseconds> delay{};
    std::atomic<bool> hangs = false;
    std::atomic<std::uint64_t> failing_reads_end = 0;
    std::mutex mutex; // guards what follows
    std::vector<Page> durable;
    std::map<std::size_t, Page> lately;                                 // pages written since
    std::unique_ptr<FILE, int (*)(FILE*)> unmounter{nullptr, ::pclose}; // works when it is closed, by whatever
    fuse* handle = nullptr;
    std::thread thread;

    static Impl& self() { return *static_cast<Impl*>(fuse_get_context()->private_data); }

    // Calls `with(page number, offset in it, bytes, offset in the request)` for each page of a range.
    template <typename With> static void each_page(off_t offset, std::size_t bytes, With with)
    {
        for (std::size_t done = 0; done < bytes;) {
            const std::size_t at = std::size_t(offset) + done, in = at % page_bytes;
            const std::size_t part = std::min(bytes - done, page_bytes - in);
            with(at / page_bytes, in, part, done);
            done += part;
        }
    }

    static int get_attributes(const char* path, struct stat* status, fuse_file_info*)
    {
        *status = {};
        if (path == std::string_view("/")) {
            status->st_mode = S_IFDIR | 0755;
            status->st_nlink = 2;
        } else if (path == name) {
            status->st_mode = S_IFREG | 0600;
            status->st_nlink = 1;
            status->st_size = off_t(self().durable.size() * page_bytes);
        } else {
            return -ENOENT;
        }
        return 0;
    }

    static int read(const char*, char* into, std::size_t bytes, off_t offset, fuse_file_info*)
    {
        Impl& impl = self();
        impl.hangs.wait(true);
        if (std::uint64_t(offset) < impl.failing_reads_end.load())
            return -EIO;
        const std::lock_guard guard(impl.mutex);
        bytes = std::min(bytes, impl.durable.size() * page_bytes - std::size_t(offset));
        each_page(offset, bytes, [&](std::size_t page, std::size_t in, std::size_t part, std::size_t done) {
            const auto found = impl.lately.find(page);
            std::memcpy(into + done, (found == impl.lately.end() ? impl.durable[page] : found->second).data() + in,
                        part);
        });
        return int(bytes);
    }

    static int write(const char*, const char* from, std::size_t bytes, off_t offset, fuse_file_info*)
    {
        Impl& impl = self();
        std::this_thread::sleep_for(impl.delay.load());
        impl.hangs.wait(true);
        const std::lock_guard guard(impl.mutex);
        if (std::size_t(offset) + bytes > impl.durable.size() * page_bytes)
            return -ENOSPC;
        each_page(offset, bytes, [&](std::size_t page, std::size_t in, std::size_t part, std::size_t done) {
            Page& late = impl.lately.try_emplace(page, impl.durable[page]).first->second;
            std::memcpy(late.data() + in, from + done, part);
        });
        return int(bytes);
    }

    static int make_durable(const char*, int, fuse_file_info*)
    {
        Impl& impl = self();
        const std::lock_guard guard(impl.mutex);
        for (const auto& [page, content] : impl.lately)
            impl.durable[page] = content;
        impl.lately.clear();
        return 0;
    }
};

LossyFile::LossyFile(const std::string& mount_point, std::size_t bytes) : impl_(std::make_unique<Impl>())
{
    impl_->mount_point = mount_point;
    impl_->durable.resize(bytes / page_bytes);
    ::mkdir(mount_point.c_str(), 0755);
    static const fuse_operations operations = [] {
        fuse_operations o{};
        o.getattr = Impl::get_attributes;
        o.read = Impl::read;
        o.write = Impl::write;
        o.fsync = Impl::make_durable;
        return o;
    }();
    const char* words[] = {"lossy_file"};
    fuse_args arguments = FUSE_ARGS_INIT(1, const_cast<char**>(words));
    impl_->handle = fuse_new(&arguments, &operations, sizeof operations, impl_.get());
    fuse_opt_free_args(&arguments);
    if (!impl_->handle || fuse_mount(impl_->handle, mount_point.c_str()) != 0)
        throw std::runtime_error(mount_point + ": cannot be mounted");
    impl_->unmounter.reset(::popen(("trap '' INT; read _; umount -l '" + mount_point + "'").c_str(), "we"));
    impl_->thread = std::thread([this] { fuse_loop_mt(impl_->handle, nullptr); });
}

LossyFile::~LossyFile()
{
    impl_->unmounter.reset(); // which ends the loop
    impl_->thread.join();
    fuse_unmount(impl_->handle);
    fuse_destroy(impl_->handle);
}

std::string LossyFile::path() const { return impl_->mount_point + std::string(name); }

void LossyFile::make_slow(std::chrono::milliseconds delay) { impl_->delay = delay; }

void LossyFile::hang() { impl_->hangs.store(true); }

void LossyFile::let_go()
{
    impl_->hangs.store(false);
    impl_->hangs.notify_all();
}

void LossyFile::fail_reads(std::uint64_t below) { impl_->failing_reads_end.store(below); }

std::size_t LossyFile::cut_power(std::uint64_t seed)
{
    std::mt19937_64 random(seed);
    const std::lock_guard guard(impl_->mutex);
    std::size_t lost = 0;
    for (const auto& [page, content] : impl_->lately) {
        if (random() % 2)
            impl_->durable[page] = content;
        else
            ++lost;
    }
    impl_->lately.clear();
    return lost;
}

} // namespace backup_rig
