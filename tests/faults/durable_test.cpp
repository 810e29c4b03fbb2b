// SPDX-License-Identifier: GPL-2.0-only
// What a command has said is done is there after a power cut, whatever of the rest is not. Whether it is, is seen in the
// disk itself: each file has to be what it was.
#include "faulty_target.h"

namespace
{

using namespace faults;

class Durable : public FaultyTarget
{
  protected:
    // Nothing was ever made durable but by the program. What only keeps runs apart need not stay.
    void expectAllSurvives()
    {
        const Disk disk = directory->disk();
        Files then = disk.files();
        std::erase_if(then, [](const auto& file) { return file.first.ends_with("/.lock") || file.first.ends_with("/.hold"); });
        for (unsigned seed = 1; seed <= 64; ++seed) {
            Disk cut = disk;
            cut.cutPower(seed);
            const Files now = cut.files();
            for (const auto& [path, content] : then) {
                const auto found = now.find(path);
                ASSERT_TRUE(found != now.end() && found->second == content) << path << " with seed " << seed;
            }
            // What was dropped does not come back, or it would count.
            for (const auto& [path, content] : now)
                ASSERT_TRUE(then.contains(path) || path.ends_with(".lock") || path.ends_with(".hold") || path.find("/.partial-") != std::string::npos) << path << " with seed " << seed;
        }
    }
};

TEST_F(Durable, IsARepository)
{
    ASSERT_EQ(command({"init", target}).code, 0);
    expectAllSurvives();
}

TEST_F(Durable, IsEachBackup)
{
    ASSERT_EQ(command({"init", target}).code, 0);
    take();
    expectAllSurvives();
    take();
    expectAllSurvives();
}

TEST_F(Durable, IsWhatAPruneHasDone)
{
    ASSERT_EQ(command({"init", target}).code, 0);
    for (int i = 0; i < 3; ++i)
        take();
    ASSERT_EQ(command({"prune", "--from", target, "--keep-last", "2"}).code, 0);
    expectAllSurvives();
    take("full");
    ASSERT_EQ(command({"prune", "--from", target, "--keep-last", "1"}).code, 0);
    expectAllSurvives();
}

TEST_F(Durable, IsWhatAnImportHasDone)
{
    const fs::path folders = machine.directory / "folders";
    fs::create_directory(folders);
    for (int i = 0; i < 2; ++i) {
        writeToDevice();
        ASSERT_EQ(command({"backup", "sda1", "--to", folders}).code, 0);
    }
    ASSERT_EQ(command({"init", target}).code, 0);
    ASSERT_EQ(command({"import", folders, target, "--host", "tern"}).code, 0);
    expectAllSurvives();
}

TEST_F(Durable, IsARestoredImage)
{
    ASSERT_EQ(command({"init", target}).code, 0);
    take();
    for (int i = 0; i < 2; ++i) {
        ASSERT_EQ(command({"restore", "--from", target, "--to", root / "disk.img", "--force"}).code, 0);
        expectAllSurvives();
    }
}

} // namespace
