// SPDX-License-Identifier: GPL-2.0-only
#include "progress.h"
#include "terminal_width.h"

#include <gtest/gtest.h>

#include <pty.h>
#include <unistd.h>

#include <cstdlib>

namespace
{

using namespace qbackup;

const std::string numbers = "512.0 MiB of 2.0 GiB, 123.4 MiB/s";

TEST(BarLine, HasABarOfThirtyColumnsWhereThereIsRoom)
{
    EXPECT_EQ(barLine("copying sda1", 0.5, numbers, "12 s left", 120),
              "copying sda1 [###############               ]  50% 512.0 MiB of 2.0 GiB, 123.4 MiB/s, 12 s left");
}

TEST(BarLine, HasASmallerBarOnAnUsualTerminal)
{
    EXPECT_EQ(barLine("copying sda1", 0.5, numbers, "12 s left", 80), "copying sda1 [#######       ]  50% 512.0 MiB of 2.0 GiB, 123.4 MiB/s, 12 s left");
}

TEST(BarLine, LeavesOutTheBarAndThenTheNumbersOnANarrowOne)
{
    EXPECT_EQ(barLine("copying sda1", 0.5, numbers, "12 s left", 70), "copying sda1  50% 512.0 MiB of 2.0 GiB, 123.4 MiB/s, 12 s left");
    EXPECT_EQ(barLine("copying sda1", 0.5, numbers, "12 s left", 40), "copying sda1  50%, 12 s left");
}

TEST(BarLine, NeverTakesTheLastColumn)
{
    for (unsigned columns = 1; columns <= 200; ++columns)
        for (const double part : {0.0, 0.07, 1.0})
            EXPECT_LE(barLine("comparing a-logical-volume-with-a-long-name", part, numbers, "100000 s left", columns).size(), std::max(columns - 1, 1u)) << columns;
}

TEST(BarLine, IsNotCutInTheMidstOfACharacter)
{
    EXPECT_EQ(barLine("\u00e4\u00e4\u00e4", 0.5, numbers, "1 s left", 4), "\u00e4");
}

TEST(TerminalWidth, IsTheTerminalsUnlessTheEnvironmentNamesAnother)
{
    int controller = -1;
    int terminal = -1;
    const winsize size{24, 57, 0, 0};
    ASSERT_EQ(::openpty(&controller, &terminal, nullptr, nullptr, &size), 0);
    const char* before = std::getenv("COLUMNS");
    const std::string kept = before != nullptr ? before : "";
    ::unsetenv("COLUMNS");
    EXPECT_EQ(terminalColumns(terminal), 57u);
    ::setenv("COLUMNS", "33", 1);
    EXPECT_EQ(terminalColumns(terminal), 33u);
    ::setenv("COLUMNS", "wide", 1);
    EXPECT_EQ(terminalColumns(terminal), 57u);
    ::unsetenv("COLUMNS");
    ::close(terminal);
    ::close(controller);
    EXPECT_EQ(terminalColumns(controller), std::nullopt);
    if (before != nullptr)
        ::setenv("COLUMNS", kept.c_str(), 1);
}

} // namespace
