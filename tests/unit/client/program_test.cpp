// SPDX-License-Identifier: GPL-2.0-only
// The program itself against a socket with a fake driver behind it: arguments, exit codes, output, signals.
#include "program.h"
#include "run_lock.h"

#include <algorithm>

namespace
{

using namespace test;

TEST_F(Program, FullThenIncrementalThenRestoreThenVerify)
{
    const Result full = backup();
    ASSERT_EQ(full.code, 0) << full.err;
    EXPECT_EQ(full.document()["mode"], "full");
    EXPECT_EQ(full.document()["copiedBlocks"], Machine::blocks);
    machine.driver.write(17, 2);
    const Result inc = backup();
    ASSERT_EQ(inc.code, 0) << inc.err;
    EXPECT_EQ(inc.document()["mode"], "inc");
    EXPECT_EQ(inc.document()["copiedBlocks"], 1);
    EXPECT_EQ(inc.document()["parent"], full.document()["id"]);

    const fs::path image = machine.directory / "image";
    const Result restored = call({"restore", "--from", inc.document()["path"], "--to", image, "--json"});
    ASSERT_EQ(restored.code, 0) << restored.err;
    EXPECT_EQ(restored.document()["chain"], 2);
    EXPECT_EQ(readAll(image), machine.driver.contents());
    EXPECT_EQ(call({"verify", "--from", machine.directory.path()}).code, 0);
    const Result list = call({"list", "--from", machine.directory.path(), "--json"});
    ASSERT_EQ(list.lines().size(), 2u);
    EXPECT_EQ(list.lines()[1]["id"], inc.document()["id"]);
    damage(fs::path{full.document()["path"]} / "data", 100);
    const Result damaged = call({"verify", "--from", machine.directory.path(), "--json"});
    EXPECT_EQ(damaged.code, 5);
    EXPECT_EQ(damaged.lines().at(0)["ok"], false);
}

TEST_F(Program, ARepositoryOfImagesFromItsMakingToARestore)
{
    const fs::path target = machine.directory / "repository";
    const auto backupTo = [&](std::vector<std::string> more = {}) {
        std::vector<std::string> words{"backup", "sda1", "--to", target, "--json", "--host", "tern"};
        words.insert(words.end(), more.begin(), more.end());
        return call(words);
    };
    const Result made = call({"init", target, "--json"});
    ASSERT_EQ(made.code, 0) << made.err;
    EXPECT_EQ(made.document()["id"].get<std::string>().size(), 32u);
    EXPECT_EQ(call({"init", target}).code, 3);

    const Result full = backupTo();
    ASSERT_EQ(full.code, 0) << full.err;
    EXPECT_EQ(full.document()["path"], (target / "tern/sda1" / (full.document()["id"].get<std::string>() + ".qcow2")).string());
    const auto before = machine.driver.contents();
    machine.driver.write(17, 2);
    const Result inc = backupTo({"--mode", "inc"});
    ASSERT_EQ(inc.code, 0) << inc.err;
    EXPECT_EQ(inc.document()["parent"], full.document()["id"]);

    const fs::path image = machine.directory / "image";
    ASSERT_EQ(call({"restore", "--from", target, "--to", image}).code, 0);
    EXPECT_EQ(readAll(image), machine.driver.contents());
    ASSERT_EQ(call({"restore", "--from", target, "--at", full.document()["id"], "--to", image, "--force"}).code, 0);
    EXPECT_EQ(readAll(image), before);
    EXPECT_EQ(call({"list", "--from", target, "--json"}).lines().size(), 2u);
    EXPECT_EQ(call({"verify", "--from", target / "tern"}).code, 0);
    EXPECT_EQ(call({"verify", "--from", inc.document()["path"]}).code, 0);

    EXPECT_EQ(call({"prune", "--from", target}).code, 2);
    const Result told = call({"prune", "--from", target, "--keep-last", "1", "--dry-run", "--json"});
    ASSERT_EQ(told.lines().size(), 2u) << told.err;
    EXPECT_EQ(told.lines()[0]["kept"], false);
    EXPECT_EQ(told.lines()[1]["reasons"], json::array({"last"}));
    ASSERT_EQ(call({"prune", "--from", target, "--keep-last", "1"}).code, 0);
    EXPECT_EQ(call({"list", "--from", target, "--json"}).lines().size(), 1u);
    ASSERT_EQ(call({"restore", "--from", target, "--to", image, "--force"}).code, 0);
    EXPECT_EQ(readAll(image), machine.driver.contents());
    machine.driver.write(18, 2);
    EXPECT_EQ(backupTo().document()["mode"], "inc");
}

TEST_F(Program, ItsWordsAndNumbersAreTheSameInEveryLocale)
{
    const std::string locales = run.path();
    ASSERT_EQ(std::system(("localedef -c -i de_DE -f UTF-8 '" + locales + "/de_DE.UTF-8' >/dev/null 2>&1").c_str()), 0);
    const fs::path target = machine.directory / "repository";
    const fs::path image = machine.directory / "image";
    ASSERT_EQ(call({"init", target}).code, 0);
    ASSERT_EQ(call({"backup", "sda1", "--to", target, "--host", "tern"}).code, 0);
    ASSERT_EQ(call({"restore", "--from", target, "--to", image}).code, 0);
    const auto told = [&] {
        std::vector<std::string> all;
        for (const std::vector<std::string>& words :
             {std::vector<std::string>{"show", "--from", target}, {"show", "--from", target, "--json"}, {"list", "--from", target}, {"-q", "verify", "--from", target},
              {"restore", "--from", target, "--to", image}, {"backup", "sda1", "--to", target, "--limit-rate", "1,5M"}, {"list", "--from", "/nowhere"}}) {
            const Result result = call(words);
            all.push_back(std::to_string(result.code) + result.out + result.err);
        }
        return all;
    };
    const auto plain = told();
    // The C library does not give back what it makes of the first of these.
    environment = {{"LOCPATH", locales}, {"LC_ALL", "de_DE.UTF-8"}, {"LANGUAGE", "de"}, {"ASAN_OPTIONS", "detect_leaks=0"}};
    EXPECT_EQ(told(), plain);
}

TEST_F(Program, AFullBackupIsCompressedWhenThatIsAskedForAndTellsIt)
{
    const fs::path target = machine.directory / "repository";
    ASSERT_EQ(call({"init", target}).code, 0);
    const auto compressed = [&] { return call({"backup", "sda1", "--to", target, "--json", "--host", "tern", "--compress"}).document(); };
    const json full = compressed();
    EXPECT_EQ(full["compressed"], true);
    EXPECT_NE(call({"show", "--from", target}).out.find(" (a compressed image)\n"), std::string::npos);
    machine.driver.write(17, 2);
    const json increment = compressed();
    EXPECT_EQ(increment["mode"], "inc");
    EXPECT_FALSE(increment.contains("compressed"));
    EXPECT_EQ(call({"list", "--from", target, "--json"}).lines()[0]["compressed"], true);
    const fs::path image = machine.directory / "image";
    ASSERT_EQ(call({"restore", "--from", target, "--to", image}).code, 0);
    EXPECT_EQ(readAll(image), machine.driver.contents());
}

TEST_F(Program, AFolderIsNotCompressedAndNothingIsLeftThere)
{
    const fs::path target = machine.directory / "folders";
    fs::create_directory(target);
    const Result result = call({"backup", "sda1", "--to", target, "--compress"});
    EXPECT_EQ(result.code, 3);
    EXPECT_EQ(result.err, "qbackup: " + target.string() + " gets folders, and only images can be compressed; make a repository of images with "
                                                          "'qbackup init', or leave out --compress\n");
    EXPECT_TRUE(fs::is_empty(target));
}

TEST_F(Program, ADryRunTellsWhatABackupWouldBeAndDoesNothing)
{
    const fs::path target = machine.directory / "repository";
    const std::string folder = target / "tern/sda1";
    ASSERT_EQ(call({"init", target}).code, 0);
    const auto told = [&](std::vector<std::string> more = {}) {
        const auto everything = [&] {
            std::vector<std::pair<fs::path, fs::file_time_type>> all;
            for (const auto& entry : fs::recursive_directory_iterator{target})
                all.emplace_back(entry.path(), entry.last_write_time());
            std::ranges::sort(all);
            return all;
        };
        const auto before = everything();
        machine.driver.clearEvents();
        std::vector<std::string> words{"backup", "sda1", "--to", target, "--json", "--host", "tern", "--dry-run"};
        words.insert(words.end(), more.begin(), more.end());
        const Result result = call(words);
        EXPECT_EQ(result.code, 0) << result.err;
        EXPECT_TRUE(everything() == before);
        const auto events = machine.driver.events();
        EXPECT_EQ(std::ranges::count(events, "StartBackup") + std::ranges::count(events, "SnapShot"), 0) << testing::PrintToString(events);
        return result.document();
    };
    json expected{{"ok", true}, {"exit", 0}, {"dryRun", true}, {"device", "sda1"}, {"number", "8:1"}, {"directory", folder}, {"mode", "full"}};
    expected["fullReason"] = "there is no earlier backup in " + folder;
    EXPECT_EQ(told(), expected);

    const auto backupNow = [&] {
        machine.driver.write(17, 2);
        return call({"backup", "sda1", "--to", target, "--json", "--host", "tern"}).document();
    };
    const std::string first = backupNow()["id"];
    expected["fullReason"] = "asked for";
    EXPECT_EQ(told({"--mode", "full"}), expected);
    expected.erase("fullReason");
    expected["mode"] = "inc";
    expected["parent"] = first;
    EXPECT_EQ(told(), expected);
    EXPECT_EQ(backupNow()["mode"], "inc");

    // Not known since when.
    fs::remove_all(run / "ledger");
    const json compared = told();
    EXPECT_EQ(compared["mode"], "inc");
    EXPECT_EQ(compared["comparedBecause"], "what changed since backup " + compared["parent"].get<std::string>() + " is not known");
    EXPECT_EQ(call({"backup", "sda1", "--to", target, "--host", "tern", "--dry-run"}).out,
              "would back up sda1 into " + folder + ": all is read and compared with backup " + compared["parent"].get<std::string>() + ": " +
                  compared["comparedBecause"].get<std::string>() + "\n");
}

TEST_F(Program, ADryRunIsRefusedWhereABackupIs)
{
    EXPECT_EQ(backup({"--dry-run"}).document()["fullReason"], "there is no earlier backup in " + machine.repository().string());
    EXPECT_FALSE(fs::exists(machine.repository()));
    const Result missing = call({"backup", "sda1", "--to", machine.directory / "missing", "--dry-run"});
    EXPECT_EQ(missing.code, 3);
    EXPECT_EQ(missing.err, "qbackup: the target " + (machine.directory / "missing").string() + " is not a directory; create it first\n");
    machine.driver.mounted = false;
    EXPECT_EQ(backup({"--dry-run"}).code, 3);
}

TEST_F(Program, APlaceInsideARepositoryOfImagesIsNoTarget)
{
    const fs::path target = machine.directory / "repository";
    ASSERT_EQ(call({"init", target}).code, 0);
    fs::create_directories(target / "tern/sda1");
    for (const fs::path& inside : {target / "tern", target / "tern/sda1"}) {
        const Result result = call({"backup", "sda1", "--to", inside});
        EXPECT_EQ(result.code, 3);
        EXPECT_EQ(result.err, "qbackup: " + inside.string() + " lies in the repository " + fs::canonical(target).string() + "; name that one\n");
    }
}

TEST_F(Program, FoldersAreImportedAndTheChainGoesOn)
{
    ASSERT_EQ(backup().code, 0);
    machine.driver.write(17, 2);
    ASSERT_EQ(backup().code, 0);
    const fs::path target = machine.directory / "repository";
    EXPECT_EQ(call({"import", machine.repository(), target}).code, 7);
    ASSERT_EQ(call({"init", target}).code, 0);
    const Result imported = call({"import", machine.repository(), target, "--host", "tern", "--json"});
    ASSERT_EQ(imported.code, 0) << imported.err;
    EXPECT_EQ(imported.lines().size(), 2u);
    machine.driver.write(18, 2);
    const Result next = call({"backup", "sda1", "--to", target, "--host", "tern", "--json"});
    ASSERT_EQ(next.code, 0) << next.err;
    EXPECT_EQ(next.document()["mode"], "inc");
    EXPECT_EQ(machine.restored(next.document()["path"].get<std::string>()), machine.driver.contents());
}

// What a client of NBD reads is the disk at the snapshot, and the socket goes with the program.
TEST_F(Program, ABackupIsServedUntilASignalEndsIt)
{
    const fs::path target = machine.directory / "repository";
    const fs::path socket = run / "serve.sock";
    ASSERT_EQ(call({"init", target}).code, 0);
    ASSERT_EQ(call({"backup", "sda1", "--to", target}).code, 0);
    machine.driver.write(17, 2);
    ASSERT_EQ(call({"backup", "sda1", "--to", target}).code, 0);
    const pid_t server = spawn({"serve", "--from", target, "--socket", socket, "--json"});
    std::string uri;
    for (int i = 0; i < 500 && uri.empty(); ++i) {
        std::this_thread::sleep_for(std::chrono::milliseconds{20});
        if (const std::string out = readText(run / "out"); out.ends_with("\n"))
            uri = json::parse(out)["uri"];
    }
    const fs::path raw = machine.directory / "raw";
    const std::string command = "qemu-img convert -O raw '" + uri + "' '" + raw.string() + "'";
    EXPECT_EQ(std::system(command.c_str()), 0) << uri;
    EXPECT_EQ(readAll(raw), machine.driver.contents());
    // As long as it is served, nothing is dropped.
    const std::string prune = std::string{QBACKUP_PROGRAM} + " prune --from '" + target.string() + "' --keep-last 1 2>/dev/null";
    EXPECT_EQ(WEXITSTATUS(std::system(prune.c_str())), 4);
    ::kill(server, SIGTERM);
    EXPECT_EQ(wait(server).code, 0);
    EXPECT_FALSE(fs::exists(socket));
}

TEST_F(Program, HelpAndVersionEndWell)
{
    EXPECT_EQ(call({"--help"}).code, 0);
    EXPECT_NE(call({"backup", "--help"}).out.find("--cache-blocks"), std::string::npos);
    EXPECT_NE(call({"--version"}).out.find("3.1.0"), std::string::npos);
}

TEST_F(Program, BadArgumentsGive2)
{
    EXPECT_EQ(call({}).code, 2);
    EXPECT_EQ(call({"backup"}).code, 2);
    EXPECT_EQ(backup({"--mode", "sometimes"}).code, 2);
    EXPECT_EQ(backup({"--cache-blocks", "0"}).code, 2);
    for (const char* rate : {"fast", "-1", "+1", "99999999999999999999"}) {
        const Result result = backup({std::string{"--limit-rate="} + rate});
        EXPECT_EQ(result.code, 2);
        EXPECT_EQ(result.err.find("qbackup: --limit-rate: '" + std::string{rate} + "' is no number of bytes a second, as 500K or 20M"), 0u) << result.err;
    }
}

TEST_F(Program, ASpoolThatCannotBeUsedIsRefusedBeforeAnythingIsStarted)
{
    const Result result = backup({"--spool", "/nowhere"});
    EXPECT_EQ(result.code, 3);
    EXPECT_EQ(result.err, "qbackup: the spool directory cannot be used: cannot open /nowhere: No such file or directory. Name a directory on a local file system\n");
    EXPECT_FALSE(fs::exists(machine.directory / "sda1"));
}

TEST_F(Program, AnUnknownArgumentIsNamedEvenWhenOthersAreMissing)
{
    EXPECT_EQ(call({"--bogus"}).err, "qbackup: --bogus: unknown option; see qbackup --help\n");
    EXPECT_EQ(call({"bakcup"}).err, "qbackup: bakcup: not expected here; see qbackup --help\n");
    EXPECT_EQ(call({"backup", "--devise=sda1"}).err, "qbackup: --devise: unknown option; see qbackup backup --help\n");
    EXPECT_EQ(call({"backup", "--devise"}).code, 2);
    EXPECT_EQ(call({"backup"}).err, "qbackup: --device is required; see qbackup backup --help\n");
}

TEST_F(Program, BadArgumentsAreToldAsJsonToo)
{
    const Result result = call({"backup", "--json", "--mode", "sometimes", "--device", "sda1", "--to", "/tmp"});
    EXPECT_EQ(result.code, 2);
    EXPECT_EQ(result.document()["exit"], 2);
    EXPECT_EQ("qbackup: " + result.document()["error"].get<std::string>() + "\n", result.err);
}

TEST_F(Program, AResultThatCannotBePrintedIsAFailure)
{
    ASSERT_EQ(backup().code, 0);
    const std::string command = std::string{QBACKUP_PROGRAM} + " list --json --from " + machine.directory.path().string() + " >/dev/full 2>" + (run / "err").string();
    const int status = std::system(command.c_str());
    EXPECT_EQ(WEXITSTATUS(status), 1);
    EXPECT_EQ(readText(run / "err"), "qbackup: what was to be told on standard output could not be written there: "
                                     "No space left on device\n");
}

TEST_F(Program, SeveralDevicesAreBackedUpOneAfterTheOtherAndAFailureKeepsNoneFromIt)
{
    const Result result = call({"backup", "sdz1", "sda1", "sda", "--to", machine.directory.path(), "--json"});
    EXPECT_EQ(result.code, 3);
    ASSERT_EQ(result.lines().size(), 3u);
    EXPECT_EQ(result.lines()[0]["exit"], 3);
    EXPECT_EQ(result.lines()[1]["device"], "sda1");
    EXPECT_EQ(result.lines()[2]["exit"], 3);
}

TEST_F(Program, ARunThatWaitsBeginsWhenTheOneBeforeItHasEnded)
{
    holdAtRead(2);
    const pid_t first = spawn({"backup", "--device", "sda1", "--to", machine.directory.path()});
    waitHeld();
    EXPECT_EQ(backup({"--wait=1"}).code, 4);
    std::thread later{[this] {
        std::this_thread::sleep_for(std::chrono::milliseconds{500});
        release();
    }};
    const Result second = backup({"--wait"});
    later.join();
    EXPECT_EQ(second.code, 0) << second.err;
    EXPECT_EQ(wait(first).code, 0);
    EXPECT_EQ(namesIn(machine.repository()).size(), 2u);
}

TEST_F(Program, AFailedFirstBackupLeavesNoFolder)
{
    machine.driver.mounted = false;
    EXPECT_EQ(backup().code, 3);
    EXPECT_FALSE(fs::exists(machine.repository()));
}

TEST_F(Program, RefusalsGive3WithAReason)
{
    Result result = call({"backup", "--device", "sda", "--to", machine.directory.path(), "--json"});
    EXPECT_EQ(result.code, 3);
    EXPECT_NE(result.err.find("whole disk with partitions"), std::string::npos) << result.err;
    EXPECT_EQ(result.document()["ok"], false);
    EXPECT_EQ(result.document()["exit"], 3);
    result = call({"backup", "--device", "sdz1", "--to", machine.directory.path()});
    EXPECT_EQ(result.code, 3);
    EXPECT_NE(result.err.find("sda1"), std::string::npos);
    EXPECT_EQ(call({"backup", "--device", "sda1", "--to", machine.directory / "missing"}).code, 3);
    EXPECT_EQ(call({"backup", "--control", "/nonexistent", "--device", "sda1", "--to", "/tmp"}).code, 3);
    EXPECT_TRUE(machine.driver.events().empty());
}

TEST_F(Program, FallbackIsSaidOnStandardError)
{
    const Result result = backup({"--mode", "inc", "--quiet"});
    EXPECT_EQ(result.code, 6);
    EXPECT_EQ(result.document()["exit"], 6);
    EXPECT_EQ(result.document()["ok"], true);
    EXPECT_NE(result.err.find("full backup instead of an incremental"), std::string::npos) << result.err;
    EXPECT_NE(result.err.find("no earlier backup"), std::string::npos) << result.err;
    EXPECT_EQ(result.document()["fellBack"], true);
}

TEST_F(Program, SecondRunIsToldOfTheFirstAndNeverOpensTheDevice)
{
    holdAtRead(2);
    const pid_t first = spawn({"backup", "--device", "sda1", "--to", machine.directory.path()});
    waitHeld();
    const int before = server.connections;
    ::rename((run / "out").c_str(), (run / "out1").c_str());
    const Result second = backup();
    EXPECT_EQ(second.code, 4);
    EXPECT_NE(second.err.find("process " + std::to_string(first)), std::string::npos) << second.err;
    const Result status = call({"status", "--json"});
    EXPECT_EQ(status.code, 0);
    EXPECT_NE(status.document()["running"].get<std::string>().find("backup of sda1"), std::string::npos);
    EXPECT_EQ(server.connections, before);
    release();
    EXPECT_EQ(wait(first).code, 0);
}

TEST_F(Program, StatusShowsDriverDevicesAndLastBackup)
{
    backup();
    const Result status = call({"status", "--to", machine.directory.path(), "--json"});
    ASSERT_EQ(status.code, 0) << status.err;
    const json document = status.document();
    EXPECT_EQ(document["driver"], "3.1");
    EXPECT_TRUE(document["running"].is_null());
    EXPECT_EQ(document["devices"][1]["name"], "sda1");
    EXPECT_EQ(document["devices"][1]["blockSize"], 1024);
    EXPECT_EQ(document["lastBackups"].size(), 1u);
    EXPECT_NE(call({"status"}).out.find("no backup is running"), std::string::npos);
}

TEST_F(Program, TerminationGives143AndLeavesNothing)
{
    for (const int signal : {SIGTERM, SIGINT}) {
        held = false;
        holdAtRead(2);
        const pid_t child = spawn({"backup", "--device", "sda1", "--to", machine.directory.path()});
        waitHeld();
        ::kill(child, signal);
        release();
        const Result result = wait(child);
        EXPECT_EQ(result.code, 128 + signal) << result.err;
        EXPECT_NE(result.err.find("interrupted"), std::string::npos);
        EXPECT_TRUE(namesIn(machine.repository()).empty());
        EXPECT_FALSE(machine.driver.isOpen());
    }
}

TEST_F(Program, KilledRunLeavesNoBackupAndTheNextOneWorks)
{
    ASSERT_EQ(backup().code, 0);
    for (std::uint32_t block = 0; block < Machine::blocks; block += 2)
        machine.driver.write(block, 4);
    holdAtRead(2);
    const pid_t child = spawn({"backup", "--device", "sda1", "--to", machine.directory.path()});
    waitHeld();
    ::kill(child, SIGKILL);
    EXPECT_EQ(wait(child).code, 1000 + SIGKILL);
    release();
    EXPECT_EQ(namesIn(machine.repository()).size(), 2u); // the first backup and what the dead run left
    machine.driver.before.set({});
    const Result next = backup();
    ASSERT_EQ(next.code, 0) << next.err;
    EXPECT_EQ(next.document()["mode"], "full");
    EXPECT_EQ(namesIn(machine.repository()).size(), 2u);
    EXPECT_EQ(machine.restored(next.document()["path"].get<std::string>()), machine.driver.contents());
}

TEST_F(Program, DaemonThatDiesFailsTheBackup)
{
    server.instead_of = quendrel::wire::Kind::mmap;
    server.instead.set([](const quendrel::wire::Request&) { return std::vector<std::byte>{}; });
    const Result result = backup();
    EXPECT_EQ(result.code, 1);
    EXPECT_NE(result.err.find("daemon ended the connection"), std::string::npos) << result.err;
    EXPECT_TRUE(namesIn(machine.repository()).empty());
}

} // namespace
