// The session table: the circular walk, copies, what Remove and Clear do with a
// session's objects, recycle times, and readers and writers on many threads.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <atomic>
#include <string>
#include <thread>
#include <vector>

#include "filter/black-list-v2.h"
#include "filter/white-list-cpp.h"
#include "runtime/registry.h"
#include "state/file-event-db.h"
#include "support/temp-dir.h"

namespace {

Registry::Entry MakeEntry(uint64_t id) {
    Registry::Entry entry;
    entry.sess_id = id;
    entry.view_id = id * 10;
    entry.node_id = id * 10;
    entry.local_path = ("/sync/" + std::to_string(id)).c_str();
    entry.pause = true;
    return entry;
}

bool Exists(const std::string& path) {
    struct stat st;
    return ::stat(path.c_str(), &st) == 0;
}

TEST(Registry, CircularWalk) {
    Registry table;
    Registry::Entry e;
    EXPECT_EQ(table.FindNext(0, e), 0);

    table.Set(MakeEntry(5));
    ASSERT_EQ(table.FindNext(5, e), 1);
    EXPECT_EQ(e.sess_id, 5u);
    ASSERT_EQ(table.FindNext(9, e), 1);
    EXPECT_EQ(e.sess_id, 5u);

    table.Clear();
    table.Set(MakeEntry(7));
    table.Set(MakeEntry(3));
    ASSERT_EQ(table.FindNext(4, e), 1);
    EXPECT_EQ(e.sess_id, 3u);  // an unknown id starts from the first, not the next
    ASSERT_EQ(table.FindNext(3, e), 1);
    EXPECT_EQ(e.sess_id, 7u);
    ASSERT_EQ(table.FindNext(7, e), 1);
    EXPECT_EQ(e.sess_id, 3u);

    table.Set(MakeEntry(11));
    std::vector<uint64_t> walk;
    ASSERT_EQ(table.FindNext(0, e), 1);
    const uint64_t first = e.sess_id;
    do {
        walk.push_back(e.sess_id);
        ASSERT_EQ(table.FindNext(e.sess_id, e), 1);
    } while (e.sess_id != first);
    EXPECT_EQ(walk, (std::vector<uint64_t>{3, 7, 11}));
    EXPECT_EQ(table.Size(), 3u);
}

TEST(Registry, EntriesAreCopies) {
    Registry table;
    table.Set(MakeEntry(1));
    Registry::Entry copy;
    ASSERT_EQ(table.Find(1, copy), 1);
    copy.pause = false;
    copy.local_path = "/elsewhere";
    Registry::Entry stored;
    ASSERT_EQ(table.Find(1, stored), 1);
    EXPECT_TRUE(stored.pause);
    EXPECT_EQ(stored.local_path, ustring("/sync/1"));

    table.Set(copy);
    EXPECT_EQ(stored.local_path, ustring("/sync/1"));  // an earlier copy keeps its values
    ASSERT_EQ(table.Find(1, stored), 1);
    EXPECT_FALSE(stored.pause);
    EXPECT_EQ(table.Find(2, stored), 0);

    stored.clear();
    EXPECT_EQ(stored.sess_id, 0u);
    EXPECT_TRUE(stored.local_path.empty());
    EXPECT_EQ(stored.event_db, nullptr);
}

TEST(Registry, RecycleTimeKeepsTheEarliest) {
    Registry table;
    Registry::Entry e = MakeEntry(4);
    table.Set(e);
    table.InitRecycleTime(e, 100);
    ASSERT_EQ(table.Find(4, e), 1);
    EXPECT_EQ(e.recycle_time, 100u);
    table.UpdateRecycleTime(e, 50);
    table.InitRecycleTime(e, 100);
    ASSERT_EQ(table.Find(4, e), 1);
    EXPECT_EQ(e.recycle_time, 50u);
    table.UpdateRecycleTime(e, 0);
    table.InitRecycleTime(e, 70);
    ASSERT_EQ(table.Find(4, e), 1);
    EXPECT_EQ(e.recycle_time, 70u);

    Registry::Entry gone = MakeEntry(99);
    table.UpdateRecycleTime(gone, 5);
    table.InitRecycleTime(gone, 5);
    EXPECT_EQ(table.Find(99, gone), 0);
}

// A session's objects: Remove lets them live on, Clear closes the database and frees all.
class RegistryObjects : public ::testing::Test {
  protected:
    Registry::Entry Session(uint64_t id) {
        const std::string db_path = dir / ("db" + std::to_string(id) + ".sqlite");
        Registry::Entry e = MakeEntry(id);
        e.event_db = new FileEventDB();
        EXPECT_EQ(e.event_db->initialize(db_path.c_str()), 0);
        ClientFileEventInfo row;
        row.path = "/f";
        row.updateClient = "c";
        EXPECT_EQ(e.event_db->setEventInfo(row), 0);
        e.black_list = new BlackList2();
        e.white_list = new WhiteListCpp();
        return e;
    }
    // An open database in WAL mode keeps its log file; the last close removes it.
    bool Open(uint64_t id) const {
        return Exists(dir / ("db" + std::to_string(id) + ".sqlite-wal"));
    }

