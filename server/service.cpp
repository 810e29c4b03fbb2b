// SPDX-License-Identifier: GPL-2.0-only
#include "service.h"

#include "daemon.h"
#include "guardian.h"
#include "memory_pressure.h"
#include "run_dir.h"
#include "service_manager.h"

#include <sys/stat.h>

#include <cerrno>
#include <chrono>
#include <csignal>
#include <exception>
#include <iostream>
#include <thread>

namespace quendreld
{

namespace
{

// Returns at one of the signals. Until then the service manager, if it watches, hears from us as long as the disks answer.
void wait_for_end(Daemon& daemon, const sigset_t& ends)
{
    const auto patience = manager_patience();
    if (!patience) {
        int signal = 0;
        while (sigwait(&ends, &signal) == EINTR) {
        }
        return;
    }
    const auto between_looks = std::chrono::nanoseconds(*patience) / 4;
    const timespec pause{between_looks.count() / 1'000'000'000, between_looks.count() % 1'000'000'000};
    for (;;) {
        if (daemon.alive())
            tell_manager("WATCHDOG=1");
        if (sigtimedwait(&ends, nullptr, &pause) > 0)
            return;
    }
}

} // namespace

int run_service(const Config& config, const RunDir& run, const std::function<void()>& ready)
{
    // Every thread inherits this, so that the signals come to the one that waits for them.
    sigset_t ends;
    sigemptyset(&ends);
    for (const int signal : {SIGTERM, SIGINT, SIGQUIT, SIGHUP})
        sigaddset(&ends, signal);
    pthread_sigmask(SIG_BLOCK, &ends, nullptr);
    // Whoever reads the log of a daemon in the foreground may end before it does.
    std::signal(SIGPIPE, SIG_IGN);
    ::umask(022);

    // The guardian is spared too: nobody else would thaw what it has frozen. It serves nothing, so the rest is not for it.
    const std::string oom = spare_from_oom_killer();
    base::Descriptor guardian = start_guardian();
    const std::string flusher = allocate_without_disks();

    Daemon daemon(config, run, std::move(guardian));
    for (const std::string& line : {oom, flusher})
        if (!line.empty())
            daemon.report(line);
    ready();
    tell_manager("READY=1");
    wait_for_end(daemon, ends);
    tell_manager("STOPPING=1\nSTATUS=Ending");
    const std::string wrong = daemon.end();
    // Without this file whoever stops the daemon takes it for dead; what is short may be there a little later.
    for (int left = 100;; --left) {
        try {
            run.write(run.ended(), wrong.empty() ? ended_well : wrong);
            return wrong.empty() ? 0 : 1;
        } catch (const std::exception& error) {
            if (left == 0) {
                std::cerr << "quendreld: " << error.what() << "\n"; // into the log
                return 1;
            }
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
}

} // namespace quendreld
