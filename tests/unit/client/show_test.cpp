// SPDX-License-Identifier: GPL-2.0-only
// The commands that show something: of a backup, of two, of the devices.
#include "program.h"

namespace
{

using namespace test;

class Show : public Program
{
  protected:
    Show() { EXPECT_EQ(call({"init", target}).code, 0); }
    json image(std::vector<std::string> more = {})
    {
        std::vector<std::string> words{"backup", "sda1", "--to", target, "--json", "--host", "tern"};
        words.insert(words.end(), more.begin(), more.end());
        return call(words).document();
    }
    fs::path target = machine.directory / "repository";
};

TEST_F(Show, AnImageTellsWhatItHoldsWhatItRestsOnAndWhatRestsOnIt)
{
    const json full = image();
    machine.driver.write(17, 2);
    machine.driver.write(1000, 2);
    const json second = image();
    machine.driver.write(18, 2);
    const json third = image();
    const Result shown = call({"show", target, "--at", second["id"], "--json"});
    ASSERT_EQ(shown.code, 0) << shown.err;
    const json document = shown.document();
    EXPECT_EQ(document["id"], second["id"]);
    EXPECT_EQ(document["mode"], "inc");
    EXPECT_EQ(document["parent"], full["id"]);
    EXPECT_EQ(document["chain"], json::array({full["id"], second["id"]}));
    EXPECT_EQ(document["usedBy"], json::array({third["id"]}));
    EXPECT_EQ(document["ranges"], 2);
    EXPECT_EQ(document["heldDataBytes"], 8192);
    EXPECT_EQ(document["heldZeroBytes"], 0);
    EXPECT_GE(document["allocatedBytes"], 8192);
    EXPECT_EQ(document["host"]["name"], "tern");
    EXPECT_EQ(document["sequence"], 2);
    EXPECT_EQ(document["trackingKey"].get<std::string>().size(), 112u);
    EXPECT_GT(document["seconds"], 0);
}

TEST_F(Show, AFolderTellsTheSame)
{
    const json full = backup().document();
    machine.driver.write(17, 2);
    machine.driver.write(19, 2);
    const json inc = backup().document();
    const json document = call({"show", inc["path"], "--json"}).document();
    EXPECT_EQ(document["chain"], json::array({full["id"], inc["id"]}));
    EXPECT_EQ(document["usedBy"], json::array());
    EXPECT_EQ(document["ranges"], 2);
    EXPECT_EQ(document["heldDataBytes"], 2 * Machine::block_size);
    EXPECT_FALSE(document.contains("host"));
    EXPECT_EQ(call({"show", full["path"], "--json"}).document()["usedBy"], json::array({inc["id"]}));
}

TEST_F(Show, ToldToPeopleItNamesWhyABackupIsFull)
{
    const json full = image({"--mode", "full"});
    const Result shown = call({"show", "--from", target});
    ASSERT_EQ(shown.code, 0) << shown.err;
    EXPECT_NE(shown.out.find("\nmode        full: asked for\n"), std::string::npos) << shown.out;
    EXPECT_NE(shown.out.find("\nrests on    nothing but itself\n"), std::string::npos) << shown.out;
    EXPECT_NE(shown.out.find("\ncarries     nothing\n"), std::string::npos) << shown.out;
}

TEST_F(Show, WithABrokenChainItIsDamaged)
{
    const json full = image();
    machine.driver.write(17, 2);
    image();
    fs::remove(fs::path{full["path"]}.replace_extension(".json"));
    EXPECT_EQ(call({"show", target}).code, 5);
}

using Diff = Show;

TEST_F(Diff, NamesTheRangesOfTwoIdsOfAFolder)
{
    const json a = image();
    machine.driver.write(17, 2);
    const json b = image();
    const Result result = call({"diff", a["id"], b["id"], "--from", target, "--ranges", "--json"});
    ASSERT_EQ(result.code, 0) << result.err;
    ASSERT_EQ(result.lines().size(), 2u);
    EXPECT_EQ(result.lines()[0], (json{{"offset", 17 * 1024}, {"bytes", 1024}}));
    EXPECT_EQ(result.lines()[1]["differentBytes"], 1024);
    EXPECT_EQ(result.lines()[1]["ranges"], 1);
}

TEST_F(Diff, OfPathsDrawsTheDisk)
{
    const json a = image();
    machine.driver.write(0, 2);
    const json b = image();
    const Result result = call({"diff", a["path"], b["path"]});
    ASSERT_EQ(result.code, 0) << result.err;
    EXPECT_NE(result.out.find(" differ in 1.0 KiB of 2.9 MiB, in 1 range\n"), std::string::npos) << result.out;
    EXPECT_NE(result.out.find("\n       0 B  -......"), std::string::npos) << result.out;
}

TEST_F(Diff, OfOneBackupWithItselfSaysThatTheyAreTheSame)
{
    const json a = image();
    const Result result = call({"diff", a["path"], a["path"]});
    EXPECT_EQ(result.code, 0);
    EXPECT_NE(result.out.find(" show the same 2.9 MiB\n"), std::string::npos) << result.out;
}

TEST_F(Diff, OfWhatIsNotThereSaysSo)
{
    EXPECT_EQ(call({"diff", target / "tern/sda1/000009-20261121T111641Z", target}).code, 7);
}

using Devices = Program;

TEST_F(Devices, AreThoseOfTheDaemonWithWhatIsKnownOfTheirTracking)
{
    json before = call({"devices", "--json"}).lines().at(1);
    EXPECT_EQ(before["name"], "sda1");
    EXPECT_EQ(before["number"], "8:1");
    EXPECT_EQ(before["type"], "ext4");
    EXPECT_EQ(before["tracked"], false);
    EXPECT_FALSE(before.contains("lastSnapshot"));
    const json taken = backup().document();
    const json after = call({"devices", "--json"}).lines().at(1);
    EXPECT_EQ(after["tracked"], true);
    EXPECT_EQ(after["lastSnapshot"].get<std::string>().substr(0, 10), taken["time"].get<std::string>().substr(0, 10));
}

TEST_F(Devices, ThatCannotBeBackedUpSayWhy)
{
    const json whole = call({"devices", "--json"}).lines().at(0);
    EXPECT_EQ(whole["name"], "sda");
    EXPECT_NE(whole["problem"].get<std::string>().find("whole disk with partitions"), std::string::npos);
}

TEST_F(Devices, AreShownWhileABackupRunsAndTheDriverIsNotAsked)
{
    holdAtRead(2);
    const pid_t running = spawn({"backup", "--device", "sda1", "--to", machine.directory.path()});
    waitHeld();
    const int before = server.connections;
    EXPECT_EQ(call({"devices"}).code, 0);
    EXPECT_EQ(call({"ledger"}).code, 0);
    EXPECT_EQ(server.connections, before);
    release();
    EXPECT_EQ(wait(running).code, 0);
}

TEST_F(Devices, WhoseInstanceIsAnotherAreNotTracked)
{
    ASSERT_EQ(backup().code, 0);
    std::string disks = readText(run / "disks.json");
    disks.insert(disks.find("\"name\":\"sda1\""), "\"instance\":\"another\",");
    std::ofstream{run / "disks.json"} << disks;
    EXPECT_EQ(call({"devices", "--json"}).lines().at(1)["tracked"], false);
    EXPECT_EQ(call({"ledger", "--json"}).document()["goesOn"], false);
}

using LedgerShown = Program;

TEST_F(LedgerShown, HasAnEntryForEachSnapshotWithWhatHasChanged)
{
    EXPECT_EQ(call({"ledger", "--json"}).out, "");
    ASSERT_EQ(backup().code, 0);
    machine.driver.write(17, 2);
    machine.driver.write(20, 2);
    ASSERT_EQ(backup().code, 0);
    machine.driver.write(21, 2);
    const json last = backup().document();
    const Result shown = call({"ledger", "--json"});
    ASSERT_EQ(shown.code, 0) << shown.err;
    const json document = shown.document();
    EXPECT_EQ(document["device"], "sda1");
    EXPECT_EQ(document["goesOn"], true);
    ASSERT_EQ(document["entries"].size(), 2u);
    EXPECT_EQ(document["entries"][0]["changedBlocks"], 2);
    EXPECT_EQ(document["entries"][1]["changedBlocks"], 1);
    EXPECT_EQ(document["entries"][0]["to"], document["entries"][1]["from"]);
    EXPECT_EQ(document["entries"][1]["to"], document["newest"]);
    EXPECT_EQ(document["newest"], call({"show", last["path"], "--json"}).document()["trackingKey"]);
    EXPECT_EQ(document["entries"][1]["time"].get<std::string>().size(), 20u);
    EXPECT_GT(document["entries"][1]["bytes"], 0);
    EXPECT_NE(call({"ledger", "--device", "sda1"}).out.find("2 of 2999 blocks changed"), std::string::npos);
    EXPECT_NE(call({"ledger", "--device", "sda"}).out.find("no snapshot of sda is known"), std::string::npos);
}

} // namespace
