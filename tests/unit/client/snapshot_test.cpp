// SPDX-License-Identifier: GPL-2.0-only
// The snapshot by a process of its own: whatever kills a run, and whenever, the next backup is an increment.
//
// A run is a process of its own here too, forked while this one has no other thread; the driver stays with this one.
#include "fake_server.h"
#include "support.h"

#include <poll.h>
#include <sys/prctl.h>
#include <sys/wait.h>

#include <csignal>
#include <optional>

namespace
{

using namespace test;

class Apart : public testing::Test
{
  protected:
    Apart() { machine.ledger = machine.directory / "ledger"; }

    // Runs a backup, and waits until it and what it may have left have ended. The status of waitpid.
    int run(std::function<void(const char*)> watcher, Wanted wanted = Wanted::automatic)
    {
        int go[2], life[2];
        EXPECT_EQ(::pipe(go) | ::pipe(life), 0);
        const pid_t run = ::fork();
        if (run == 0) {
            ::prctl(PR_SET_PDEATHSIG, SIGKILL);
            ::setpgid(0, 0);
            ::close(go[1]);
            ::close(life[0]);
            char byte;
            ::_exit(::read(go[0], &byte, 1) == 1 ? backUp(std::move(watcher), wanted) : 98);
        }
        int status = -1;
        {
            fake::Server server{machine.driver, socket};
            ::close(life[1]);
            EXPECT_EQ(::write(go[1], "x", 1), 1);
            pollfd ended{life[0], POLLIN, 0};
            EXPECT_EQ(::poll(&ended, 1, 20000), 1) << "the run, or what it left, does not end";
            ::kill(run, SIGKILL); // if it has not ended
            ::waitpid(run, &status, 0);
            for (int i = 0; i < 500 && machine.driver.isOpen(); ++i)
                ::usleep(10000);
            EXPECT_FALSE(machine.driver.isOpen());
        }
        for (const int fd : {go[0], go[1], life[0]})
            ::close(fd);
        return status;
    }

    int backUp(std::function<void(const char*)> watcher, Wanted wanted)
    {
        BackupJob job = machine.job(wanted);
        job.apart = true;
        job.snapshotWatcher = std::move(watcher);
        job.beforeSnapshot = before;
        job.afterSnapshot = after;
        try {
            machine.backup(quendrel::ControlDevice{socket.string()}, job);
            return 0;
        } catch (const Failure& failure) {
            std::ofstream{machine.directory / "failure"} << failure.what();
            return failure.exitCode();
        } catch (...) {
            return 99;
        }
    }

    std::string failure() const { return readText(machine.directory / "failure"); }

    // The next backup: of that mode, with so many blocks, and right.
    void expectBackup(Mode mode, std::uint32_t copied)
    {
        const auto report = machine.backup();
        EXPECT_EQ(report.backup.manifest.mode, mode) << report.backup.manifest.fullReason;
        EXPECT_EQ(report.backup.manifest.copiedBlocks, copied);
        EXPECT_EQ(machine.restored(report.backup.path), machine.driver.contents());
    }