    TempDir dir;
};

TEST_F(RegistryObjects, RemoveLeavesTheDatabaseOpenClearClosesIt) {
    Registry table;
    Registry::Entry one = Session(1);
    table.Set(one);
    table.Set(Session(2));
    table.Set(Session(3));

    table.Remove(1);
    EXPECT_EQ(table.Size(), 2u);
    EXPECT_TRUE(Open(1));
    uint64_t sync_id = 1;
    EXPECT_EQ(one.event_db->getSyncId(sync_id), 0);  // still ours to use
    one.event_db->destroy();
    delete one.event_db;
    delete one.white_list;
    delete one.black_list;

    table.Clear(2);
    EXPECT_FALSE(Open(2));
    EXPECT_TRUE(Open(3));
    table.Clear(2);  // absent: nothing happens
    table.Clear();
    EXPECT_FALSE(Open(3));
    EXPECT_EQ(table.Size(), 0u);
}

TEST(RegistryConcurrency, ReadersAlwaysSeeWholeEntries) {
    Registry table;
    std::atomic<bool> stop{false};
    std::atomic<long> torn{0};
    std::atomic<long> reads{0};

    // Every field of an entry written by a writer carries the same generation.
    auto writer = [&](uint64_t base) {
        for (uint64_t gen = 1; gen <= 3000; ++gen) {
            const uint64_t id = base + gen % 4;
            Registry::Entry e;
            e.sess_id = id;
            e.view_id = gen;
            e.node_id = gen;
            e.local_path = ("/sync/" + std::to_string(gen)).c_str();
            e.remote_path = ("/view/" + std::to_string(gen)).c_str();
            e.pause = gen % 2 == 0;
            table.Set(e);
            if (gen % 7 == 0) table.Remove(id);
            if (gen % 5 == 0) table.InitRecycleTime(e, static_cast<uint32_t>(gen));
        }
    };
    auto check = [&](const Registry::Entry& e) {
        const std::string gen = std::to_string(e.view_id);
        if (e.node_id != e.view_id || e.local_path.str() != "/sync/" + gen ||
            e.remote_path.str() != "/view/" + gen || e.pause != (e.view_id % 2 == 0)) {
            ++torn;
        }
        ++reads;
    };
    auto reader = [&] {
        Registry::Entry e;
        uint64_t cursor = 0;
        while (!stop.load()) {
            if (table.FindNext(cursor, e) == 1) {
                check(e);
                cursor = e.sess_id;
            }
            if (table.Find(101, e) == 1) check(e);
            table.Size();
        }
    };

    std::vector<std::thread> threads;
    threads.emplace_back(reader);
    threads.emplace_back(reader);
    std::thread w1(writer, 100), w2(writer, 200);
    w1.join();
    w2.join();
    stop = true;
    for (auto& t : threads) t.join();
    EXPECT_EQ(torn.load(), 0);
    EXPECT_GT(reads.load(), 0);
    table.Clear();
    EXPECT_EQ(table.Size(), 0u);
}

TEST(RegistryConcurrency, ClearWhileReadersWalk) {
    TempDir dir;
    Registry table;
    for (uint64_t id = 1; id <= 4; ++id) {
        Registry::Entry e = MakeEntry(id);
        e.event_db = new FileEventDB();
        ASSERT_EQ(e.event_db->initialize((dir / ("db" + std::to_string(id))).c_str()), 0);
        table.Set(e);
    }
    std::atomic<bool> stop{false};
    std::thread reader([&] {
        Registry::Entry e;
        while (!stop.load()) table.FindNext(0, e);
    });
    for (uint64_t id = 1; id <= 4; ++id) table.Clear(id);
    stop = true;
    reader.join();
    EXPECT_EQ(table.Size(), 0u);
}

TEST(Registry, OneProcessWideInstance) {
    EXPECT_EQ(&Registry::getInstance(), &Registry::getInstance());
}

}  // namespace
