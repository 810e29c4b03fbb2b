// SPDX-License-Identifier: GPL-2.0-only
// Each command that writes, with a fault of the disk at one of its operations after the other, or a kill: it says what
// happened, what it leaves counts for nothing, and when the fault is gone the next one does what this one did not.
#include "faulty_target.h"

#include <limits>
#include <map>
#include <memory>
#include <tuple>

namespace
{

using namespace faults;

enum class Doing {
    full,
    compressed,
    increment,
    prune_into_full,
    prune_into_compressed,
    prune_into_increment,
    prune_chain,
    import_folders,
    restore_new,
    restore_over
};
enum class Trouble { no_space, no_inode, bad_operation, bad_look, power_cut, kill };

const std::map<Doing, const char*> doing_names{
    {Doing::full, "full"}, {Doing::compressed, "compressed"}, {Doing::increment, "increment"},
    {Doing::prune_into_full, "prune_into_full"}, {Doing::prune_into_compressed, "prune_into_compressed"},
    {Doing::prune_into_increment, "prune_into_increment"}, {Doing::prune_chain, "prune_chain"},
    {Doing::import_folders, "import"}, {Doing::restore_new, "restore_new"}, {Doing::restore_over, "restore_over"}};
const std::map<Trouble, const char*> trouble_names{
    {Trouble::no_space, "no_space"}, {Trouble::no_inode, "no_inode"}, {Trouble::bad_operation, "bad_operation"},
    {Trouble::bad_look, "bad_look"}, {Trouble::power_cut, "power_cut"}, {Trouble::kill, "kill"}};

Fault faultOf(Trouble trouble)
{
    switch (trouble) {
    case Trouble::no_space: // what gives space back works
        return {.kinds = creating | writing | syncing | sizing, .error = ENOSPC, .lasting = true};
    case Trouble::no_inode:
        return {.kinds = creating, .error = ENOSPC, .lasting = true};
    case Trouble::bad_operation:
        return {.error = EIO};
    case Trouble::bad_look:
        return {.kinds = looking, .error = EIO};
    case Trouble::power_cut:
        return {.what = Fault::What::power_cut};
    case Trouble::kill:
        break;
    }
    return {};
}

using Case = std::tuple<Doing, Trouble, unsigned>; // how many points

constexpr auto time_limit = std::chrono::seconds{3590};

class TargetFaults : public FaultyTarget, public testing::WithParamInterface<Case>
{
  protected:
    TargetFaults() : FaultyTarget{time_limit} {}

    static constexpr const char* image = "disk.img"; // of a restore
    fs::path folders() const { return machine.directory / "folders"; }

    // ---- what is there before
    void prepare()
    {
        compress = doing == Doing::compressed || doing == Doing::prune_into_compressed;
        ASSERT_EQ(command({"init", target}).code, 0);
        switch (doing) {
        case Doing::full:
        case Doing::compressed:
            break;
        case Doing::increment:
            first = {take(), take()};
            break;
        case Doing::prune_into_full:
        case Doing::prune_into_compressed:
            first = {take(), take(), take(), take()};
            kept = {first[2], first[3]};
            break;
        case Doing::prune_into_increment:
            first = {take(), take(), take(), take(), take()};
            giveTimes(first, {"2025-01-01T00:00:00Z", "2026-03-01T00:00:00Z", "2026-03-02T00:00:00Z", "2026-03-03T00:00:00Z", "2026-03-04T00:00:00Z"});
            kept = {first[0], first[3], first[4]};
            break;
        case Doing::prune_chain:
            first = {take(), take(), take("full"), take()};
            kept = {first[2], first[3]};
            break;
        case Doing::import_folders:
            fs::create_directory(folders());
            for (int i = 0; i < 2; ++i) {
                writeToDevice();
                const Result taken = command({"backup", "sda1", "--to", folders(), "--json"});
                ASSERT_EQ(taken.code, 0) << taken.err;
                const std::string id = taken.document()["id"];
                contents[id.substr(0, 23)] = machine.driver.frozen();
                kept.push_back(id.substr(0, 23));
            }
            break;
        case Doing::restore_new:
        case Doing::restore_over:
            ASSERT_EQ(command({"init", source}).code, 0);
            for (int i = 0; i < 2; ++i) {
                writeToDevice();
                ASSERT_EQ(command({"backup", "sda1", "--to", source}).code, 0);
            }
            before = machine.driver.contents();
            if (doing == Doing::restore_over) {
                ASSERT_EQ(command(words()).code, 0);
                writeToDevice();
                ASSERT_EQ(command({"backup", "sda1", "--to", source}).code, 0);
            }
            after = machine.driver.contents();
        }
        base = directory->disk();
        base.settle();
    }

