// SPDX-License-Identifier: GPL-2.0-only
// printk and the ring of lines.
#include "hosted.h"

#include <gtest/gtest.h>

TEST(Log, KeepsLinesWholeWithTheirPriorityAndLineEnd)
{
    hosted::log_clear();
    printk("<6>%s: version %d.%d %s\n", "qdrInit", 3, 1, "loaded");
    printk("<4>%s: no line end", "f");
    EXPECT_EQ(hosted::log_lines(), (std::vector<std::string>{"<6>qdrInit: version 3.1 loaded\n", "<4>f: no line end"}));
}

TEST(Log, PrintsPointersAsHexadecimalWithoutPrefix)
{
    hosted::log_clear();
    printk("<4>%s: bio=%p, null=%p, sector=%llu 100%%\n", "f", reinterpret_cast<void*>(0xabc0), nullptr, 7ull);
    EXPECT_EQ(hosted::log_lines(), std::vector<std::string>{"<4>f: bio=abc0, null=0, sector=7 100%\n"});
}

TEST(Log, CallsTheSinkForEveryLine)
{
    std::string seen;
    hosted::log_set_sink([&](std::string_view line) { seen += line; });
    printk("<6>one\n");
    hosted::log_set_sink(nullptr);
    printk("<6>two\n");
    EXPECT_EQ(seen, "<6>one\n");
}
