// SPDX-License-Identifier: GPL-2.0-only
#include "daemon.h"

#include "attach.h"
#include "host_mounts.h"
#include "service_manager.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/resource.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <condition_variable>
#include <cstring>
#include <new>
#include <stdexcept>
#include <thread>
#include <utility>

namespace quendreld
{

namespace
{

constexpr auto write_out_patience = std::chrono::seconds(30); // for all of them together

// syncfs on a thread of its own: a file system that is stuck must not keep the daemon from ending.
bool sync_until(std::chrono::steady_clock::time_point end, const std::string& mount_point)
{
    struct Shared {
        std::mutex mutex;
        std::condition_variable done;
        bool finished = false;
    };
    auto shared = std::make_shared<Shared>();
    std::thread([shared, mount_point] {
        base::Descriptor fd(::open(mount_point.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
        if (fd)
            ::syncfs(fd.get());
        std::lock_guard lock(shared->mutex);
        shared->finished = true;
        shared->done.notify_all();
    }).detach();
    std::unique_lock lock(shared->mutex);
    return shared->done.wait_until(lock, end, [&] { return shared->finished; });
}

// How many descriptors the clients may take together: all that the host allows, less what is open already and some that
// the daemon opens now and then for itself. So that no crowd of clients can leave it without.
unsigned descriptors_for_clients()
{
    constexpr rlim_t own = 16;
    constexpr rlim_t enough = 4096;
    rlimit limit{};
    ::getrlimit(RLIMIT_NOFILE, &limit);
    limit.rlim_cur = limit.rlim_max;
    ::setrlimit(RLIMIT_NOFILE, &limit); // a soft limit is there to be raised
    ::getrlimit(RLIMIT_NOFILE, &limit);
    const rlim_t open = names_in("/proc/self/fd").size();
    return limit.rlim_cur > open + own ? unsigned(std::min(limit.rlim_cur - open - own, enough)) : 0;
}

} // namespace

Daemon::Daemon(Config config, const RunDir& run, base::Descriptor guardian) : config_(std::move(config)), run_(run)
{
    log_ = std::make_unique<LogFile>(run_.here(run_.log()), config_.foreground);
    hosted::log_set_sink([this](std::string_view line) { report(line); });
    if (guardian)
        guardian_ = std::make_shared<Guardian>(std::move(guardian));
    (void)hosted::transfer_memory_fd(); // large, and to be there before all memory is locked
    // Memory that is paged out while its own disk waits would never come back. Pages count when they are touched:
    // most of a thread's stack never is.
    if (::mlockall(MCL_CURRENT | MCL_FUTURE | MCL_ONFAULT) != 0)
        report(std::string("memory is not locked (") + std::strerror(errno) + "); raise the memlock limit");
    try {
        add_disks();
        if (const int error = hosted::load_driver(); error != 0)
            throw std::runtime_error("the driver does not load: " + std::string(std::strerror(-error)));
        driver_loaded_ = true;

        std::string no_fuse;
        std::vector<ServedDisk*> served;
        for (const auto& disk : disks_)
            served.push_back(disk.get());
        if (config_.fuse) {
            // Who is not root has it mounted by a program that does not have our descriptor.
            const std::string mount_point = ::geteuid() == 0 ? run_.here(run_.disks()) : run_.disks();
            try {
                fuse_ =
                    std::make_unique<FuseFront>(served, mount_point, [this](std::string_view line) { report(line); });
            } catch (const std::runtime_error& error) {
                report(std::string("no disk files, NBD only: ") + error.what());
            }
        }

        std::vector<ContentsKeeper::Place> places;
        for (unsigned i = 0; i < disks_.size(); ++i) {
            const std::string& name = disks_[i]->name();
            DiskRecord record;
            record.name = name;
            record.major = 8;
            record.minor = i * minors_of_disk;
            record.bytes = disks_[i]->size();
            if (fuse_)
                record.file = run_.disk_file(name);
            record.nbd = "nbd+unix:///" + name + "?socket=" + run_.nbd_socket();
            record.sector_bytes = disks_[i]->block_size();
            places.push_back({disks_[i].get(), std::move(record)});
        }
        contents_ = std::make_unique<ContentsKeeper>(
            std::move(places), guardian_, [this](std::string_view line) { report(line); }, [this] { try_to_describe(); });
        contents_there_.store(contents_.get());
        describe();
        contents_->start();
        liveness_ = std::make_unique<Liveness>(served, [this](std::string_view line) { report(line); });
        herald_ = std::thread([this] { tell_news(); });

        // Half of them for NBD, at two a connection; half for the control device, at two for each of twice the clients
        // that are let in.
        const unsigned descriptors = descriptors_for_clients();
        const unsigned nbd_clients = std::clamp(descriptors / 4, 1u, 64u);
        const unsigned control_clients = std::clamp(descriptors / 8, 1u, 32u);
        if (nbd_clients < 64 || control_clients < 32)
            report("the limit of open files allows " + std::to_string(nbd_clients) + " NBD connections and " +
                   std::to_string(control_clients) + " clients of the control device at a time; raise it for more");
        nbd::Server::Options nbd_options;
        nbd_options.socket = run_.here(run_.nbd_socket());
        nbd_options.group = gid_t(config_.group);
        nbd_options.most_connections = nbd_clients;
        nbd_options.report = [this](std::string_view line) { report(line); };
        nbd_ = std::make_unique<nbd::Server>(served, std::move(nbd_options));

        make_backup_lock();
        ControlServer::Options options;
        options.socket = run_.here(run_.control_socket());
        options.group = gid_t(config_.group);
        options.multi_client = config_.multi_client;
        options.most_clients = control_clients;
        options.observer = contents_.get();
        options.report = [this](std::string_view line) { report(line); };
        control_ = std::make_unique<ControlServer>(std::move(options));

        for (unsigned i = 0; i < disks_.size(); ++i)
            report(disks_[i]->name() + " serves " + config_.images[i] + ", " + std::to_string(disks_[i]->size()) +
                   " bytes");
    } catch (...) {
        take_down();
        throw;
    }
}

Daemon::~Daemon()
{
    if (!ended_)
        end();
}

std::string Daemon::end()
{
    ended_ = true;
    report("ending");
    return take_down();
}

void Daemon::report(std::string_view line) { log_->print(line); }

// Before the control socket is there: whoever may open that may take a backup, and nobody else can be in the way.
void Daemon::make_backup_lock()
{
    const base::Descriptor lock(
        ::open(run_.here(run_.backup_lock()).c_str(), O_RDWR | O_CREAT | O_NOFOLLOW | O_CLOEXEC, 0600));
    if (!lock || ::fchown(lock.get(), uid_t(-1), gid_t(config_.group)) != 0 || ::fchmod(lock.get(), 0660) != 0)
        throw std::system_error(errno, std::generic_category(), run_.backup_lock() + ": cannot make the lock");
}

bool Daemon::alive()
try {
    return liveness_->look();
} catch (const std::bad_alloc&) {
    return false; // this time
}

void Daemon::add_disks()
{
    for (unsigned i = 0; i < config_.images.size(); ++i) {
        const std::string& image = config_.images[i];
        hosted::DiskConfig disk;
        disk.name = disk_name(i);
        disk.first_minor = i * minors_of_disk;
        disk.minors = minors_of_disk;
        hosted::FileStoreOptions options;
        options.direct = config_.direct;
        options.read_only = config_.read_only;
        options.flush_failed = [this, name = disk.name](int error) { flush_failed(name, error); };
        disk.store = hosted::open_file_store(image, options);
        disks_.push_back(std::make_unique<ServedDisk>(hosted::add_disk(std::move(disk)), config_.read_only));
        disks_.back()->set_watcher([this, i] { described_anew(i); });
    }
}

void Daemon::describe()
{
    std::lock_guard lock(describe_);
    std::vector<DiskRecord> records = contents_->records();
    std::string served, failed;
    for (std::size_t i = 0; i < records.size(); ++i) {
        served += (i ? ", " : "") + records[i].name;
        if (const int error = disks_[i]->disk()->store().flush_error()) {
            records[i].flush_error = std::strerror(-error);
            failed += "; A FLUSH OF " + records[i].name + " FAILED (" + records[i].flush_error + "), see the log";
        }
    }
    tell_manager(("STATUS=Serving " + served + failed).c_str());
    run_.write(run_.disks_json(), disks_to_json(records));
}

void Daemon::try_to_describe()
try {
    describe();
} catch (const std::exception& error) {
    report(error.what());
}

void Daemon::described_anew(unsigned disk)
{
    if (ContentsKeeper* contents = contents_there_.load())
        contents->described_anew(disk);
}

void Daemon::flush_failed(const std::string& disk, int error)
{
    report(disk + ": a flush failed: " + std::strerror(-error) +
           "; what was written since the one before may be lost, and every flush fails until the disk is served anew");
    std::lock_guard lock(news_mutex_);
    flush_failed_ = true;
    news_came_.notify_all();
}

void Daemon::tell_news()
{
    std::unique_lock lock(news_mutex_);
    for (;;) {
        news_came_.wait(lock, [this] { return flush_failed_ || herald_ends_; });
        if (herald_ends_)
            return;
        flush_failed_ = false;
        lock.unlock();
        try_to_describe();
        lock.lock();
    }
}

void Daemon::write_out_mounts()
{
    if (!fuse_)
        return;
    const auto end = std::chrono::steady_clock::now() + write_out_patience;
    for (const auto& disk : disks_) {
        for (const HostLoop& loop : loops_over(run_.disk_file(disk->name()))) {
            for (const HostDevice& device : loop.devices) {
                const auto points = mount_points_of(device);
                if (points.empty())
                    continue;
                report(device.node + " is still mounted on " + points.front() +
                       ": written out now; later writes to it will fail");
                if (!sync_until(end, points.front()))
                    report(points.front() + ": could not be written out");
            }
        }
    }
}

std::string Daemon::take_down()
{
    std::string wrong;
    // Whatever goes wrong, the rest has to be done all the same.
    const auto note = [&](std::string_view subject, std::string_view what, std::string_view why) noexcept {
        try {
            std::string line(subject);
            line += what;
            line += why;
            report(line);
            wrong += line + "\n";
        } catch (const std::bad_alloc&) {
            wrong = "no memory\n"; // too short to need any
        }
    };
    control_.reset();
    nbd_.reset();
    try {
        write_out_mounts();
    } catch (const std::exception& error) {
        note("mounted file systems", " were not written out: ", error.what());
    }
    fuse_.reset();
    for (const auto& disk : disks_) {
        int error = disk->disk()->flush();
        for (int again = 0; error == -ENOMEM && again < 100; ++again) { // the last chance of what was written
            std::this_thread::sleep_for(std::chrono::milliseconds(10));
            error = disk->disk()->flush();
        }
        if (error && !config_.read_only)
            note(disk->name(), ": flush failed: ", std::strerror(-error));
    }
    if (herald_.joinable()) {
        {
            std::lock_guard lock(news_mutex_);
            herald_ends_ = true;
        }
        news_came_.notify_all();
        herald_.join();
    }
    contents_there_.store(nullptr);
    if (contents_)
        contents_->stop(); // while what they describe is there
    contents_.reset();
    if (driver_loaded_)
        if (const int error = hosted::unload_driver(); error != 0)
            report("the driver does not unload: " + std::string(std::strerror(-error)));
    driver_loaded_ = false;
    for (const auto& disk : disks_)
        hosted::remove_disk(disk->disk());
    disks_.clear();
    ::unlink(disks_json_.c_str());
    ::rmdir(disk_files_.c_str());
    hosted::log_set_sink(nullptr);
    return wrong;
}

} // namespace quendreld
