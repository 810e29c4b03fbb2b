// SPDX-License-Identifier: GPL-2.0-only
// Jobs, run by the program itself against a socket with a fake driver behind it.
#include "program.h"

#include <sys/stat.h>

namespace
{

using namespace test;

class Run : public Program
{
  protected:
    Run()
    {
        EXPECT_EQ(call({"init", target}).code, 0);
        fs::create_directory(folders);
    }

    // The configuration: job nightly of sda1 to the repository of images, with these lines more.
    void write(const std::string& more = {}, const std::string& devices = R"("sda1")")
    {
        std::ofstream{config, std::ios::trunc} << "[job.nightly]\nhost = \"tern\"\ndevices = [" << devices
                                               << "]\ntarget = \"" << target.string() << "\"\n"
                                               << more << "\n";
        fs::permissions(config, fs::perms{0600});
    }
    static std::string shell(const std::string& script) { return "[\"sh\", \"-c\", '''" + script + "''']\n"; }
    // A command that adds a line to `log`.
    std::string noting(const std::string& what) { return shell("echo \"" + what + "\" >>" + log.string()); }
    std::string noted() const { return fs::exists(log) ? readText(log) : ""; }

    Result job(std::vector<std::string> more = {})
    {
        std::vector<std::string> words{"run", "nightly", "--config", config, "--json"};
        words.insert(words.end(), more.begin(), more.end());
        machine.driver.write(block++, 9);
        return call(words);
    }
    std::size_t stored(const std::string& device = "tern/sda1") const
    {
        return fs::exists(target / device) ? Repository{target / device}.backups().size() : 0;
    }
    std::size_t snapshots() const
    {
        const auto events = machine.driver.events();
        return static_cast<std::size_t>(std::count(events.begin(), events.end(), "SnapShot"));
    }

