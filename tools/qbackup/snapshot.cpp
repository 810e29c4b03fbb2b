// SPDX-License-Identifier: GPL-2.0-only
#include "snapshot.h"

#include "base/descriptor.h"
#include "manifest.h"
#include "utc.h"

#include <nlohmann/json.hpp>

#include <fcntl.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <thread>

namespace qbackup
{
namespace
{

using nlohmann::json;
using quendrel::Bitmap;
using quendrel::ControlDevice;
using quendrel::Error;
using quendrel::SessionKey;

void watch(const SnapshotTask& task, const char* step)
{
    if (task.watcher)
        task.watcher(step);
}

// Takes a snapshot with the first of the keys that is the tracking session's; that key, or nothing when none is.
std::optional<SessionKey> snapshotSince(ControlDevice& device, const SnapshotTask& task, const StopSignal& stop)
{
    for (const SessionKey& key : task.keys) {
        throwIfStopped(stop);
        device.snapshot(key);
        // A key that does not match is no error to the driver: only the state says that no snapshot was taken.
        if (device.state().state != QUENDREL_STATE_STARTED)
            return key;
    }
    throwIfStopped(stop);
    device.noLoadFromAutoMap();
    device.snapshot({});
    return std::nullopt;
}

SessionKey keyAfter(ControlDevice& device, const SnapshotTask& task)
{
    const auto tracking = device.autoMapState();
    if (!tracking.inSync || tracking.device != task.number || tracking.blocks != task.blocks)
        throwLost(task.name, "the driver does not track changes of the device after the snapshot", false);
    return tracking.key;
}

void remember(Ledger& ledger, Snapshot& taken)
try {
    if (!taken.changed) {
        ledger.begin(taken.key, taken.written);
        return;
    }
    if (ledger.newest() != taken.since)
        ledger.begin(*taken.since);
    ledger.add(taken.key, *taken.changed, taken.written);
    taken.linked = true;
} catch (const std::exception& error) {
    taken.warning = std::string{error.what()} + ". Should this backup fail, the next one reads everything";
}

// Nothing was written from right before the snapshot with that key until now, by the host's account. Each write that
// the driver has seen in between is counted by then or still under way, which is no account.
bool wasIdle(const SnapshotTask& task, const SessionKey& since)
{
    // What waited in a queue has begun by then, as nothing else is under way.
    constexpr auto settled = std::chrono::milliseconds{100};
    if (!task.written || !task.ledger || task.ledger->newest() != since || !task.ledger->written() ||
        task.written() != task.ledger->written())
        return false;
    std::this_thread::sleep_for(settled);
    return task.written() == task.ledger->written();
}

// ---- the process of its own. What it has to say goes through a pipe: the length of a text, a JSON text, and the map.

constexpr unsigned patience_for_the_driver = 120; // seconds, once nobody waits for the result any more

bool writeAll(int fd, const void* from, std::size_t bytes)
{
    for (auto at = static_cast<const char*>(from); bytes > 0;) {
        const ssize_t written = ::write(fd, at, bytes);
        if (written < 0 && errno == EINTR)
            continue;
        if (written <= 0)
            return false; // nobody is there to read it: the ledger has it
        at += written;
        bytes -= static_cast<std::size_t>(written);
    }
    return true;
}

bool readAll(int fd, void* to, std::size_t bytes)
{
    for (auto at = static_cast<char*>(to); bytes > 0;) {
        const ssize_t got = ::read(fd, at, bytes);
        if (got < 0 && errno == EINTR)
            continue;
        if (got <= 0)
            return false;
        at += got;
        bytes -= static_cast<std::size_t>(got);
    }
    return true;
}

void tell(int fd, const json& document, const Bitmap* map)
{
    const std::string text = document.dump(-1, ' ', false, json::error_handler_t::replace);
    const std::uint64_t bytes = text.size();
    if (writeAll(fd, &bytes, sizeof bytes) && writeAll(fd, text.data(), text.size()) && map)
        writeAll(fd, map->bytes().data(), map->bytes().size());
}

// A driver that never answers must not hold the locks for ever.
void onParentsEnd(int) { ::alarm(patience_for_the_driver); }

// False: the parent has ended already.
bool standAlone(pid_t parent)
{
    ::setsid(); // what a terminal or a shell sends to the run's group is not meant for this one
    for (const int signal : {SIGINT, SIGTERM, SIGHUP, SIGPIPE})
        std::signal(signal, SIG_IGN);
    std::signal(SIGALRM, SIG_DFL);
    struct sigaction action {
    };
    action.sa_handler = onParentsEnd;
    action.sa_flags = SA_RESTART;
    ::sigaction(SIGUSR1, &action, nullptr);
    sigset_t none;
    ::sigemptyset(&none);
    ::sigprocmask(SIG_SETMASK, &none, nullptr);
    ::prctl(PR_SET_PDEATHSIG, SIGUSR1);
    return ::getppid() == parent;
}

void serve(ControlDevice& device, const SnapshotTask& task, int result) noexcept
{
    const StopSignal never{0};
    const auto fail = [&](int exit, const char* text) { tell(result, {{"exit", exit}, {"text", text}}, nullptr); };
    try {
        device.takeOver();
        const Snapshot taken = takeSnapshot(device, task, never);
        json document{{"time", taken.time},   {"key", toHex(taken.key)}, {"changed", taken.changed.has_value()},
                      {"empty", taken.empty}, {"linked", taken.linked},  {"warning", taken.warning}};
        if (taken.since)
            document["since"] = toHex(*taken.since);
        tell(result, document, taken.changed ? &*taken.changed : nullptr);
        watch(task, "handed over");
    } catch (const Failure& failure) {
        fail(failure.exitCode(), failure.what());
    } catch (const Error& error) {
        fail(failureOf(error).exitCode(), error.what());
    } catch (const std::exception& error) {
        fail(static_cast<int>(Exit::failed), error.what());
    }
}

// What that process has told; nothing when it ended before it had.
std::optional<Snapshot> hear(int fd, std::uint32_t blocks)
try {
    std::uint64_t bytes = 0;
    if (!readAll(fd, &bytes, sizeof bytes))
        return std::nullopt;
    std::string text(static_cast<std::size_t>(bytes), '\0');
    if (!readAll(fd, text.data(), text.size()))
        return std::nullopt;
    const json document = json::parse(text);
    if (document.contains("exit"))
        throw Failure{static_cast<Exit>(document.at("exit").get<int>()), document.at("text").get<std::string>()};
    Snapshot taken;
    taken.time = document.at("time");
    fromHex(document.at("key"), taken.key);
    if (document.contains("since"))
        fromHex(document.at("since"), taken.since.emplace());
    taken.empty = document.at("empty");
    taken.linked = document.at("linked");
    taken.warning = document.at("warning");
    if (document.at("changed").get<bool>()) {
        taken.changed.emplace(blocks);
        if (!readAll(fd, taken.changed->bytes().data(), taken.changed->bytes().size()))
            return std::nullopt;
    }
    return taken;
} catch (const json::exception&) {
    return std::nullopt;
}

// Waits for its end when it goes.
class Child
{
  public:
    explicit Child(pid_t pid) : pid_{pid} {}
    ~Child() { wait(); }
    Child(const Child&) = delete;
    Child& operator=(const Child&) = delete;
    int wait() noexcept
    {
        while (pid_ > 0 && ::waitpid(pid_, &status_, 0) < 0 && errno == EINTR)
            ;
        pid_ = 0;
        return status_;
    }