    Machine machine;
    fs::path socket = machine.directory / "control.sock";
    std::function<void()> before; // the run's calls around the snapshot
    std::function<void()> after;
};

TEST_F(Apart, ABackupIsAsItIsOtherwise)
{
    EXPECT_EQ(run({}), 0);
    machine.driver.write(10, 2);
    EXPECT_EQ(run({}), 0);
    machine.driver.write(20, 2);
    expectBackup(Mode::incremental, 1);
    machine.driver.write(30, 2);
    EXPECT_EQ(run({}, Wanted::full), 0);
    machine.driver.write(40, 2);
    expectBackup(Mode::incremental, 1);
}

TEST_F(Apart, TheSnapshotIsAnotherProcesssAndTheBlocksAreReadByTheRun)
{
    ASSERT_EQ(run([this, test = ::getpid()](const char* step) {
                  std::ofstream{machine.directory / "steps", std::ios::app}
                      << step << (::getppid() != test && ::getsid(0) == ::getpid() ? " apart" : " here") << '\n';
              }),
              0);
    EXPECT_EQ(readText(machine.directory / "steps"), "begun apart\nsnapshot apart\nmap apart\nkey apart\nledger apart\n"
                                                     "handed over apart\n");
}

TEST_F(Apart, TheCallsAroundTheSnapshotAreMadeByTheRun)
{
    const auto note = [this](const std::string& what) {
        std::ofstream{machine.directory / "steps", std::ios::app} << what << (::getsid(0) == ::getpid() ? " apart" : " here") << '\n';
    };
    before = [&] { note("before"); };
    after = [&] { note("after"); };
    ASSERT_EQ(run(note), 0);
    EXPECT_EQ(readText(machine.directory / "steps"), "before here\nbegun apart\nsnapshot apart\nmap apart\nkey apart\nledger apart\n"
                                                     "handed over apart\nafter here\n");
}

TEST_F(Apart, TheCallBehindTheSnapshotIsMadeWhenItsProcessIsKilled)
{
    after = [&] { std::ofstream{machine.directory / "after"}; };
    EXPECT_EQ(WEXITSTATUS(run([](const char* step) {
                  if (std::string{step} == "snapshot")
                      ::raise(SIGKILL);
              })),
              1);
    EXPECT_TRUE(fs::exists(machine.directory / "after"));
}

class ApartKilledAt : public Apart, public testing::WithParamInterface<const char*>
{
};

// The whole group of the run is killed, as a terminal or a shell would do it.
TEST_P(ApartKilledAt, TheNextBackupIsAnIncrement)
{
    machine.backup();
    machine.driver.write(10, 2);
    const int status = run([](const char* step) {
        if (std::string{step} != GetParam())
            return;
        const pid_t run = ::getppid();
        ::kill(-run, SIGKILL);
        while (::getppid() == run)
            ::usleep(1000);
    });
    ASSERT_TRUE(WIFSIGNALED(status) && WTERMSIG(status) == SIGKILL) << status;
    machine.driver.write(20, 2);
    expectBackup(Mode::incremental, 2);
    machine.driver.write(30, 2);
    expectBackup(Mode::incremental, 1);
}

TEST_P(ApartKilledAt, TheNextButOneBackupIsAnIncrementWhenTheFullOneWasKilled)
{
    machine.backup();
    machine.driver.write(10, 2);
    run(
        [](const char* step) {
            if (std::string{step} == GetParam())
                ::kill(::getppid(), SIGKILL);
        },
        Wanted::full);
    machine.driver.write(20, 2);
    expectBackup(Mode::incremental, 2);
}

INSTANTIATE_TEST_SUITE_P(Steps, ApartKilledAt,
                         testing::Values("begun", "snapshot", "map", "key", "ledger", "handed over"),
                         [](const auto& info) {
                             std::string name = info.param;
                             name.erase(std::remove(name.begin(), name.end(), ' '), name.end());
                             return name;
                         });

TEST_F(Apart, SignalsThatAskARunToEndDoNotReachTheSnapshot)
{
    machine.backup();
    machine.driver.write(10, 2);
    EXPECT_EQ(run([](const char*) {
                  for (const int signal : {SIGTERM, SIGINT, SIGHUP})
                      ::raise(signal);
              }),
              0);
}

TEST_F(Apart, ARunWhoseSnapshotsProcessIsKilledFailsWithThatReason)
{
    machine.backup();
    const int status = run([](const char* step) {
        if (std::string{step} == "snapshot")
            ::raise(SIGKILL);
    });
    EXPECT_EQ(WEXITSTATUS(status), 1);
    EXPECT_EQ(failure(),
              "the backup of sda1 failed: the process that takes the snapshot came to an early end by signal 9 "
              "(Killed). Nothing was kept; the next backup will be a full one");
    expectBackup(Mode::full, Machine::blocks);
}

TEST_F(Apart, AFailureOfTheSnapshotIsToldAsItIsOtherwise)
{
    for (const std::uint32_t command : {QUENDREL_SNAPSHOT, QUENDREL_GET_AUTOMAP_STATE}) {
        machine.driver.before.set([&](std::uint32_t number) {
            if (number == command)
                machine.driver.fail(QUENDREL_STATE_CACHE_EXHAUSTED);
            if (number == command)
                machine.driver.forget();
        });
        std::string text;
        int code = 0;
        try {
            machine.backup();
        } catch (const Failure& failure) {
            text = failure.what();
            code = failure.exitCode();
        }
        EXPECT_NE(text, "");
        EXPECT_EQ(WEXITSTATUS(run({})), code);
        std::string told = failure();
        if (const auto at = told.find(socket.string()); at != std::string::npos)
            told.replace(at, socket.string().size(), "memory");
        EXPECT_EQ(told, text);
    }
}

} // namespace