    fs::path target = machine.directory / "repository";
    fs::path folders = machine.directory / "folders";
    fs::path config = run / "qbackup.toml";
    fs::path log = run / "log";
    std::uint32_t block = 100;
};

TEST_F(Run, AJobBacksUpItsDevicesAndTellsOfIt)
{
    write();
    const Result full = job();
    ASSERT_EQ(full.code, 0) << full.err;
    EXPECT_EQ(full.document()["job"], "nightly");
    EXPECT_EQ(full.document()["mode"], "full");
    const Result inc = job();
    ASSERT_EQ(inc.code, 0) << inc.err;
    EXPECT_EQ(inc.document()["mode"], "inc");
    EXPECT_EQ(inc.document()["path"].get<std::string>().find((target / "tern/sda1").string()), 0u);
    EXPECT_EQ(machine.restored(inc.document()["path"].get<std::string>()), machine.driver.contents());
}

TEST_F(Run, ADeviceThatFailsKeepsNoOtherFromBeingBackedUp)
{
    write({}, R"("sdz1", "sda1")");
    const Result result = job();
    EXPECT_EQ(result.code, 3);
    ASSERT_EQ(result.lines().size(), 2u);
    EXPECT_EQ(result.lines()[0]["exit"], 3);
    EXPECT_EQ(result.lines()[1]["device"], "sda1");
}

TEST_F(Run, AJobThatFailsKeepsNoOtherFromBeingRun)
{
    write();
    std::ofstream{config, std::ios::app}
        << "[job.broken]\ndevices = [\"sda1\"]\ntarget = \"/nonexistent/target\"\nkeep = { last = 1 }\n";
    const Result result = call({"run", "broken", "nightly", "--config", config, "--json"});
    EXPECT_EQ(result.code, 3);
    ASSERT_EQ(result.lines().size(), 2u);
    EXPECT_EQ(result.lines()[1]["job"], "nightly");
}

TEST_F(Run, NothingIsStartedWhenAnyJobOfTheFileIsWrong)
{
    write();
    std::ofstream{config, std::ios::app} << "[job.other]\ndevises = [\"sda1\"]\n";
    const Result result = job();
    EXPECT_EQ(result.code, 2);
    EXPECT_EQ(result.err, "qbackup: " + config.string() +
                              ":7:1: job other has the key 'devises', which is not known; known are after, all-blocks, "
                              "before, cache-blocks, compress, control, devices, host, keep, "
                              "limit-rate, mode, spool, target, timeout, wait\n");
    EXPECT_TRUE(machine.driver.events().empty());
    EXPECT_EQ(stored(), 0u);
}

TEST_F(Run, AJobThatIsNotThereIsToldWithThoseThatAre)
{
    write();
    std::ofstream{config, std::ios::app} << "[job.a]\ndevices = [\"sda1\"]\ntarget = \"/b\"\n";
    const Result result = call({"run", "nightly", "nigthly", "--config", config});
    EXPECT_EQ(result.code, 2);
    EXPECT_EQ(result.err, "qbackup: there is no job nigthly in " + config.string() + "; there are a, nightly\n");
    EXPECT_TRUE(machine.driver.events().empty());
    EXPECT_EQ(call({"run", "--config", config}).err, "qbackup: JOB is required; 'qbackup run --list' shows them\n");
}

TEST_F(Run, JobsAreListed)
{
    write("keep = { daily = 14, monthly = 12 }\nbefore = [\"freeze\", \"it\"]", R"("sda1", "sdb1")");
    const Result text = call({"run", "--list", "--config", config});
    EXPECT_EQ(text.code, 0) << text.err;
    EXPECT_EQ(text.out, "nightly: sda1 sdb1 to " + target.string() + ", keeping daily 14, monthly 12\n");
    const json document = call({"run", "--list", "--config", config, "--json"}).document();
    EXPECT_EQ(document, (json{{"ok", true},
                              {"job", "nightly"},
                              {"devices", {"sda1", "sdb1"}},
                              {"target", target.string()},
                              {"mode", "auto"},
                              {"wait", 0},
                              {"host", "tern"},
                              {"before", {"freeze", "it"}},
                              {"after", json::array()},
                              {"timeout", 60},
                              {"keep", {{"daily", 14}, {"monthly", 12}}}}));
    EXPECT_TRUE(machine.driver.events().empty());
}

TEST_F(Run, FlagsGoBeforeTheEnvironmentAndThatBeforeTheFile)
{
    write("mode = \"full\"\nwait = 1");
    const auto listed = [&](std::vector<std::string> more) {
        std::vector<std::string> words{"run", "--list", "nightly", "--json"};
        words.insert(words.end(), more.begin(), more.end());
        const json document = call(words).document();
        return document["target"].get<std::string>() + " " + document["mode"].get<std::string>() + " " +
               document["wait"].dump();
    };
    environment["QBACKUP_CONFIG"] = config;
    EXPECT_EQ(listed({}), target.string() + " full 1");
    environment.insert({{"QBACKUP_TO", "/env"}, {"QBACKUP_MODE", "inc"}, {"QBACKUP_WAIT", "2"}});
    EXPECT_EQ(listed({}), "/env inc 2");
    EXPECT_EQ(listed({"--to", "/flag", "--mode", "auto", "--wait=3"}), "/flag auto 3");
    environment["QBACKUP_CONFIG"] = "/nonexistent";
    EXPECT_EQ(listed({"--config", config}), "/env inc 2");
}

TEST_F(Run, ATargetThatIsGivenIsTheOneThatIsUsed)
{
    write();
    const Result result = job({"--to", folders, "--mode", "inc"});
    EXPECT_EQ(result.code, 6) << result.err;
    EXPECT_EQ(namesIn(folders / "sda1").size(), 1u);
    EXPECT_EQ(stored(), 0u);
}

TEST_F(Run, TheControlDeviceIsTheJobsUnlessItIsGiven)
{
    const std::string socket = run / "control.sock";
    write("control = \"" + socket + "\"");
    givesControl = false;
    EXPECT_EQ(job().code, 0);
    environment["QUENDREL_CONTROL"] = "/nonexistent/environment";
    EXPECT_NE(job().err.find("/nonexistent/environment"), std::string::npos);
    write("control = \"/nonexistent/file\"");
    EXPECT_EQ(job({"--control", socket}).code, 0);
    environment["QUENDREL_CONTROL"] = socket;
    EXPECT_EQ(job().code, 0);
}

// ---- what is kept

TEST_F(Run, WhatAJobDoesNotKeepIsDroppedBehindTheBackup)
{
    write();
    ASSERT_EQ(job().code, 0);
    ASSERT_EQ(job().code, 0);
    EXPECT_EQ(stored(), 2u);
    write("keep = { last = 2 }");
    const Result result = job();
    ASSERT_EQ(result.code, 0) << result.err;
    ASSERT_EQ(result.lines().size(), 4u);
    EXPECT_EQ(result.lines()[1]["kept"], false);
    EXPECT_EQ(result.lines()[2]["kept"], true);
    EXPECT_EQ(result.lines()[3]["id"], result.lines()[0]["id"]);
    EXPECT_EQ(stored(), 2u);
    EXPECT_EQ(machine.restored(result.lines()[0]["path"].get<std::string>()), machine.driver.contents());
}

TEST_F(Run, OnlyWhatBelongsToTheJobsDevicesOfThisHostIsDropped)
{
    for (const std::string host : {"gull", "tern"})
        for (int i = 0; i < 2; ++i) {
            machine.driver.write(block++, 3);
            ASSERT_EQ(call({"backup", "sda1", "--to", target, "--host", host}).code, 0);
        }
    fs::copy(target / "tern/sda1", target / "tern/sdb1", fs::copy_options::recursive);
    std::ofstream{target / "tern/sdb1/device.json"} << R"({"name":"sdb1","identity":{"served":"another"}})";
    write("keep = { last = 1 }");
    const Result result = job();
    ASSERT_EQ(result.code, 0) << result.err;
    EXPECT_EQ(stored("tern/sda1"), 1u);
    EXPECT_EQ(stored("tern/sdb1"), 2u);
    EXPECT_EQ(stored("gull/sda1"), 2u);
}

TEST_F(Run, NothingIsDroppedOfADeviceWhoseBackupFailed)
{
    write();
    ASSERT_EQ(job().code, 0);
    ASSERT_EQ(job().code, 0);
    write("keep = { last = 1 }\nbefore = " + shell("exit 1"));
    EXPECT_EQ(job().code, 1);
    EXPECT_EQ(stored(), 2u);
}

TEST_F(Run, ADropThatFailsIsTheJobsFailure)
{
    write();
    ASSERT_EQ(job().code, 0);
    const auto backups = Repository{target / "tern/sda1"}.backups();
    ASSERT_EQ(job().code, 0);
    damage(fs::path{backups[0].path}.replace_extension("json"), 3);
    write("keep = { last = 1 }");
    const Result result = job();
    EXPECT_EQ(result.code, 5) << result.err;
    EXPECT_EQ(result.lines()[0]["ok"], true);
}

TEST_F(Run, KeepingIsRefusedWhereNothingCanBeDropped)
{
    write("keep = { last = 1 }");
    const Result result = job({"--to", folders});
    EXPECT_EQ(result.code, 3);
    EXPECT_EQ(result.err, "qbackup: " + folders.string() +
                              " is no repository of images, and only from one can backups be dropped: make one "
                              "('qbackup init'), or take 'keep' out of job nightly\n");
    EXPECT_TRUE(machine.driver.events().empty());
}

// ---- commands

TEST_F(Run, CommandsAreRunAroundTheSnapshotWithTheirEnvironment)
{
    write("before = " + noting("before $QBACKUP_JOB $QBACKUP_DEVICE") +
          "after = " + noting("after $QBACKUP_JOB $QBACKUP_DEVICE"));
    std::size_t between = 0;
    machine.driver.before.set([&](std::uint32_t command) {
        if (command == QUENDREL_SNAPSHOT)
            between += noted() == "before nightly sda1\n";
        if (command == QUENDREL_LOAD_BLOCK_MAP)
            between += 10 * (noted() == "before nightly sda1\nafter nightly sda1\n");
    });
    const Result result = job();
    machine.driver.before.set({});
    EXPECT_EQ(result.code, 0) << result.err;
    EXPECT_EQ(between, 11u);
    EXPECT_EQ(noted(), "before nightly sda1\nafter nightly sda1\n");
}

TEST_F(Run, WhatCommandsPrintGoesToStandardError)
{
    write("before = " + shell("echo one; echo two >&2") + "after = " + shell("echo three"));
    const Result result = job({"--quiet"});
    EXPECT_EQ(result.code, 0);
    EXPECT_EQ(result.err, "one\ntwo\nthree\n");
    EXPECT_EQ(result.lines().size(), 1u);
}

TEST_F(Run, CommandsGetNothingOfWhatTheRunHasOpen)
{
    // Beside what this test has got from whoever started it.
    const auto open = [](const std::string& pid) {
        return "for f in /proc/" + pid + "/fd/*; do readlink $f || :; done";
    };
    write("before = " + shell(open("$$") + " >" + log.string()));
    EXPECT_EQ(std::system((open(std::to_string(::getpid())) + " >" + (run / "own").string()).c_str()), 0);
    EXPECT_EQ(job().code, 0);
    const std::string own = readText(run / "own");
    std::istringstream theirs{noted()};
    std::vector<std::string> added;
    for (std::string place; std::getline(theirs, place);)
        if (own.find(place) == std::string::npos && place != "/dev/null" && place != run / "err" && place != log)
            added.push_back(place);
    EXPECT_EQ(added, std::vector<std::string>{});
}

TEST_F(Run, ACommandThatFailsBeforeTheSnapshotFailsTheBackup)
{
    write("before = " + shell("exit 3") + "after = " + noting("after"));
    const Result result = job();
    EXPECT_EQ(result.code, 1);
    EXPECT_EQ(result.document()["error"],
              "the backup of sda1 failed: the command before its snapshot, 'sh -c exit 3', ended with exit code 3. No "
              "snapshot was taken, and nothing was kept");
    EXPECT_EQ(snapshots(), 0u);
    EXPECT_FALSE(fs::exists(target / "tern/sda1"));
    EXPECT_EQ(noted(), "after\n");
    EXPECT_FALSE(machine.driver.isOpen());
}

TEST_F(Run, ACommandThatIsTooSlowFailsTheBackup)
{
    write("timeout = 1\nbefore = " + shell("sleep 60") + "after = " + noting("after"));
    const Result result = job();
    EXPECT_EQ(result.code, 1);
    EXPECT_NE(result.err.find("took longer than 1 s and was ended"), std::string::npos) << result.err;
    EXPECT_EQ(noted(), "after\n");
}

TEST_F(Run, ACommandThatCannotBeStartedIsNotFollowedByTheOther)
{
    const fs::path broken = run / "broken";
    std::ofstream{broken} << "#!/nonexistent/interpreter\n";
    fs::permissions(broken, fs::perms{0700});
    write("before = [\"" + broken.string() + "\"]\nafter = " + noting("after"));
    const Result result = job();
    EXPECT_EQ(result.code, 1);
    EXPECT_NE(result.err.find("cannot start " + broken.string()), std::string::npos) << result.err;
    EXPECT_EQ(noted(), "");
}

TEST_F(Run, ACommandThatFailsBehindTheSnapshotIsAWarning)
{
    write("after = " + shell("exit 3"));
    const Result result = job({"--quiet"});
    EXPECT_EQ(result.code, 6);
    EXPECT_EQ(result.document()["exit"], 6);
    EXPECT_EQ(result.document()["ok"], true);
    EXPECT_EQ(
        result.document()["warning"],
        "the command after the snapshot of sda1, 'sh -c exit 3', ended with exit code 3; what it was to let go on "
        "may stand still");
    EXPECT_EQ(result.err, "qbackup: warning: " + result.document()["warning"].get<std::string>() + "\n");
    EXPECT_EQ(stored(), 1u);
}

TEST_F(Run, TheCommandBehindTheSnapshotIsRunWhenThatFails)
{
    write("before = " + noting("before") + "after = " + noting("after"));
    machine.driver.before.set([&](std::uint32_t command) {
        if (command == QUENDREL_SNAPSHOT)
            machine.driver.fail(QUENDREL_STATE_CACHE_EXHAUSTED);
    });
    EXPECT_EQ(job().code, 1);
    EXPECT_EQ(noted(), "before\nafter\n");
}

TEST_F(Run, TheCommandBehindTheSnapshotIsRunWhenASignalEndsTheOneBeforeIt)
{
    write("before = " + shell("echo before >>" + log.string() + "; exec sleep 60") + "after = " + noting("after"));
    const pid_t child = spawn({"run", "nightly", "--config", config});
    for (int i = 0; i < 2000 && noted().empty(); ++i)
        std::this_thread::sleep_for(std::chrono::milliseconds{5});
    ::kill(child, SIGTERM);
    EXPECT_EQ(wait(child).code, 143);
    EXPECT_EQ(noted(), "before\nafter\n");
    EXPECT_EQ(snapshots(), 0u);
    EXPECT_FALSE(fs::exists(target / "tern/sda1"));
}

TEST_F(Run, TheCommandBehindTheSnapshotIsRunWhenASignalComesInTheSnapshot)
{
    write("after = " + shell("sleep 0.3; echo after >>" + log.string()));
    holdAt(QUENDREL_SNAPSHOT, 1);
    const pid_t child = spawn({"run", "nightly", "--config", config});
    waitHeld();
    ::kill(child, SIGINT);
    release();
    EXPECT_EQ(wait(child).code, 130);
    EXPECT_EQ(noted(), "after\n");
}

TEST_F(Run, NoCommandIsRunForABackupThatIsRefused)
{
    machine.driver.mounted = false;
    write("before = " + noting("before") + "after = " + noting("after"));
    EXPECT_EQ(job().code, 3);
    EXPECT_EQ(noted(), "");
}

TEST_F(Run, ACommandThatIsNotThereIsRefusedBeforeAnythingIsStarted)
{
    write("before = " + noting("before") + "after = [\"no-such-command\"]");
    Result result = job();
    EXPECT_EQ(result.code, 3);
    EXPECT_EQ(result.document()["error"], "there is no command no-such-command in PATH");
    write("after = [\"/etc/passwd\"]");
    result = job();
    EXPECT_EQ(result.code, 3);
    EXPECT_EQ(result.document()["error"], "there is no command /etc/passwd, or this user may not run it");
    EXPECT_EQ(noted(), "");
    EXPECT_TRUE(machine.driver.events().empty());
}

TEST_F(Run, CommandsInAFileThatOthersMayWriteAreNotRun)
{
    write("before = " + noting("before"));
    fs::permissions(config, fs::perms{0620});
    EXPECT_EQ(job().code, 3);
    EXPECT_EQ(noted(), "");
}

} // namespace
