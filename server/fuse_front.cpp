// SPDX-License-Identifier: GPL-2.0-only
#include "fuse_front.h"

#include "fuse_buffers.h"
#include "fuse_files.h"

#include <pthread.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstring>
#include <mutex>
#include <stdexcept>
#include <thread>

namespace quendreld
{

namespace
{

constexpr unsigned first_threads = 2;
constexpr unsigned most_threads = 12;
constexpr int wake_signal = SIGUSR1;

} // namespace

struct FuseFront::Impl {
    explicit Impl(std::vector<ServedDisk*> disks) : files(std::move(disks), most_threads) {}
    ~Impl(); // from wherever the start has come to

    FuseFiles files;
    std::string mount_point;
    std::function<void(std::string_view)> report;
    fuse_session* session = nullptr;
    bool mounted = false;

    std::mutex mutex; // guards threads; innermost
    std::vector<std::thread> threads;
    std::atomic<unsigned> idle = 0;          // threads in receive
    std::atomic<std::uint64_t> received = 0; // requests
    std::thread supervisor;
    std::atomic<unsigned> alive = 0;
    std::atomic<bool> stop = false;

    void receive_loop();
    void supervise();
    void start_thread();
};

// Unmounted first in any case: who uses a mount that nobody serves waits for ever.
FuseFront::Impl::~Impl()
{
    if (mounted && ::umount2(mount_point.c_str(), MNT_DETACH) != 0 && errno != EINVAL)
        report(mount_point + ": cannot unmount: " + std::strerror(errno));
    stop = true;
    if (supervisor.joinable())
        supervisor.join();
    while (alive) {
        {
            std::lock_guard lock(mutex);
            for (std::thread& thread : threads)
                pthread_kill(thread.native_handle(), wake_signal);
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    for (std::thread& thread : threads)
        thread.join();
    files.wait_until_idle();
    if (session)
        fuse_session_destroy(session);
}

void FuseFront::Impl::start_thread()
{
    std::lock_guard lock(mutex);
    if (threads.size() >= most_threads || stop)
        return;
    alive.fetch_add(1);
    try {
        threads.emplace_back([this] {
            receive_loop();
            alive.fetch_sub(1);
        });
    } catch (const std::exception&) { // no thread, or no memory for one: those that there are go on
        alive.fetch_sub(1);
        if (threads.empty())
            throw;
    }
}

void FuseFront::Impl::receive_loop()
{
    pthread_setname_np(pthread_self(), "fuse");
    sigset_t wake;
    sigemptyset(&wake);
    sigaddset(&wake, wake_signal);
    pthread_sigmask(SIG_UNBLOCK, &wake, nullptr);
    ReceiveBuffer receiving(files.large);
    while (!stop && !fuse_session_exited(session)) {
        fuse_buf buffer{};
        buffer.mem = receiving.start();
        idle.fetch_add(1);
        const int got = fuse_session_receive_buf(session, &buffer);
        idle.fetch_sub(1);
        if (got == -EINTR || got == -EAGAIN)
            continue;
        if (got <= 0)
            break;
        received.fetch_add(1, std::memory_order_relaxed);
        fuse_session_process_buf(session, &buffer);
        receiving.renew();
    }
}

// Two threads keep two processors busy, as no request waits for its I/O. But a request may wait for something else: a
// write while a file system is frozen, a buffer. When all threads do, another has to receive, or reads would wait
// with them.
void FuseFront::Impl::supervise()
{
    std::uint64_t before = 0;
    while (!stop) {
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
        const std::uint64_t now = received.load(std::memory_order_relaxed);
        if (idle == 0 && now == before)
            start_thread();
        before = now;
    }
}

FuseFront::FuseFront(std::vector<ServedDisk*> disks, const std::string& mount_point,
                     std::function<void(std::string_view)> report)
    : impl_(std::make_unique<Impl>(std::move(disks)))
{
    Impl& impl = *impl_;
    impl.mount_point = mount_point;
    impl.report = std::move(report);
    if (::access("/dev/fuse", R_OK | W_OK) != 0)
        throw std::runtime_error(std::string("/dev/fuse: ") + std::strerror(errno) +
                                 "; load the fuse module or start with --no-fuse");
    if (::mkdir(mount_point.c_str(), 0755) != 0 && errno != EEXIST)
        throw std::runtime_error(mount_point + ": cannot make the mount point: " + std::strerror(errno));

    std::array<const char*, 3> words{"quendreld", "-o", "fsname=quendreld,subtype=disks"};
    fuse_args arguments = FUSE_ARGS_INIT(int(words.size()), const_cast<char**>(words.data()));
    const fuse_lowlevel_ops ops = FuseFiles::operations();
    impl.session = fuse_session_new(&arguments, &ops, sizeof ops, &impl.files);
    fuse_opt_free_args(&arguments);
    if (!impl.session)
        throw std::runtime_error("FUSE: cannot make a session");
    if (fuse_session_mount(impl.session, mount_point.c_str()) != 0)
        throw std::runtime_error(mount_point + ": cannot mount the disk files here (is it a mount point already?)");
    impl.mounted = true;
    // A signal without restart gets a thread out of its read at the end.
    struct sigaction action {
    };
    action.sa_handler = [](int) {};
    ::sigaction(wake_signal, &action, nullptr);
    for (unsigned i = 0; i < first_threads; ++i)
        impl.start_thread();
    impl.supervisor = std::thread([&impl] { impl.supervise(); });
}

FuseFront::~FuseFront() = default;

} // namespace quendreld
