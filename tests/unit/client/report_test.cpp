// SPDX-License-Identifier: GPL-2.0-only
// The page that draws backups: what it says, and that nothing in it comes from elsewhere.
#include "report.h"

#include "backup_contents.h"
#include "prune.h"
#include "program.h"

namespace
{

using namespace test;

class Report : public testing::Test
{
  protected:
    Report() { machine.images = true; }
    std::uint64_t dataBytes() const
    {
        std::uint64_t bytes = 0;
        for (const StoredBackup& backup : Repository{machine.repository()}.backups()) {
            const auto extents = extentsOf(backup);
            for (auto extent = extents->next(); extent; extent = extents->next())
                bytes += extent->zeros ? 0 : extent->bytes;
        }
        return bytes;
    }
    Machine machine;
};

TEST_F(Report, SaysOfEachBackupWhichPartsOfTheDiskItHolds)
{
    machine.backup();
    machine.driver.write(2998, 2);
    machine.backup();
    const DeviceReport report = reportOf(machine.repository(), {});
    ASSERT_EQ(report.backups.size(), 2u);
    EXPECT_FLOAT_EQ(report.backups[1].written[0], 0);
    EXPECT_FLOAT_EQ(report.backups[1].written[94], 0);
    EXPECT_NEAR(report.backups[1].written[95], 3072.0 * 96 / (2999 * 1024),
                0.01); // the last granule, up to the end of the disk
    EXPECT_GT(report.backups[0].allocated, 0u);
    EXPECT_EQ(report.device, "sda1");
    EXPECT_FALSE(report.freed);
}

TEST_F(Report, TellsWhatAPruneWouldFreeAndThePruneDoesThat)
{
    machine.backup();
    for (unsigned i = 0; i < 4; ++i) {
        machine.driver.write(17, 2 + i);      // again and again: but for the last one it goes
        machine.driver.write(100 + 8 * i, 2); // once: it stays
        machine.backup();
    }
    const KeepRules rules{.last = 2};
    const DeviceReport report = reportOf(machine.repository(), rules);
    EXPECT_FALSE(report.backups[2].kept);
    EXPECT_TRUE(report.backups[3].kept);
    const std::uint64_t before = dataBytes();
    Progress progress{Progress::Style::none};
    pruneBackups(machine.repository(), rules, false, {}, progress, machine.stop);
    EXPECT_EQ(report.freed, before - dataBytes());
    EXPECT_GT(*report.freed, 0u);
}

TEST_F(Report, TellsOfDamagedBackups)
{
    const StoredBackup backup = machine.backup().backup;
    fs::remove(fs::path{backup.path}.replace_extension(".json"));
    const std::string page = htmlOf({reportOf(machine.repository(), {})}, "Backups");
    EXPECT_NE(page.find("Damaged:"), std::string::npos);
    EXPECT_NE(page.find("There is no readable backup."), std::string::npos);
}

TEST_F(Report, EscapesWhateverANameIs)
{
    machine.backup();
    DeviceReport report = reportOf(machine.repository(), {});
    report.device = "<script>alert('a')</script>";
    report.host = "a\"b&c\xff";
    report.backups[0].backup.manifest.fullReason = "<b>bold</b>";
    const std::string page = htmlOf({report}, "<i>title</i>");
    EXPECT_EQ(page.find("<script"), std::string::npos);
    EXPECT_EQ(page.find("<i>title"), std::string::npos);
    EXPECT_EQ(page.find("<b>bold"), std::string::npos);
    EXPECT_NE(page.find("&lt;script&gt;alert(&#39;a&#39;)&lt;/script&gt;"), std::string::npos);
    EXPECT_NE(page.find("a&quot;b&amp;c\xef\xbf\xbd"), std::string::npos);
}

TEST_F(Report, NeedsNothingFromElsewhere)
{
    machine.backup();
    const std::string page = htmlOf({reportOf(machine.repository(), {})}, "Backups");
    for (const char* word : {"http:", "https:", "src=", "@import", "url(", "<script", "<link rel=stylesheet"})
        EXPECT_EQ(page.find(word), std::string::npos) << word;
}

using ReportProgram = Program;

TEST_F(ReportProgram, WritesThePageAndTellsOfEachDevice)
{
    ASSERT_EQ(backup().code, 0);
    const fs::path page = machine.directory / "page.html";
    const Result result =
        call({"report", "--html", page, "--from", machine.directory.path(), "--keep-last", "1", "--json"});
    ASSERT_EQ(result.code, 0) << result.err;
    EXPECT_EQ(result.document()["device"], "sda1");
    EXPECT_EQ(result.document()["backups"], 1);
    EXPECT_FALSE(result.document().contains("freedBytes")); // folders are not pruned
    EXPECT_TRUE(readText(page).starts_with("<!DOCTYPE html>"));
    EXPECT_TRUE(readText(page).ends_with("</html>\n"));
}

TEST_F(ReportProgram, ThatCannotWriteLeavesWhatWasThere)
{
    ASSERT_EQ(backup().code, 0);
    EXPECT_NE(call({"report", "--html", machine.directory.path(), "--from", machine.directory.path()}).code, 0);
    EXPECT_TRUE(fs::is_directory(machine.directory.path()));
    for (const auto& entry : fs::directory_iterator{machine.directory.path().parent_path()})
        EXPECT_FALSE(entry.path().string().starts_with(machine.directory.path().string() + ".new")) << entry.path();
}

} // namespace
