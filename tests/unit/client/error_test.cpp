// SPDX-License-Identifier: GPL-2.0-only
#include "client/error.h"
#include "client/transport.h"

#include "quendrel.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <fstream>
#include <set>

namespace
{

using quendrel::Error;

TEST(Error, SaysCommandDeviceCodeAndMeaning)
{
    const Error error{"StartBackup", "8:1", "/run/q/control.sock", QUENDREL_NOT_MOUNTED};
    EXPECT_STREQ(error.what(), "StartBackup on device 8:1 through /run/q/control.sock failed with code 8: no mounted "
                               "file system on the device: mount it, or name the partition that holds the file system");
    EXPECT_EQ(error.code(), 8);
    EXPECT_EQ(error.command(), "StartBackup");
    EXPECT_EQ(error.device(), "8:1");
}

TEST(Error, NegativeCodesAreErrnoValues)
{
    const Error error{"open", "", "/dev/quendrel", -ENOENT};
    EXPECT_NE(std::string{error.what()}.find("No such file or directory"), std::string::npos);
    EXPECT_NE(std::string{error.what()}.find("is the driver loaded"), std::string::npos);
}

TEST(Error, EveryCodeHasATextOfItsOwn)
{
    std::set<std::string> texts;
    for (const int code : {0, 1, 2, 3, 4, 5, 6, 7, 8, 9, 11, 12})
        texts.insert(quendrel::codeText("GetState", code));
    EXPECT_EQ(texts.size(), 12u);
    EXPECT_FALSE(texts.contains("unknown result code"));
}

TEST(Error, EveryStateHasATextOfItsOwn)
{
    std::set<std::string> texts;
    for (const unsigned state : {0u, 1u, 2u, 4u, 5u, 6u, 7u, 8u, 9u, 10u, 12u, 13u})
        texts.insert(quendrel::stateText(state));
    EXPECT_EQ(texts.size(), 12u);
    EXPECT_FALSE(texts.contains("unknown state"));
}

TEST(Open, MissingPathIsReported)
{
    try {
        quendrel::openTransport("/nonexistent/quendrel");
        FAIL();
    } catch (const Error& error) {
        EXPECT_EQ(error.code(), -ENOENT);
    }
}

TEST(Open, RegularFileIsNoControlDevice)
{
    const std::string path = testing::TempDir() + "not-a-device";
    std::ofstream{path} << "x";
    try {
        quendrel::openTransport(path);
        FAIL();
    } catch (const Error& error) {
        EXPECT_EQ(error.code(), -ENODEV);
    }
    std::remove(path.c_str());
}

} // namespace