    std::vector<std::string> words() const
    {
        const std::string from = target;
        switch (doing) {
        case Doing::full:
        case Doing::compressed:
        case Doing::increment:
            return backupWords();
        case Doing::prune_into_full:
        case Doing::prune_into_compressed:
        case Doing::prune_chain:
            return {"prune", "--from", from, "--keep-last", "2", "--json"};
        case Doing::prune_into_increment:
            return {"prune", "--from", from, "--keep-last", "2", "--keep-yearly", "2", "--json"};
        case Doing::import_folders:
            return {"import", folders(), from, "--host", "tern", "--json"};
        case Doing::restore_new:
            return {"restore", "--from", source, "--to", root / image, "--json"};
        case Doing::restore_over:
            return {"restore", "--from", source, "--to", root / image, "--force", "--json"};
        }
        return {};
    }

    // ---- the command, and what is true behind it
    void begin()
    {
        insert(base);
        machine.driver.clearEvents();
        if (isBackup())
            writeToDevice();
    }

    void expectSaid(const Result& result)
    {
        if (result.code == 0)
            return;
        EXPECT_TRUE(result.code == 1 || result.code == 3) << result.code << ": " << result.err;
        const std::size_t at = result.err.rfind("qbackup: ");
        ASSERT_NE(at, std::string::npos) << result.err;
        const std::string message = result.err.substr(at);
        EXPECT_NE(message.find(point.string()), std::string::npos) << message;
        EXPECT_EQ(message.find("filesystem error"), std::string::npos) << message;
        if (faultOf(trouble).error == ENOSPC) {
            EXPECT_NE(message.find("No space left on device"), std::string::npos) << message;
            EXPECT_TRUE(message.find("Free some space") != std::string::npos || message.find("Make room") != std::string::npos) << message;
        }
        EXPECT_EQ(result.lines().back()["exit"], result.code) << result.out;
    }

    bool isBackup() const { return doing == Doing::full || doing == Doing::compressed || doing == Doing::increment; }
    bool isPrune() const
    {
        return doing == Doing::prune_into_full || doing == Doing::prune_into_compressed || doing == Doing::prune_into_increment || doing == Doing::prune_chain;
    }

    // The files of the backups that were there are what they were.
    void expectUntouched(const std::vector<std::string>& ids)
    {
        const Files now = files();
        const Files then = base.files();
        for (const std::string& id : ids)
            for (const char* end : {".json", ".sums", ".qcow2"})
                EXPECT_TRUE(now.contains(pathOf(id, end)) && now.at(pathOf(id, end)) == then.at(pathOf(id, end))) << pathOf(id, end);
    }

    void expectRightAfterBackup(const Result& result, const std::vector<std::byte>& snapshot)
    {
        std::vector<std::string> there = ids();
        expectUntouched(first);
        std::erase_if(there, [&](const std::string& id) { return std::find(first.begin(), first.end(), id) != first.end(); });
        EXPECT_LE(there.size(), 1u);
        EXPECT_TRUE(result.code != 0 || there.size() == 1);
        for (const std::string& id : there) {
            contents[id] = snapshot;
            expectRestores(id);
        }
        writeToDevice();
        const Result next = command(backupWords());
        ASSERT_EQ(next.code, 0) << next.err;
        if (!first.empty()) {
            EXPECT_EQ(next.document()["mode"], "inc") << next.err;
        }
        const std::string id = next.document()["id"];
        EXPECT_EQ(next.document().value("comparedBecause", ""), "");
        EXPECT_EQ(leftovers(), std::vector<std::string>{});
        contents[id] = machine.driver.contents();
        expectRestores(id);
    }