  private:
    pid_t pid_;
    int status_ = 0;
};

} // namespace

Snapshot takeSnapshot(ControlDevice& device, const SnapshotTask& task, const StopSignal& stop)
{
    Snapshot taken;
    watch(task, "begun");
    if (task.written)
        taken.written = task.written();
    taken.since = snapshotSince(device, task, stop);
    watch(task, "snapshot");
    expectState(device, task.name, QUENDREL_STATE_SNAPSHOT, "after the snapshot");
    taken.time = utcNow("%Y-%m-%dT%H:%M:%SZ");
    if (taken.since) {
        // Fetched before any map is loaded: loading one over it would leave the driver's pages behind.
        taken.changed = device.autoMap(task.blocks);
        // Tracking that falls out of sync between the driver's look at the key and the freeze hands out an empty map,
        // and the driver does not tell it from a device that nobody wrote to. The host's counting may; where it does
        // not, copying an idle device in full is cheaper than losing a change.
        taken.empty = taken.changed && taken.changed->count() == 0 && !wasIdle(task, *taken.since);
        if (taken.empty)
            taken.changed.reset();
    }
    watch(task, "map");
    taken.key = keyAfter(device, task);
    // Or the key may be that of a snapshot which the other program took behind ours.
    expectNoOtherClose(device, task.name, task.closes, false);
    watch(task, "key");
    if (task.ledger)
        remember(*task.ledger, taken);
    watch(task, "ledger");
    return taken;
}

Snapshot takeSnapshotApart(ControlDevice& device, const SnapshotTask& task, const StopSignal& stop)
{
    throwIfStopped(stop);
    int ends[2];
    const pid_t parent = ::getpid();
    if (::pipe2(ends, O_CLOEXEC) != 0)
        return takeSnapshot(device, task, stop);
    base::Descriptor from{ends[0]};
    base::Descriptor to{ends[1]};
    // What waits to be printed is the run's to print.
    std::fflush(nullptr);
    const pid_t pid = ::fork();
    if (pid < 0) // a backup that a kill could cost something is better than none
        return takeSnapshot(device, task, stop);
    if (pid == 0) {
        from.reset();
        if (standAlone(parent))
            serve(device, task, to.get());
        // No destructor, no handler of the run's own end: they are its business.
        ::_exit(0);
    }
    Child child{pid};
    to.reset();
    // Closed before the child is waited for, which may be telling when this ends early.
    const base::Descriptor ear{std::move(from)};
    auto taken = hear(ear.get(), task.blocks);
    if (!taken) {
        const int status = child.wait();
        throwLost(task.name,
                  "the process that takes the snapshot came to an early end" +
                      (WIFSIGNALED(status) ? std::string{" by signal "} + std::to_string(WTERMSIG(status)) + " (" +
                                                 strsignal(WTERMSIG(status)) + ")"
                                           : ""),
                  false);
    }
    child.wait();
    device.takeOver();
    return std::move(*taken);
}

void throwLost(const std::string& name, const std::string& what, bool known)
{
    throw Failure{Exit::failed, "the backup of " + name + " failed: " + what + ". Nothing was kept" +
                                    (known ? "" : "; the next backup will be a full one")};
}

void expectState(ControlDevice& device, const std::string& name, unsigned expected, const char* when)
{
    if (const unsigned state = device.state().state; state != expected)
        throwLost(name,
                  std::string{when} + " the driver's state is " + std::to_string(state) + ": " +
                      quendrel::stateText(state),
                  false);
}

void expectNoOtherClose(const ControlDevice& device, const std::string& name,
                        const std::optional<std::uint64_t>& closes, bool known)
{
    if (device.closes() != closes)
        throwLost(
            name,
            "another program closed the control device meanwhile, which ends the protection of a backup that runs "
            "(load the driver with exclusive=1 to keep others out)",
            known);
}

Failure failureOf(const Error& error)
{
    const auto exit = error.code() == QUENDREL_BUSY          ? Exit::busy
                      : error.code() == QUENDREL_NOT_MOUNTED ? Exit::refused
                                                             : Exit::failed;
    return Failure{exit, error.what()};
}

} // namespace qbackup
