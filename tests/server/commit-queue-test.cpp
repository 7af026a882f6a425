// The commit queue's batches: changes handed in at once share a transaction, and one that
// fails leaves nothing behind, not even its sync ids, while the others are kept.
#include <gtest/gtest.h>

#include <condition_variable>
#include <mutex>
#include <set>
#include <thread>
#include <vector>

#include "commit-queue.h"
#include "server-harness.h"

namespace {

TEST(CommitQueueConcurrency, AFailedChangeInABatchIsUndoneAndTheOthersKept) {
    TempDir dir;
    ServerStore store;
    admin::InitResult user;
    ASSERT_EQ(store.Open(dir / "data"), 0);
    ASSERT_EQ(admin::Init(store, "alice", "home", user), 0);
    CommitQueue queue;
    ASSERT_EQ(queue.Start(dir / "data", ServerStore::kDefaultVersionsKept), 0);

    // A first change holds the writer, so that the next ones gather into one batch.
    std::mutex mutex;
    std::condition_variable cond;
    bool release = false;
    std::thread holder([&] {
        queue.Apply(user.view_id, [&](TreeWriter&) {
            std::unique_lock<std::mutex> lock(mutex);
            cond.wait(lock, [&] { return release; });
            return static_cast<int>(TREE_OK);
        });
    });
    std::vector<std::thread> changes;
    std::vector<int> results(4, 1);
    for (int i = 0; i < 4; ++i) {
        changes.emplace_back([&, i] {
            std::string path = "/d" + std::to_string(i);
            results[i] = queue.Apply(user.view_id, [&](TreeWriter& tree) {
                ServerObject made;
                int rc = tree.MakeDir(path, 1, made);
                return i == 2 && rc == TREE_OK ? static_cast<int>(TREE_CLASH) : rc;
            });
        });
    }
    {
        std::lock_guard<std::mutex> lock(mutex);
        release = true;
    }
    cond.notify_all();
    holder.join();
    for (std::thread& t : changes) t.join();
    queue.Stop();

    EXPECT_EQ(results, (std::vector<int>{TREE_OK, TREE_OK, TREE_CLASH, TREE_OK}));
    std::set<uint64_t> ids;
    for (int i : {0, 1, 3}) {
        ServerObject obj;
        ASSERT_EQ(store.GetObject(user.view_id, "/d" + std::to_string(i), obj), 1);
        ids.insert(obj.sync_id);
    }
    ServerObject undone;
    EXPECT_EQ(store.GetObject(user.view_id, "/d2", undone), 0);
    EXPECT_EQ(ids, (std::set<uint64_t>{1, 2, 3}));
    EXPECT_EQ(store.LastSyncId(user.view_id), 3);
    EXPECT_GE(queue.stats().changes, 5u);
}

}  // namespace
