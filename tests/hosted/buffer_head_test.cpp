// SPDX-License-Identifier: GPL-2.0-only
// Buffer heads: the lock, and freeing one whose completion is still under way.
#include "test_driver.h"

#include <atomic>
#include <gtest/gtest.h>
#include <thread>

using namespace hosted;

namespace
{

// As a driver ends a buffer's I/O: unlock first, then drop the reference.
std::atomic<bool> dawdle{false};
void end_read(buffer_head* bh, int uptodate)
{
    if (uptodate)
        set_buffer_uptodate(bh);
    unlock_buffer(bh);
    if (dawdle)
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    put_bh(bh);
}

buffer_head* locked_head()
{
    buffer_head* bh = alloc_buffer_head(GFP_NOIO);
    bh_set_state(bh, BUFFER_LOCKED | BUFFER_REQ | BUFFER_MAPPED);
    bh_set_end_io(bh, end_read);
    bh_init_assoc(bh);
    get_bh(bh);
    return bh;
}

} // namespace

TEST(BufferHead, FieldsKeepTheirValues)
{
    page* p = alloc_page(GFP_KERNEL);
    buffer_head* bh = locked_head();
    set_bh_page(bh, p, 1024);
    bh_set_block(bh, nullptr, 77, 512);
    EXPECT_EQ(bh_page(bh), p);
    EXPECT_EQ(bh_offset(bh), 1024u);
    EXPECT_EQ(bh_block(bh), 77u);
    EXPECT_EQ(bh_bytes(bh), 512u);
    EXPECT_EQ(bh_count(bh), 1);
    EXPECT_EQ(buffer_locked(bh), 1);
    bh_end_io(bh, 1);
    EXPECT_EQ(buffer_locked(bh), 0);
    EXPECT_EQ(bh_count(bh), 0);
    put_bh(bh);
    EXPECT_EQ(bh_count(bh), -1) << "below zero is no error";
    free_buffer_head(bh);
    free_page_ref(p);
}

TEST(BufferHead, TheWaiterMayFreeItWhileTheCompletionStillRuns)
{
    dawdle = true;
    for (int i = 0; i < 5; ++i) {
        buffer_head* bh = locked_head();
        std::thread io([bh] { bh_end_io(bh, 1); });
        wait_on_buffer_locked(bh);
        put_bh(bh);
        free_buffer_head(bh); // must wait for the put_bh of the completion
        io.join();
    }
    dawdle = false;
    for (int i = 0; i < 2000; ++i) {
        buffer_head* bh = locked_head();
        std::thread io([bh] { bh_end_io(bh, 1); });
        wait_on_buffer_locked(bh);
        put_bh(bh);
        free_buffer_head(bh);
        io.join();
    }
    EXPECT_EQ(live().buffer_heads, 0);
}

TEST(BufferHead, FreeingOneWhoseReadWasNeverWaitedForWaitsForIt)
{
    buffer_head* bh = locked_head();
    std::atomic<bool> freed{false};
    std::thread owner([&] {
        put_bh(bh);
        free_buffer_head(bh);
        freed = true;
    });
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
    EXPECT_FALSE(freed);
    bh_end_io(bh, 0);
    owner.join();
    EXPECT_TRUE(freed);
}

TEST(BufferHeadDeathTest, UnlockingWhatIsNotLockedAborts)
{
    buffer_head* bh = alloc_buffer_head(GFP_NOIO);
    EXPECT_DEATH(unlock_buffer(bh), "not locked");
    free_buffer_head(bh);
}
