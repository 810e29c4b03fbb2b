// SPDX-License-Identifier: GPL-2.0-only
#include "faulty_directory.h"

#define FUSE_USE_VERSION 314
#include <fuse.h>

#include <fcntl.h>
#include <linux/falloc.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <condition_variable>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <functional>
#include <mutex>
#include <stdexcept>
#include <thread>

namespace faults
{
namespace
{

constexpr std::size_t page = 4096;
constexpr std::uint64_t root = 1;
// Nobody waits for longer, whatever a test does.
constexpr auto most_hanging = std::chrono::seconds{60};

std::string nameIn(const std::string& path) { return path.substr(path.rfind('/') + 1); }
std::string parentOf(const std::string& path) { return path.substr(0, path.rfind('/')); }

} // namespace

Disk::Disk() { nodes_[root].mode = S_IFDIR | 0755; }

std::uint64_t Disk::find(const std::string& path) const
{
    std::uint64_t at = root;
    for (std::size_t from = 0; from < path.size();) {
        const std::size_t end = std::min(path.find('/', from), path.size());
        if (end > from) {
            const auto& names = nodes_.at(at).names;
            const auto found = names.find(path.substr(from, end - from));
            if (found == names.end())
                return 0;
            at = found->second;
        }
        from = end + 1;
    }
    return at;
}

Files Disk::files() const
{
    Files files;
    list(root, "", files);
    return files;
}

void Disk::list(std::uint64_t directory, const std::string& path, Files& files) const
{
    for (const auto& [name, number] : nodes_.at(directory).names) {
        const Node& node = nodes_.at(number);
        if (S_ISDIR(node.mode))
            list(number, path + name + "/", files);
        else
            files[path + name] = node.data;
    }
}

void Disk::makeDurable(Node& node)
{
    node.durable.resize(node.data.size());
    for (const std::size_t number : node.late)
        if (number * page < node.data.size())
            std::copy_n(node.data.begin() + static_cast<std::ptrdiff_t>(number * page), std::min(page, node.data.size() - number * page),
                        node.durable.begin() + static_cast<std::ptrdiff_t>(number * page));
    node.late.clear();
    node.durable_names = node.names;
    node.changes.clear();
}

void Disk::settle()
{
    for (auto& [number, node] : nodes_)
        makeDurable(node);
}

void Disk::apply(std::map<std::string, std::uint64_t>& names, const Change& change)
{
    if (const auto gone = names.find(change.gone); gone != names.end() && (change.come.empty() || gone->second == change.node))
        names.erase(gone);
    if (!change.come.empty())
        names[change.come] = change.node;
}

void Disk::cutPower(unsigned seed)
{
    std::mt19937 random{seed};
    const auto survives = [&] { return random() % 2 == 0; };
    for (auto& [number, node] : nodes_) {
        std::string left = node.durable;
        if (survives())
            left.resize(node.data.size());
        for (const std::size_t late : node.late)
            if (const std::size_t from = late * page; survives() && from < left.size() && from < node.data.size())
                std::copy_n(node.data.begin() + static_cast<std::ptrdiff_t>(from), std::min({page, left.size() - from, node.data.size() - from}),
                            left.begin() + static_cast<std::ptrdiff_t>(from));
        node.data = node.durable = left;
        node.late.clear();
        node.names = node.durable_names;
        for (const Change& change : node.changes)
            if (survives())
                apply(node.names, change);
        node.durable_names = node.names;
        node.changes.clear();
    }
}

void Disk::replace(const std::string& path, const std::string& contents)
{
    Node& node = nodes_.at(find(path));
    node.data = node.durable = contents;
    node.late.clear();
}

struct FaultyDirectory::Impl {
    std::string point;
    mutable std::mutex mutex; // guards what follows, up to `unmounter`; taken alone
    std::condition_variable changed;
    Disk disk;
    std::uint64_t next = root + 1; // never the same on two disks
    std::uint64_t age = 0;         // of the disk: goes up with each one
    bool dead = false;             // since a power cut
    Fault fault;
    std::uint64_t counted = 0;
    bool struck = false;
    std::unique_ptr<FILE, int (*)(FILE*)> unmounter{nullptr, ::pclose}; // works when it is closed, by whatever
    fuse* handle = nullptr;
    std::thread thread;

