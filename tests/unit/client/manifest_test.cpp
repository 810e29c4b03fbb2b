// SPDX-License-Identifier: GPL-2.0-only
#include "manifest.h"

#include "failure.h"

#include <gtest/gtest.h>

namespace
{

using namespace qbackup;

Manifest incremental()
{
    Manifest m;
    m.id = "000002-20261121T111641Z-inc";
    m.sequence = 2;
    m.parent = "000001-20261121T101641Z-full";
    m.parentMark = std::string(32, 'a');
    m.mode = Mode::incremental;
    m.device = "sda1";
    m.number = {8, 1};
    m.instance = "boot 1; 8:1 from sector 2048 disk 3";
    m.blockSize = 4096;
    m.blocks = 0xfffffff0;
    m.deviceBytes = 1ULL << 43;
    for (std::size_t i = 0; i < m.key.size(); ++i)
        m.key[i] = static_cast<std::uint8_t>(i * 5);
    m.time = "2026-11-21T11:16:41Z";
    m.seconds = 0.1;
    m.copiedBlocks = 17;
    m.dataBytes = 17 * 4096;
    m.segmentBytes = 4 << 20;
    m.mapHash = std::string(32, 'b');
    m.sumsHash = std::string(32, 'c');
    return m;
}

TEST(Manifest, ComesBackAsItWasWritten)
{
    const Manifest m = incremental();
    const Manifest back = decode(encode(m), "here");
    EXPECT_EQ(encode(back), encode(m));
    EXPECT_EQ(back.instance, m.instance);
    EXPECT_EQ(back.key, m.key);
    EXPECT_EQ(back.parent, m.parent);
    EXPECT_EQ(back.number, m.number);
    EXPECT_EQ(back.deviceBytes, m.deviceBytes);
    EXPECT_EQ(back.mode, Mode::incremental);
    EXPECT_EQ(back.seconds, m.seconds);
}

TEST(Manifest, NeedNotSayHowLongTheRunTook)
{
    Manifest m = incremental();
    m.seconds = 0;
    EXPECT_EQ(encode(m).find("seconds"), std::string::npos);
    EXPECT_EQ(decode(encode(m), "here").seconds, 0);
}

TEST(Manifest, FullOneKeepsItsReason)
{
    Manifest m = incremental();
    m.mode = Mode::full;
    m.fullReason = "asked for";
    EXPECT_EQ(decode(encode(m), "here").fullReason, "asked for");
    m.unusedBlocks = 12;
    EXPECT_EQ(decode(encode(m), "here").unusedBlocks, 12u);
}

TEST(Manifest, ChangedFieldIsNoticed)
{
    std::string text = encode(incremental());
    const auto at = text.find("\"copiedBlocks\": 17");
    ASSERT_NE(at, std::string::npos);
    text.replace(at, 18, "\"copiedBlocks\": 18");
    try {
        decode(text, "here");
        FAIL();
    } catch (const Failure& failure) {
        EXPECT_EQ(failure.exitCode(), 5);
        EXPECT_NE(std::string{failure.what()}.find("here"), std::string::npos);
    }
}

TEST(Manifest, CutTextIsNoticed)
{
    const std::string text = encode(incremental());
    for (const std::size_t length : {std::size_t{0}, std::size_t{1}, text.size() / 2, text.size() - 3})
        EXPECT_THROW(decode(text.substr(0, length), "here"), Failure) << length;
}

} // namespace
