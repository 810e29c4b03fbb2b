// SPDX-License-Identifier: GPL-2.0-only
#include "image_repository.h"
#include "import.h"
#include "support.h"
#include "utc.h"
#include "verify.h"

#include <cstdlib>

namespace
{

using namespace test;

// Its exit code and its words; 0 when there is none.
std::pair<int, std::string> failureOf(const std::function<void()>& action)
{
    try {
        action();
    } catch (const Failure& failure) {
        return {failure.exitCode(), failure.what()};
    }
    return {0, ""};
}

class ImageRepository : public testing::Test
{
  protected:
    ImageRepository() { makeImageRepository(target); }

    DevicePlace place(const std::string& device, std::map<std::string, std::string> marks) const
    {
        return {{"tern", "1111"}, device, {std::move(marks)}, false};
    }
    // The folder of the device, which gets something that looks like a backup, so that it stays.
    std::string folderOf(const DevicePlace& where) const
    {
        const Repository repository = openImagesForBackup(target, where);
        std::ofstream{repository.directory() / "000001-20261121T111641Z.json"} << "{}";
        return repository.directory().lexically_relative(target);
    }

    Directory directory;
    fs::path target = directory / "repository";
};

TEST_F(ImageRepository, IsMadeOnlyOfADirectoryThatIsNotThereOrEmpty)
{
    EXPECT_TRUE(isImageRepository(target));
    EXPECT_EQ(failureOf([&] { makeImageRepository(target); }), std::pair(3, target.string() + " is a repository already"));
    fs::create_directory(directory / "empty");
    fs::create_directory(directory / "empty" / "lost+found");
    makeImageRepository(directory / "empty");
    EXPECT_TRUE(isImageRepository(directory / "empty"));
    fs::create_directory(directory / "used");
    std::ofstream{directory / "used" / "letter"}.flush();
    EXPECT_EQ(failureOf([&] { makeImageRepository(directory / "used"); }),
              std::pair(3, (directory / "used").string() +
                               " is not empty: it has letter. Name a directory that is not there yet, or an empty one"));
    EXPECT_FALSE(isImageRepository(directory / "used"));
}

TEST_F(ImageRepository, OfANewerFormatIsRefused)
{
    std::ofstream{target / "repository.json"} << R"({"format": 3})";
    EXPECT_EQ(failureOf([&] { isImageRepository(target); }),
              std::pair(3, target.string() + " is a repository of format 3, which this program does not know; use a newer qbackup"));
}

TEST_F(ImageRepository, ADeviceHasAFolderBelowItsMachine)
{
    EXPECT_EQ(folderOf(place("sda1", {{"fileSystem", "a"}})), "tern/sda1");
}

TEST_F(ImageRepository, ADeviceWithAnotherNameThanBeforeKeepsItsFolder)
{
    EXPECT_EQ(folderOf(place("sda1", {{"fileSystem", "a"}, {"partition", "p"}})), "tern/sda1");
    EXPECT_EQ(folderOf(place("sdb1", {{"fileSystem", "b"}})), "tern/sdb1");
    // They have changed their names with each other.
    EXPECT_EQ(folderOf(place("sdb1", {{"fileSystem", "a"}, {"partition", "p"}})), "tern/sda1");
    EXPECT_EQ(folderOf(place("sda1", {{"fileSystem", "b"}})), "tern/sdb1");
    EXPECT_EQ(folderOf(place("sdc1", {{"fileSystem", "b"}})), "tern/sdb1");
}

TEST_F(ImageRepository, AnotherDeviceOfTheSameNameIsRefusedOrGetsAFolderOfItsOwn)
{
    folderOf(place("sda1", {{"fileSystem", "a"}, {"partition", "p"}}));
    DevicePlace other = place("sda1", {{"fileSystem", "b"}, {"partition", "p"}});
    EXPECT_EQ(failureOf([&] { openImagesForBackup(target, other); }),
              std::pair(3, "sda1 is not the device whose backups are in " + (target / "tern/sda1").string() +
                               ": that is file system a, partition p, this is file system b, partition p. Give --new for a folder of its own"));
    other.fresh = true;
    EXPECT_EQ(folderOf(other), "tern/sda1-2");
    // From then on it has that one.
    other.fresh = false;
    EXPECT_EQ(folderOf(other), "tern/sda1-2");
}

TEST_F(ImageRepository, AMarkThatCouldNotBeReadThisTimeStaysKnown)
{
    folderOf(place("sda1", {{"fileSystem", "a"}, {"partition", "p"}}));
    folderOf(place("sda1", {{"partition", "p"}}));
    EXPECT_EQ(failureOf([&] { openImagesForBackup(target, place("sda1", {{"fileSystem", "b"}, {"partition", "p"}})); }).first, 3);
}

TEST_F(ImageRepository, ADeviceWithoutMarksIsKnownByItsName)
{
    EXPECT_EQ(folderOf(place("vm1", {})), "tern/vm1");
    EXPECT_EQ(folderOf(place("vm2", {})), "tern/vm2");
    EXPECT_EQ(folderOf(place("vm1", {})), "tern/vm1");
    // Nothing tells that it is one of them.
    EXPECT_EQ(folderOf(place("sda1", {{"fileSystem", "a"}})), "tern/sda1");
}

TEST_F(ImageRepository, OfTwoDevicesThatAreAlikeNeitherGetsTheOthersFolder)
{
    folderOf(place("sda1", {{"fileSystem", "a"}}));
    DevicePlace copy = place("sdb1", {{"fileSystem", "a"}});
    copy.present = [](const std::string& name) -> std::optional<DeviceIdentity> {
        if (name == "sda1")
            return DeviceIdentity{{{"fileSystem", "a"}}};
        return std::nullopt;
    };
    EXPECT_EQ(failureOf([&] { openImagesForBackup(target, copy); }),
              std::pair(3, "sdb1 cannot be told from sda1, whose backups are in " + (target / "tern/sda1").string() +
                               ": both are file system a. Give --new for a folder of its own"));
    copy.fresh = true;
    EXPECT_EQ(folderOf(copy), "tern/sdb1");
    copy.fresh = false;
    EXPECT_EQ(folderOf(copy), "tern/sdb1");
}

TEST_F(ImageRepository, AnotherMachineOfTheSameNameIsRefused)
{
    folderOf(place("sda1", {{"fileSystem", "a"}}));
    DevicePlace other = place("sda1", {{"fileSystem", "a"}});
    other.host.id = "2222";
    EXPECT_EQ(failureOf([&] { openImagesForBackup(target, other); }),
              std::pair(3, (target / "tern").string() +
                               " has the backups of another machine of that name: its machine-id is 1111, this one's is 2222. Give --host NAME for another "
                               "name in this repository; if it is the same machine, installed anew, remove " +
                               (target / "tern/host.json").string()));
    other.host.name = "gull";
    EXPECT_EQ(folderOf(other), "gull/sda1");
}

TEST_F(ImageRepository, NamesThatAreNoneOfAFolderAreRefused)
{
    for (const std::string name : {"", ".", "..", "a/b", ".hidden"}) {
        DevicePlace other = place("sda1", {});
        other.host.name = name;
        EXPECT_EQ(failureOf([&] { openImagesForBackup(target, other); }).first, 3) << name;
    }
}

TEST_F(ImageRepository, AFolderThatGotNoBackupGoes)
{
    openImagesForBackup(target, place("sda1", {{"fileSystem", "a"}}));
    EXPECT_FALSE(fs::exists(target / "tern/sda1"));
}

TEST_F(ImageRepository, SecondWriterIsToldOfTheFirst)
{
    const Repository first = openImagesForBackup(target, place("sda1", {}));
    EXPECT_EQ(failureOf([&] { openImagesForBackup(target, place("sda1", {})); }).first, 4);
}

TEST_F(ImageRepository, BackupsOfAllMachinesAreFoundInIt)
{
    folderOf(place("sda1", {{"fileSystem", "a"}}));
    DevicePlace other = place("sda1", {{"fileSystem", "a"}});
    other.host = {"gull", "2222"};
    folderOf(other);
    EXPECT_EQ(findRepositories(target), (std::vector<fs::path>{target / "gull/sda1", target / "tern/sda1"}));
}

// ---- one of several

TEST(FindBackup, TakesTheNewestThatIsNotYoungerThanATime)
{
    Machine machine;
    machine.images = true;
    const std::string first = machine.backup().backup.manifest.id;
    while (utcNow("%S") == first.substr(20, 2))
        ::usleep(20'000);
    const auto second = machine.backup();
    const std::string& time = second.backup.manifest.time;
    EXPECT_EQ(findBackup(machine.repository(), time).manifest.id, second.backup.manifest.id);
    EXPECT_EQ(findBackup(machine.repository(), "2100-01-01").manifest.id, second.backup.manifest.id);
    EXPECT_EQ(findBackup(machine.repository(), first).manifest.id, first);
    const std::string before = Repository{machine.repository()}.backups()[0].manifest.time;
    EXPECT_EQ(findBackup(machine.repository(), before).manifest.id, first);
    EXPECT_EQ(failureOf([&] { findBackup(machine.repository(), "2020-01-01"); }),
              std::pair(7, "there is no backup from 2020-01-01 or before in " + machine.repository().string()));
    EXPECT_EQ(failureOf([&] { findBackup(machine.repository(), "yesterday"); }),
              std::pair(7, "there is no backup yesterday in " + machine.repository().string() + ", and it is no time as 2026-11-21T11:16"));
    EXPECT_EQ(failureOf([&] { findBackup(second.backup.path, first); }).first, 3);
}

TEST(FindBackup, DoesNotPassOverADamagedOne)
{
    Machine machine;
    machine.images = true;
    machine.backup();
    const auto second = machine.backup();
    damage(machine.repository() / (second.backup.manifest.id + ".json"), 30);
    EXPECT_EQ(failureOf([&] { findBackup(machine.repository(), "2100-01-01"); }).first, 5);
    EXPECT_EQ(failureOf([&] { findBackup(machine.repository(), second.backup.manifest.id); }).first, 5);
}

TEST(Utc, ATimeIsOfThisMachineUnlessItSaysOtherwise)
{
    const char* zone = std::getenv("TZ");
    const std::string before = zone != nullptr ? zone : "";
    ::setenv("TZ", "XYZ-2", 1);
    ::tzset();
    const std::vector<std::pair<std::string, std::string>> times{{"2026-11-21T11:16:41Z", "2026-11-21T11:16:41Z"},
                                                                 {"2026-11-21T11:16:41", "2026-11-21T09:16:41Z"},
                                                                 {"2026-11-21 11:16", "2026-11-21T09:16:59Z"},
                                                                 {"2026-11-21", "2026-11-21T21:59:59Z"},
                                                                 {"2026-11-21Z", "2026-11-21T23:59:59Z"}};
    for (const auto& [text, expected] : times)
        EXPECT_EQ(utcOf(text).value().text, expected) << text;
    for (const char* text : {"", "2026", "2026-13-01", "2026-02-30", "2026-11-21T", "2026-11-21T11:16+02", "2026-11-21T11:16ZZ", "11:16"})
        EXPECT_FALSE(utcOf(text)) << text;
    before.empty() ? ::unsetenv("TZ") : ::setenv("TZ", before.c_str(), 1);
    ::tzset();
}

// ---- folders taken over

// A chain of folders, some of whose blocks are zero, with what each has to give.
std::vector<std::vector<std::byte>> chainOfFolders(Machine& machine, unsigned seed)
{
    std::mt19937 random{seed};
    std::vector<std::vector<std::byte>> expected;
    for (int round = 0; round < 5; ++round) {
        machine.backup(round == 3 ? Wanted::full : Wanted::automatic);
        expected.push_back(machine.driver.contents());
        for (unsigned i = random() % 60; i > 0; --i) {
            const std::uint32_t first = random() % Machine::blocks;
            const std::uint32_t last = std::min<std::uint32_t>(Machine::blocks, first + 1 + random() % 30);
            for (std::uint32_t block = first; block < last; ++block)
                random() % 4 == 0 ? machine.driver.writeZeros(block) : machine.driver.write(block, static_cast<unsigned>(random()));
        }
    }
    return expected;
}

TEST(Import, EveryBackupGivesWhatItGaveBefore)
{
    for (unsigned seed = 1; seed <= 4; ++seed) {
        Machine machine;
        const auto expected = chainOfFolders(machine, seed);
        Progress progress{Progress::Style::none};
        const Repository to = Repository::openImages(machine.directory / "images");
        const auto results = importBackups(Repository{machine.repository()}, to, progress, machine.stop);
        ASSERT_EQ(results.size(), expected.size());
        for (std::size_t i = 0; i < results.size(); ++i) {
            EXPECT_EQ(results[i].problem, "");
            ASSERT_EQ(machine.restored(results[i].to), expected[i]) << "seed " << seed << " " << results[i].to;
        }
        for (const VerifyResult& result : verifyBackups(machine.directory / "images", progress, machine.stop))
            EXPECT_EQ(result.problem, "");
    }
}

TEST(Import, TheNextBackupIsAnIncrement)
{
    Machine machine;
    machine.backup();
    Progress progress{Progress::Style::none};
    fs::rename(machine.repository(), machine.directory / "folders");
    importBackups(Repository{machine.directory / "folders"}, Repository::openImages(machine.repository()), progress, machine.stop);
    machine.images = true;
    machine.driver.write(5, 77);
    const auto report = machine.backup();
    EXPECT_EQ(report.backup.manifest.mode, Mode::incremental);
    EXPECT_EQ(machine.restored(report.backup.path), machine.driver.contents());
}

TEST(Import, GoesOnWhereItWasCutOff)
{
    Machine machine;
    const auto expected = chainOfFolders(machine, 9);
    Progress progress{Progress::Style::none};
    const fs::path images = machine.directory / "images";
    importBackups(Repository{machine.repository()}, Repository::openImages(images), progress, machine.stop);
    const auto last = Repository{images}.backups().back();
    fs::remove(last.path);
    for (const char* end : {".json", ".sums"})
        fs::remove(images / (last.manifest.id + end));
    const auto results = importBackups(Repository{machine.repository()}, Repository::openImages(images), progress, machine.stop);
    ASSERT_EQ(results.size(), 5u);
    for (std::size_t i = 0; i < results.size(); ++i)
        EXPECT_EQ(results[i].before, i != 4);
    EXPECT_EQ(machine.restored(results[4].to), expected[4]);
}

TEST(Import, LeavesOutWhatIsDamagedAndWhatBuildsOnIt)
{
    Machine machine;
    const auto expected = chainOfFolders(machine, 3);
    const auto backups = Repository{machine.repository()}.backups();
    damage(backups[1].path / "data", 0);
    Progress progress{Progress::Style::none};
    const auto results = importBackups(Repository{machine.repository()}, Repository::openImages(machine.directory / "images"), progress, machine.stop);
    ASSERT_EQ(results.size(), 5u);
    EXPECT_EQ(results[0].problem, "");
    EXPECT_NE(results[1].problem.find("is damaged between byte 0"), std::string::npos) << results[1].problem;
    EXPECT_EQ(results[2].problem, "builds on backup " + backups[1].manifest.id + ", which could not be imported");
    EXPECT_EQ(results[3].problem + results[4].problem, "");
    EXPECT_EQ(machine.restored(results[4].to), expected[4]);
}

TEST(Import, IsNotMixedWithBackupsThatAreThere)
{
    Machine machine;
    machine.backup();
    fs::rename(machine.repository(), machine.directory / "folders");
    machine.images = true;
    machine.backup(Wanted::full);
    Progress progress{Progress::Style::none};
    const auto [code, text] = failureOf([&] {
        importBackups(Repository{machine.directory / "folders"}, Repository::openImages(machine.repository()), progress, machine.stop);
    });
    EXPECT_EQ(code, 3);
    EXPECT_NE(text.find(" has backups of its own, as 000001-"), std::string::npos) << text;
}

} // namespace
