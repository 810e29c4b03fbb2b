// SPDX-License-Identifier: GPL-2.0-only
// What is refused before a daemon starts, and in which words.
#include "launcher.h"

#include "base/descriptor.h"
#include "base/image_lock.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <stdlib.h>
#include <sys/file.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>

namespace
{

using namespace quendreld;

struct CheckImages : testing::Test {
    std::string scratch = [] {
        std::string name = testing::TempDir() + "images-XXXXXX";
        return std::string(::mkdtemp(name.data()));
    }();
    ~CheckImages() override { std::filesystem::remove_all(scratch); }

    std::string image(const std::string& name, off_t bytes)
    {
        const std::string path = scratch + "/" + name;
        std::ofstream(path).close();
        EXPECT_EQ(::truncate(path.c_str(), bytes), 0);
        return path;
    }
    static std::string refusal(const std::vector<std::string>& paths, bool read_only = false)
    {
        try {
            check_images(paths, read_only);
        } catch (const std::runtime_error& error) {
            return error.what();
        }
        return "accepted";
    }
};

TEST_F(CheckImages, AMissingFileIsNamed)
{
    EXPECT_EQ(refusal({scratch + "/none"}), scratch + "/none: no such disk: No such file or directory");
}

TEST_F(CheckImages, ADirectoryIsNoDisk)
{
    EXPECT_EQ(refusal({scratch}), scratch + ": is neither a disk image nor a block device");
}

TEST_F(CheckImages, AnEmptyFileIsRefused)
{
    const std::string path = image("empty", 0);
    EXPECT_EQ(refusal({path}), path + ": is empty; a disk has at least one sector");
}

TEST_F(CheckImages, ASizeOffTheSectorGridIsRefused)
{
    const std::string path = image("odd", 1000);
    EXPECT_NE(refusal({path}).find("its size, 1000 bytes, is no multiple of 512"), std::string::npos);
}

TEST_F(CheckImages, TheSameFileTwiceIsRefused)
{
    const std::string path = image("a", 4096);
    std::filesystem::create_symlink(path, scratch + "/b");
    EXPECT_EQ(refusal({path, scratch + "/b"}), scratch + "/b: named twice");
}

TEST_F(CheckImages, ALockedImageIsRefused)
{
    const std::string path = image("a", 4096);
    EXPECT_EQ(check_images({path}, false), std::vector<std::string>{std::filesystem::canonical(path)});
    const int fd = ::open(path.c_str(), O_RDWR);
    ASSERT_EQ(::flock(fd, LOCK_EX), 0);
    EXPECT_NE(refusal({path}).find("serves it already"), std::string::npos);
    ::close(fd);
}

TEST_F(CheckImages, NoDiskAndTooManyDisksAreRefused)
{
    EXPECT_NE(refusal({}).find("no disk named"), std::string::npos);
    EXPECT_NE(refusal(std::vector<std::string>(17, "x")).find("at most 16 disks"), std::string::npos);
}

struct Looks {
    const char* what;
    std::uint64_t at;
    std::string magic;
};

TEST_F(CheckImages, AContainerIsRefusedWithWhatItIsUnlessItsBytesAreWanted)
{
    const Looks containers[] = {{"a qcow2 image", 0, "QFI\xfb"},
                                {"a VMDK image", 0, "KDMV"},
                                {"a VMDK image", 0, "COWD"},
                                {"the description of a VMDK image", 0, "# Disk DescriptorFile"},
                                {"a VHDX image", 0, "vhdxfile"},
                                {"a VHD image", 0, "conectix"},
                                {"a VDI image", 64, "\x7f\x10\xda\xbe"},
                                {"a QED image", 0, std::string("QED\0", 4)},
                                {"a LUKS container", 0, "LUKS\xba\xbe"}};
    for (const Looks& one : containers) {
        SCOPED_TRACE(one.what);
        const std::string path = image("container", 1 << 20);
        std::fstream(path, std::ios::binary | std::ios::in | std::ios::out).seekp(long(one.at)) << one.magic;
        EXPECT_EQ(refusal({path}).find(path + ": is " + one.what + " and not a raw disk; "), 0u) << refusal({path});
        EXPECT_EQ(check_images({path}, false, true).size(), 1u);
    }
}

TEST_F(CheckImages, AnImageThatIsServedForReadingCanBeServedSoTwiceButNotForWriting)
{
    const std::string path = image("disk", 1 << 20);
    const base::Descriptor reader(::open(path.c_str(), O_RDONLY | O_CLOEXEC));
    ASSERT_EQ(base::lock_image(reader.get(), true), "");
    EXPECT_EQ(refusal({path}, true), "accepted");
    EXPECT_EQ(refusal({path}), path + ": another program (a second daemon?) serves it already; stop that one first");
}

} // namespace