    void expectRightAfterPrune(const Result& result)
    {
        const std::vector<std::string> seen = listed();
        for (const std::string& id : kept)
            EXPECT_NE(std::find(seen.begin(), seen.end(), id), seen.end()) << id << " is gone";
        if (result.code == 0) {
            EXPECT_EQ(seen, kept);
        }
        expectRestores(kept[kept.size() - 2]); // that has taken up others
        expectVerifies();
        const Result again = command(words());
        ASSERT_EQ(again.code, 0) << again.err;
        EXPECT_EQ(ids(), kept);
        EXPECT_EQ(leftovers(), std::vector<std::string>{});
        expectRestores(kept[kept.size() - 2]);
        expectRestores(take());
    }

    void expectRightAfterImport(const Result& result)
    {
        if (result.code == 0) {
            EXPECT_EQ(ids(), kept);
        }
        if (!ids().empty())
            expectVerifies();
        const Result again = command(words());
        ASSERT_EQ(again.code, 0) << again.err;
        EXPECT_EQ(ids(), kept);
        EXPECT_EQ(leftovers(), std::vector<std::string>{});
        for (const std::string& id : kept)
            expectRestores(id);
    }

    void expectRightAfterRestore(const Result& result)
    {
        const auto is = [&](const std::vector<std::byte>& bytes) {
            const Files now = files();
            const auto found = now.find(image);
            return found != now.end() && found->second.size() == bytes.size() && std::memcmp(found->second.data(), bytes.data(), bytes.size()) == 0;
        };
        EXPECT_TRUE(is(after) || (result.code != 0 && (doing == Doing::restore_over ? is(before) : !files().contains(image))));
        if (!is(after) || doing == Doing::restore_over) {
            const Result again = command(words());
            ASSERT_EQ(again.code, 0) << again.err;
            EXPECT_TRUE(is(after));
        }
        EXPECT_EQ(leftovers(), std::vector<std::string>{});
    }

    void expectRight(const Result& result, const std::vector<std::byte>& snapshot)
    {
        if (isBackup())
            expectRightAfterBackup(result, snapshot);
        else if (isPrune())
            expectRightAfterPrune(result);
        else if (doing == Doing::import_folders)
            expectRightAfterImport(result);
        else
            expectRightAfterRestore(result);
    }

    void sweep()
    {
        Fault fault = faultOf(trouble);
        begin();
        directory->arm(fault);
        const Result whole = command(words());
        ASSERT_EQ(whole.code, 0) << whole.err;
        const std::uint64_t operations = directory->count();
        ASSERT_GE(operations, 1u);
        unsigned struck = 0;
        const unsigned points = std::min<unsigned>(std::get<2>(GetParam()), static_cast<unsigned>(operations));
        for (unsigned i = 0; i < points && !HasFatalFailure(); ++i) {
            begin();
            fault.at = 1 + i * operations / points;
            fault.seed = i + 1;
            SCOPED_TRACE("operation " + std::to_string(fault.at) + " of " + std::to_string(operations));
            directory->arm(fault);
            const Result result = command(words());
            struck += directory->struck();
            if (!directory->struck()) {
                EXPECT_EQ(result.code, 0) << result.err;
            }
            insert(directory->disk());
            expectSaid(result);
            const bool power_is_there = trouble != Trouble::power_cut;
            if (result.code != 0 && power_is_there && trouble != Trouble::bad_operation && trouble != Trouble::bad_look && !isPrune()) {
                EXPECT_EQ(leftovers(), std::vector<std::string>{}) << "what it could take away";
            }
            expectRight(result, machine.driver.frozen());
        }
        EXPECT_GE(struck, points * 3 / 4);
    }