    using Lock = std::unique_lock<std::mutex>;
    static Impl& self() { return *static_cast<Impl*>(fuse_get_context()->private_data); }

    // What the fault makes of an operation; 0: it is done.
    int meet(unsigned kind, Lock& lock)
    {
        if (!dead && (fault.kinds & kind) != 0) {
            ++counted;
            if (fault.at != 0 && (counted == fault.at || (fault.lasting && counted > fault.at))) {
                struck = true;
                switch (fault.what) {
                case Fault::What::error:
                    return -fault.error;
                case Fault::What::hang:
                    changed.wait_for(lock, most_hanging, [&] { return fault.at == 0; });
                    break;
                case Fault::What::power_cut:
                    disk.cutPower(fault.seed);
                    dead = true;
                }
            }
        }
        return dead ? -EIO : 0;
    }

    // An open file's number, with the age of the disk that it is on.
    void remember(std::uint64_t number, fuse_file_info* info) { info->fh = age << 32 | number; }
    Disk::Node* opened(const fuse_file_info* info)
    {
        const auto found = info->fh >> 32 == age ? disk.nodes_.find(info->fh & 0xffffffff) : disk.nodes_.end();
        return found == disk.nodes_.end() ? nullptr : &found->second;
    }
    // Of a path in the mount, where the disk has a directory of its own.
    std::uint64_t find(const std::string& path) const
    {
        const std::string own = "/" + std::to_string(age);
        return path == own || path.starts_with(own + "/") ? disk.find(path.substr(own.size())) : 0;
    }
    Disk::Node* at(const char* path, const fuse_file_info* info = nullptr)
    {
        if (info != nullptr)
            return opened(info);
        const std::uint64_t number = find(path);
        return number == 0 ? nullptr : &disk.nodes_.at(number);
    }
    void change(const std::string& directory, const Disk::Change& change)
    {
        Disk::Node& node = disk.nodes_.at(find(directory));
        Disk::apply(node.names, change);
        node.changes.push_back(change);
    }
    int add(const char* path, mode_t mode, std::uint64_t& number)
    {
        if (find(path) != 0)
            return -EEXIST;
        if (find(parentOf(path)) == 0)
            return -ENOENT;
        number = next++;
        disk.nodes_[number].mode = mode;
        change(parentOf(path), {"", nameIn(path), number});
        return 0;
    }
    static void resize(Disk::Node& node, std::size_t bytes)
    {
        for (std::size_t from = std::min(bytes, node.data.size()) / page; from * page < std::max(bytes, node.data.size()); ++from)
            node.late.insert(from);
        node.data.resize(bytes);
    }
    static void put(Disk::Node& node, const char* from, std::size_t bytes, std::size_t offset) // null: zeros
    {
        if (bytes == 0)
            return;
        if (node.data.size() < offset + bytes)
            resize(node, offset + bytes);
        const auto to = node.data.begin() + static_cast<std::ptrdiff_t>(offset);
        if (from != nullptr)
            std::copy_n(from, bytes, to);
        else
            std::fill_n(to, bytes, '\0');
        for (std::size_t number = offset / page; number * page < offset + bytes; ++number)
            node.late.insert(number);
    }

    // An operation of that kind on what a path or an open file stands for.
    template <typename Do> static int on(unsigned kind, const char* path, const fuse_file_info* info, Do what)
    {
        Impl& impl = self();
        Lock lock{impl.mutex};
        if (const int problem = impl.meet(kind, lock))
            return problem;
        Disk::Node* node = impl.at(path, info);
        if (node == nullptr)
            return info != nullptr ? -EIO : -ENOENT;
        return what(impl, *node);
    }

