// The resume list: order, what each call leaves behind, and use from several threads.
#include "pulling/progress-cache.h"

#include <gtest/gtest.h>

#include <atomic>
#include <thread>
#include <vector>

namespace {

ResumeCondition condition(uint64_t sess, uint64_t sync, const char* desc) {
    return ResumeCondition{sess, sync, FILTER_EXT_SELECTIVE_SYNC, desc};
}

TEST(ProgressCacheList, EntriesComeHeadFirstAndStayUntilRemoved) {
    ProgressCache cache;
    ProgressCache::Entry e;
    cache.addProgressEntry(7, condition(1, 10, "iso"));
    cache.addProgressEntry(8, condition(2, 20, "mkv"));
    cache.addProgressEntry(9, condition(3, 30, "avi"));
    // The session query looks at sessions, not rows.
    EXPECT_TRUE(cache.isInProgrssCache(3));
    EXPECT_FALSE(cache.isInProgrssCache(9));

    cache.updateProgressSyncId(7, 15);
    cache.updateProgressSyncId(99, 1);  // unknown row: nothing changes
    ASSERT_TRUE(cache.getProgressEntry(e));
    ASSERT_TRUE(cache.getProgressEntry(e));  // reading doesn't take it out
    EXPECT_EQ(e.row_id, 7u);
    EXPECT_EQ(e.condition.sync_id, 15u);
    EXPECT_EQ(e.condition.filter_desc, ustring("iso"));

    cache.rmProgressEntry(8);  // from the middle: the others keep their order
    EXPECT_FALSE(cache.isInProgrssCache(2));
    ASSERT_TRUE(cache.getProgressEntry(e));
    EXPECT_EQ(e.row_id, 7u);
    cache.rmProgressEntry(7);
    ASSERT_TRUE(cache.getProgressEntry(e));
    EXPECT_EQ(e.row_id, 9u);
    EXPECT_EQ(e.condition.sync_id, 30u);
    cache.rmProgressEntry(9);
    EXPECT_FALSE(cache.getProgressEntry(e));
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
            const bool got_a = cache.getProgressEntry(a);
            EXPECT_EQ(cache.getProgressEntry(b), got_a);
            EXPECT_EQ(a.row_id, b.row_id);  // both stay 0 when the list was empty
            cache.Unlock();
        }
    });
    for (std::thread* t : {&control, &puller, &syncer, &holder}) t->join();
    ASSERT_EQ(worked.size(), kEntries);
    for (uint64_t i = 0; i < kEntries; ++i) EXPECT_EQ(worked[i], i + 1);
    EXPECT_FALSE(cache.isInProgrssCache(0));
}

}  // namespace
