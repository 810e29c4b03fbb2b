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

} // namespace
