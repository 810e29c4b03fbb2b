// SPDX-License-Identifier: GPL-2.0-only
// Bits that flip in what is stored: the next command that reads it names the file, and what is restored with exit code 0 is
// right.
#include "faulty_target.h"

namespace
{

using namespace faults;

class Damage : public FaultyTarget
{
  protected:
    void SetUp() override
    {
        FaultyTarget::SetUp();
        if (IsSkipped())
            return;
        ASSERT_EQ(command({"init", target}).code, 0);
        first = take();
        second = take();
        base = directory->disk();
    }

    // Another bit of the file is wrong.
    void flip(const std::string& path, std::size_t at)
    {
        Disk disk = base;
        std::string content = base.files().at(path);
        content.at(at) = static_cast<char>(content[at] ^ (1 << random() % 8));
        disk.replace(path, content);
        insert(disk);
    }
    std::size_t anywhereIn(const std::string& path) { return random() % base.files().at(path).size(); }

    // Whatever says so names the file; restoring it gives an error or what is right.
    void expectRestoresRightOrNotAtAll(const std::string& id)
    {
        const fs::path image = machine.directory / "restored.img";
        std::error_code none;
        fs::remove(image, none);
        const Result restored = command({"restore", "--from", target, "--at", id, "--to", image});
        EXPECT_TRUE(restored.code == 0 ? readAll(image) == contents.at(id) : !fs::exists(image)) << restored.err;
        EXPECT_LT(restored.code, 128) << restored.err;
    }
    void expectNamed(const std::string& path)
    {
        const Result verified = command({"verify", "--from", target});
        EXPECT_EQ(verified.code, 5) << verified.out << verified.err;
        EXPECT_NE((verified.out + verified.err).find(path), std::string::npos) << verified.out << verified.err;
    }

