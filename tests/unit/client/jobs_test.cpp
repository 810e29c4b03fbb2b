// SPDX-License-Identifier: GPL-2.0-only
// What a configuration says, and how what is wrong in it is told.
#include "jobs.h"
#include "support.h"

#include <sys/stat.h>

namespace
{

using namespace test;

class Configuration : public testing::Test
{
  protected:
    std::vector<Job> read(const std::string& text)
    {
        std::ofstream{file, std::ios::trunc} << text;
        return readJobs(file);
    }
    // Of a text that cannot be taken; without the path of the file.
    std::string complaint(const std::string& text, Exit code = Exit::usage)
    {
        try {
            read(text);
        } catch (const Failure& failure) {
            EXPECT_EQ(failure.exitCode(), static_cast<int>(code));
            std::string what = failure.what();
            if (what.starts_with(file.string()))
                what.replace(0, file.string().size(), "F");
            return what;
        }
        return "it was taken";
    }
    // Of a job with one line more.
    std::string complaintOf(const std::string& line)
    {
        return complaint("[job.nightly]\ndevices = [\"sda1\"]\ntarget = \"/b\"\n" + line + "\n");
    }

    Directory directory;
    fs::path file = directory / "qbackup.toml";
};

TEST_F(Configuration, EveryKeyArrives)
{
    const auto jobs = read(R"(
[job.nightly]
devices = ["/dev/sda1", "/dev/vg0/root"]
target = "/mnt/backups"
mode = "full"
host = "tern"
cache-blocks = 4294967295
all-blocks = true
compress = true
spool = "/var/spool"
limit-rate = "20M"
wait = 60
control = "/run/q.sock"
keep = { last = 1, hourly = 2, daily = 3, weekly = 4, monthly = 5, yearly = 6 }
before = ["freeze", "a b"]
after = ["thaw"]
timeout = 7
[job.a]
devices = ["sdb1"]
target = "/b"
)");
    ASSERT_EQ(jobs.size(), 2u);
    EXPECT_EQ(jobs[0].name, "a");
    EXPECT_EQ(jobs[0].how.wanted, Wanted::automatic);
    EXPECT_FALSE(jobs[0].keep.any());
    EXPECT_FALSE(jobs[0].control);
    EXPECT_EQ(jobs[0].commands.timeout, std::chrono::seconds{60});
    const Job& job = jobs[1];
    EXPECT_EQ(job.name, "nightly");
    EXPECT_EQ(job.devices, (std::vector<std::string>{"/dev/sda1", "/dev/vg0/root"}));
    EXPECT_EQ(job.how.target, "/mnt/backups");
    EXPECT_EQ(job.how.wanted, Wanted::full);
    EXPECT_EQ(job.how.host, "tern");
    EXPECT_EQ(job.how.cacheBlocks, 4294967295u);
    EXPECT_TRUE(job.how.allBlocks);
    EXPECT_TRUE(job.how.compress);
    EXPECT_EQ(job.how.spool, "/var/spool");
    EXPECT_EQ(job.how.bytesPerSecond, 20u << 20);
    EXPECT_EQ(job.how.wait, 60u);
    EXPECT_EQ(job.control, "/run/q.sock");
    EXPECT_EQ(job.keep.last * 100000 + job.keep.hourly * 10000 + job.keep.daily * 1000 + job.keep.weekly * 100 +
                  job.keep.monthly * 10 + job.keep.yearly,
              123456u);
    EXPECT_EQ(job.commands.before, (std::vector<std::string>{"freeze", "a b"}));
    EXPECT_EQ(job.commands.after, std::vector<std::string>{"thaw"});
    EXPECT_EQ(job.commands.timeout, std::chrono::seconds{7});
}

TEST_F(Configuration, AnUnknownKeyIsNamedWithItsPlaceAndWhatIsKnown)
{
    EXPECT_EQ(complaintOf("  devises = []"),
              "F:4:3: job nightly has the key 'devises', which is not known; known are after, all-blocks, before, "
              "cache-blocks, compress, control, devices, host, keep, limit-rate, mode, spool, target, timeout, wait");
    EXPECT_EQ(complaintOf("keep = { dayly = 1 }"),
              "F:4:10: keep of job nightly has the key 'dayly', which is not known; known are daily, hourly, "
              "last, monthly, weekly, yearly");
    EXPECT_EQ(complaint("[jobs.nightly]\n"), "F:1:2: the file has the key 'jobs', which is not known; known are job");
}

TEST_F(Configuration, AWrongTypeIsNamedWithItsPlaceAndTheRightOne)
{
    EXPECT_EQ(complaintOf("wait = \"60\""),
              "F:4:8: wait of job nightly is of type string and has to be a whole number from 0 to 1000000000");
    EXPECT_EQ(
        complaintOf("timeout = 1.5"),
        "F:4:11: timeout of job nightly is of type floating-point and has to be a whole number from 1 to 1000000000");
    EXPECT_EQ(complaintOf("before = \"sh\""),
              "F:4:10: before of job nightly is of type string and has to be an array of strings");
    EXPECT_EQ(complaintOf("before = [\"sh\", 1]"),
              "F:4:17: an element of before of job nightly is of type integer and has to be a string");
    EXPECT_EQ(complaintOf("all-blocks = 1"),
              "F:4:14: all-blocks of job nightly is of type integer and has to be true or false");
    EXPECT_EQ(complaintOf("keep = 7"), "F:4:8: keep of job nightly is of type integer and has to be a table");
    EXPECT_EQ(complaint("job = 1"),
              "F:1:7: job of the file is of type integer and has to be a table of jobs, as [job.nightly]");
    EXPECT_EQ(complaint("[job]\nnightly = 1"), "F:2:11: job nightly is of type integer and has to be a table");
}

TEST_F(Configuration, AValueThatCannotBeIsNamedWithItsPlace)
{
    EXPECT_EQ(complaintOf("cache-blocks = 4294967296"),
              "F:4:16: cache-blocks of job nightly is 4294967296 and has to be a whole number from 1 to 4294967295");
    EXPECT_EQ(complaintOf("timeout = 0"),
              "F:4:11: timeout of job nightly is 0 and has to be a whole number from 1 to 1000000000");
    EXPECT_EQ(complaintOf("mode = \"sometimes\""),
              "F:4:8: mode of job nightly is 'sometimes' and has to be auto, full or inc");
    EXPECT_EQ(complaintOf("control = \"control.sock\""),
              "F:4:11: control of job nightly is control.sock, and has to be a whole path, which begins with /");
    for (const std::string rate : {"fast", "20X", "-1", "99999999999999999999", "99999999T"})
        EXPECT_EQ(complaintOf("limit-rate = \"" + rate + "\""),
                  "F:4:14: limit-rate of job nightly is '" + rate +
                      "' and has to be a number of bytes a second, as 500K or 20M");
    EXPECT_EQ(complaintOf("before = []"),
              "F:4:10: before of job nightly is an empty array; give it something, or leave it out");
    EXPECT_EQ(complaintOf("before = [\"\"]"),
              "F:4:11: an element of before of job nightly is empty, or has a NUL in it");
    EXPECT_EQ(complaintOf("host = \"a\\u0000b\""), "F:4:8: host of job nightly is empty, or has a NUL in it");
    EXPECT_EQ(complaintOf("keep = { daily = 0 }"), "F:4:8: keep of job nightly keeps nothing; give one of last, "
                                                   "hourly, daily, weekly, monthly and yearly, or leave it out");
}

TEST_F(Configuration, AJobWithoutDevicesOrTargetIsNamedWithItsPlace)
{
    EXPECT_EQ(complaint("\n[job.nightly]\ntarget = \"/b\"\n"),
              "F:2:6: job nightly has no devices; give it some, as devices = [\"/dev/sda1\"]");
    EXPECT_EQ(complaint("\n[job.nightly]\ndevices = [\"sda1\"]\n"),
              "F:2:6: job nightly has no target; give it one, as target = \"/mnt/backups\"");
}

// It would be an option, another unit, or another file.
TEST_F(Configuration, ANameThatWouldNeedQuotingIsNone)
{
    for (const std::string name : {"-a", "a b", "a/b", "a@b", "", "a.b"})
        EXPECT_EQ(complaint("[job.\"" + name + "\"]\n"),
                  "F:1:6: '" + name + "' cannot be the name of a job; take letters, digits, - and _, and no - first");
}

TEST_F(Configuration, WhatIsNoTomlIsNamedWithItsPlace)
{
    EXPECT_TRUE(complaintOf("mode = full").starts_with("F:4:")) << complaintOf("mode = full");
    EXPECT_TRUE(complaint("[job.a]\n[job.a]\n").starts_with("F:2:"));
}

TEST_F(Configuration, AFileThatIsNotThereIsRefused)
{
    file = directory / "none.toml";
    try {
        readJobs(file);
        FAIL();
    } catch (const Failure& failure) {
        EXPECT_EQ(failure.exitCode(), 3);
        EXPECT_EQ(failure.what(), "there is no " + file.string() +
                                      ", which would name the jobs: see qbackup.toml(5), or give --config");
    }
}

TEST_F(Configuration, WhatIsNoFileIsRefused)
{
    ASSERT_EQ(::mkfifo((directory / "pipe").c_str(), 0600), 0);
    EXPECT_THROW(readJobs(directory / "pipe"), Failure);
    EXPECT_THROW(readJobs(directory.path()), Failure);
}

constexpr const char* with_command = "[job.nightly]\ndevices = [\"sda1\"]\ntarget = \"/b\"\nafter = [\"thaw\"]\n";

TEST_F(Configuration, CommandsAreTakenFromAFileThatNobodyElseMayWrite)
{
    for (const unsigned mode : {0600u, 0644u}) {
        EXPECT_EQ(read(with_command).size(), 1u);
        ::chmod(file.c_str(), mode);
        EXPECT_EQ(readJobs(file).size(), 1u);
    }
}

TEST_F(Configuration, CommandsInAFileThatOthersMayWriteAreRefused)
{
    std::ofstream{file};
    for (const unsigned mode : {0660u, 0606u}) {
        ::chmod(file.c_str(), mode);
        EXPECT_EQ(complaint(with_command, Exit::refused),
                  "F names commands, in job nightly, which run with your rights, and others than root and you may "
                  "write it, or put another file in "
                  "its place: let it and " +
                      fs::canonical(directory.path()).string() +
                      " belong to root or you, and take the permission to write from others (chmod go-w)");
    }
}

TEST_F(Configuration, CommandsInAFileThatOthersMayReplaceAreRefused)
{
    ::chmod(directory.path().c_str(), 0777);
    EXPECT_NE(complaint(with_command, Exit::refused), "it was taken");
    ::chmod(directory.path().c_str(), 01777);
    EXPECT_EQ(complaint(with_command, Exit::refused), "it was taken");
}

TEST_F(Configuration, CommandsOfAnotherUserAreRefused)
{
    if (::geteuid() != 0)
        GTEST_SKIP() << "only root can give a file away";
    std::ofstream{file};
    ASSERT_EQ(::chown(file.c_str(), 1, 0), 0);
    EXPECT_NE(complaint(with_command, Exit::refused), "it was taken");
}

TEST_F(Configuration, WithoutCommandsOthersMayWriteIt)
{
    std::ofstream{file};
    ::chmod(file.c_str(), 0666);
    EXPECT_EQ(read("[job.nightly]\ndevices = [\"sda1\"]\ntarget = \"/b\"\n").size(), 1u);
}

} // namespace
