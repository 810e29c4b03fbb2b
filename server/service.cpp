// SPDX-License-Identifier: GPL-2.0-only
#include "service.h"

#include "daemon.h"
#include "run_dir.h"

#include <sys/stat.h>

#include <cerrno>
#include <csignal>
#include <exception>
#include <iostream>

namespace quendreld
{

int run_service(const Config& config, base::Descriptor guardian, const std::function<void()>& ready)
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

    Daemon daemon(config, std::move(guardian));
    ready();
    int signal = 0;
    while (sigwait(&ends, &signal) == EINTR) {
    }
    const std::string wrong = daemon.end();
    try {
        write_file_whole(RunDir(config.run_dir).ended(), wrong.empty() ? ended_well : wrong);
    } catch (const std::exception& error) {
        std::cerr << "quendreld: " << error.what() << "\n"; // into the log
        return 1;
    }
    return wrong.empty() ? 0 : 1;
}

} // namespace quendreld