    static void* begin(fuse_conn_info* connection, fuse_config* config)
    {
        connection->max_write = 1 << 20;
        config->use_ino = 1;
        config->nullpath_ok = 1;
        config->hard_remove = 1;
        config->direct_io = 1; // what the kernel kept would hide what a power cut takes
        config->entry_timeout = config->attr_timeout = config->negative_timeout = 0;
        return fuse_get_context()->private_data;
    }
    static int attributes(const char* path, struct stat* status, fuse_file_info* info)
    {
        if (path != nullptr && std::strcmp(path, "/") == 0) {
            *status = {};
            status->st_mode = S_IFDIR | 0755;
            status->st_nlink = 2;
            return 0;
        }
        return on(looking, path, info, [&](Impl& impl, Disk::Node& node) {
            *status = {};
            status->st_mode = node.mode;
            status->st_nlink = 1;
            status->st_size = static_cast<off_t>(node.data.size());
            status->st_blocks = (status->st_size + 511) / 512;
            status->st_ino = info != nullptr ? info->fh & 0xffffffff : impl.find(path);
            return 0;
        });
    }
    static int open(const char* path, fuse_file_info* info)
    {
        return on((info->flags & O_TRUNC) != 0 ? sizing : looking, path, nullptr, [&](Impl& impl, Disk::Node& node) {
            impl.remember(impl.find(path), info);
            if ((info->flags & O_TRUNC) != 0)
                resize(node, 0);
            return 0;
        });
    }
    static int create(const char* path, mode_t mode, fuse_file_info* info)
    {
        Impl& impl = self();
        Lock lock{impl.mutex};
        if (const int problem = impl.meet(creating, lock))
            return problem;
        std::uint64_t number = 0;
        const int problem = impl.add(path, S_IFREG | (mode & 07777), number);
        impl.remember(number, info);
        return problem;
    }
    static int make_directory(const char* path, mode_t mode)
    {
        Impl& impl = self();
        Lock lock{impl.mutex};
        if (const int problem = impl.meet(creating, lock))
            return problem;
        std::uint64_t number = 0;
        return impl.add(path, S_IFDIR | (mode & 07777), number);
    }
    static int remove(const char* path)
    {
        return on(removing, path, nullptr, [&](Impl& impl, Disk::Node& node) {
            if (!node.names.empty())
                return -ENOTEMPTY;
            impl.change(parentOf(path), {nameIn(path), "", 0});
            return 0;
        });
    }
    static int rename(const char* from, const char* to, unsigned flags)
    {
        return on(renaming, from, nullptr, [&](Impl& impl, Disk::Node&) {
            if (parentOf(from) != parentOf(to))
                return -EXDEV;
            if ((flags & ~1u) != 0 || (flags == 1 && impl.find(to) != 0)) // RENAME_NOREPLACE
                return flags == 1 ? -EEXIST : -EINVAL;
            impl.change(parentOf(to), {nameIn(from), nameIn(to), impl.find(from)});
            return 0;
        });
    }
    static int truncate(const char* path, off_t size, fuse_file_info* info)
    {
        return on(sizing, path, info, [&](Impl&, Disk::Node& node) {
            resize(node, static_cast<std::size_t>(size));
            return 0;
        });
    }
    static int allocate(const char* path, int mode, off_t offset, off_t length, fuse_file_info* info)
    {
        return on(writing, path, info, [&](Impl&, Disk::Node& node) {
            const auto from = static_cast<std::size_t>(offset);
            const auto end = from + static_cast<std::size_t>(length);
            if ((mode & FALLOC_FL_KEEP_SIZE) == 0 && node.data.size() < end)
                resize(node, end);
            if (const std::size_t stop = std::min(end, node.data.size());
                from < stop && (mode & (FALLOC_FL_PUNCH_HOLE | FALLOC_FL_ZERO_RANGE)) != 0)
                put(node, nullptr, stop - from, from);
            return 0;
        });
    }
    static int read(const char* path, char* into, std::size_t bytes, off_t offset, fuse_file_info* info)
    {
        return on(looking, path, info, [&](Impl&, Disk::Node& node) {
            const std::size_t from = std::min(static_cast<std::size_t>(offset), node.data.size());
            return static_cast<int>(node.data.copy(into, bytes, from));
        });
    }
    static int write(const char* path, const char* from, std::size_t bytes, off_t offset, fuse_file_info* info)
    {
        return on(writing, path, info, [&](Impl&, Disk::Node& node) {
            put(node, from, bytes, static_cast<std::size_t>(offset));
            return static_cast<int>(bytes);
        });
    }
    static int sync(const char* path, int, fuse_file_info* info)
    {
        return on(syncing, path, info, [&](Impl&, Disk::Node& node) {
            Disk::makeDurable(node);
            return 0;
        });
    }
    static int names(const char* path, void* buffer, fuse_fill_dir_t fill, off_t, fuse_file_info* info, fuse_readdir_flags)
    {
        return on(looking, path, info, [&](Impl&, Disk::Node& node) {
            for (const char* name : {".", ".."})
                fill(buffer, name, nullptr, 0, fuse_fill_dir_flags{});
            for (const auto& [name, number] : node.names)
                fill(buffer, name.c_str(), nullptr, 0, fuse_fill_dir_flags{});
            return 0;
        });
    }
    static int mode(const char* path, mode_t mode, fuse_file_info* info)
    {
        return on(0, path, info, [&](Impl&, Disk::Node& node) {
            node.mode = (node.mode & S_IFMT) | (mode & 07777);
            return 0;
        });
    }
    static int owner(const char*, uid_t, gid_t, fuse_file_info*) { return 0; }
    static int times(const char*, const timespec*, fuse_file_info*) { return 0; }
    static int space(const char*, struct statvfs* status)
    {
        *status = {};
        status->f_bsize = status->f_frsize = page;
        status->f_blocks = status->f_bfree = status->f_bavail = 1 << 24;
        status->f_namemax = 255;
        return 0;
    }
};

std::string FaultyDirectory::missing()
{
    if (::geteuid() != 0)
        return "this takes root, to mount";
    if (::access("/dev/fuse", R_OK | W_OK) != 0)
        return "this takes /dev/fuse";
    return "";
}

FaultyDirectory::FaultyDirectory(const std::string& point, std::chrono::seconds most) : impl_{std::make_unique<Impl>()}
{
    impl_->point = point;
    std::filesystem::create_directory(point);
    static const fuse_operations operations = [] {
        fuse_operations o{};
        o.init = Impl::begin;
        o.getattr = Impl::attributes;
        o.open = o.opendir = Impl::open;
        o.create = Impl::create;
        o.mkdir = Impl::make_directory;
        o.unlink = o.rmdir = Impl::remove;
        o.rename = Impl::rename;
        o.truncate = Impl::truncate;
        o.fallocate = Impl::allocate;
        o.read = Impl::read;
        o.write = Impl::write;
        o.fsync = o.fsyncdir = Impl::sync;
        o.readdir = Impl::names;
        o.chmod = Impl::mode;
        o.chown = Impl::owner;
        o.utimens = Impl::times;
        o.statfs = Impl::space;
        return o;
    }();
    const char* words[] = {"faulty_directory"};
    fuse_args arguments = FUSE_ARGS_INIT(1, const_cast<char**>(words));
    impl_->handle = fuse_new(&arguments, &operations, sizeof operations, impl_.get());
    fuse_opt_free_args(&arguments);
    if (impl_->handle == nullptr || fuse_mount(impl_->handle, point.c_str()) != 0)
        throw std::runtime_error{point + ": cannot be mounted"};
    const std::string command = "exec '" UNMOUNT_SCRIPT "' '" + point + "' '" + point + ".none' " + std::to_string(most.count());
    impl_->unmounter.reset(::popen(command.c_str(), "we"));
    impl_->thread = std::thread{[handle = impl_->handle] { fuse_loop_mt(handle, nullptr); }};
}

FaultyDirectory::~FaultyDirectory()
{
    disarm(); // whoever waits goes on
    impl_->unmounter.reset(); // which ends the loop
    impl_->thread.join();
    fuse_unmount(impl_->handle);
    fuse_destroy(impl_->handle);
}

void FaultyDirectory::arm(const Fault& fault)
{
    {
        const std::lock_guard lock{impl_->mutex};
        impl_->fault = fault;
        impl_->counted = 0;
        impl_->struck = false;
    }
    impl_->changed.notify_all();
}

std::uint64_t FaultyDirectory::count() const
{
    const std::lock_guard lock{impl_->mutex};
    return impl_->counted;
}

bool FaultyDirectory::struck() const
{
    const std::lock_guard lock{impl_->mutex};
    return impl_->struck;
}

std::string FaultyDirectory::path() const
{
    const std::lock_guard lock{impl_->mutex};
    return impl_->point + "/" + std::to_string(impl_->age);
}

Disk FaultyDirectory::disk() const
{
    const std::lock_guard lock{impl_->mutex};
    return impl_->disk;
}

void FaultyDirectory::insert(const Disk& disk)
{
    disarm();
    const std::lock_guard lock{impl_->mutex};
    impl_->disk = disk;
    impl_->dead = false;
    ++impl_->age;
}

} // namespace faults