    std::string first;
    std::string second;
    Disk base;
};

TEST_F(Damage, OfASumsFileIsNamed)
{
    for (const std::string& id : {first, second})
        for (int i = 0; i < 4; ++i) {
            const std::string path = pathOf(id, ".sums");
            const std::size_t at = anywhereIn(path);
            SCOPED_TRACE(path + " at " + std::to_string(at));
            flip(path, at);
            expectNamed(path);
            expectRestoresRightOrNotAtAll(second);
        }
}

TEST_F(Damage, OfAManifestIsNamed)
{
    for (const std::string& id : {first, second})
        for (int i = 0; i < 4; ++i) {
            const std::string path = pathOf(id, ".json");
            const std::size_t at = anywhereIn(path);
            SCOPED_TRACE(path + " at " + std::to_string(at));
            flip(path, at);
            expectNamed(path);
            expectRestoresRightOrNotAtAll(second);
        }
}

// Of data, which verify reads. What else there is in an image, as tables and what they do not name, may be found or not.
TEST_F(Damage, OfAnImageIsFoundOrDoesNoHarm)
{
    unsigned found = 0;
    for (int i = 0; i < 16; ++i) {
        const std::string id = i % 2 == 0 ? first : second;
        const std::string path = pathOf(id, ".qcow2");
        // Where it has something: a bit that is set.
        std::size_t at = anywhereIn(path);
        while (base.files().at(path)[at] == 0)
            at = anywhereIn(path);
        SCOPED_TRACE(path + " at " + std::to_string(at));
        flip(path, at);
        const Result verified = command({"verify", "--from", target});
        EXPECT_TRUE(verified.code == 0 || verified.code == 5) << verified.code << verified.err;
        if (verified.code == 5) {
            ++found;
            EXPECT_NE((verified.out + verified.err).find(path), std::string::npos) << verified.out << verified.err;
            expectRestoresRightOrNotAtAll(second);
        } else {
            expectRestores(second);
        }
    }
    EXPECT_GT(found, 8u);
}

// In the header of an image, where each bit counts for something.
TEST_F(Damage, OfAnImagesHeaderIsFoundOrDoesNoHarm)
{
    for (int i = 0; i < 10; ++i) {
        const std::string path = pathOf(i % 2 == 0 ? first : second, ".qcow2");
        const std::size_t at = random() % 112;
        SCOPED_TRACE(path + " at " + std::to_string(at));
        flip(path, at);
        const Result verified = command({"verify", "--from", target});
        if (verified.code != 0) {
            EXPECT_EQ(verified.code, 5) << verified.err;
            EXPECT_NE((verified.out + verified.err).find(path), std::string::npos) << verified.out << verified.err;
        }
        expectRestoresRightOrNotAtAll(second);
    }
}

// They say whose backups these are: the next backup refuses, and names the file, or goes where it belongs.
TEST_F(Damage, OfWhatTellsWhoseBackupsTheseAreIsNamedOrChangesNothing)
{
    for (const char* path : {"disks/repository.json", "disks/tern/host.json", "disks/tern/sda1/device.json"})
        for (int i = 0; i < 6; ++i) {
            const std::size_t at = anywhereIn(path);
            SCOPED_TRACE(std::string{path} + " at " + std::to_string(at));
            flip(path, at);
            const Result next = command(backupWords());
            if (next.code == 0) {
                EXPECT_EQ(next.document()["mode"], "inc") << directory->disk().files().at(path);
                contents[next.document()["id"]] = machine.driver.contents();
                expectRestores(next.document()["id"]);
            } else {
                EXPECT_TRUE(next.code == 3 || next.code == 5) << next.code << ": " << next.err;
                EXPECT_NE(next.err.find(fs::path{path}.parent_path().filename()), std::string::npos) << next.err;
                expectRestores(second);
            }
        }
}

// Nothing in it is believed that is damaged; then all is read.
TEST_F(Damage, OfTheLedgerCostsAnIncrementAtMost)
{
    const std::string third = take();
    for (int i = 0; i < 8; ++i) {
        std::vector<fs::path> files;
        for (const auto& entry : fs::recursive_directory_iterator{run / "ledger"})
            if (entry.is_regular_file() && entry.file_size() != 0)
                files.push_back(entry.path());
        ASSERT_FALSE(files.empty());
        const fs::path& path = files[random() % files.size()];
        const std::size_t at = random() % fs::file_size(path);
        SCOPED_TRACE(path.string() + " at " + std::to_string(at));
        damage(path, at);
        // To a repository that is as it was before.
        insert(base);
        const std::string id = take();
        ASSERT_NE(id, "");
        expectRestores(id);
    }
}

TEST_F(Damage, AnErrorWhileBackupsAreLookedForIsNotTakenForTheirAbsence)
{
    const fs::path image = machine.directory / "restored.img";
    for (const std::vector<std::string>& words : {std::vector<std::string>{"list", "--from", target, "--json"},
                                                  std::vector<std::string>{"restore", "--from", target, "--to", image, "--force"}}) {
        Fault fault{.kinds = looking, .error = EIO};
        for (fault.at = 1;; fault.at += words[0] == "list" ? 1 : 7) { // the other opens many files of the system's, too
            SCOPED_TRACE(words[0] + ", operation " + std::to_string(fault.at));
            insert(base);
            auto now = words;
            now[2] = target;
            directory->arm(fault);
            const Result result = command(now);
            if (!directory->struck()) {
                EXPECT_EQ(result.code, 0) << result.err;
                break;
            }
            if (result.code == 0) {
                EXPECT_TRUE(words[0] == "list" ? result.lines().size() == 2 : readAll(image) == contents.at(second)) << result.out;
            } else {
                EXPECT_TRUE(result.code == 1 || result.code == 5) << result.code;
                EXPECT_NE((result.out + result.err).find("Input/output error"), std::string::npos) << result.out << result.err;
                EXPECT_NE((result.out + result.err).find(root.string()), std::string::npos) << result.out << result.err;
            }
        }
        EXPECT_GT(fault.at, 10u) << words[0];
    }
}

} // namespace
