// SPDX-License-Identifier: GPL-2.0-only
// Whether all disks are said to be served: over disks in memory whose answers a test can hold.
#include "liveness.h"

#include "nbd_rig.h"

#include <gtest/gtest.h>

#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace
{

using namespace quendreld;
using nbd_rig::HeldStore;

struct LivenessTest : testing::Test {
    struct OneDisk {
        explicit OneDisk(unsigned index)
        {
            auto owned = std::make_unique<HeldStore>(1 << 20);
            store = owned.get();
            hosted::DiskConfig config;
            config.name = std::string("sd") + char('a' + index);
            config.first_minor = 16 * index;
            config.store = std::move(owned);
            disk = hosted::add_disk(std::move(config));
            served = std::make_unique<ServedDisk>(disk);
        }
        ~OneDisk()
        {
            store->release();
            hosted::remove_disk(disk);
        }
        HeldStore* store;
        std::shared_ptr<hosted::Disk> disk;
        std::unique_ptr<ServedDisk> served;
    };
    std::vector<std::string> lines;
    std::optional<Liveness> liveness; // lives until the disks have answered
    OneDisk first{0}, second{1};

    LivenessTest()
    {
        liveness.emplace(std::vector{first.served.get(), second.served.get()},
                         [this](std::string_view line) { lines.emplace_back(line); });
    }
};

TEST_F(LivenessTest, NothingIsSaidBeforeADiskHasAnswered)
{
    EXPECT_FALSE(liveness->look());
    EXPECT_TRUE(liveness->look());
    EXPECT_TRUE(lines.empty());
}

TEST_F(LivenessTest, OneDiskThatDoesNotAnswerIsEnough)
{
    liveness->look();
    second.store->hold();
    EXPECT_TRUE(liveness->look()) << "the read before was answered";
    for (int i = 0; i < 3; ++i)
        EXPECT_FALSE(liveness->look());
    second.store->release();
    EXPECT_TRUE(liveness->look());
    EXPECT_TRUE(liveness->look()) << "it goes on";
}

TEST_F(LivenessTest, ADiskHasOneReadUnderWayHoweverLongItWaits)
{
    first.store->hold();
    for (int i = 0; i < 5; ++i)
        liveness->look();
    EXPECT_EQ(first.store->seen(), 1u);
    EXPECT_EQ(second.store->seen(), 5u);
}

TEST_F(LivenessTest, TheLogIsToldOnceThatADiskDoesNotAnswerAndOnceThatItDoes)
{
    second.store->hold();
    for (int i = 0; i < 4; ++i)
        liveness->look();
    ASSERT_EQ(lines.size(), 1u);
    EXPECT_EQ(lines[0].find("sdb: has not answered a read"), 0u) << lines[0];
    second.store->release();
    liveness->look();
    liveness->look();
    ASSERT_EQ(lines.size(), 2u);
    EXPECT_EQ(lines[1], "sdb: answers again");
}

TEST_F(LivenessTest, AReadThatFailsIsAnAnswer)
{
    liveness->look();
    hosted::faults::fail_read(1);
    liveness->look();
    EXPECT_TRUE(liveness->look());
    EXPECT_GE(hosted::faults::reads_seen(), 1u);
    hosted::faults::clear();
}

} // namespace