    void kills()
    {
        begin();
        const auto begun = Clock::now();
        ASSERT_EQ(command(words()).code, 0);
        auto most = Clock::now() - begun;
        unsigned killed = 0;
        for (unsigned i = 0; i < std::get<2>(GetParam()) && !HasFatalFailure(); ++i) {
            begin();
            const auto started = Clock::now();
            const pid_t child = spawn(words());
            std::this_thread::sleep_for(most * (random() % 1000) / 1000);
            ::kill(child, SIGKILL);
            const Result result = finish(child);
            killed += result.code == 1000 + SIGKILL;
            if (result.code == 0)
                most = Clock::now() - started;
            SCOPED_TRACE("kill " + std::to_string(i));
            insert(directory->disk());
            expectRight(result, machine.driver.frozen());
        }
        EXPECT_GE(killed, std::get<2>(GetParam()) / 3);
    }

    Doing doing = std::get<0>(GetParam());
    Trouble trouble = std::get<1>(GetParam());
    Disk base;
    std::vector<std::string> first; // the backups before
    std::vector<std::string> kept;  // by a prune
    fs::path source = machine.directory / "source"; // of a restore
    std::vector<std::byte> before;  // what the restored image is
    std::vector<std::byte> after;
};

TEST_P(TargetFaults, LeaveWhatWasThereAndTheNextRunDoesItAll)
{
    ASSERT_NO_FATAL_FAILURE(prepare());
    trouble == Trouble::kill ? kills() : sweep();
}

std::string nameOf(const testing::TestParamInfo<Case>& info)
{
    return std::string{doing_names.at(std::get<0>(info.param))} + "_" + trouble_names.at(std::get<1>(info.param));
}

using D = Doing;
using T = Trouble;
INSTANTIATE_TEST_SUITE_P(
    Some, TargetFaults,
    testing::Values(Case{D::full, T::no_space, 25}, Case{D::full, T::no_inode, 6}, Case{D::full, T::bad_operation, 8}, Case{D::full, T::power_cut, 8},
                    Case{D::increment, T::no_space, 25}, Case{D::increment, T::no_inode, 6}, Case{D::increment, T::bad_operation, 12},
                    Case{D::increment, T::bad_look, 12}, Case{D::increment, T::power_cut, 14}, Case{D::increment, T::kill, 10},
                    Case{D::prune_into_full, T::no_space, 4}, Case{D::prune_into_full, T::bad_operation, 4}, Case{D::prune_into_full, T::power_cut, 6},
                    Case{D::prune_into_full, T::kill, 4}, Case{D::prune_into_increment, T::no_space, 3}, Case{D::prune_into_increment, T::bad_operation, 3},
                    Case{D::prune_into_increment, T::power_cut, 4}, Case{D::prune_chain, T::bad_operation, 3}, Case{D::prune_chain, T::power_cut, 3},
                    Case{D::import_folders, T::no_space, 6}, Case{D::import_folders, T::bad_operation, 5}, Case{D::import_folders, T::power_cut, 6},
                    Case{D::import_folders, T::kill, 4}, Case{D::restore_new, T::no_space, 6}, Case{D::restore_new, T::bad_operation, 6},
                    Case{D::restore_new, T::power_cut, 8}, Case{D::restore_over, T::no_space, 6}, Case{D::restore_over, T::bad_operation, 6},
                    Case{D::restore_over, T::power_cut, 8}, Case{D::restore_over, T::kill, 10}),
    nameOf);

std::vector<Case> allCases(unsigned operations, unsigned kills)
{
    std::vector<Case> all;
    for (const auto& [doing, a] : doing_names)
        for (const auto& [trouble, b] : trouble_names)
            // Dropping a whole chain makes no file.
            if (doing != Doing::prune_chain || trouble != Trouble::no_inode)
                all.emplace_back(doing, trouble, trouble == Trouble::kill ? kills : operations);
    return all;
}
INSTANTIATE_TEST_SUITE_P(Many, TargetFaults, testing::ValuesIn(allCases(40, 20)), nameOf);
INSTANTIATE_TEST_SUITE_P(Every, TargetFaults, testing::ValuesIn(allCases(std::numeric_limits<unsigned>::max(), 200)), nameOf);

} // namespace
