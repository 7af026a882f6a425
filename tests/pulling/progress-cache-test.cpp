// The resume list: order, what each call leaves behind, and use from several threads.
#include <gtest/gtest.h>

#include <atomic>
#include <thread>
#include <vector>

#include "pulling/progress-cache.h"

namespace {

ResumeCondition condition(uint64_t sess, uint64_t sync, const char* desc) {
    return ResumeCondition{sess, sync, FILTER_EXT_SELECTIVE_SYNC, desc};
}

TEST(ProgressCacheList, EntriesComeHeadFirstAndStayUntilRemoved) {
    ProgressCache cache;
    ProgressCache::Entry e;
    EXPECT_FALSE(cache.getProgressEntry(e));
    cache.addProgressEntry(7, condition(1, 10, "iso"));
    cache.addProgressEntry(8, condition(2, 20, "mkv"));
    cache.addProgressEntry(9, condition(1, 30, "avi"));

    ASSERT_TRUE(cache.getProgressEntry(e));
    EXPECT_EQ(e.row_id, 7u);
    ASSERT_TRUE(cache.getProgressEntry(e));  // reading doesn't take it out
    EXPECT_EQ(e.row_id, 7u);
    EXPECT_EQ(e.condition.filter_desc, ustring("iso"));

    cache.updateProgressSyncId(7, 15);
    cache.updateProgressSyncId(99, 1);  // unknown row: nothing changes
    ASSERT_TRUE(cache.getProgressEntry(e));
    EXPECT_EQ(e.condition.sync_id, 15u);

    cache.rmProgressEntry(8);  // from the middle: the others keep their order
    ASSERT_TRUE(cache.getProgressEntry(e));
    EXPECT_EQ(e.row_id, 7u);
    cache.rmProgressEntry(7);
    ASSERT_TRUE(cache.getProgressEntry(e));
    EXPECT_EQ(e.row_id, 9u);
    EXPECT_EQ(e.condition.sync_id, 30u);
    cache.rmProgressEntry(9);
    EXPECT_FALSE(cache.getProgressEntry(e));
}

TEST(ProgressCacheList, SessionQueryLooksAtSessionsNotRows) {
    ProgressCache cache;
    cache.addProgressEntry(5, condition(3, 1, "x"));
    EXPECT_TRUE(cache.isInProgrssCache(3));
    EXPECT_FALSE(cache.isInProgrssCache(5));
    cache.rmProgressEntry(5);
    EXPECT_FALSE(cache.isInProgrssCache(3));
    EXPECT_EQ(&ProgressCache::getInstance(), &ProgressCache::getInstance());
}

TEST(ProgressCacheConcurrency, AddWorkOffAndQueryAtOnce) {
    ProgressCache cache;
    constexpr uint64_t kEntries = 2000;
    std::atomic<bool> done_adding{false};
    std::vector<uint64_t> worked;
    std::thread control([&] {
        for (uint64_t row = 1; row <= kEntries; ++row)
            cache.addProgressEntry(row, condition(row % 4, row, "e"));
        done_adding = true;
    });
    std::thread puller([&] {
        ProgressCache::Entry e;
        while (!done_adding.load() || cache.getProgressEntry(e)) {
            if (!cache.getProgressEntry(e)) continue;
            cache.updateProgressSyncId(e.row_id, e.condition.sync_id + 1);
            cache.rmProgressEntry(e.row_id);
            worked.push_back(e.row_id);
        }
    });
    std::thread syncer([&] {
        while (!done_adding.load()) (void)cache.isInProgrssCache(2);
    });
    // A caller holding the list across calls sees a consistent head.
    std::thread holder([&] {
        for (int i = 0; i < 200; ++i) {
            cache.Lock();
            ProgressCache::Entry a, b;
            bool got_a = cache.getProgressEntry(a);
            bool got_b = cache.getProgressEntry(b);
            EXPECT_EQ(got_a, got_b);
            if (got_a && got_b) {
                EXPECT_EQ(a.row_id, b.row_id);
            }
            cache.Unlock();
        }
    });
    control.join();
    puller.join();
    syncer.join();
    holder.join();
    ASSERT_EQ(worked.size(), kEntries);
    for (uint64_t i = 0; i < kEntries; ++i) EXPECT_EQ(worked[i], i + 1);
    EXPECT_FALSE(cache.isInProgrssCache(0));
}

}  // namespace
