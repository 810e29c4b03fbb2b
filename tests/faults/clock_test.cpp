// SPDX-License-Identifier: GPL-2.0-only
// A clock that jumped back between two backups: what is newest goes by the order in which they were made.
#include "faulty_target.h"

namespace
{

using namespace faults;

class ClockJumpedBack : public FaultyTarget
{
  protected:
    void SetUp() override
    {
        FaultyTarget::SetUp();
        if (IsSkipped())
            return;
        ASSERT_EQ(command({"init", target}).code, 0);
        made = {take(), take(), take(), take()};
        giveTimes(made, {"2026-03-01T00:00:00Z", "2026-03-02T00:00:00Z", "2026-02-01T00:00:00Z", "2026-02-02T00:00:00Z"});
    }

    std::vector<std::string> made;
};

TEST_F(ClockJumpedBack, ChangesNoOrder)
{
    EXPECT_EQ(listed(), made);
    const fs::path image = machine.directory / "restored.img";
    ASSERT_EQ(command({"restore", "--from", target, "--to", image}).code, 0);
    EXPECT_TRUE(readAll(image) == contents.at(made[3]));
    expectVerifies();
    EXPECT_EQ(command({"report", "--from", target, "--html", machine.directory / "report.html"}).code, 0);
}

TEST_F(ClockJumpedBack, CostsNoIncrement)
{
    writeToDevice();
    const Result next = command(backupWords());
    ASSERT_EQ(next.code, 0) << next.err;
    EXPECT_EQ(next.document()["mode"], "inc");
    EXPECT_EQ(next.document()["parent"], made[3]);
}

// Of those that were made by the time, the one that was made last.
TEST_F(ClockJumpedBack, LeavesATimeItsBackup)
{
    expectRestores(made[2], "2026-02-01T12:00");
    expectRestores(made[3], "2026-03-01T12:00");
}

TEST_F(ClockJumpedBack, DropsWhatWasMadeFirst)
{
    const Result pruned = command({"prune", "--from", target, "--keep-daily", "3"});
    ASSERT_EQ(pruned.code, 0) << pruned.err;
    EXPECT_EQ(ids(), (std::vector<std::string>{made[1], made[2], made[3]}));
    for (const std::string& id : ids())
        expectRestores(id);
}

} // namespace
